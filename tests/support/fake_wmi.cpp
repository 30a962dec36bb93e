#include "tests/support/fake_wmi.h"

#include <gmock/gmock.h>

#include <deque>
#include <utility>

// wbemidl.h needs the COM interfaces that a lean windows.h leaves out.
#include <oleauto.h>
#include <wbemidl.h>

#if defined(__GNUC__) || defined(__clang__)
// COM interfaces have no destructor at all: they go by Release.
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
#endif

namespace {

std::string Utf8(std::wstring_view text) {
  const int length = static_cast<int>(text.size());
  const int size =
      WideCharToMultiByte(CP_UTF8, 0, text.data(), length, nullptr, 0, nullptr, nullptr);
  std::string result(static_cast<std::size_t>(size), '\0');
  WideCharToMultiByte(CP_UTF8, 0, text.data(), length, result.data(), size, nullptr, nullptr);
  return result;
}

// " [what]" when something is not as it must be.
std::string Unless(bool isRight, const char* what) {
  return isRight ? "" : std::string(" [") + what + "]";
}

// Not through this executable's import table, in which tests patch it for the product.
BSTR AllocateText(const std::wstring& text) {
  using Allocate = BSTR(WINAPI*)(const OLECHAR*, UINT);
  const auto allocate = reinterpret_cast<Allocate>(reinterpret_cast<void*>(
      GetProcAddress(GetModuleHandleW(L"oleaut32.dll"), "SysAllocStringLen")));
  return allocate(text.data(), static_cast<UINT>(text.size()));
}

// One interface that was given out.
struct Lent {
  std::string name;
  Lent* parent;  // what it was made through
  ULONG references;
};

}  // namespace

struct FakeWmi::State {
  FakeWmi* server = nullptr;
  IClassFactory* factory = nullptr;
  std::deque<FakeQuery> queries;
  std::deque<Lent> lent;
  // Kept to the end, so that a release too many does no harm.
  std::vector<std::shared_ptr<void>> interfaces;
  std::vector<BSTR> ownTexts;
  std::vector<std::string> journal;
  std::vector<std::string> problems;

  ~State() {
    for (BSTR text : ownTexts) {
      SysFreeString(text);
    }
  }

  // Makes an interface, lends it out and returns it with one reference.
  template <typename Class, typename... Args>
  Class* Lend(std::string name, Lent* parent, Args&&... args) {
    lent.push_back({std::move(name), parent, 1});
    auto made = std::make_shared<Class>(*this, lent.back(), std::forward<Args>(args)...);
    interfaces.push_back(made);
    return made.get();
  }
};

namespace {

using State = FakeWmi::State;

// IUnknown for all interfaces that are lent out.
template <typename Interface>
class FakeInterface : public Interface {
 public:
  FakeInterface(State& state, Lent& lent) : m_state(state), m_lent(lent) {}
  virtual ~FakeInterface() = default;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** result) override {
    *result = nullptr;
    if (iid != __uuidof(Interface) && iid != __uuidof(IUnknown)) {
      return E_NOINTERFACE;
    }
    AddRef();
    *result = static_cast<Interface*>(this);
    return S_OK;
  }

  ULONG STDMETHODCALLTYPE AddRef() override { return ++m_lent.references; }

  ULONG STDMETHODCALLTYPE Release() override {
    if (m_lent.references == 0) {
      m_state.problems.push_back(m_lent.name + " is released too often");
      return 0;
    }
    if (--m_lent.references == 0) {
      m_state.journal.push_back("release " + m_lent.name);
      if (m_lent.parent != nullptr && m_lent.parent->references == 0) {
        m_state.problems.push_back(m_lent.name + " is released after " + m_lent.parent->name);
      }
    }
    return m_lent.references;
  }

 protected:
  State& m_state;
  Lent& m_lent;
};

class FakeClassObject : public FakeInterface<IWbemClassObject> {
 public:
  FakeClassObject(State& state, Lent& lent, FakeObject object)
      : FakeInterface(state, lent), m_object(std::move(object)) {}

  HRESULT STDMETHODCALLTYPE Get(LPCWSTR name, LONG flags, VARIANT* value, CIMTYPE* type,
                                LONG* flavor) override {
    m_state.journal.push_back("Get " + Utf8(name) + " of " + m_lent.name +
                              Unless(flags == 0, "flags") + Unless(type == nullptr, "type") +
                              Unless(flavor == nullptr, "flavor") +
                              Unless(value->vt == VT_EMPTY, "no VariantInit"));
    const auto found = m_object.properties.find(name);
    if (found == m_object.properties.end()) {
      return static_cast<HRESULT>(WBEM_E_NOT_FOUND);
    }
    const FakeValue& property = found->second;
    switch (property.kind) {
      case FakeValue::Kind::Text:
        value->vt = VT_BSTR;
        value->bstrVal = AllocateText(property.text);
        break;
      case FakeValue::Kind::UntaggedText:
        value->bstrVal = AllocateText(property.text);
        m_state.ownTexts.push_back(value->bstrVal);
        break;
      case FakeValue::Kind::Null:
        value->vt = VT_NULL;
        break;
      case FakeValue::Kind::Failure:
        break;
    }
    return property.result;
  }

  HRESULT STDMETHODCALLTYPE GetQualifierSet(IWbemQualifierSet**) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE Put(LPCWSTR, LONG, VARIANT*, CIMTYPE) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE Delete(LPCWSTR) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetNames(LPCWSTR, LONG, VARIANT*, SAFEARRAY**) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE BeginEnumeration(LONG) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE Next(LONG, BSTR*, VARIANT*, CIMTYPE*, LONG*) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE EndEnumeration() override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetPropertyQualifierSet(LPCWSTR, IWbemQualifierSet**) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE Clone(IWbemClassObject**) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetObjectText(LONG, BSTR*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SpawnDerivedClass(LONG, IWbemClassObject**) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE SpawnInstance(LONG, IWbemClassObject**) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE CompareTo(LONG, IWbemClassObject*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetPropertyOrigin(LPCWSTR, BSTR*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE InheritsFrom(LPCWSTR) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetMethod(LPCWSTR, LONG, IWbemClassObject**,
                                      IWbemClassObject**) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE PutMethod(LPCWSTR, LONG, IWbemClassObject*,
                                      IWbemClassObject*) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE DeleteMethod(LPCWSTR) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE BeginMethodEnumeration(LONG) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE NextMethod(LONG, BSTR*, IWbemClassObject**,
                                       IWbemClassObject**) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE EndMethodEnumeration() override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetMethodQualifierSet(LPCWSTR, IWbemQualifierSet**) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE GetMethodOrigin(LPCWSTR, BSTR*) override { return E_NOTIMPL; }

 private:
  FakeObject m_object;
};

class FakeEnumerator : public FakeInterface<IEnumWbemClassObject> {
 public:
  FakeEnumerator(State& state, Lent& lent, FakeQuery query)
      : FakeInterface(state, lent), m_query(std::move(query)) {}

  HRESULT STDMETHODCALLTYPE Next(LONG timeout, ULONG count, IWbemClassObject** objects,
                                 ULONG* returned) override {
    m_state.journal.push_back("Next " + m_lent.name +
                              Unless(static_cast<DWORD>(timeout) == 0xFFFFFFFF, "timeout") +
                              Unless(count == 1, "count"));
    for (const Lent& lent : m_state.lent) {
      if (lent.parent == &m_lent && lent.references != 0) {
        m_state.problems.push_back(lent.name + " is held while the next one is fetched");
      }
    }
    *objects = nullptr;
    *returned = 0;
    if (m_position < m_query.objects.size()) {
      *objects = Lend(m_query.objects[m_position++]);
      *returned = 1;
      return WBEM_S_NO_ERROR;
    }
    if (m_query.end.givesObject) {
      *objects = Lend({"object behind the end", {}});
    }
    *returned = m_query.end.returned;
    return m_query.end.result;
  }

  HRESULT STDMETHODCALLTYPE Reset() override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE NextAsync(ULONG, IWbemObjectSink*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE Clone(IEnumWbemClassObject**) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE Skip(LONG, ULONG) override { return E_NOTIMPL; }

 private:
  IWbemClassObject* Lend(const FakeObject& object) {
    return m_state.Lend<FakeClassObject>(object.name, &m_lent, object);
  }

  FakeQuery m_query;
  std::size_t m_position = 0;
};

class FakeSecurity : public FakeInterface<IClientSecurity> {
 public:
  using FakeInterface::FakeInterface;

  HRESULT STDMETHODCALLTYPE SetBlanket(IUnknown*, DWORD authentication, DWORD authorization,
                                       OLECHAR* principal, DWORD level, DWORD impersonation,
                                       void* identity, DWORD capabilities) override {
    m_state.journal.push_back(
        "SetBlanket" + Unless(authentication == 10, "authentication") +
        Unless(authorization == 0, "authorization") + Unless(principal == nullptr, "principal") +
        Unless(level == 3, "level") + Unless(impersonation == 3, "impersonation") +
        Unless(identity == nullptr, "identity") + Unless(capabilities == 0, "capabilities"));
    return m_state.server->blanketResult;
  }

  HRESULT STDMETHODCALLTYPE QueryBlanket(IUnknown*, DWORD*, DWORD*, OLECHAR**, DWORD*, DWORD*,
                                         void**, DWORD*) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE CopyProxy(IUnknown*, IUnknown**) override { return E_NOTIMPL; }

  // COM's own use of it is not the product's.
  ULONG STDMETHODCALLTYPE Release() override { return --m_lent.references; }
};

class FakeServices : public FakeInterface<IWbemServices> {
 public:
  FakeServices(State& state, Lent& lent, std::wstring namespacePath)
      : FakeInterface(state, lent), m_namespacePath(std::move(namespacePath)) {}

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** result) override {
    if (iid == __uuidof(IClientSecurity)) {
      *result = m_state.Lend<FakeSecurity>("security", nullptr);
      return S_OK;
    }
    return FakeInterface::QueryInterface(iid, result);
  }

  HRESULT STDMETHODCALLTYPE ExecQuery(const BSTR language, const BSTR text, LONG flags,
                                      IWbemContext* context,
                                      IEnumWbemClassObject** result) override {
    *result = nullptr;
    const FakeQuery* const query = Find(text);
    m_state.journal.push_back("ExecQuery " + (query != nullptr ? query->name : Utf8(text)) +
                              Unless(std::wstring_view(language) == L"WQL", "language") +
                              Unless(flags == 0x30, "flags") +
                              Unless(context == nullptr, "context"));
    if (query == nullptr) {
      return static_cast<HRESULT>(WBEM_E_INVALID_CLASS);
    }
    if (SUCCEEDED(query->result) && !query->givesNothing) {
      *result = m_state.Lend<FakeEnumerator>(query->name, &m_lent, *query);
    }
    return query->result;
  }

  HRESULT STDMETHODCALLTYPE OpenNamespace(const BSTR, LONG, IWbemContext*, IWbemServices**,
                                          IWbemCallResult**) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE CancelAsyncCall(IWbemObjectSink*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE QueryObjectSink(LONG, IWbemObjectSink**) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetObject(const BSTR, LONG, IWbemContext*, IWbemClassObject**,
                                      IWbemCallResult**) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE GetObjectAsync(const BSTR, LONG, IWbemContext*,
                                           IWbemObjectSink*) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE PutClass(IWbemClassObject*, LONG, IWbemContext*,
                                     IWbemCallResult**) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE PutClassAsync(IWbemClassObject*, LONG, IWbemContext*,
                                          IWbemObjectSink*) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE DeleteClass(const BSTR, LONG, IWbemContext*,
                                        IWbemCallResult**) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE DeleteClassAsync(const BSTR, LONG, IWbemContext*,
                                             IWbemObjectSink*) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE CreateClassEnum(const BSTR, LONG, IWbemContext*,
                                            IEnumWbemClassObject**) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE CreateClassEnumAsync(const BSTR, LONG, IWbemContext*,
                                                 IWbemObjectSink*) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE PutInstance(IWbemClassObject*, LONG, IWbemContext*,
                                        IWbemCallResult**) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE PutInstanceAsync(IWbemClassObject*, LONG, IWbemContext*,
                                             IWbemObjectSink*) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE DeleteInstance(const BSTR, LONG, IWbemContext*,
                                           IWbemCallResult**) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE DeleteInstanceAsync(const BSTR, LONG, IWbemContext*,
                                                IWbemObjectSink*) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE CreateInstanceEnum(const BSTR, LONG, IWbemContext*,
                                               IEnumWbemClassObject**) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE CreateInstanceEnumAsync(const BSTR, LONG, IWbemContext*,
                                                    IWbemObjectSink*) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE ExecQueryAsync(const BSTR, const BSTR, LONG, IWbemContext*,
                                           IWbemObjectSink*) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE ExecNotificationQuery(const BSTR, const BSTR, LONG, IWbemContext*,
                                                  IEnumWbemClassObject**) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE ExecNotificationQueryAsync(const BSTR, const BSTR, LONG, IWbemContext*,
                                                       IWbemObjectSink*) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE ExecMethod(const BSTR, const BSTR, LONG, IWbemContext*,
                                       IWbemClassObject*, IWbemClassObject**,
                                       IWbemCallResult**) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE ExecMethodAsync(const BSTR, const BSTR, LONG, IWbemContext*,
                                            IWbemClassObject*, IWbemObjectSink*) override {
    return E_NOTIMPL;
  }

 private:
  const FakeQuery* Find(const BSTR text) const {
    for (const FakeQuery& query : m_state.queries) {
      if (query.namespacePath == m_namespacePath && query.text == text) {
        return &query;
      }
    }
    return nullptr;
  }

  std::wstring m_namespacePath;
};

class FakeLocator : public FakeInterface<IWbemLocator> {
 public:
  using FakeInterface::FakeInterface;

  HRESULT STDMETHODCALLTYPE ConnectServer(const BSTR path, const BSTR user, const BSTR password,
                                          const BSTR locale, LONG flags, const BSTR authority,
                                          IWbemContext* context, IWbemServices** result) override {
    *result = nullptr;
    m_state.journal.push_back("ConnectServer " + Utf8(path) + Unless(user == nullptr, "user") +
                              Unless(password == nullptr, "password") +
                              Unless(locale == nullptr, "locale") + Unless(flags == 0x80, "flags") +
                              Unless(authority == nullptr, "authority") +
                              Unless(context == nullptr, "context"));
    const auto ofNamespace = m_state.server->connectResults.find(path);
    const HRESULT connectResult = ofNamespace != m_state.server->connectResults.end()
                                      ? ofNamespace->second
                                      : m_state.server->connectResult;
    if (SUCCEEDED(connectResult) && !m_state.server->connectGivesNothing) {
      *result = m_state.Lend<FakeServices>("services", &m_lent, path);
    }
    return connectResult;
  }
};

class FakeFactory : public FakeInterface<IClassFactory> {
 public:
  using FakeInterface::FakeInterface;

  HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID iid, void** result) override {
    *result = nullptr;
    m_state.journal.push_back("create locator" + Unless(outer == nullptr, "outer") +
                              Unless(iid == __uuidof(IWbemLocator), "interface"));
    if (SUCCEEDED(m_state.server->locatorResult)) {
      *result = m_state.Lend<FakeLocator>("locator", nullptr);
    }
    return m_state.server->locatorResult;
  }
  HRESULT STDMETHODCALLTYPE LockServer(BOOL) override { return S_OK; }

  // Held by COM until the class is revoked.
  ULONG STDMETHODCALLTYPE Release() override { return --m_lent.references; }
};

}  // namespace

FakeValue Text(std::wstring text) { return {FakeValue::Kind::Text, std::move(text), S_OK}; }

FakeValue UntaggedText(std::wstring text) {
  return {FakeValue::Kind::UntaggedText, std::move(text), S_OK};
}

FakeValue Null() { return {FakeValue::Kind::Null, {}, S_OK}; }

FakeValue Fails(HRESULT result) { return {FakeValue::Kind::Failure, {}, result}; }

FakeWmi::FakeWmi(DWORD apartment) : m_state(std::make_unique<State>()) {
  m_state->server = this;
  EXPECT_EQ(CoInitializeEx(nullptr, apartment), S_OK);
  m_state->factory = m_state->Lend<FakeFactory>("class factory", nullptr);
  EXPECT_EQ(CoRegisterClassObject(CLSID_WbemLocator, m_state->factory, CLSCTX_INPROC_SERVER,
                                  REGCLS_MULTIPLEUSE, &m_registration),
            S_OK);
}

FakeWmi::~FakeWmi() {
  CoRevokeClassObject(m_registration);
  m_state->factory->Release();
  CoUninitialize();
}

void FakeWmi::Add(FakeQuery query) { m_state->queries.push_back(std::move(query)); }

FakeQuery& FakeWmi::Query(const std::string& name) {
  for (FakeQuery& query : m_state->queries) {
    if (query.name == name) {
      return query;
    }
  }
  throw std::out_of_range(name);
}

std::vector<std::string> FakeWmi::Journal() const { return m_state->journal; }

void FakeWmi::Note(std::string line) { m_state->journal.push_back(std::move(line)); }

std::vector<std::string> FakeWmi::Problems() const {
  std::vector<std::string> problems = m_state->problems;
  for (const Lent& lent : m_state->lent) {
    if (lent.references != 0 && lent.name != "class factory") {
      problems.push_back(lent.name + " is still held");
    }
  }
  return problems;
}

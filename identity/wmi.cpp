#include "identity/wmi.h"

#include <comdef.h>

namespace {

BSTR Allocated(BSTR text) {
  if (text == nullptr) {
    throw _com_error(E_OUTOFMEMORY);
  }
  return text;
}

class Variant {
 public:
  Variant() noexcept { VariantInit(&m_value); }
  ~Variant() { VariantClear(&m_value); }
  Variant(const Variant&) = delete;
  Variant& operator=(const Variant&) = delete;

  VARIANT* Receive() noexcept { return &m_value; }
  // Does not look at the type tag. A property that WMI leaves null gives null; one that is no text
  // must not be asked for.
  BSTR Text() const noexcept { return m_value.bstrVal; }

 private:
  VARIANT m_value{};
};

}  // namespace

Bstr::Bstr(std::wstring_view text)
    : m_text(Allocated(SysAllocStringLen(text.data(), static_cast<UINT>(text.size())))) {}

Bstr::Bstr(const char* text) {
  const int size =
      MultiByteToWideChar(CP_ACP, 0, text, -1, /*lpWideCharStr=*/nullptr, /*cchWideChar=*/0);
  const int length = size > 0 ? size - 1 : 0;
  m_text.Reset(Allocated(SysAllocStringLen(nullptr, static_cast<UINT>(length))));
  MultiByteToWideChar(CP_ACP, 0, text, length, m_text.Get(), length);
}

const char* Bstr::Narrow() {
  const std::wstring_view text = View();
  if (m_narrow.empty() && !text.empty()) {
    const int length = static_cast<int>(text.size());
    const int size = WideCharToMultiByte(CP_ACP, 0, text.data(), length, /*lpMultiByteStr=*/nullptr,
                                         /*cbMultiByte=*/0, /*lpDefaultChar=*/nullptr,
                                         /*lpUsedDefaultChar=*/nullptr);
    m_narrow.resize(static_cast<std::size_t>(size));
    WideCharToMultiByte(CP_ACP, 0, text.data(), length, m_narrow.data(), size,
                        /*lpDefaultChar=*/nullptr, /*lpUsedDefaultChar=*/nullptr);
  }
  return m_narrow.c_str();
}

bool WmiConnection::Open(const wchar_t* namespacePath) {
  HRESULT result =
      CoCreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER, IID_IWbemLocator,
                       reinterpret_cast<void**>(m_locator.Receive()));
  if (FAILED(result) || !m_locator) {
    m_lastError.RecordFailure(result, kStageLocator);
    return false;
  }

  result = m_locator.Get()->ConnectServer(Bstr(namespacePath).Get(), nullptr, nullptr, nullptr,
                                          WBEM_FLAG_CONNECT_USE_MAX_WAIT, nullptr, nullptr,
                                          m_services.Receive());
  if (FAILED(result) || !m_services) {
    m_lastError.RecordFailure(result, kStageConnect);
    return false;
  }

  result =
      CoSetProxyBlanket(m_services.Get(), RPC_C_AUTHN_WINNT, RPC_C_AUTHZ_NONE, nullptr,
                        RPC_C_AUTHN_LEVEL_CALL, RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE);
  return m_lastError.Check(result, kStageOther);
}

WmiResult WmiConnection::Query(const Bstr& text) {
  WmiResult found;
  const HRESULT result = m_services.Get()->ExecQuery(
      Bstr("WQL").Get(), text.Get(), WBEM_FLAG_FORWARD_ONLY | WBEM_FLAG_RETURN_IMMEDIATELY, nullptr,
      found.Receive());
  if (FAILED(result) || !found) {
    m_lastError.RecordFailure(result, kStageQuery);
    return {};
  }
  return found;
}

WmiObject WmiConnection::Next(const WmiResult& result) {
  WmiObject object;
  ULONG returned = 0;
  const HRESULT outcome =
      result.Get()->Next(static_cast<LONG>(WBEM_INFINITE), 1, object.Receive(), &returned);
  if (outcome != WBEM_S_NO_ERROR || returned == 0 || !object) {
    m_lastError.RecordFailure(outcome, kStageNext);
    return {};
  }
  return object;
}

Bstr WmiConnection::Read(const WmiObject& object, const wchar_t* property) {
  Variant value;
  const HRESULT result = object.Get()->Get(property, /*lFlags=*/0, value.Receive(),
                                           /*pType=*/nullptr, /*plFlavor=*/nullptr);
  if (FAILED(result) || value.Text() == nullptr) {
    m_lastError.RecordFailure(result, kStageProperty);
    return {};
  }
  return Bstr(std::wstring_view(value.Text(), SysStringLen(value.Text())));
}

// A WMI server inside the test process, found by the product's own CoCreateInstance. It serves
// objects from tables, fails where the test says, and keeps a journal of every call and release.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "support/windows_api.h"

// COM is left out of the lean windows.h.
#include <objbase.h>

// What IWbemClassObject::Get gives for one property.
struct FakeValue {
  enum class Kind { Text, Null, Failure, UntaggedText };

  Kind kind = Kind::Null;
  std::wstring text;
  HRESULT result = S_OK;
};

// A text; one in a VARIANT whose tag says that it is empty; VT_NULL; a failed Get.
FakeValue Text(std::wstring text);
FakeValue UntaggedText(std::wstring text);
FakeValue Null();
FakeValue Fails(HRESULT result);

// `name` is for the journal. A property that is not in the table fails with WBEM_E_NOT_FOUND.
struct FakeObject {
  std::string name;
  std::map<std::wstring, FakeValue> properties;
};

// What Next answers after the last object.
struct FakeEnd {
  HRESULT result = 1;  // WBEM_S_FALSE
  ULONG returned = 0;
  bool givesObject = false;
};

// A query that the server knows. `name` is for the journal.
struct FakeQuery {
  std::string name;
  std::wstring namespacePath;
  std::wstring text;
  std::vector<FakeObject> objects;
  FakeEnd end;
  HRESULT result = S_OK;      // of ExecQuery; no enumerator when it is a failure
  bool givesNothing = false;  // success without an enumerator
};

// While one lives, this thread is in the apartment given, and WMI is this server.
class FakeWmi {
 public:
  explicit FakeWmi(DWORD apartment = COINIT_MULTITHREADED);
  ~FakeWmi();
  FakeWmi(const FakeWmi&) = delete;
  FakeWmi& operator=(const FakeWmi&) = delete;

  // A query that is not known fails with WBEM_E_INVALID_CLASS.
  void Add(FakeQuery query);
  FakeQuery& Query(const std::string& name);

  // Results of the steps before a query: creating the locator, connecting (also for one namespace
  // only, or as a success without services), the proxy blanket.
  HRESULT locatorResult = S_OK;
  HRESULT connectResult = S_OK;
  std::map<std::wstring, HRESULT> connectResults;
  bool connectGivesNothing = false;
  HRESULT blanketResult = S_OK;

  // Every call in order, such as "ExecQuery products" or "release products"; an argument that is
  // not as it must be follows it in brackets.
  std::vector<std::string> Journal() const;
  void Note(std::string line);

  // What is wrong at the end: interfaces that are still held, were released too often, or before
  // something that was made through them.
  std::vector<std::string> Problems() const;

  struct State;

 private:
  std::unique_ptr<State> m_state;
  DWORD m_registration = 0;
};

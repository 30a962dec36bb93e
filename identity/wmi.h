// One WMI query, from locator to released objects. COM must be set up on the calling thread, which
// is the only one to use what is made here.
#pragma once

#include <string>
#include <string_view>

#include "identity/fingerprintstatus.h"
#include "support/handle.h"
#include "support/windows_api.h"

// wbemidl.h needs the COM interfaces that a lean windows.h leaves out.
#include <objbase.h>
#include <oleauto.h>
#include <wbemidl.h>

struct BstrTraits {
  using Type = BSTR;
  static Type Invalid() noexcept { return nullptr; }
  static void Close(Type text) noexcept { SysFreeString(text); }
};

// Owns a BSTR. The constructors that make one throw _com_error(E_OUTOFMEMORY) when there is no
// memory for it.
class Bstr {
 public:
  Bstr() noexcept = default;
  explicit Bstr(std::wstring_view text);
  // From text in the ANSI code page.
  explicit Bstr(const char* text);

  // Whether there is a text at all, be it an empty one.
  explicit operator bool() const noexcept { return static_cast<bool>(m_text); }
  BSTR Get() const noexcept { return m_text.Get(); }
  // The whole length, null characters included.
  std::wstring_view View() const noexcept { return {Get(), SysStringLen(Get())}; }
  // The text in the ANSI code page, converted once; lives as long as this object.
  const char* Narrow();

 private:
  UniqueHandle<BstrTraits> m_text;
  std::string m_narrow;
};

template <typename Interface>
struct ComTraits {
  using Type = Interface*;
  static Type Invalid() noexcept { return nullptr; }
  static void Close(Type pointer) noexcept { pointer->Release(); }
};

using WmiResult = UniqueHandle<ComTraits<IEnumWbemClassObject>>;
using WmiObject = UniqueHandle<ComTraits<IWbemClassObject>>;

// A connection to one namespace under the caller's own credentials, and the queries through it.
// Every step that fails is offered to `lastError` with its stage. A result must be gone before its
// connection, and an object before the next one is fetched: the callers' scopes see to it.
class WmiConnection {
 public:
  explicit WmiConnection(FingerprintStatus& lastError) noexcept : m_lastError(lastError) {}

  bool Open(const wchar_t* namespacePath);

  // Runs a WQL query; empty when that fails.
  WmiResult Query(const Bstr& text);

  // The next object of a query, waiting for it as long as it takes. Empty at the end, which is
  // recorded as well.
  WmiObject Next(const WmiResult& result);

  // A text property; empty when it cannot be read or has no value. Throws as Bstr.
  Bstr Read(const WmiObject& object, const wchar_t* property);

 private:
  FingerprintStatus& m_lastError;
  // In this order, so that the services are released before the locator.
  UniqueHandle<ComTraits<IWbemLocator>> m_locator;
  UniqueHandle<ComTraits<IWbemServices>> m_services;
};

constexpr wchar_t kCimV2[] = L"ROOT\\CIMV2";
constexpr wchar_t kStandardCimV2[] = L"ROOT\\StandardCIMV2";

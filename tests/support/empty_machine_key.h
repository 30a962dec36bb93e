// A registry of the test's own.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "support/handle.h"

// Everything below HKEY_LOCAL_MACHINE comes from an empty key for as long as this lives, in this
// process only.
class EmptyMachineKey {
 public:
  EmptyMachineKey() : m_path(L"Software\\vorltest_" + std::to_wstring(GetCurrentProcessId())) {
    RegCreateKeyExW(HKEY_CURRENT_USER, m_path.c_str(), 0, nullptr, REG_OPTION_VOLATILE,
                    KEY_ALL_ACCESS, nullptr, m_key.Receive(), nullptr);
    EXPECT_EQ(RegOverridePredefKey(HKEY_LOCAL_MACHINE, m_key.Get()), ERROR_SUCCESS);
  }
  ~EmptyMachineKey() {
    RegOverridePredefKey(HKEY_LOCAL_MACHINE, nullptr);
    RegDeleteTreeW(HKEY_CURRENT_USER, m_path.c_str());
  }
  EmptyMachineKey(const EmptyMachineKey&) = delete;
  EmptyMachineKey& operator=(const EmptyMachineKey&) = delete;

  // A value of the installer's key.
  static void SetValue(const wchar_t* name, DWORD type, const void* data, std::size_t size) {
    RegistryKey key;
    RegCreateKeyExW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Client Agent\\1", 0, nullptr,
                    REG_OPTION_VOLATILE, KEY_ALL_ACCESS, nullptr, key.Receive(), nullptr);
    EXPECT_EQ(RegSetValueExW(key.Get(), name, 0, type, static_cast<const BYTE*>(data),
                             static_cast<DWORD>(size)),
              ERROR_SUCCESS);
  }
  static void SetText(const wchar_t* name, const std::wstring& text, DWORD type = REG_SZ) {
    SetValue(name, type, text.c_str(), (text.size() + 1) * sizeof(wchar_t));
  }

 private:
  std::wstring m_path;
  RegistryKey m_key;
};

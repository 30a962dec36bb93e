#include "tools/vorlsetup/setuplog.h"

// msiquery.h reads the types of msi.h.
#include <msiquery.h>

void SetupLog::Info(const std::wstring& text) const { Tell(INSTALLMESSAGE_INFO, text); }

void SetupLog::Error(const std::wstring& text) const {
  Tell(INSTALLMESSAGE_ERROR | MB_OK | MB_ICONERROR, text);
}

void SetupLog::Error(const std::wstring& text, DWORD error) const {
  Error(text + L" (error " + std::to_wstring(error) + L")");
}

void SetupLog::Tell(int kind, const std::wstring& text) const {
  const MSIHANDLE record = MsiCreateRecord(1);
  if (record == 0) {
    return;
  }
  // The text is a value, not the format: it may hold brackets.
  MsiRecordSetStringW(record, 0, L"[1]");
  MsiRecordSetStringW(record, 1, text.c_str());
  MsiProcessMessage(m_installation, static_cast<INSTALLMESSAGE>(kind), record);
  MsiCloseHandle(record);
}

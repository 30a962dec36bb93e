#include "tools/vorldiag/documents/documents.h"

#include <algorithm>

#include "support/windows_api.h"

std::string Document(const wchar_t* name) {
  // 10: RT_RCDATA, whose macro follows the character set.
  const HRSRC place = FindResourceW(nullptr, name, MAKEINTRESOURCEW(10));
  const HGLOBAL resource = place != nullptr ? LoadResource(nullptr, place) : nullptr;
  if (resource == nullptr) {
    return "";
  }
  std::string text(static_cast<const char*>(LockResource(resource)),
                   SizeofResource(nullptr, place));
  text.erase(std::remove(text.begin(), text.end(), '\r'), text.end());
  return text;
}

#include "samples/helper/notification.h"

#include <algorithm>
#include <cstring>

namespace {

const wchar_t* ActionWords(std::uint32_t actionCode) noexcept {
  switch (actionCode) {
    case kHelperActionStopping:
      return L"about to be stopped";
    case kHelperActionStopped:
      return L"stop carried out";
    case kHelperActionUninstalling:
      return L"about to be uninstalled";
    default:
      return L"unknown action";
  }
}

// Undoes what the sender did to the body and gives the sum of the restored bytes.
std::uint32_t Unscramble(RequestBytes& body, std::uint32_t checksum) noexcept {
  const auto mask = static_cast<std::uint8_t>(checksum & 0xFFU);
  std::uint32_t sum = 0;
  for (std::uint8_t& byte : body) {
    const unsigned swapped = static_cast<unsigned>(byte) ^ mask;
    byte = static_cast<std::uint8_t>(((swapped << 4) | (swapped >> 4)) & 0xFFU);
    sum += byte;
  }
  return sum;
}

bool IsControl(wchar_t character) noexcept {
  return character < L' ' || (character >= 0x7F && character < 0xA0) || character == 0x2028 ||
         character == 0x2029;
}

}  // namespace

Refusal CheckHeader(const HelperPipeHeader& header) noexcept {
  if (header.code != kHelperMessageService) {
    return L"unknown message code";
  }
  if (header.length != sizeof(HelperPipeRequest)) {
    return L"wrong length";
  }
  return nullptr;
}

Refusal Decode(const HelperPipeHeader& header, RequestBytes& body, Notification& notification) {
  if (Unscramble(body, header.checksum) != header.checksum) {
    return L"wrong checksum";
  }
  HelperPipeRequest request;
  std::memcpy(&request, body.data(), sizeof(request));
  const auto end = std::find(std::begin(request.serviceName), std::end(request.serviceName), L'\0');
  if (end == std::end(request.serviceName)) {
    return L"service name without end";
  }
  notification.serviceName.assign(std::begin(request.serviceName), end);
  notification.actionCode = request.actionCode;
  notification.flag = request.flag;
  return nullptr;
}

std::wstring Describe(const Notification& notification) {
  std::wstring name = notification.serviceName;
  std::replace_if(name.begin(), name.end(), IsControl, L'?');
  return L"\"" + name + L"\": " + ActionWords(notification.actionCode) + L" (action " +
         std::to_wstring(notification.actionCode) + L", flag " +
         std::to_wstring(notification.flag) + L")";
}

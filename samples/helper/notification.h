// Reads and checks what the service's commands tell the helper.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "service/helperpipe.h"

// The body of a request as it arrives.
using RequestBytes = std::array<std::uint8_t, sizeof(HelperPipeRequest)>;

// What the service tells about itself.
struct Notification {
  std::wstring serviceName;  // empty when the flag is set
  std::uint32_t actionCode = 0;
  std::uint8_t flag = 0;
};

// Why a request was refused, in words; null when it was not.
using Refusal = const wchar_t*;

// Whether a body of the expected kind follows this header.
Refusal CheckHeader(const HelperPipeHeader& header) noexcept;

// Unscrambles `body` in place and fills `notification`, which a refusal leaves as it was.
Refusal Decode(const HelperPipeHeader& header, RequestBytes& body, Notification& notification);

// The notification in one line of text, without line end. The client chooses the name, so control
// characters in it appear as question marks.
std::wstring Describe(const Notification& notification);

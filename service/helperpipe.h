// Tells the installation's helper process, over its named pipe, what is about to happen to the
// service. One connection serves one request and one reply. Nothing here writes a trace line.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr char kHelperPipeName[] = R"(\\.\pipe\briskuphelperpipe)";

// What happens to the service.
constexpr std::uint32_t kHelperActionStopping = 1;
// Sent whether or not the stop succeeded.
constexpr std::uint32_t kHelperActionStopped = 2;
constexpr std::uint32_t kHelperActionUninstalling = 5;

// The message code of every request.
constexpr std::uint32_t kHelperMessageService = 15;

constexpr std::size_t kHelperServiceNameSize = 260;

#pragma pack(push, 1)

// Sent first, in the clear.
struct HelperPipeHeader {
  std::uint32_t code;
  std::uint32_t length;    // of the body, in bytes
  std::uint32_t checksum;  // sum of the body's bytes before scrambling
};

// The body, sent scrambled.
struct HelperPipeRequest {
  wchar_t serviceName[kHelperServiceNameSize];
  std::uint32_t actionCode;
  std::uint8_t flag;
};

#pragma pack(pop)

static_assert(sizeof(HelperPipeHeader) == 12);
static_assert(sizeof(HelperPipeRequest) == 525);
static_assert(offsetof(HelperPipeRequest, actionCode) == 520);
static_assert(offsetof(HelperPipeRequest, flag) == 524);

// Sends one message and gives the reply, or 0 on any failure. `body` (`length` bytes) is scrambled
// in place and is of no use afterwards. Waits while the pipe is busy.
std::uint32_t SendHelperPipeMessage(std::uint32_t code, std::uint8_t* body, std::uint32_t length);

// Tells the helper about `serviceName`, which must be shorter than 260 characters. With a `flag`
// other than 0 the name is left out and may be null. Gives the reply, or 0 on any failure.
std::uint32_t NotifyHelperPipe(const wchar_t* serviceName, std::uint32_t actionCode,
                               std::uint8_t flag);

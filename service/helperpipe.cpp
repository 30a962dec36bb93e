#include "service/helperpipe.h"

#include <numeric>

#include "support/handle.h"
#include "support/windows_api.h"

namespace {

constexpr std::size_t kPipeNameSize = 50;
constexpr DWORD kBusyPipeWaitMilliseconds = 20000;

FileHandle OpenPipe(const char* pipeName) {
  return FileHandle(CreateFileA(pipeName, GENERIC_READ | GENERIC_WRITE, /*dwShareMode=*/0,
                                /*lpSecurityAttributes=*/nullptr, OPEN_EXISTING,
                                /*dwFlagsAndAttributes=*/0, /*hTemplateFile=*/nullptr));
}

// Waits as long as other clients keep the pipe busy.
FileHandle Connect(const char* pipeName) {
  FileHandle pipe = OpenPipe(pipeName);
  while (!pipe) {
    if (GetLastError() != ERROR_PIPE_BUSY || !WaitNamedPipeA(pipeName, kBusyPipeWaitMilliseconds)) {
      break;
    }
    pipe = OpenPipe(pipeName);
  }
  return pipe;
}

std::uint32_t Checksum(const std::uint8_t* body, std::uint32_t length) {
  return std::accumulate(body, body + length, std::uint32_t{0});
}

// To undo it: the same exclusive or first, then the same exchange of halves.
void Scramble(std::uint8_t* body, std::uint32_t length, std::uint32_t checksum) {
  for (std::uint32_t i = 0; i < length; ++i) {
    const unsigned byte = body[i];
    const unsigned exchanged = (byte << 4U) | (byte >> 4U);
    body[i] = static_cast<std::uint8_t>((exchanged ^ checksum) & 0xFFU);
  }
}

bool Write(const FileHandle& pipe, const void* data, DWORD length) {
  DWORD written = 0;
  return WriteFile(pipe.Get(), data, length, &written, /*lpOverlapped=*/nullptr) &&
         written == length;
}

}  // namespace

std::uint32_t SendHelperPipeMessage(std::uint32_t code, std::uint8_t* body, std::uint32_t length) {
  if (body == nullptr) {
    return 0;
  }
  static_assert(sizeof(kHelperPipeName) <= kPipeNameSize);
  char szPipeName[kPipeNameSize];
  static_cast<void>(StringCchCopyA(szPipeName, kPipeNameSize, kHelperPipeName));
  const FileHandle pipe = Connect(szPipeName);
  if (!pipe) {
    return 0;
  }

  const HelperPipeHeader header{code, length, Checksum(body, length)};
  Scramble(body, length, header.checksum);
  if (!Write(pipe, &header, sizeof(header)) || !Write(pipe, body, length)) {
    return 0;
  }

  std::uint32_t reply = 0;
  DWORD read = 0;
  if (!ReadFile(pipe.Get(), &reply, sizeof(reply), &read, /*lpOverlapped=*/nullptr) || read == 0) {
    return 0;
  }
  return reply;
}

std::uint32_t NotifyHelperPipe(const wchar_t* serviceName, std::uint32_t actionCode,
                               std::uint8_t flag) {
  if (serviceName == nullptr && flag == 0) {
    return 0;
  }
  HelperPipeRequest request{};
  if (flag == 0 &&
      FAILED(StringCchCopyW(request.serviceName, kHelperServiceNameSize, serviceName))) {
    return 0;
  }
  request.actionCode = actionCode;
  request.flag = flag;
  return SendHelperPipeMessage(kHelperMessageService, reinterpret_cast<std::uint8_t*>(&request),
                               sizeof(request));
}

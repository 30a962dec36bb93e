#include "companions/vlevtlog/back_off.h"

#include "support/handle.h"

namespace {

constexpr ULONGLONG kClosedMilliseconds = 100;
constexpr std::uint64_t kOwn = 0;
constexpr std::uint64_t kUnknown = static_cast<std::uint64_t>(-1);

// The logon session of the user in whose name the calling thread acts; kOwn when it is the
// process's.
std::uint64_t CurrentIdentity() noexcept {
  HANDLE opened = nullptr;
  if (!OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, &opened)) {
    return GetLastError() == ERROR_NO_TOKEN ? kOwn : kUnknown;
  }
  const KernelHandle token(opened);
  TOKEN_STATISTICS statistics;
  DWORD size = 0;
  if (!GetTokenInformation(token.Get(), TokenStatistics, &statistics, sizeof statistics, &size)) {
    return kUnknown;
  }
  const LUID session = statistics.AuthenticationId;
  const std::uint64_t identity =
      (std::uint64_t{static_cast<DWORD>(session.HighPart)} << 32) | session.LowPart;
  // Wine numbers no sessions.
  return identity != kOwn ? identity : kUnknown;
}

}  // namespace

TraceFileResult BackOff::PendingFor(ULONGLONG now) const noexcept {
  const std::uint64_t identity = CurrentIdentity();
  const Door& door = identity == kOwn ? m_own : m_borrowed;
  const bool isClosed = door.identity.load(std::memory_order_acquire) == identity &&
                        now < door.until.load(std::memory_order_relaxed);
  return isClosed ? door.why.load(std::memory_order_relaxed) : TraceFileResult{};
}

void BackOff::Begin(const TraceFileResult& why) noexcept {
  const std::uint64_t identity = CurrentIdentity();
  Door& door = identity == kOwn ? m_own : m_borrowed;
  door.why.store(why, std::memory_order_relaxed);
  door.until.store(GetTickCount64() + kClosedMilliseconds, std::memory_order_relaxed);
  door.identity.store(identity, std::memory_order_release);
}

// The server in the helper, where a test must decide when it stops, and what ends it.
#include <gmock/gmock.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "samples/helper/consolestop.h"
#include "samples/helper/pipeserver.h"
#include "tests/support/import_patch.h"
#include "tests/unit/vorlhelper_test.h"

using ::testing::ElementsAre;

namespace {

// Controls need a console, which not every machine that runs tests has. So they are brought by the
// test, to the function that Windows was given for them; how the server stops is tested below.
class ConsoleControls : public ::testing::Test {
 protected:
  std::vector<std::string> m_calls;
  PHANDLER_ROUTINE m_handler = nullptr;
  DWORD m_error = ERROR_SUCCESS;  // other: no handler is taken

 private:
  const CallPatch<ConsoleControls, BOOL WINAPI(PHANDLER_ROUTINE, BOOL)> m_setHandler{
      "KERNEL32.dll", "SetConsoleCtrlHandler", [this](PHANDLER_ROUTINE handler, BOOL isAdded) {
        m_calls.push_back(isAdded ? "add" : handler == m_handler ? "remove" : "remove another");
        m_handler = handler;
        SetLastError(m_error);
        return static_cast<BOOL>(m_error == ERROR_SUCCESS);
      }};
};

TEST_F(ConsoleControls, EveryOneSetsTheEventAndIsHandled) {
  for (const int control :
       {CTRL_C_EVENT, CTRL_BREAK_EVENT, CTRL_CLOSE_EVENT, CTRL_LOGOFF_EVENT, CTRL_SHUTDOWN_EVENT}) {
    m_calls.clear();
    {
      const ConsoleStop stop;
      ASSERT_NE(stop.Event(), nullptr);
      EXPECT_EQ(WaitForSingleObject(stop.Event(), 0), DWORD{WAIT_TIMEOUT});
      EXPECT_NE(m_handler(static_cast<DWORD>(control)), FALSE);
      // Twice: it stays set.
      EXPECT_EQ(WaitForSingleObject(stop.Event(), 0), WAIT_OBJECT_0);
      EXPECT_EQ(WaitForSingleObject(stop.Event(), 0), WAIT_OBJECT_0);
    }
    EXPECT_THAT(m_calls, ElementsAre("add", "remove"));
  }
}

TEST_F(ConsoleControls, ThatCannotBeHeardLeaveNoEventAndTheError) {
  m_error = ERROR_NOT_ENOUGH_MEMORY;
  {
    const ConsoleStop stop;
    const DWORD error = GetLastError();
    EXPECT_EQ(stop.Event(), nullptr);
    EXPECT_EQ(error, DWORD{ERROR_NOT_ENOUGH_MEMORY});
  }
  EXPECT_THAT(m_calls, ElementsAre("add"));
}

class Server : public ::testing::Test {
 protected:
  Server() { EXPECT_TRUE(m_server.Open(m_pipeName.c_str())); }

  const std::string m_pipeName = NewPipeName();
  const KernelHandle m_stop{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
  PipeServer m_server;
};

TEST_F(Server, StopsWhileItWaitsForAClient) {
  SetEvent(m_stop.Get());
  EXPECT_EQ(m_server.ServeClient(m_stop.Get()).outcome, PipeServer::Outcome::kStopped);
}

TEST_F(Server, StopsWhileAClientIsSilent) {
  const Client client(m_pipeName);
  client.Send(Request(L"x", 1, 0).Header());
  SetEvent(m_stop.Get());
  EXPECT_EQ(m_server.ServeClient(m_stop.Get()).outcome, PipeServer::Outcome::kStopped);
}

TEST_F(Server, GivesUpASilentClientAndServesTheNext) {
  {
    const Client silent(m_pipeName);
    const PipeServer::Result result = m_server.ServeClient(m_stop.Get());
    EXPECT_EQ(result.outcome, PipeServer::Outcome::kRefused);
    EXPECT_EQ(silent.Reply(), -1);
  }
  std::thread next([&] { EXPECT_EQ(Client(m_pipeName).Ask(Request(L"next", 2, 0)), 1); });
  // The silent client may be met once more, hanging up.
  PipeServer::Result result = m_server.ServeClient(m_stop.Get());
  while (result.outcome == PipeServer::Outcome::kRefused) {
    result = m_server.ServeClient(m_stop.Get());
  }
  next.join();
  EXPECT_EQ(result.outcome, PipeServer::Outcome::kNotified);
  EXPECT_EQ(result.notification.serviceName, L"next");
  EXPECT_EQ(result.notification.actionCode, 2U);
}

TEST_F(Server, GivesUpAClientThatTalksOnAfterItsReply) {
  // Time stands still until something behind the request has been read.
  int transfers = 0;
  const CallPatch<struct TransferTag, decltype(GetOverlappedResult)> transfer(
      "KERNEL32.dll", "GetOverlappedResult",
      [&](HANDLE pipe, OVERLAPPED* overlapped, DWORD* transferred, BOOL wait) {
        ++transfers;
        return transfer.CallOriginal(pipe, overlapped, transferred, wait);
      });
  const CallPatch<struct TickTag, decltype(GetTickCount64)> tick(
      "KERNEL32.dll", "GetTickCount64", [&] { return ULONGLONG{transfers < 5 ? 0U : 60'000U}; });
  std::thread talker([&] {
    const Client client(m_pipeName);
    EXPECT_EQ(client.Ask(Request(L"x", 1, 0)), 1);
    const std::vector<BYTE> block(4096);
    DWORD written = 0;
    while (WriteFile(client.Get(), block.data(), 4096, &written, nullptr)) {
    }
  });
  const PipeServer::Result result = m_server.ServeClient(m_stop.Get());
  talker.join();
  EXPECT_EQ(result.outcome, PipeServer::Outcome::kNotified);
  EXPECT_EQ(transfers, 5);
}

// Checked by hand: bytes that add up to 0x1234, of which 0x41 is sent as 0x14 xor 0x34.
TEST(Decode, UndoesTheScramblingOfTheDocumentedExample) {
  RequestBytes body{};
  std::uint32_t missing = 0x1234 - 0x41;
  body[0] = 0x41;
  for (std::size_t i = 2; missing > 0; i += 2) {
    body[i] = static_cast<std::uint8_t>(std::min<std::uint32_t>(missing, 0x7F));
    missing -= body[i];
  }
  RequestBytes sent{};
  for (std::size_t i = 0; i < body.size(); ++i) {
    sent[i] = static_cast<std::uint8_t>(((body[i] << 4) | (body[i] >> 4)) ^ 0x34);
  }
  EXPECT_EQ(sent[0], 0x14 ^ 0x34);
  Notification notification;
  EXPECT_EQ(Decode({15, 525, 0x1234}, sent, notification), nullptr);
  EXPECT_EQ(sent, body);
  EXPECT_EQ(notification.serviceName.front(), L'A');
}

}  // namespace

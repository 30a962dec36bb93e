// The staged helper process, run as an administrator would, on a pipe of the test's own; and the
// server in it, where a test must decide when it stops.
#include "support/windows_api.h"

// Need the types of windows.h.
#include <aclapi.h>
#include <gmock/gmock.h>
#include <sddl.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "samples/helper/consolestop.h"
#include "samples/helper/pipeserver.h"
#include "tests/support/import_patch.h"
#include "tests/support/installation.h"
#include "tests/support/start_process.h"

using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;

namespace {

// A request as the service's commands send it, written down independently of them.
class Request {
 public:
  Request(const std::wstring& serviceName, DWORD actionCode, BYTE flag) {
    std::memcpy(m_body.data(), serviceName.data(), serviceName.size() * sizeof(wchar_t));
    std::memcpy(m_body.data() + 520, &actionCode, 4);
    m_body[524] = flag;
  }

  Request& WithCode(DWORD code) {
    m_code = code;
    return *this;
  }
  Request& WithLength(DWORD length) {
    m_length = length;
    return *this;
  }
  Request& WithChecksumOffBy(DWORD difference) {
    m_checksumError = difference;
    return *this;
  }

  std::vector<BYTE> Header() const {
    const DWORD fields[] = {m_code, m_length, Checksum()};
    std::vector<BYTE> bytes(12);
    std::memcpy(bytes.data(), fields, 12);
    return bytes;
  }
  std::vector<BYTE> Body() const {
    const BYTE mask = static_cast<BYTE>(Checksum());
    std::vector<BYTE> bytes;
    for (const BYTE byte : m_body) {
      bytes.push_back(static_cast<BYTE>(((byte << 4) | (byte >> 4)) ^ mask));
    }
    return bytes;
  }

 private:
  DWORD Checksum() const {
    DWORD sum = m_checksumError;
    for (const BYTE byte : m_body) {
      sum += byte;
    }
    return sum;
  }

  DWORD m_code = 15;
  DWORD m_length = 525;
  DWORD m_checksumError = 0;
  std::array<BYTE, 525> m_body{};
};

// A client's end of the pipe.
class Client {
 public:
  explicit Client(const std::string& pipeName) {
    while (true) {
      m_pipe.Reset(CreateFileA(pipeName.c_str(), GENERIC_READ | GENERIC_WRITE | READ_CONTROL, 0,
                               nullptr, OPEN_EXISTING, 0, nullptr));
      if (m_pipe || GetLastError() != ERROR_PIPE_BUSY ||
          !WaitNamedPipeA(pipeName.c_str(), 20'000)) {
        break;
      }
    }
    EXPECT_TRUE(m_pipe) << "error " << GetLastError();
  }

  void Send(const std::vector<BYTE>& bytes) const {
    DWORD written = 0;
    EXPECT_TRUE(
        WriteFile(m_pipe.Get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr));
  }

  // The reply, or -1 when there is none.
  long long Reply() const {
    DWORD reply = 0;
    DWORD read = 0;
    return ReadFile(m_pipe.Get(), &reply, 4, &read, nullptr) && read == 4
               ? static_cast<long long>(reply)
               : -1;
  }

  HANDLE Get() const { return m_pipe.Get(); }

 private:
  FileHandle m_pipe;
};

std::string NewPipeName() {
  static unsigned counter = 0;
  return "\\\\.\\pipe\\vorlhelper_test_" + std::to_string(GetCurrentProcessId()) + "_" +
         std::to_string(++counter);
}

// A running helper whose output is read along.
class Helper {
 public:
  explicit Helper(const std::string& arguments) {
    SECURITY_ATTRIBUTES inherited{sizeof(inherited), nullptr, TRUE};
    FileHandle outputWrite;
    FileHandle errorWrite;
    CreatePipe(m_output.Receive(), outputWrite.Receive(), &inherited, 0);
    CreatePipe(m_errors.Receive(), errorWrite.Receive(), &inherited, 0);
    SetHandleInformation(m_output.Get(), HANDLE_FLAG_INHERIT, 0);
    SetHandleInformation(m_errors.Get(), HANDLE_FLAG_INHERIT, 0);
    StartOptions options;
    options.output = outputWrite.Get();
    options.errors = errorWrite.Get();
    m_process = StartProcess(L"\"" + (StagedFolder() / "vorlhelper.exe").wstring() + L"\" " +
                                 std::wstring(arguments.begin(), arguments.end()),
                             options)
                    .process;
  }
  ~Helper() {
    if (m_process) {
      TerminateProcess(m_process.Get(), 99);
    }
  }
  Helper(const Helper&) = delete;
  Helper& operator=(const Helper&) = delete;

  // The next line, without its end; waits for it. "(end)" when the output has ended.
  std::string OutputLine() const { return Line(m_output); }
  std::string ErrorLine() const { return Line(m_errors); }

  DWORD ExitCode() {
    EXPECT_EQ(WaitForSingleObject(m_process.Get(), 60'000), WAIT_OBJECT_0);
    DWORD code = 0;
    GetExitCodeProcess(m_process.Get(), &code);
    m_process.Reset();
    return code;
  }

 private:
  static std::string Line(const FileHandle& pipe) {
    std::string line;
    char character = 0;
    DWORD read = 0;
    while (ReadFile(pipe.Get(), &character, 1, &read, nullptr) && read == 1) {
      if (character == '\n') {
        return line;
      }
      if (character != '\r') {
        line += character;
      }
    }
    return "(end)";
  }

  FileHandle m_output;
  FileHandle m_errors;
  KernelHandle m_process;
};

class HelperProcess : public ::testing::Test {
 protected:
  // Starts a helper that ends after `count` notifications.
  Helper Start(unsigned count) const {
    return Helper("--pipe " + m_pipeName + " --count " + std::to_string(count));
  }

  long long Notify(const Request& request) const {
    const Client client(m_pipeName);
    client.Send(request.Header());
    client.Send(request.Body());
    return client.Reply();
  }

  const std::string m_pipeName = NewPipeName();
};

TEST_F(HelperProcess, PrintsEachNotificationOnOneLineAndEndsAfterTheCount) {
  Helper helper = Start(4);
  EXPECT_EQ(helper.OutputLine(), "waiting for notifications");
  EXPECT_EQ(Notify(Request(L"Client Agent 1", 1, 0)), 1);
  EXPECT_EQ(helper.OutputLine(), "\"Client Agent 1\": about to be stopped (action 1, flag 0)");
  EXPECT_EQ(Notify(Request(L"Client Agent 1", 2, 0)), 1);
  EXPECT_EQ(helper.OutputLine(), "\"Client Agent 1\": stop carried out (action 2, flag 0)");
  EXPECT_EQ(Notify(Request(L"Client Agent 1", 5, 0)), 1);
  EXPECT_EQ(helper.OutputLine(), "\"Client Agent 1\": about to be uninstalled (action 5, flag 0)");
  EXPECT_EQ(Notify(Request(L"", 77, 255)), 1);
  EXPECT_EQ(helper.OutputLine(), "\"\": unknown action (action 77, flag 255)");
  EXPECT_EQ(helper.ExitCode(), 0U);
  EXPECT_EQ(helper.OutputLine(), "(end)");
  EXPECT_EQ(helper.ErrorLine(), "(end)");
}

TEST_F(HelperProcess, PrintsNamesInUtf8AndControlCharactersAsQuestionMarks) {
  Helper helper = Start(3);
  EXPECT_EQ(helper.OutputLine(), "waiting for notifications");
  EXPECT_EQ(Notify(Request(L"\x00C4gent \x4E2D", 1, 0)), 1);
  EXPECT_EQ(helper.OutputLine(),
            "\"\xC3\x84gent \xE4\xB8\xAD\": about to be stopped (action 1, flag 0)");
  EXPECT_EQ(Notify(Request(L"two\r\nlines\x1b[2J", 1, 0)), 1);
  EXPECT_EQ(helper.OutputLine(), "\"two??lines?[2J\": about to be stopped (action 1, flag 0)");
  EXPECT_EQ(Notify(Request(L"~\x7F\x80\x9F\xA0 \x2027\x2028\x2029", 1, 0)), 1);
  EXPECT_EQ(helper.OutputLine(),
            "\"~???\xC2\xA0 \xE2\x80\xA7??\": about to be stopped (action 1, flag 0)");
  EXPECT_EQ(helper.ExitCode(), 0U);
}

TEST_F(HelperProcess, PrintsTheLongestNameAndRefusesOneWithoutEnd) {
  Helper helper = Start(1);
  EXPECT_EQ(helper.OutputLine(), "waiting for notifications");
  EXPECT_EQ(Notify(Request(std::wstring(260, L'n'), 1, 0)), 0);
  EXPECT_EQ(helper.ErrorLine(), "refused: service name without end");
  EXPECT_EQ(Notify(Request(std::wstring(259, L'n'), 1, 0)), 1);
  EXPECT_EQ(helper.OutputLine(),
            "\"" + std::string(259, 'n') + "\": about to be stopped (action 1, flag 0)");
  EXPECT_EQ(helper.ExitCode(), 0U);
}

TEST_F(HelperProcess, AnswersZeroToGarbageAndGoesOn) {
  Helper helper = Start(1);
  EXPECT_EQ(helper.OutputLine(), "waiting for notifications");
  EXPECT_EQ(Notify(Request(L"x", 1, 0).WithChecksumOffBy(256)), 0);
  EXPECT_EQ(helper.ErrorLine(), "refused: wrong checksum");
  EXPECT_EQ(Notify(Request(L"x", 1, 0).WithCode(16)), 0);
  EXPECT_EQ(helper.ErrorLine(), "refused: unknown message code");
  EXPECT_EQ(Notify(Request(L"x", 1, 0).WithLength(524)), 0);
  EXPECT_EQ(helper.ErrorLine(), "refused: wrong length");
  EXPECT_EQ(Notify(Request(L"x", 1, 0).WithLength(0xFFFFFFFF)), 0);
  EXPECT_EQ(helper.ErrorLine(), "refused: wrong length");
  EXPECT_EQ(Notify(Request(L"x", 1, 0)), 1);
  EXPECT_EQ(helper.OutputLine(), "\"x\": about to be stopped (action 1, flag 0)");
  EXPECT_EQ(helper.ExitCode(), 0U);
}

TEST_F(HelperProcess, SurvivesClientsThatHangUpAnywhere) {
  Helper helper = Start(1);
  EXPECT_EQ(helper.OutputLine(), "waiting for notifications");
  const Request request(L"x", 1, 0);
  const std::string refusal = "refused: client hung up or was silent for too long";
  // At once.
  { const Client client(m_pipeName); }
  EXPECT_EQ(helper.ErrorLine(), refusal);
  // In the middle of the header, behind it, in the middle of the body.
  for (const std::size_t headerBytes : {5U, 12U}) {
    const Client client(m_pipeName);
    std::vector<BYTE> header = request.Header();
    header.resize(headerBytes);
    client.Send(header);
  }
  EXPECT_EQ(helper.ErrorLine(), refusal);
  EXPECT_EQ(helper.ErrorLine(), refusal);
  {
    const Client client(m_pipeName);
    client.Send(request.Header());
    std::vector<BYTE> body = request.Body();
    body.resize(524);
    client.Send(body);
  }
  EXPECT_EQ(helper.ErrorLine(), refusal);
  // Before it reads its reply; the notification has arrived all the same.
  {
    const Client client(m_pipeName);
    client.Send(request.Header());
    client.Send(request.Body());
  }
  EXPECT_EQ(helper.OutputLine(), "\"x\": about to be stopped (action 1, flag 0)");
  EXPECT_EQ(helper.ExitCode(), 0U);
}

TEST_F(HelperProcess, TakesARequestThatArrivesByteByByteOrAllAtOnce) {
  Helper helper = Start(2);
  EXPECT_EQ(helper.OutputLine(), "waiting for notifications");
  const Request request(L"slow", 1, 0);
  std::vector<BYTE> all = request.Header();
  const std::vector<BYTE> body = request.Body();
  all.insert(all.end(), body.begin(), body.end());
  {
    const Client client(m_pipeName);
    for (const BYTE byte : all) {
      client.Send({byte});
    }
    EXPECT_EQ(client.Reply(), 1);
  }
  EXPECT_EQ(helper.OutputLine(), "\"slow\": about to be stopped (action 1, flag 0)");
  {
    const Client client(m_pipeName);
    client.Send(all);
    EXPECT_EQ(client.Reply(), 1);
  }
  EXPECT_EQ(helper.OutputLine(), "\"slow\": about to be stopped (action 1, flag 0)");
  EXPECT_EQ(helper.ExitCode(), 0U);
}

TEST_F(HelperProcess, ServesClientsThatComeAtTheSameTime) {
  constexpr unsigned kClients = 8;
  constexpr unsigned kRounds = 5;
  Helper helper = Start(kClients * kRounds);
  EXPECT_EQ(helper.OutputLine(), "waiting for notifications");
  std::array<unsigned, kClients> accepted{};
  std::vector<std::thread> threads;
  for (unsigned& count : accepted) {
    threads.emplace_back([&] {
      for (unsigned round = 0; round < kRounds; ++round) {
        count += Notify(Request(L"many", 1, 0)) == 1 ? 1U : 0U;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_THAT(accepted, ::testing::Each(kRounds));
  EXPECT_EQ(helper.ExitCode(), 0U);
}

TEST_F(HelperProcess, SecondHelperOnTheSamePipeEndsWithAMessage) {
  Helper first = Start(1);
  EXPECT_EQ(first.OutputLine(), "waiting for notifications");
  Helper second = Start(1);
  EXPECT_EQ(second.ExitCode(), 1U);
  EXPECT_THAT(second.ErrorLine(), ::testing::StartsWith("the pipe cannot be served: error "));
  EXPECT_EQ(Notify(Request(L"x", 1, 0)), 1);
  EXPECT_EQ(first.ExitCode(), 0U);
}

TEST_F(HelperProcess, WrongArgumentsEndItWithAMessage) {
  for (const char* arguments : {"--count", "--count 0", "--count -1", "--count 1x", "--count +1",
                                "--other 1", "1", "--pipe"}) {
    Helper helper(arguments);
    EXPECT_EQ(helper.ExitCode(), 2U) << arguments;
    EXPECT_EQ(helper.ErrorLine(), "usage: vorlhelper [--count N] [--pipe NAME]");
    EXPECT_EQ(helper.OutputLine(), "(end)");
  }
}

TEST_F(HelperProcess, PipeIsOpenToAdministratorsAndTheSystemOnly) {
  Helper helper = Start(1);
  EXPECT_EQ(helper.OutputLine(), "waiting for notifications");
  {
    const Client client(m_pipeName);
    PACL list = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    ASSERT_EQ(GetSecurityInfo(client.Get(), SE_KERNEL_OBJECT, DACL_SECURITY_INFORMATION, nullptr,
                              nullptr, &list, nullptr, &descriptor),
              DWORD{ERROR_SUCCESS});
    std::vector<std::string> allowed;
    for (DWORD i = 0; list != nullptr && i < list->AceCount; ++i) {
      void* entry = nullptr;
      GetAce(list, i, &entry);
      const auto* const allow = static_cast<ACCESS_ALLOWED_ACE*>(entry);
      EXPECT_EQ(allow->Header.AceType, ACCESS_ALLOWED_ACE_TYPE);
      char* sid = nullptr;
      ConvertSidToStringSidA(const_cast<DWORD*>(&allow->SidStart), &sid);
      allowed.emplace_back(sid);
      LocalFree(sid);
    }
    LocalFree(descriptor);
    EXPECT_THAT(allowed, UnorderedElementsAre("S-1-5-18", "S-1-5-32-544"));
  }
  EXPECT_EQ(Notify(Request(L"x", 1, 0)), 1);
  EXPECT_EQ(helper.ExitCode(), 0U);
}

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
  std::thread next([&] {
    const Client client(m_pipeName);
    const Request request(L"next", 2, 0);
    client.Send(request.Header());
    client.Send(request.Body());
    EXPECT_EQ(client.Reply(), 1);
  });
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
  // Time stands still until the second block behind the request has been read.
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
    const Request request(L"x", 1, 0);
    client.Send(request.Header());
    client.Send(request.Body());
    EXPECT_EQ(client.Reply(), 1);
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

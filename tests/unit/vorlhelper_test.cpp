// The staged helper process, run as an administrator would, on a pipe of the test's own.
#include "tests/unit/vorlhelper_test.h"

#include "support/windows_api.h"

// Need the types of windows.h.
#include <aclapi.h>
#include <gmock/gmock.h>
#include <sddl.h>

#include <array>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/installation.h"
#include "tests/support/start_process.h"

using ::testing::UnorderedElementsAre;

namespace {

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

  long long Notify(const Request& request) const { return Client(m_pipeName).Ask(request); }

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

}  // namespace

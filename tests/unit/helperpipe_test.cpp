#include "service/helperpipe.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <numeric>
#include <ostream>
#include <string>
#include <vector>

#include "tests/unit/helperpipe_test.h"

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Values;

namespace {

// ---- What is sent ----

TEST_F(HelperPipe, RequestCarriesNameActionAndFlagAndTheReplyIsReturned) {
  PipeServer server(m_clientReads.Get(), {TakeAndReply()});
  EXPECT_EQ(NotifyHelperPipe(L"Client Agent 1", 1, 0), kReply);
  server.Join();

  ASSERT_EQ(m_received.size(), 12U + 525U);
  Bytes expected(525, 0);
  const wchar_t name[] = L"Client Agent 1";
  std::memcpy(expected.data(), name, sizeof(name));
  expected[520] = 1;
  const std::uint32_t sum = std::accumulate(expected.begin(), expected.end(), std::uint32_t{0});
  EXPECT_EQ(Value32(m_received, 0), 15U);
  EXPECT_EQ(Value32(m_received, 4), 525U);
  EXPECT_EQ(Value32(m_received, 8), sum);
  EXPECT_EQ(Unscrambled(ReceivedBody(), sum), expected);

  EXPECT_THAT(m_journal.Entries(), ElementsAre(m_open + "pipe", "WriteFile(12)", "WriteFile(525)",
                                               "ReadFile(4)", "CloseHandle"));
}

class HelperPipeAction : public HelperPipe, public ::testing::WithParamInterface<std::uint32_t> {};

TEST_P(HelperPipeAction, StandsBehindTheName) {
  PipeServer server(m_clientReads.Get(), {TakeAndReply()});
  EXPECT_EQ(NotifyHelperPipe(L"Sample", GetParam(), 0), kReply);
  server.Join();
  ASSERT_EQ(m_received.size(), 12U + 525U);
  const Bytes body = Unscrambled(ReceivedBody(), Value32(m_received, 8));
  EXPECT_EQ(Value32(body, 520), GetParam());
  EXPECT_EQ(body[524], 0);
}

INSTANTIATE_TEST_SUITE_P(, HelperPipeAction, Values(1U, 2U, 5U, 0xFEDCBA98U));

TEST_F(HelperPipe, NameIsLeftOutWhenTheFlagIsSet) {
  PipeServer server(m_clientReads.Get(), {TakeAndReply()});
  EXPECT_EQ(NotifyHelperPipe(L"Sample", 2, 0x81), kReply);
  server.Join();
  ASSERT_EQ(m_received.size(), 12U + 525U);
  const Bytes body = Unscrambled(ReceivedBody(), Value32(m_received, 8));
  EXPECT_THAT(Bytes(body.begin(), body.begin() + 520), Each(0));
  EXPECT_EQ(Value32(body, 520), 2U);
  EXPECT_EQ(body[524], 0x81);
}

TEST_F(HelperPipe, NameMayBeNullWhenTheFlagIsSet) {
  PipeServer server(m_clientReads.Get(), {TakeAndReply()});
  EXPECT_EQ(NotifyHelperPipe(nullptr, 5, 1), kReply);
}

TEST_F(HelperPipe, NameOf259CharactersIsSentWhole) {
  PipeServer server(m_clientReads.Get(), {TakeAndReply()});
  EXPECT_EQ(NotifyHelperPipe(std::wstring(259, L'\x20AC').c_str(), 1, 0), kReply);
  server.Join();
  ASSERT_EQ(m_received.size(), 12U + 525U);
  const Bytes body = Unscrambled(ReceivedBody(), Value32(m_received, 8));
  for (std::size_t i = 0; i < 259; ++i) {
    ASSERT_EQ(body[2 * i], 0xAC);
    ASSERT_EQ(body[2 * i + 1], 0x20);
  }
  EXPECT_EQ(body[518], 0);
  EXPECT_EQ(body[519], 0);
}

TEST_F(HelperPipe, NameOf260OrMoreCharactersIsNotSentAtAll) {
  EXPECT_EQ(NotifyHelperPipe(std::wstring(260, L'x').c_str(), 1, 0), 0U);
  EXPECT_EQ(NotifyHelperPipe(std::wstring(5000, L'x').c_str(), 1, 0), 0U);
  EXPECT_THAT(m_journal.Entries(), IsEmpty());
}

TEST_F(HelperPipe, NullNameWithoutTheFlagIsNotSent) {
  EXPECT_EQ(NotifyHelperPipe(nullptr, 1, 0), 0U);
  EXPECT_THAT(m_journal.Entries(), IsEmpty());
}

TEST_F(HelperPipe, NullBodyIsNotSent) {
  EXPECT_EQ(SendHelperPipeMessage(15, nullptr, 525), 0U);
  EXPECT_THAT(m_journal.Entries(), IsEmpty());
}

TEST_F(HelperPipe, BodyWithTheSum0x1234IsSentWithThatChecksumAndEachByteExchangedAndCombined) {
  // 525 bytes: 520 bytes of 8, then 100, 100, 100, 100 and 100: 4,660 in all.
  Bytes body(525, 0x08);
  std::fill(body.begin() + 520, body.end(), std::uint8_t{0x64});
  ASSERT_EQ(std::accumulate(body.begin(), body.end(), 0), 0x1234);
  PipeServer server(m_clientReads.Get(), {TakeAndReply()});
  EXPECT_EQ(SendHelperPipeMessage(15, body.data(), 525), kReply);
  server.Join();

  // 08 -> 80 -> B4; 64 -> 46 -> 72.
  Bytes expected = {0x0F, 0x00, 0x00, 0x00, 0x0D, 0x02, 0x00, 0x00, 0x34, 0x12, 0x00, 0x00};
  expected.insert(expected.end(), 520, 0xB4);
  expected.insert(expected.end(), 5, 0x72);
  EXPECT_EQ(m_received, expected);
}

TEST_F(HelperPipe, EveryByteValueIsScrambledInPlaceAndCanBeRestored) {
  Bytes body(256);
  std::iota(body.begin(), body.end(), std::uint8_t{0});
  const Bytes plain = body;
  PipeServer server(m_clientReads.Get(), {TakeAndReply({1, 0, 0, 0}, 12 + 256)});
  EXPECT_EQ(SendHelperPipeMessage(0x01020304, body.data(), 256), 1U);
  server.Join();
  ASSERT_EQ(m_received.size(), 12U + 256U);
  EXPECT_EQ(Value32(m_received, 0), 0x01020304U);
  EXPECT_EQ(Value32(m_received, 4), 256U);
  EXPECT_EQ(Value32(m_received, 8), 0x7F80U);
  EXPECT_EQ(ReceivedBody(), body);
  EXPECT_EQ(Unscrambled(body, 0x7F80), plain);
}

TEST_F(HelperPipe, ChecksumTakesBytesAsUnsigned) {
  Bytes body(525, 0xFF);
  PipeServer server(m_clientReads.Get(), {TakeAndReply()});
  EXPECT_EQ(SendHelperPipeMessage(15, body.data(), 525), kReply);
  server.Join();
  ASSERT_EQ(m_received.size(), 12U + 525U);
  EXPECT_EQ(Value32(m_received, 8), 525U * 255U);
  EXPECT_THAT(ReceivedBody(), Each(0xFF ^ 0xF3));
}

TEST_F(HelperPipe, HeaderAndBodyAreOneMessageEach) {
  std::vector<DWORD> sizes;
  PipeServer server(m_clientReads.Get(), {[&](ServerEnd& client) {
                      Bytes buffer(4096);
                      for (int i = 0; i < 2; ++i) {
                        sizes.push_back(client.Read(buffer.data(), 4096));
                      }
                      client.Reply(&kReply, sizeof(kReply));
                      client.WaitUntilTheClientHasClosed();
                    }},
                    PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE);
  EXPECT_EQ(NotifyHelperPipe(L"Sample", 1, 0), kReply);
  server.Join();
  EXPECT_THAT(sizes, ElementsAre(12U, 525U));
}

TEST_F(HelperPipe, ServerMayReadInPieces) {
  PipeServer server(m_clientReads.Get(), {TakeAndReply({7, 0, 0, 0}, 12 + 525, /*pieceSize=*/1)});
  EXPECT_EQ(NotifyHelperPipe(L"Sample", 1, 0), 7U);
  server.Join();
  EXPECT_EQ(m_received.size(), 12U + 525U);
}

// ---- The reply ----

TEST_F(HelperPipe, ReplyOfZeroIsZero) {
  PipeServer server(m_clientReads.Get(), {TakeAndReply({0, 0, 0, 0})});
  EXPECT_EQ(NotifyHelperPipe(L"Sample", 1, 0), 0U);
  EXPECT_THAT(m_journal.Calls(), ElementsAre(m_open + "pipe", "WriteFile(12)", "WriteFile(525)",
                                             "ReadFile(4)", "CloseHandle"));
}

TEST_F(HelperPipe, ShortReplyFillsTheLowestBytes) {
  PipeServer server(m_clientReads.Get(), {TakeAndReply({0x34, 0x12})});
  EXPECT_EQ(NotifyHelperPipe(L"Sample", 1, 0), 0x1234U);
}

TEST_F(HelperPipe, OnlyTheFirstFourBytesOfALongReplyCount) {
  PipeServer server(m_clientReads.Get(), {TakeAndReply({1, 2, 3, 4, 5, 6, 7, 8})});
  EXPECT_EQ(NotifyHelperPipe(L"Sample", 1, 0), 0x04030201U);
}

TEST_F(HelperPipe, ReadWithoutBytesGivesZero) {
  m_onRead = [](void* data, DWORD* read) {
    std::memcpy(data, &kReply, sizeof(kReply));  // does not count
    *read = 0;
    return TRUE;
  };
  PipeServer server(m_clientReads.Get(), {TakeAndReply()});
  EXPECT_EQ(NotifyHelperPipe(L"Sample", 1, 0), 0U);
  EXPECT_EQ(m_journal.Calls().back(), "CloseHandle");
}

TEST_F(HelperPipe, FailedReadGivesZero) {
  m_onRead = [](void* data, DWORD* read) {
    std::memcpy(data, &kReply, sizeof(kReply));
    *read = sizeof(kReply);
    SetLastError(ERROR_BROKEN_PIPE);
    return FALSE;
  };
  PipeServer server(m_clientReads.Get(), {TakeAndReply()});
  EXPECT_EQ(NotifyHelperPipe(L"Sample", 1, 0), 0U);
  EXPECT_THAT(m_journal.Calls(), ElementsAre(m_open + "pipe", "WriteFile(12)", "WriteFile(525)",
                                             "ReadFile(4)", "CloseHandle"));
}

// ---- Nobody there, or gone ----

TEST_F(HelperPipe, WithoutAServerNothingIsSentAndNothingIsWaitedFor) {
  EXPECT_EQ(NotifyHelperPipe(L"Sample", 1, 0), 0U);
  EXPECT_THAT(m_journal.Entries(), ElementsAre(m_open + "error 2"));
}

TEST_F(HelperPipe, RefusedAccessIsNotWaitedFor) {
  m_openErrors = {ERROR_ACCESS_DENIED};
  EXPECT_EQ(NotifyHelperPipe(L"Sample", 1, 0), 0U);
  EXPECT_THAT(m_journal.Entries(), ElementsAre(m_open + "error 5"));
}

TEST_F(HelperPipe, BodyIsLeftAloneWithoutAServer) {
  Bytes body = {1, 2, 3};
  EXPECT_EQ(SendHelperPipeMessage(15, body.data(), 3), 0U);
  EXPECT_THAT(body, ElementsAre(1, 2, 3));
}

TEST_F(HelperPipe, FailedWriteOfTheHeaderEndsTheRequest) {
  m_writeErrors = {ERROR_NO_DATA};
  PipeServer server(m_clientReads.Get(), {kTakeAll});
  EXPECT_EQ(NotifyHelperPipe(L"Sample", 1, 0), 0U);
  EXPECT_THAT(m_journal.Entries(), ElementsAre(m_open + "pipe", "WriteFile(12)", "CloseHandle"));
}

TEST_F(HelperPipe, FailedWriteOfTheBodyEndsTheRequest) {
  m_writeErrors = {0, ERROR_NO_DATA};
  PipeServer server(m_clientReads.Get(), {kTakeAll});
  EXPECT_EQ(NotifyHelperPipe(L"Sample", 1, 0), 0U);
  EXPECT_THAT(m_journal.Entries(),
              ElementsAre(m_open + "pipe", "WriteFile(12)", "WriteFile(525)", "CloseHandle"));
}

TEST_F(HelperPipe, ShortWriteOfTheHeaderEndsTheRequest) {
  m_writeLimits = {11};
  PipeServer server(m_clientReads.Get(), {kTakeAll});
  EXPECT_EQ(NotifyHelperPipe(L"Sample", 1, 0), 0U);
  EXPECT_THAT(m_journal.Entries(), ElementsAre(m_open + "pipe", "WriteFile(12)", "CloseHandle"));
}

TEST_F(HelperPipe, ShortWriteOfTheBodyEndsTheRequest) {
  m_writeLimits = {12, 524};
  PipeServer server(m_clientReads.Get(), {kTakeAll});
  EXPECT_EQ(NotifyHelperPipe(L"Sample", 1, 0), 0U);
  EXPECT_THAT(m_journal.Entries(),
              ElementsAre(m_open + "pipe", "WriteFile(12)", "WriteFile(525)", "CloseHandle"));
}

struct HangUp {
  const char* when;
  std::size_t bytesRead;

  friend std::ostream& operator<<(std::ostream& out, const HangUp& test) {
    return out << test.when;
  }
};

class HelperPipeHangUp : public HelperPipe, public ::testing::WithParamInterface<HangUp> {};

TEST_P(HelperPipeHangUp, GivesZeroAndClosesThePipeOnce) {
  PipeServer server(m_clientReads.Get(),
                    {[](ServerEnd& client) { client.ReadExactly(GetParam().bytesRead); }});
  EXPECT_EQ(NotifyHelperPipe(L"Sample", 1, 0), 0U);
  EXPECT_THAT(m_journal.Calls(), ::testing::Contains("CloseHandle").Times(1));
  EXPECT_EQ(m_journal.Calls().back(), "CloseHandle");
}

INSTANTIATE_TEST_SUITE_P(, HelperPipeHangUp,
                         Values(HangUp{"AtOnce", 0}, HangUp{"InTheHeader", 5},
                                HangUp{"BehindTheHeader", 12}, HangUp{"InTheBody", 300},
                                HangUp{"InsteadOfTheReply", 537}),
                         [](const auto& test) { return std::string(test.param.when); });

// ---- A busy pipe ----

TEST_F(HelperPipe, BusyPipeIsWaitedForUntilTheOtherClientIsDone) {
  PipeServer server(m_clientReads.Get(), {kTakeAll, TakeAndReply()});
  FileHandle otherClient(CreateFileW(OwnPipeNameWide().c_str(), GENERIC_READ | GENERIC_WRITE, 0,
                                     nullptr, OPEN_EXISTING, 0, nullptr));
  ASSERT_TRUE(otherClient);
  const std::function<DWORD()> wait = m_onWait;
  m_onWait = [&] {
    otherClient.Reset();
    return wait();
  };
  EXPECT_EQ(NotifyHelperPipe(L"Sample", 1, 0), kReply);
  EXPECT_THAT(m_journal.Entries(),
              ElementsAre(m_open + "error 231", m_wait + "1", m_open + "pipe", "WriteFile(12)",
                          "WriteFile(525)", "ReadFile(4)", "CloseHandle"));
}

TEST_F(HelperPipe, BusyPipeIsGivenUpWhenTheWaitFails) {
  m_openErrors = {ERROR_PIPE_BUSY};
  m_onWait = [] { return DWORD{ERROR_SEM_TIMEOUT}; };
  EXPECT_EQ(NotifyHelperPipe(L"Sample", 1, 0), 0U);
  EXPECT_THAT(m_journal.Entries(), ElementsAre(m_open + "error 231", m_wait + "error 121"));
}

TEST_F(HelperPipe, BusyPipeIsTriedWithoutALimitOnTheRounds) {
  m_openErrors.assign(1000, ERROR_PIPE_BUSY);
  m_onWait = [] { return DWORD{0}; };
  PipeServer server(m_clientReads.Get(), {TakeAndReply()});
  EXPECT_EQ(NotifyHelperPipe(L"Sample", 1, 0), kReply);
  EXPECT_EQ(m_journal.Calls().size(), 1000U * 2U + 5U);
}

TEST_F(HelperPipe, AnotherErrorBehindTheWaitEndsTheRequest) {
  m_openErrors = {ERROR_PIPE_BUSY, ERROR_FILE_NOT_FOUND};
  m_onWait = [] { return DWORD{0}; };
  EXPECT_EQ(NotifyHelperPipe(L"Sample", 1, 0), 0U);
  EXPECT_THAT(m_journal.Entries(),
              ElementsAre(m_open + "error 231", m_wait + "1", m_open + "error 2"));
}

}  // namespace

#include "companions/vlevtlog/readable_text.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "companions/vlevtlog/line_layout.h"
#include "companions/vlevtlog/line_text.h"
#include "companions/vlevtlog/message_format.h"
#include "support/windows_api.h"
#include "tests/support/import_patch.h"

namespace {

constexpr std::size_t kPage = 4096;
constexpr std::size_t kNoLimit = 1'000'000;

// Three pages of memory, the middle one and the last one with rights of their own.
class Pages {
 public:
  Pages()
      : m_memory(static_cast<char*>(
            VirtualAlloc(nullptr, 3 * kPage, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE))) {}
  ~Pages() { VirtualFree(m_memory, 0, MEM_RELEASE); }
  Pages(const Pages&) = delete;
  Pages& operator=(const Pages&) = delete;

  char* At(std::size_t offset) const { return m_memory + offset; }
  void Protect(std::size_t page, DWORD protection) const {
    DWORD old = 0;
    EXPECT_TRUE(VirtualProtect(m_memory + page * kPage, kPage, protection, &old));
  }
  void Decommit(std::size_t page) const {
    EXPECT_TRUE(VirtualFree(m_memory + page * kPage, kPage, MEM_DECOMMIT));
  }
  DWORD Protection(std::size_t page) const {
    MEMORY_BASIC_INFORMATION region;
    EXPECT_NE(VirtualQuery(m_memory + page * kPage, &region, sizeof region), 0U);
    return region.State == MEM_COMMIT ? region.Protect : 0;
  }

 private:
  char* m_memory;
};

std::size_t LengthOf(const char* text, std::size_t limit = kNoLimit) {
  ReadableMemory memory;
  return memory.LengthOf(text, limit);
}
std::size_t LengthOf(const wchar_t* text, std::size_t limit = kNoLimit) {
  ReadableMemory memory;
  return memory.LengthOf(text, limit);
}

// Counts the questions that the unit asks Windows.
class Questions {
 public:
  int Count() const { return m_count; }

 private:
  int m_count = 0;
  CallPatch<struct QueryTag, SIZE_T WINAPI(const void*, MEMORY_BASIC_INFORMATION*, SIZE_T)> m_patch{
      "KERNEL32.dll", "VirtualQuery",
      [this](const void* address, MEMORY_BASIC_INFORMATION* region, SIZE_T size) {
        ++m_count;
        return m_patch.CallOriginal(address, region, size);
      }};
};

// A page that must not be read, of every kind there is.
class Border : public testing::TestWithParam<DWORD> {
 protected:
  void Close(std::size_t page) const {
    if (GetParam() == 0) {
      m_pages.Decommit(page);
    } else {
      m_pages.Protect(page, GetParam());
    }
  }

  const Pages m_pages;
};

TEST_P(Border, IsNotTouchedByATextThatEndsInFrontOfIt) {
  std::memcpy(m_pages.At(kPage - 4), "abc", 4);
  std::memcpy(m_pages.At(kPage - 12), L"ab", 6);
  Close(1);
  EXPECT_EQ(LengthOf(m_pages.At(kPage - 4)), 3U);
  EXPECT_EQ(LengthOf(m_pages.At(kPage - 1)), 0U);
  EXPECT_EQ(LengthOf(reinterpret_cast<const wchar_t*>(m_pages.At(kPage - 12))), 2U);
  EXPECT_EQ(m_pages.Protection(1), GetParam());
}

TEST_P(Border, IsNotTouchedByATextThatIsCutInFrontOfIt) {
  std::memset(m_pages.At(0), 'x', kPage);
  Close(1);
  EXPECT_EQ(LengthOf(m_pages.At(kPage - 4), 4), 4U);
  EXPECT_EQ(LengthOf(m_pages.At(kPage), 0), 0U);
  EXPECT_EQ(LengthOf(reinterpret_cast<const wchar_t*>(m_pages.At(kPage - 4)), 2), 2U);
  EXPECT_EQ(m_pages.Protection(1), GetParam());
}

TEST_P(Border, IsNotTouchedByATextThatRunsIntoIt) {
  std::memset(m_pages.At(0), 'x', kPage);
  Close(1);
  EXPECT_EQ(LengthOf(m_pages.At(kPage - 4)), kUnreadable);
  EXPECT_EQ(LengthOf(m_pages.At(kPage - 4), 5), kUnreadable);
  EXPECT_EQ(LengthOf(reinterpret_cast<const wchar_t*>(m_pages.At(kPage - 4))), kUnreadable);
  // Half a character in front of it.
  EXPECT_EQ(LengthOf(reinterpret_cast<const wchar_t*>(m_pages.At(kPage - 3))), kUnreadable);
  EXPECT_EQ(LengthOf(reinterpret_cast<const wchar_t*>(m_pages.At(kPage - 1))), kUnreadable);
  EXPECT_EQ(m_pages.Protection(1), GetParam());
}

TEST_P(Border, IsNotTouchedByATextThatBeginsInIt) {
  Close(1);
  EXPECT_EQ(LengthOf(m_pages.At(kPage)), kUnreadable);
  EXPECT_EQ(LengthOf(m_pages.At(2 * kPage - 1), 1), kUnreadable);
  EXPECT_EQ(LengthOf(reinterpret_cast<const wchar_t*>(m_pages.At(kPage + 8))), kUnreadable);
  EXPECT_EQ(m_pages.Protection(1), GetParam());
}

TEST_P(Border, IsNotTouchedBehindPagesOfSeveralRights) {
  std::memset(m_pages.At(0), 'x', 2 * kPage);
  m_pages.Protect(1, PAGE_READONLY);
  Close(2);
  EXPECT_EQ(LengthOf(m_pages.At(10)), kUnreadable);
  EXPECT_EQ(LengthOf(m_pages.At(10), 2 * kPage - 10), 2 * kPage - 10);
  EXPECT_EQ(m_pages.Protection(2), GetParam());
}

// One call's texts, which may lie on either side of the border.
TEST_P(Border, StaysClosedForTheNextTextOfACall) {
  std::memcpy(m_pages.At(0), "one", 4);
  std::memcpy(m_pages.At(kPage - 4), "four", 4);
  std::memcpy(m_pages.At(2 * kPage), "three", 6);
  Close(1);
  ReadableMemory memory;
  EXPECT_EQ(memory.LengthOf(m_pages.At(0), kNoLimit), 3U);
  EXPECT_EQ(memory.LengthOf(m_pages.At(kPage), kNoLimit), kUnreadable);
  EXPECT_EQ(memory.LengthOf(m_pages.At(kPage - 4), kNoLimit), kUnreadable);
  EXPECT_EQ(memory.LengthOf(m_pages.At(2 * kPage), kNoLimit), 5U);
  EXPECT_EQ(memory.LengthOf(m_pages.At(kPage - 4), 4), 4U);
  EXPECT_EQ(m_pages.Protection(1), GetParam());
}

std::string Formatted(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  LineText line;
  AppendFormatted(line, format, arguments);
  va_end(arguments);
  return std::string(line.View());
}

TEST_P(Border, CostsALineOneTextAndNoMore) {
  std::memset(m_pages.At(0), 'x', kPage);
  Close(1);
  const char* const text = m_pages.At(kPage - 4);
  const auto* const wideText = reinterpret_cast<const wchar_t*>(m_pages.At(kPage - 4));
  EXPECT_EQ(Formatted("[%s][%.4s][%S][%d]", text, text, wideText, 7),
            "[(unreadable)][xxxx][(unreadable)][7]");
  EXPECT_EQ(Formatted(text), "(unreadable)");
  LineText line;
  const TraceCall call{2, text, text, text, 1, 2, 3, {2026, 3, 9, 7, 5, 2, 41, 60}};
  BeginLine(line, TraceFormat::kText, call);
  EndLine(line, TraceFormat::kText, call);
  EXPECT_EQ(line.View(), "2026-03-09 07:05:02.041 +01:00 INFO 2 3 - - -:1 \r\n");
  EXPECT_EQ(m_pages.Protection(1), GetParam());
}

std::string NameOf(const testing::TestParamInfo<DWORD>& border) {
  static constexpr const char* kNames[] = {"Guard", "ReadOnlyGuard", "NoAccess", "Uncommitted"};
  return kNames[border.index];
}

INSTANTIATE_TEST_SUITE_P(OfEveryKind, Border,
                         testing::Values(PAGE_READWRITE | PAGE_GUARD, PAGE_READONLY | PAGE_GUARD,
                                         PAGE_NOACCESS, 0),
                         NameOf);

// The page below a stack makes it grow, once.
TEST(ReadableMemory, LeavesTheGuardOfAStackAlone) {
  MEMORY_BASIC_INFORMATION region{};
  const char* page = reinterpret_cast<const char*>(&region);
  do {
    page -= kPage;
    ASSERT_NE(VirtualQuery(page, &region, sizeof region), 0U);
  } while (region.State == MEM_COMMIT && (region.Protect & PAGE_GUARD) == 0);
  EXPECT_EQ(LengthOf(page), kUnreadable);
  MEMORY_BASIC_INFORMATION after{};
  VirtualQuery(page, &after, sizeof after);
  EXPECT_EQ(after.Protect, region.Protect);
  EXPECT_EQ(after.State, region.State);
}

TEST(ReadableMemory, GoesThroughRegionsThatCanBeRead) {
  const Pages pages;
  std::memset(pages.At(0), 'x', 3 * kPage);
  *pages.At(3 * kPage - 1) = '\0';
  pages.Protect(1, PAGE_READONLY);
  pages.Protect(2, PAGE_EXECUTE_READ);
  EXPECT_EQ(LengthOf(pages.At(1)), 3 * kPage - 2);
  EXPECT_EQ(LengthOf(reinterpret_cast<const wchar_t*>(pages.At(kPage - 1)), 2), 2U);
}

TEST(ReadableMemory, KnowsThatWrongAddressesAreWrong) {
  for (const std::uintptr_t address :
       {std::uintptr_t{0}, std::uintptr_t{1}, std::uintptr_t{0x1234},
        std::uintptr_t{0xFFFFFFFFFFFFFFF0}, std::uintptr_t{0xDEAD000000000000},
        std::uintptr_t{0x7FFFFFFEFFFF}}) {
    EXPECT_EQ(LengthOf(reinterpret_cast<const char*>(address)), kUnreadable) << address;
    EXPECT_EQ(LengthOf(reinterpret_cast<const wchar_t*>(address)), kUnreadable) << address;
  }
}

constexpr char kLiteral[] = "literal";

TEST(ReadableMemory, TakesTheCallersStackAndTheProgramForReadable) {
  EXPECT_EQ(LengthOf(kLiteral), 7U);
  const char local[] = "local";
  wchar_t wideLocal[] = L"local";
  const Questions questions;
  EXPECT_EQ(LengthOf(kLiteral), 7U);
  EXPECT_EQ(LengthOf(local), 5U);
  EXPECT_EQ(LengthOf(wideLocal), 5U);
  EXPECT_EQ(questions.Count(), 0);
}

TEST(ReadableMemory, AsksOncePerCallForTextsOfOneRegion) {
  EXPECT_EQ(LengthOf(kLiteral), 7U);  // where the program ends is asked once in a process
  const auto text = std::make_unique<char[]>(100);
  std::memcpy(text.get(), "one\0two", 8);
  const Questions questions;
  ReadableMemory memory;
  EXPECT_EQ(memory.LengthOf(text.get(), kNoLimit), 3U);
  EXPECT_EQ(memory.LengthOf(text.get() + 4, kNoLimit), 3U);
  EXPECT_EQ(questions.Count(), 1);
}

// Nothing is remembered beyond the call.
TEST(ReadableMemory, AsksAgainForTheNextCall) {
  const Pages pages;
  std::memcpy(pages.At(0), "one", 4);
  EXPECT_EQ(LengthOf(pages.At(0)), 3U);
  pages.Protect(0, PAGE_READWRITE | PAGE_GUARD);
  EXPECT_EQ(LengthOf(pages.At(0)), kUnreadable);
  EXPECT_EQ(pages.Protection(0), static_cast<DWORD>(PAGE_READWRITE | PAGE_GUARD));
}

}  // namespace

#include "identity/wmi.h"

#include <comdef.h>
#include <gmock/gmock.h>

#include <optional>

#include "tests/support/fake_wmi.h"
#include "tests/support/import_patch.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

using std::string_literals::operator""s;

constexpr HRESULT kAccessDenied = E_ACCESSDENIED;
constexpr HRESULT kShuttingDown = static_cast<HRESULT>(WBEM_E_SHUTTING_DOWN);

FakeQuery Things(std::vector<FakeObject> objects) {
  return {"things", L"ROOT\\Test", L"SELECT * FROM Thing", std::move(objects), {}};
}

FakeObject Thing(const std::string& name, FakeValue value) {
  return {name, {{L"Name", std::move(value)}}};
}

bool IsStatus(const FingerprintStatus& status, HRESULT code, unsigned stage) {
  return status.ErrorCode == code && status.ErrorStage == stage;
}

class WmiConnectionTest : public ::testing::Test {
 protected:
  void TearDown() override { EXPECT_THAT(server.Problems(), IsEmpty()); }

  // The names of all things, read as a collector reads them; nothing when a step before the walk
  // fails.
  std::optional<std::vector<std::string>> ReadThings() {
    WmiConnection wmi(status);
    if (!wmi.Open(L"ROOT\\Test")) {
      return std::nullopt;
    }
    const WmiResult things = wmi.Query(Bstr("SELECT * FROM Thing"));
    if (!things) {
      return std::nullopt;
    }
    std::vector<std::string> names;
    while (const WmiObject thing = wmi.Next(things)) {
      if (Bstr name = wmi.Read(thing, L"Name")) {
        names.emplace_back(name.Narrow());
      }
    }
    return names;
  }

  FakeWmi server;
  FingerprintStatus status{1, 1};
};

TEST_F(WmiConnectionTest, MakesEachCallOnceAndReleasesFromTheInsideOut) {
  server.Add(Things({Thing("thing 1", Text(L"one")), Thing("thing 2", Text(L"two"))}));
  const CallPatch<struct ClearTag, HRESULT WINAPI(VARIANTARG*)> clear(
      "oleaut32.dll", "VariantClear", [&](VARIANTARG* value) {
        server.Note("VariantClear");
        return clear.CallOriginal(value);
      });

  EXPECT_EQ(ReadThings(), (std::vector{"one"s, "two"s}));
  EXPECT_THAT(
      server.Journal(),
      ElementsAre("create locator", "ConnectServer ROOT\\Test", "SetBlanket", "ExecQuery things",
                  "Next things", "Get Name of thing 1", "VariantClear", "release thing 1",
                  "Next things", "Get Name of thing 2", "VariantClear", "release thing 2",
                  "Next things", "release things", "release services", "release locator"));
}

TEST_F(WmiConnectionTest, CreatesTheLocatorInThisProcess) {
  server.Add(Things({}));
  int calls = 0;
  const CallPatch<struct CreateTag, HRESULT WINAPI(REFCLSID, IUnknown*, DWORD, REFIID, void**)>
      create("ole32.dll", "CoCreateInstance",
             [&](REFCLSID clsid, IUnknown* outer, DWORD context, REFIID iid, void** result) {
               ++calls;
               constexpr CLSID kLocatorClass = {
                   0x4590F811, 0x1D3A, 0x11D0, {0x89, 0x1F, 0x00, 0xAA, 0x00, 0x4B, 0x2E, 0x24}};
               constexpr IID kLocatorInterface = {
                   0xDC12A687, 0x737F, 0x11CF, {0x88, 0x4D, 0x00, 0xAA, 0x00, 0x4B, 0x2E, 0x24}};
               EXPECT_TRUE(IsEqualGUID(clsid, kLocatorClass));
               EXPECT_EQ(outer, nullptr);
               EXPECT_EQ(context, 0x1U);
               EXPECT_TRUE(IsEqualGUID(iid, kLocatorInterface));
               return create.CallOriginal(clsid, outer, context, iid, result);
             });
  EXPECT_TRUE(ReadThings());
  EXPECT_EQ(calls, 1);
}

TEST_F(WmiConnectionTest, FailureToCreateTheLocatorIsStage4) {
  server.locatorResult = REGDB_E_CLASSNOTREG;
  EXPECT_FALSE(ReadThings());
  EXPECT_TRUE(IsStatus(status, REGDB_E_CLASSNOTREG, 4));
  EXPECT_THAT(server.Journal(), ElementsAre("create locator"));
}

TEST_F(WmiConnectionTest, MissingLocatorIsStage4) {
  const CallPatch<struct NoLocatorTag, HRESULT WINAPI(REFCLSID, IUnknown*, DWORD, REFIID, void**)>
      create("ole32.dll", "CoCreateInstance",
             [](REFCLSID, IUnknown*, DWORD, REFIID, void** result) {
               *result = nullptr;
               return S_FALSE;
             });
  EXPECT_FALSE(ReadThings());
  EXPECT_TRUE(IsStatus(status, S_FALSE, 4));
}

TEST_F(WmiConnectionTest, FailureToConnectIsStage5) {
  server.connectResult = kAccessDenied;
  EXPECT_FALSE(ReadThings());
  EXPECT_TRUE(IsStatus(status, kAccessDenied, 5));
  EXPECT_THAT(server.Journal(),
              ElementsAre("create locator", "ConnectServer ROOT\\Test", "release locator"));
}

TEST_F(WmiConnectionTest, MissingServicesAreStage5) {
  server.connectResult = S_FALSE;
  server.connectGivesNothing = true;
  EXPECT_FALSE(ReadThings());
  EXPECT_TRUE(IsStatus(status, S_FALSE, 5));
}

TEST_F(WmiConnectionTest, FailureOfTheProxyBlanketIsStage0) {
  server.blanketResult = kAccessDenied;
  EXPECT_FALSE(ReadThings());
  EXPECT_TRUE(IsStatus(status, kAccessDenied, 0));
  EXPECT_THAT(server.Journal(), ElementsAre("create locator", "ConnectServer ROOT\\Test",
                                            "SetBlanket", "release services", "release locator"));
}

TEST_F(WmiConnectionTest, FailureOfTheQueryIsStage6) {
  server.Add(Things({}));
  server.Query("things").result = kAccessDenied;
  EXPECT_FALSE(ReadThings());
  EXPECT_TRUE(IsStatus(status, kAccessDenied, 6));
  EXPECT_THAT(server.Journal(),
              ElementsAre("create locator", "ConnectServer ROOT\\Test", "SetBlanket",
                          "ExecQuery things", "release services", "release locator"));
}

TEST_F(WmiConnectionTest, MissingEnumeratorIsStage6) {
  server.Add(Things({}));
  server.Query("things").result = S_FALSE;
  server.Query("things").givesNothing = true;
  EXPECT_FALSE(ReadThings());
  EXPECT_TRUE(IsStatus(status, S_FALSE, 6));
}

TEST_F(WmiConnectionTest, QueryThatMatchesNoObjectEndsTheWalkAtOnceWithStage8) {
  server.Add(Things({}));
  EXPECT_EQ(ReadThings(), std::vector<std::string>{});
  EXPECT_TRUE(IsStatus(status, 1, 8));
}

TEST_F(WmiConnectionTest, WalkEndsWithAnError) {
  server.Add(Things({Thing("thing 1", Text(L"one"))}));
  server.Query("things").end = {kAccessDenied, 0, false};
  EXPECT_EQ(ReadThings(), std::vector{"one"s});
  EXPECT_TRUE(IsStatus(status, kAccessDenied, 8));
}

TEST_F(WmiConnectionTest, WalkEndsWithASuccessOtherThanZero) {
  server.Add(Things({Thing("thing 1", Text(L"one"))}));
  server.Query("things").end = {WBEM_S_TIMEDOUT, 1, true};
  EXPECT_EQ(ReadThings(), std::vector{"one"s});
  EXPECT_TRUE(IsStatus(status, WBEM_S_TIMEDOUT, 8));
}

TEST_F(WmiConnectionTest, WalkEndsWithANullObject) {
  server.Add(Things({Thing("thing 1", Text(L"one"))}));
  server.Query("things").end = {WBEM_S_NO_ERROR, 1, false};
  EXPECT_EQ(ReadThings(), std::vector{"one"s});
  EXPECT_TRUE(IsStatus(status, 0, 8));
}

TEST_F(WmiConnectionTest, WalkEndsWithACountOfZeroAndTheObjectGivenIsReleased) {
  server.Add(Things({Thing("thing 1", Text(L"one"))}));
  server.Query("things").end = {WBEM_S_NO_ERROR, 0, true};
  EXPECT_EQ(ReadThings(), std::vector{"one"s});
  EXPECT_TRUE(IsStatus(status, 0, 8));
}

TEST_F(WmiConnectionTest, ObjectWhosePropertyIsNullIsSkippedWithStage9AndTheWalkGoesOn) {
  server.Add(Things({Thing("thing 1", Null()), Thing("thing 2", Text(L"two"))}));
  EXPECT_EQ(ReadThings(), std::vector{"two"s});
  // The Get itself succeeded: its code 0 keeps the end of the walk from being recorded.
  EXPECT_TRUE(IsStatus(status, S_OK, 9));
}

TEST_F(WmiConnectionTest, ObjectWhosePropertyCannotBeReadIsSkippedWithStage9) {
  server.Add(Things({Thing("thing 1", Fails(kAccessDenied)), Thing("thing 2", Text(L"two"))}));
  WmiConnection wmi(status);
  ASSERT_TRUE(wmi.Open(L"ROOT\\Test"));
  const WmiResult things = wmi.Query(Bstr("SELECT * FROM Thing"));
  {
    const WmiObject first = wmi.Next(things);
    EXPECT_FALSE(wmi.Read(first, L"Name"));
    EXPECT_TRUE(IsStatus(status, kAccessDenied, 9));
  }
  const WmiObject second = wmi.Next(things);
  EXPECT_TRUE(wmi.Read(second, L"Name"));
}

TEST_F(WmiConnectionTest, TypeTagOfAValueIsNotLookedAt) {
  server.Add(Things({Thing("thing 1", UntaggedText(L"one"))}));
  EXPECT_EQ(ReadThings(), std::vector{"one"s});
}

TEST_F(WmiConnectionTest, EmptyTextIsAValue) {
  server.Add(Things({Thing("thing 1", Text(L""))}));
  EXPECT_EQ(ReadThings(), std::vector{""s});
}

TEST_F(WmiConnectionTest, RecordOfZerosIsNeverWritten) {
  for (const FingerprintStatus start : {FingerprintStatus{0, 0}, {0, 7}, {7, 0}}) {
    status = start;
    FakeWmi& all = server;
    all.locatorResult = kAccessDenied;
    EXPECT_FALSE(ReadThings());
    all.locatorResult = S_OK;
    all.connectResult = kAccessDenied;
    EXPECT_FALSE(ReadThings());
    all.connectResult = S_OK;
    all.blanketResult = kAccessDenied;
    EXPECT_FALSE(ReadThings());
    all.blanketResult = S_OK;
    EXPECT_FALSE(ReadThings());  // the query is not known
    EXPECT_TRUE(IsStatus(status, start.ErrorCode, start.ErrorStage));
  }
  server.Add(Things({Thing("thing 1", Fails(kAccessDenied))}));
  status = {};
  EXPECT_TRUE(ReadThings());
  EXPECT_TRUE(IsStatus(status, 0, 0));
}

TEST_F(WmiConnectionTest, RecordEndsWithTheLastFailureOffered) {
  server.Add(Things({Thing("thing 1", Fails(kAccessDenied))}));
  server.Query("things").end = {kShuttingDown, 0, false};
  EXPECT_TRUE(ReadThings());
  EXPECT_TRUE(IsStatus(status, kShuttingDown, 8));
}

TEST_F(WmiConnectionTest, TextThatCannotBeAllocatedIsThrownWithEverythingReleased) {
  // The namespace, the query text, the language and the value, one after the other.
  constexpr int kTexts = 4;
  for (int failing = 1; failing <= kTexts + 1; ++failing) {
    SCOPED_TRACE(failing);
    FakeWmi& all = server;
    if (failing == 1) {
      all.Add(Things({Thing("thing 1", Text(L"one"))}));
    }
    int calls = 0;
    const CallPatch<struct AllocateTag, BSTR WINAPI(const OLECHAR*, UINT)> allocate(
        "oleaut32.dll", "SysAllocStringLen", [&](const OLECHAR* text, UINT length) -> BSTR {
          return ++calls == failing ? nullptr : allocate.CallOriginal(text, length);
        });
    if (failing <= kTexts) {
      try {
        ReadThings();
        ADD_FAILURE() << "nothing thrown";
      } catch (const _com_error& error) {
        EXPECT_EQ(error.Error(), E_OUTOFMEMORY);
      }
      EXPECT_EQ(all.Journal().back(), "release locator");
    } else {
      EXPECT_TRUE(ReadThings());
      EXPECT_EQ(calls, kTexts);
    }
    EXPECT_THAT(all.Problems(), IsEmpty());
  }
}

TEST_F(WmiConnectionTest, EveryTextIsFreedOnce) {
  server.Add(Things({Thing("thing 1", Text(L"one")), Thing("thing 2", Null())}));
  std::vector<BSTR> held;
  const CallPatch<struct CountAllocateTag, BSTR WINAPI(const OLECHAR*, UINT)> allocate(
      "oleaut32.dll", "SysAllocStringLen", [&](const OLECHAR* text, UINT length) {
        held.push_back(allocate.CallOriginal(text, length));
        return held.back();
      });
  const CallPatch<struct CountFreeTag, void WINAPI(BSTR)> release(
      "oleaut32.dll", "SysFreeString", [&](BSTR text) {
        EXPECT_EQ(std::erase(held, text), 1U);
        release.CallOriginal(text);
      });
  EXPECT_TRUE(ReadThings());
  EXPECT_THAT(held, IsEmpty());
}

TEST(Bstr, IsMadeFromNarrowText) {
  const Bstr text("SELECT * FROM Thing");
  EXPECT_EQ(text.View(), L"SELECT * FROM Thing");
  EXPECT_STREQ(text.Get(), L"SELECT * FROM Thing");
}

TEST(Bstr, KeepsTheWholeLengthOfWideText) {
  const Bstr text(L"a\0b"s);
  EXPECT_EQ(text.View(), L"a\0b"s);
}

TEST(Bstr, EmptyTextIsNotTheSameAsNone) {
  EXPECT_TRUE(Bstr(""));
  EXPECT_TRUE(Bstr(std::wstring_view()));
  Bstr none;
  EXPECT_FALSE(none);
  EXPECT_STREQ(none.Narrow(), "");
}

TEST(Bstr, IsConvertedToTheAnsiCodePageOnce) {
  int calls = 0;
  const CallPatch<struct ConvertTag,
                  int WINAPI(UINT, DWORD, LPCWCH, int, LPSTR, int, LPCCH, LPBOOL)>
      convert("KERNEL32.dll", "WideCharToMultiByte",
              [&](UINT codePage, DWORD flags, LPCWCH wide, int wideLength, LPSTR narrow,
                  int narrowSize, LPCCH fallback, LPBOOL usedFallback) {
                EXPECT_EQ(codePage, 0U);
                calls += narrowSize != 0 ? 1 : 0;
                return convert.CallOriginal(codePage, flags, wide, wideLength, narrow, narrowSize,
                                            fallback, usedFallback);
              });
  Bstr text(L"4C4C4544-0035");
  EXPECT_STREQ(text.Narrow(), "4C4C4544-0035");
  const char* const first = text.Narrow();
  EXPECT_EQ(text.Narrow(), first);
  EXPECT_EQ(calls, 1);
}

}  // namespace

// The staged vorlinfo.dll, loaded by ordinal as the product does.
#include "support/vorlinfo.h"

#include <gmock/gmock.h>

#include <array>
#include <cstring>
#include <string>

#include "tests/support/installation.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

using NameFunction = BOOLEAN(const char*, char*, DWORD);

class VersionedNames : public ::testing::Test {
 protected:
  // What the function gives; "refused" when it gives false and leaves the whole buffer alone.
  static std::string Ask(NameFunction* function, const char* baseName, DWORD capacity) {
    constexpr char kUntouched = '\x5A';
    std::array<char, 2000> buffer;
    buffer.fill(kUntouched);
    const bool isGiven = function(baseName, buffer.data(), capacity) != FALSE;
    const std::size_t used = isGiven ? std::strlen(buffer.data()) + 1 : 0;
    EXPECT_LE(used, capacity);
    for (std::size_t i = used; i < buffer.size(); ++i) {
      EXPECT_EQ(buffer[i], kUntouched) << "byte " << i;
    }
    return isGiven ? buffer.data() : "refused";
  }

  std::string Event(const char* baseName, DWORD capacity = 500) const {
    return Ask(m_library.Ordinal<NameFunction>(1), baseName, capacity);
  }
  std::string Service(const char* baseName, DWORD capacity = 100) const {
    return Ask(m_library.Ordinal<NameFunction>(9), baseName, capacity);
  }

  Library m_library{StagedFolder() / "vorlinfo.dll"};
};

TEST_F(VersionedNames, AreExportedByOrdinalsOneAndNineWithoutNames) {
  EXPECT_THAT(m_library.ExportedOrdinals(), ElementsAre(1, 9));
  EXPECT_THAT(m_library.ExportedNames(), IsEmpty());
}

TEST_F(VersionedNames, ServiceNameEndsWithTheMajorVersion) {
  EXPECT_EQ(Service("Client Agent"), "Client Agent 1");
}

TEST_F(VersionedNames, EventNamesLieInTheNamespaceOfAllSessions) {
  EXPECT_EQ(Event("AcClientAgentSrvcCloseFromServicef"),
            "Global\\AcClientAgentSrvcCloseFromServicef_v1");
  EXPECT_EQ(Event("AcClientAgentSrvcExitFromOuterModuleEvent"),
            "Global\\AcClientAgentSrvcExitFromOuterModuleEvent_v1");
}

TEST_F(VersionedNames, NameThatJustFitsIsGivenAndOneByteLessIsRefused) {
  EXPECT_EQ(Service("Client Agent", 15), "Client Agent 1");
  EXPECT_EQ(Service("Client Agent", 14), "refused");
  EXPECT_EQ(Event("E", 12), "Global\\E_v1");
  EXPECT_EQ(Event("E", 11), "refused");
}

TEST_F(VersionedNames, NoCapacityIsRefused) {
  EXPECT_EQ(Service("Client Agent", 0), "refused");
  EXPECT_EQ(Event("E", 0), "refused");
}

TEST_F(VersionedNames, ServiceNameOf63CharactersIsRefusedWhateverTheCapacity) {
  EXPECT_EQ(Service(std::string(60, 'x').c_str(), 1000), std::string(60, 'x') + " 1");
  EXPECT_EQ(Service(std::string(61, 'x').c_str(), 1000), "refused");
}

TEST_F(VersionedNames, EventNameMayFillTheCapacity) {
  EXPECT_EQ(Event(std::string(489, 'x').c_str()), "Global\\" + std::string(489, 'x') + "_v1");
  EXPECT_EQ(Event(std::string(490, 'x').c_str()), "refused");
  EXPECT_EQ(Event(std::string(100'000, 'x').c_str()), "refused");
}

TEST_F(VersionedNames, EmptyNamesAndNullPointersAreRefused) {
  EXPECT_EQ(Service(""), "refused");
  EXPECT_EQ(Event(""), "refused");
  EXPECT_EQ(Service(nullptr), "refused");
  EXPECT_EQ(Event(nullptr), "refused");
  EXPECT_EQ(m_library.Ordinal<NameFunction>(1)("E", nullptr, 500), FALSE);
  EXPECT_EQ(m_library.Ordinal<NameFunction>(9)("S", nullptr, 100), FALSE);
}

TEST_F(VersionedNames, CharactersThatWindowsDoesNotTakeAreRefused) {
  EXPECT_EQ(Service("Client\\Agent"), "refused");
  EXPECT_EQ(Service("Client/Agent"), "refused");
  EXPECT_EQ(Event("Local\\Event"), "refused");
  EXPECT_EQ(Event("and/or"), "Global\\and/or_v1");
}

TEST_F(VersionedNames, BaseNameMayLieInTheBufferForTheResult) {
  char name[100] = "Client Agent";
  EXPECT_NE(m_library.Ordinal<NameFunction>(9)(name, name, sizeof(name)), FALSE);
  EXPECT_STREQ(name, "Client Agent 1");
  char event[100] = "E";
  EXPECT_NE(m_library.Ordinal<NameFunction>(1)(event, event, sizeof(event)), FALSE);
  EXPECT_STREQ(event, "Global\\E_v1");
}

TEST_F(VersionedNames, KernelTakesTheEventName) {
  const std::string base = "VersionedNamesTest" + std::to_string(GetCurrentProcessId());
  const std::string name = Event(base.c_str());
  const KernelHandle event(CreateEventA(nullptr, TRUE, FALSE, name.c_str()));
  EXPECT_TRUE(event) << name << ", error " << GetLastError();
}

// The same sources, built as the next major version.
TEST_F(VersionedNames, DifferBetweenMajorVersionsSoThatTwoCanStandSideBySide) {
  const Library next(StagedFolder().parent_path() / "tests" / "unit" / "next" / "vorlinfo.dll");
  const std::string nextService = Ask(next.Ordinal<NameFunction>(9), "Client Agent", 100);
  const std::string nextEvent = Ask(next.Ordinal<NameFunction>(1), "Event", 500);
  EXPECT_EQ(nextService, "Client Agent 2");
  EXPECT_NE(nextService, Service("Client Agent"));
  EXPECT_EQ(nextEvent, "Global\\Event_v2");
  EXPECT_NE(nextEvent, Event("Event"));
}

}  // namespace

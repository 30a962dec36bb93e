#include "tools/vorldiag/identity/cachereport.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <utility>

#include "tests/support/files.h"
#include "tests/support/import_patch.h"

namespace fs = std::filesystem;
using ::testing::EndsWith;
using ::testing::HasSubstr;

namespace {

class CacheReport : public ::testing::Test {
 protected:
  CacheReport() {
    // What a path in the code page could not name.
    fs::create_directory(place);
    Set("A4:BB:6D:11:22:33");
  }
  // The folder could not be removed.
  ~CacheReport() override { fs::current_path(before); }

  void Set(const std::string& address) { hardware.raw.MacAddressList.assign(1, address); }
  Finding Write() {
    const Report report = WriteCacheReport(hardware, place.wstring());
    EXPECT_EQ(report.sections[0].findings.size(), 1U);
    return report.sections[0].findings[0];
  }
  Verdict Check() { return CheckCacheReport(hardware, place.wstring()).Worst(); }
  std::vector<fs::path> Files() const {
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(place)) {
      files.push_back(entry.path().filename());
    }
    return files;
  }

  const fs::path before = fs::current_path();
  const TempFolder folder;
  const fs::path place = folder.Path() / L"\u5BA2\u6236";
  Hardware hardware;
};

TEST_F(CacheReport, SaysWhatDiffersFromTheFileThatWasWritten) {
  EXPECT_EQ(Check(), Verdict::kError);
  EXPECT_THAT(Write().value, EndsWith("\\hwcdata.dat is written"));
  EXPECT_EQ(Check(), Verdict::kOk);
  Set("A4:BB:6D:11:22:34");
  EXPECT_EQ(Check(), Verdict::kWarning);
  EXPECT_EQ(Write().verdict, Verdict::kOk);
  EXPECT_EQ(Check(), Verdict::kOk);
  EXPECT_EQ(Files(), std::vector<fs::path>{"hwcdata.dat"});
}

TEST_F(CacheReport, OnAFullDiskKeepsTheFileThatIsThere) {
  EXPECT_EQ(Write().verdict, Verdict::kOk);
  Set("A4:BB:6D:11:22:34");
  for (int failAt : {1, 2, 3}) {
    const CallPatch<struct WriteTag, int(int, const void*, unsigned)> write(
        "msvcrt.dll", "_write", [&](int file, const void* data, unsigned size) {
          if (--failAt != 0) {
            return write.CallOriginal(file, data, size);
          }
          errno = ENOSPC;
          return -1;
        });
    const Finding finding = Write();
    EXPECT_EQ(finding.verdict, Verdict::kError);
    EXPECT_THAT(finding.value, EndsWith("\\hwcdata.dat cannot be written: the disk is full"));
    EXPECT_THAT(finding.advice, HasSubstr("--folder FOLDER"));
    EXPECT_EQ(Files(), std::vector<fs::path>{"hwcdata.dat"});
  }
  EXPECT_EQ(Check(), Verdict::kWarning);
  Set("A4:BB:6D:11:22:33");
  EXPECT_EQ(Check(), Verdict::kOk);
}

TEST_F(CacheReport, InOtherHandsIsNeitherReplacedNorDamaged) {
  EXPECT_EQ(Write().verdict, Verdict::kOk);
  {
    const FileHandle holder(CreateFileW((place / "hwcdata.dat").c_str(), GENERIC_READ, 0, nullptr,
                                        OPEN_EXISTING, 0, nullptr));
    EXPECT_THAT(Write().value, HasSubstr(" cannot be written: error "));
    EXPECT_EQ(Check(), Verdict::kError);
  }
  EXPECT_EQ(Files(), std::vector<fs::path>{"hwcdata.dat"});
  EXPECT_EQ(Check(), Verdict::kOk);
}

TEST_F(CacheReport, SaysThatAFileIsDamaged) {
  EXPECT_EQ(Write().verdict, Verdict::kOk);
  fs::resize_file(place / "hwcdata.dat", 100);
  const Report report = CheckCacheReport(hardware, place.wstring());
  EXPECT_THAT(report.sections[0].findings[0].value,
              EndsWith("it is damaged, or no hardware cache file"));
  EXPECT_THAT(report.sections[0].findings[0].advice, HasSubstr("vorldiag cache write"));
}

TEST_F(CacheReport, SaysWhyAFileCannotBeUsed) {
  EXPECT_EQ(Write().verdict, Verdict::kOk);
  const FileHandle holder(CreateFileW((place / "hwcdata.dat").c_str(), GENERIC_READ, 0, nullptr,
                                      OPEN_EXISTING, 0, nullptr));
  const Finding held = CheckCacheReport(hardware, place.wstring()).sections[0].findings[0];
  EXPECT_THAT(held.value, EndsWith(": no right to it, or another program holds it"));
  EXPECT_THAT(held.advice, HasSubstr("elevated prompt"));
}

TEST_F(CacheReport, SaysWhyAFileCannotBeWritten) {
  const std::pair<int, const char*> reasons[] = {{EIO, ": errno 5"},
                                                 {0, ": not all of it could be written"}};
  for (const auto& [number, text] : reasons) {
    const CallPatch<struct ReasonTag, int(int, const void*, unsigned)> write(
        "msvcrt.dll", "_write", [error = number](int, const void*, unsigned) {
          errno = error;
          return error == 0 ? 0 : -1;
        });
    EXPECT_THAT(Write().value, EndsWith(text));
  }
}

TEST_F(CacheReport, NeedsAFolderThatIsThereAndHardware) {
  const std::wstring none = (place / "none").wstring();
  const Finding entered = WriteCacheReport(hardware, none).sections[0].findings[0];
  EXPECT_EQ(entered.verdict, Verdict::kError);
  EXPECT_THAT(entered.value, HasSubstr("\\none cannot be entered: error 2"));
  hardware.problem = "COM cannot be used";
  for (const Report& report :
       {WriteCacheReport(hardware, place.wstring()), CheckCacheReport(hardware, place.wstring())}) {
    EXPECT_EQ(report.sections[0].findings.size(), 1U);
    EXPECT_EQ(report.sections[0].findings[0].value, "COM cannot be used");
    EXPECT_EQ(report.Worst(), Verdict::kError);
  }
  EXPECT_TRUE(Files().empty());
}

TEST_F(CacheReport, OfHardwareThatCannotAnswerIsAWarning) {
  EXPECT_EQ(Write().verdict, Verdict::kOk);
  hardware.haveAddressesFailed = true;
  EXPECT_EQ(Write().verdict, Verdict::kWarning);
  EXPECT_THAT(Write().value, EndsWith("\\hwcdata.dat is written without network addresses"));
  const Report report = CheckCacheReport(hardware, place.wstring());
  EXPECT_EQ(report.Worst(), Verdict::kWarning);
  EXPECT_EQ(report.sections[0].findings[3].value, "unknown, was A4:BB:6D:11:22:33");
  EXPECT_EQ(report.sections[0].findings[4].value, "unknown, was (none)");
  // What is gone is not what is unknown.
  hardware.haveAddressesFailed = false;
  hardware.raw.MacAddressList.clear();
  EXPECT_EQ(CheckCacheReport(hardware, place.wstring()).sections[0].findings[3].value,
            "(none), was A4:BB:6D:11:22:33");
}

}  // namespace

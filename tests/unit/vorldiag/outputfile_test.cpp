#include "tools/vorldiag/machine/outputfile.h"

#include <gmock/gmock.h>

#include <stdexcept>

#include "tests/support/files.h"

namespace fs = std::filesystem;

namespace {

class OutputFileTest : public ::testing::Test {
 protected:
  OutputFileTest() { std::ofstream(path) << "before"; }

  static std::string Content(const std::string& file) {
    const ByteVector bytes = ReadBytes(file);
    return {bytes.begin(), bytes.end()};
  }

  const TempFolder folder;
  const std::string path = folder.File("out");
};

TEST_F(OutputFileTest, TakesItsPlaceWhenItIsWhole) {
  OutputFile file(path);
  file.Write("abcdef");
  file.WriteAt(1, "XY");
  file.Write("g");
  EXPECT_EQ(file.Size(), 7U);
  EXPECT_EQ(Content(path), "before");
  file.Finish();
  EXPECT_EQ(Content(path), "aXYdefg");
  EXPECT_FALSE(fs::exists(path + ".part"));
}

TEST_F(OutputFileTest, LeavesWhatIsThereWhenItIsGivenUp) {
  {
    OutputFile file(path);
    file.Write("half");
  }
  EXPECT_EQ(Content(path), "before");
  EXPECT_FALSE(fs::exists(path + ".part"));
}

TEST_F(OutputFileTest, SaysWhyItCannotBeWritten) {
  EXPECT_THROW(OutputFile((folder.Path() / "none" / "out").string()), std::runtime_error);
  const std::string other = folder.File("folder");
  fs::create_directories(other + "\\inside");
  OutputFile file(other);
  EXPECT_THROW(file.Finish(), std::runtime_error);
  EXPECT_FALSE(fs::exists(other + ".part"));
}

}  // namespace

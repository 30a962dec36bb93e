#include "tools/vorldiag/machine/configurationfile.h"

#include <gmock/gmock.h>

#include "tests/support/files.h"

using ::testing::StartsWith;

namespace {

class ConfigurationProblem : public ::testing::Test {
 protected:
  std::string Read() const {
    IniFile file;
    return ReadConfiguration(path.wstring(), file);
  }
  void Put(const std::string& bytes) const {
    std::ofstream(path, std::ios::binary) << bytes;
    LetRest(path);
  }

  const TempFolder folder;
  const std::filesystem::path path = folder.Path() / "vorlconf.ini";
};

TEST_F(ConfigurationProblem, IsNoneOfAFileThatIsReadOrMissing) {
  EXPECT_EQ(Read(), "");
  Put("[A]\r\nb=c\r\n");
  EXPECT_EQ(Read(), "");
}

TEST_F(ConfigurationProblem, SaysWhatIsWrongWithTheFile) {
  Put(std::string(std::size_t{1024} * 1024 + 1, ';'));
  EXPECT_EQ(Read(), "the file is too large for a configuration file");
  Put(std::string("[A]\0\r\n", 6));
  EXPECT_EQ(Read(), "the file is damaged, it holds null characters");
  std::filesystem::remove(path);
  std::filesystem::create_directory(path);
  EXPECT_THAT(Read(), StartsWith("the file cannot be read: error 5"));
}

TEST_F(ConfigurationProblem, SaysThatSomebodyElseHoldsTheFile) {
  Put("[A]\r\n");
  const FileHandle holder(
      CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
  EXPECT_THAT(Read(), StartsWith("the file is in use: error 32"));
}

}  // namespace

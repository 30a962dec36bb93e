#include "tools/vorldiag/machine/outputfile.h"

#include <gmock/gmock.h>

#include <cstdint>
#include <stdexcept>

#include "tests/support/files.h"
#include "tests/support/import_patch.h"
#include "tools/vorldiag/text/utf8.h"

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::StartsWith;

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

// The error that a file gives when `content` is written into it; empty when it is there.
std::string Write(const std::string& path, const std::string& content) {
  try {
    OutputFile file(path);
    file.Write(content);
    file.Finish();
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "";
}

TEST_F(OutputFileTest, OnAFullDiskLeavesWhatIsThereAndNoHalf) {
  for (const std::uint32_t room : {0U, 3000U, 0xFFFFFFFFU}) {
    SCOPED_TRACE(room);
    std::uint32_t left = room;
    bool isFull = false;
    CallPatch<struct WriteTag, BOOL WINAPI(HANDLE, const void*, DWORD, DWORD*, OVERLAPPED*)> write(
        "kernel32.dll", "WriteFile",
        [&](HANDLE handle, const void* bytes, DWORD size, DWORD* written, OVERLAPPED* overlapped) {
          isFull = size > left;
          const DWORD taken = isFull ? left : size;
          left -= taken;
          SetLastError(ERROR_DISK_FULL);
          // Windows may take a part and fail only when the rest comes.
          return taken != 0 && write.CallOriginal(handle, bytes, taken, written, overlapped);
        });
    // And a disk elsewhere says it last of all.
    CallPatch<struct FlushTag, BOOL WINAPI(HANDLE)> flush("kernel32.dll", "FlushFileBuffers",
                                                          [](HANDLE) {
                                                            SetLastError(ERROR_DISK_FULL);
                                                            return FALSE;
                                                          });
    EXPECT_THAT(Write(path, std::string(10'000, 'x')),
                StartsWith(path + " cannot be written: error 112 ("));
    EXPECT_EQ(Content(path), "before");
    EXPECT_FALSE(fs::exists(path + ".part"));
  }
}

TEST_F(OutputFileTest, GivesUpWhereNothingIsTaken) {
  CallPatch<struct NothingTag, BOOL WINAPI(HANDLE, const void*, DWORD, DWORD*, OVERLAPPED*)> write(
      "kernel32.dll", "WriteFile", [](HANDLE, const void*, DWORD, DWORD* written, OVERLAPPED*) {
        *written = 0;
        return TRUE;
      });
  EXPECT_THAT(Write(path, "x"), HasSubstr(" cannot be written: error 29"));
}

// Windows takes 259 characters without the prefix, Wine any number.
TEST_F(OutputFileTest, OfALongPathIsAskedForInTheFormThatWindowsTakes) {
  std::vector<std::wstring> asked;
  CallPatch<struct OpenTag,
            HANDLE WINAPI(const wchar_t*, DWORD, DWORD, SECURITY_ATTRIBUTES*, DWORD, DWORD, HANDLE)>
      open("kernel32.dll", "CreateFileW",
           [&](const wchar_t* name, DWORD access, DWORD share, SECURITY_ATTRIBUTES* attributes,
               DWORD disposition, DWORD flags, HANDLE like) {
             asked.emplace_back(name);
             return open.CallOriginal(name, access, share, attributes, disposition, flags, like);
           });
  const std::string deep = folder.File(std::string(100, 'd') + "\\" + std::string(100, 'e'));
  fs::create_directories(deep);
  for (const std::string& name : {deep + "\\" + std::string(90, 'f'), deep + "/./f/../g",
                                  folder.File(std::string(255, 'h'))}) {
    SCOPED_TRACE(name);
    const bool isLong = fs::absolute(name).lexically_normal().string().size() > 254;
    EXPECT_EQ(Write(name, "x"), "");
    EXPECT_EQ(Content(name), "x");
    EXPECT_EQ(asked.back().compare(0, 4, L"\\\\?\\") == 0, isLong) << Utf8(asked.back());
    EXPECT_TRUE(isLong || asked.back().size() < 260);
    fs::remove(name);
  }
  EXPECT_TRUE(fs::is_empty(deep));
}

TEST_F(OutputFileTest, OfANameThatNoFileCanHaveIsRefusedAtOnce) {
  const std::string name = folder.File(std::string(256, 'x'));
  EXPECT_THROW(static_cast<void>(OutputFile(name)), std::runtime_error);
  EXPECT_THAT(Write(name, "x"), StartsWith(name + " cannot be written: error 206"));
}

TEST_F(OutputFileTest, OnAServerIsAskedForInTheFormThatWindowsTakes) {
  std::wstring asked;
  CallPatch<struct OpenTag,
            HANDLE WINAPI(const wchar_t*, DWORD, DWORD, SECURITY_ATTRIBUTES*, DWORD, DWORD, HANDLE)>
      open("kernel32.dll", "CreateFileW",
           [&](const wchar_t* name, DWORD, DWORD, SECURITY_ATTRIBUTES*, DWORD, DWORD, HANDLE) {
             asked = name;
             SetLastError(ERROR_BAD_NETPATH);
             return INVALID_HANDLE_VALUE;
           });
  const std::string deep = std::string(100, 'd') + "\\" + std::string(200, 'e') + "\\f";
  EXPECT_THAT(Write("\\\\server\\share\\" + deep, "x"), HasSubstr("error 53"));
  EXPECT_EQ(asked, L"\\\\?\\UNC\\server\\share\\" + Wide(deep).substr(0, 302) + L"f.part");
  // What is in this form already stays as it is.
  Write("\\\\?\\C:\\" + deep, "x");
  EXPECT_EQ(asked, L"\\\\?\\C:\\" + Wide(deep) + L".part");
  Write("\\\\.\\C:\\" + deep, "x");
  EXPECT_EQ(asked, L"\\\\.\\C:\\" + Wide(deep) + L".part");
}

// The folder that a path without one is in may be as long as it likes.
TEST_F(OutputFileTest, InALongFolderIsFoundByItsNameAlone) {
  std::wstring asked;
  const std::wstring whole = L"C:\\" + std::wstring(2000, L'x') + L"\\out";
  CallPatch<struct WholeTag, DWORD WINAPI(const wchar_t*, DWORD, wchar_t*, wchar_t**)> path2(
      "kernel32.dll", "GetFullPathNameW",
      [&](const wchar_t*, DWORD size, wchar_t* buffer, wchar_t**) -> DWORD {
        if (size <= whole.size()) {
          return static_cast<DWORD>(whole.size() + 1);
        }
        buffer[whole.copy(buffer, whole.size())] = L'\0';
        return static_cast<DWORD>(whole.size());
      });
  CallPatch<struct OpenTag2,
            HANDLE WINAPI(const wchar_t*, DWORD, DWORD, SECURITY_ATTRIBUTES*, DWORD, DWORD, HANDLE)>
      open("kernel32.dll", "CreateFileW",
           [&](const wchar_t* name, DWORD, DWORD, SECURITY_ATTRIBUTES*, DWORD, DWORD, HANDLE) {
             asked = name;
             return INVALID_HANDLE_VALUE;
           });
  Write("out", "x");
  EXPECT_EQ(asked, L"\\\\?\\" + whole + L".part");
}

}  // namespace

// What a bundle takes, leaves out and masks.
#include "tools/vorldiag/bundle/bundle.h"

#include <gmock/gmock.h>
#include <zlib.h>

#include <map>
#include <stdexcept>

#include "tests/support/files.h"
#include "tests/support/import_patch.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

namespace {

namespace fs = std::filesystem;

// The entries of an archive, by name.
using Archive = std::map<std::string, std::string>;

std::string Inflated(std::string packed, std::size_t size) {
  constexpr int rawStream = -MAX_WBITS;
  std::string bytes(size + 1, '\0');
  z_stream stream{};
  EXPECT_EQ(inflateInit2(&stream, rawStream), Z_OK);
  stream.next_in = reinterpret_cast<Bytef*>(packed.data());
  stream.avail_in = static_cast<uInt>(packed.size());
  stream.next_out = reinterpret_cast<Bytef*>(bytes.data());
  stream.avail_out = static_cast<uInt>(bytes.size());
  EXPECT_EQ(inflate(&stream, Z_FINISH), Z_STREAM_END);
  EXPECT_EQ(stream.total_out, size);
  inflateEnd(&stream);
  bytes.resize(size);
  return bytes;
}

class Bundle : public ::testing::Test {
 protected:
  Bundle() {
    fs::create_directories(installation.Path() / "logs");
    fs::create_directories(installation.Path() / "conf");
    situation.programFolder = installation.Path().wstring();
    situation.configuration.path = (installation.Path() / "conf").wstring();
    snapshot.computer = "PC4711";
    snapshot.status.command = "status";
    snapshot.identity.command = "identity";
    mask.AddName("computer", "PC4711");
  }

  void Put(const std::string& name, const std::string& bytes) const {
    std::ofstream(installation.File(name), std::ios::binary) << bytes;
  }
  Archive Write(bool isMasked = true) {
    constexpr std::size_t localHeader = 30;
    const std::string path = folder.File("ticket.zip");
    facts = WriteBundle(path, situation, snapshot, isMasked ? &mask : nullptr);
    const ByteVector bytes = ReadBytes(path);
    EXPECT_EQ(facts.size, bytes.size());
    Archive archive;
    for (const ZipWriter::Entry& entry : facts.entries) {
      const auto begin = bytes.begin() + static_cast<std::ptrdiff_t>(entry.offset + localHeader +
                                                                     entry.name.size());
      archive[entry.name] =
          Inflated({begin, begin + static_cast<std::ptrdiff_t>(entry.packedSize)}, entry.size);
      EXPECT_EQ(entry.checkSum, crc32(0, reinterpret_cast<const Bytef*>(archive[entry.name].data()),
                                      static_cast<uInt>(entry.size)));
    }
    return archive;
  }

  const TempFolder installation;
  const TempFolder folder;
  Situation situation;
  Snapshot snapshot;
  Mask mask;
  BundleFacts facts;
};

TEST_F(Bundle, TakesTheFilesAsTheyAre) {
  Put("conf/vorlconf.ini", "[PC4711]\r\n");
  Put("logs/vorltrace.log", "on PC4711\r\n");
  Put("logs/vorltrace.000001.log", "");
  Archive archive = Write(/*isMasked=*/false);
  EXPECT_EQ(archive["conf/vorlconf.ini"], "[PC4711]\r\n");
  EXPECT_EQ(archive["logs/vorltrace.log"], "on PC4711\r\n");
  EXPECT_EQ(archive.count("logs/vorltrace.000001.log"), 1U);
  EXPECT_THAT(archive["contents.txt"], HasSubstr("Nothing is replaced."));
  EXPECT_THAT(facts.leftOut, IsEmpty());
}

TEST_F(Bundle, MasksAConfigurationInAnyEncoding) {
  const std::string utf8 = "\xEF\xBB\xBF";
  const std::string text = "[PC4711] J\xC3\xBCrgen";
  std::string little = "\xFF\xFE";
  std::string big = "\xFE\xFF";
  for (const char16_t unit : std::u16string(u"[PC4711] J\u00FCrgen")) {
    little += {static_cast<char>(unit & 0xFF), static_cast<char>(unit >> 8)};
    big += {static_cast<char>(unit >> 8), static_cast<char>(unit & 0xFF)};
  }
  for (const std::string& bytes : {utf8 + text, little, big, little + "x"}) {
    Put("conf/vorlconf.ini", bytes);
    EXPECT_EQ(Write()["conf/vorlconf.ini"], utf8 + "[[computer-1]] J\xC3\xBCrgen");
  }
  // Without a mark it is in the code page.
  Put("conf/vorlconf.ini", "[PC4711]");
  EXPECT_EQ(Write()["conf/vorlconf.ini"], utf8 + "[[computer-1]]");
}

TEST_F(Bundle, MasksWhatTheReportsSay) {
  for (Report* const report : {&snapshot.status, &snapshot.identity}) {
    report->sections = {{"a", "A", {}}};
    report->sections[0].Warn("b", "B", "PC4711 is off", "look at PC4711");
  }
  snapshot.settings = {"PC4711 has no file", {{"TRACE", "Files", "", "PC4711"}}};
  TraceLine line;
  line.level = 1;
  line.module = line.function = line.text = "PC4711";
  snapshot.trace.lines = {line};
  Archive archive = Write();
  for (const auto& [name, text] : archive) {
    EXPECT_THAT(text, Not(HasSubstr("PC4711"))) << name;
  }
  EXPECT_THAT(archive["status.json"], HasSubstr("[computer-1] is off"));
  EXPECT_THAT(archive["contents.txt"],
              AllOf(StartsWith("Client Agent on [computer-1], "), HasSubstr("are replaced")));
}

TEST_F(Bundle, SaysWhatItLeavesOut) {
  // Neither can be opened as a file.
  fs::create_directory(installation.Path() / "conf" / "vorlconf.ini");
  fs::create_directory(installation.Path() / "logs" / "vorltrace.log");
  Archive archive = Write();
  EXPECT_THAT(facts.leftOut, ElementsAre(StartsWith("conf/vorlconf.ini: error 5"),
                                         StartsWith("logs/vorltrace.log: error 5")));
  EXPECT_THAT(archive["contents.txt"], HasSubstr("Left out: logs/vorltrace.log: error 5"));
  EXPECT_EQ(archive.count("logs/vorltrace.log"), 0U);
  situation.configuration.path.clear();
  Write(/*isMasked=*/false);
  EXPECT_THAT(facts.leftOut[0], StartsWith("conf/vorlconf.ini: error 3"));
}

TEST_F(Bundle, TakesTheYoungestOfATraceThatIsTooLarge) {
  Put("logs/vorltrace.000001.log", "old");
  Put("logs/vorltrace.000002.log", "young");
  const CallPatch<struct SizeTag, BOOL WINAPI(HANDLE, LARGE_INTEGER*)> size(
      "KERNEL32.dll", "GetFileSizeEx", [](HANDLE, LARGE_INTEGER* bytes) {
        bytes->QuadPart = LONGLONG{600} * 1024 * 1024;
        return TRUE;
      });
  situation.configuration.path.clear();
  Archive archive = Write();
  EXPECT_EQ(archive["logs/vorltrace.000002.log"], "young");
  EXPECT_EQ(archive.count("logs/vorltrace.000001.log"), 0U);
  EXPECT_THAT(facts.leftOut, Contains("logs/vorltrace.000001.log: older than the 1024 MB of the "
                                      "trace that a bundle takes"));
}

// Bytes that cannot be packed take more room than what is packed at once.
TEST_F(Bundle, TakesWhatCannotBePacked) {
  std::string noise;
  std::uint32_t state = 4711;
  while (noise.size() < 300'000) {
    state = state * 1664525 + 1013904223;
    noise += static_cast<char>(state >> 24);
  }
  Put("logs/vorltrace.log", noise);
  EXPECT_EQ(Write(/*isMasked=*/false)["logs/vorltrace.log"], noise);
  EXPECT_GT(facts.size, noise.size());
}

// A value may begin in one reading and end in the next.
TEST_F(Bundle, MasksAcrossTheReadingsOfAFile) {
  std::string text;
  while (text.size() < std::size_t{1024} * 1024) {
    text += "line PC4711\r\n";
  }
  Put("logs/vorltrace.log", text + "the last PC4711");
  const std::string masked = Write()["logs/vorltrace.log"];
  EXPECT_THAT(masked.substr(masked.size() - 60), HasSubstr("line [computer-1]\r\nthe last "
                                                           "[computer-1]"));
  EXPECT_EQ(masked.find("PC4711"), std::string::npos);
}

// What has no line end for long is no trace, and must not fill the memory.
TEST_F(Bundle, TakesALineWithoutAnEnd) {
  constexpr std::size_t longest = std::size_t{16} * 1024 * 1024;
  const CallPatch<struct ReadTag, BOOL WINAPI(HANDLE, void*, DWORD, DWORD*, OVERLAPPED*)> read(
      "KERNEL32.dll", "ReadFile",
      [&, left = longest + 1](HANDLE, void* buffer, DWORD size, DWORD* given, OVERLAPPED*) mutable {
        // Bytes that are quickly masked.
        *given = static_cast<DWORD>(std::min<std::size_t>(size, left));
        std::fill_n(static_cast<char*>(buffer), *given, ' ');
        left -= *given;
        return TRUE;
      });
  situation.configuration.path.clear();
  Put("logs/vorltrace.log", "");
  EXPECT_EQ(Write()["logs/vorltrace.log"].size(), longest + 1);
}

TEST_F(Bundle, WithoutMemoryToPackLeavesNoHalfArchive) {
  constexpr std::size_t window = 64 * 1024;
  const CallPatch<struct MemoryTag, void* __cdecl(std::size_t)> memory(
      "msvcrt.dll", "malloc", [&](std::size_t size) -> void* {
        return size >= window && size < 4 * window ? nullptr : memory.CallOriginal(size);
      });
  const auto write = [&] { WriteBundle(folder.File("x.zip"), situation, snapshot, nullptr); };
  EXPECT_THROW(write(), std::runtime_error);
  EXPECT_TRUE(fs::is_empty(folder.Path()));
}

}  // namespace

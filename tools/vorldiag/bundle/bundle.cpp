#include "tools/vorldiag/bundle/bundle.h"

#include <nlohmann/json.hpp>

#include "tools/vorldiag/machine/sharedfile.h"
#include "tools/vorldiag/report/json.h"
#include "tools/vorldiag/report/page.h"
#include "tools/vorldiag/text/utf8.h"
#include "tools/vorldiag/trace/tracefiles.h"

namespace {

constexpr std::uint64_t kMegabyte = 1024ULL * 1024;

// So many bytes of the trace's youngest files go in: many times what a trace has by default.
constexpr std::uint64_t kMostTrace = 1024 * kMegabyte;
constexpr std::uint64_t kLargestConfiguration = kMegabyte;

std::string NameOf(const std::wstring& path) {
  return Utf8(path.substr(path.find_last_of(L'\\') + 1));
}

void MaskReport(Report& report, Mask& mask) {
  for (Section& section : report.sections) {
    for (Finding& finding : section.findings) {
      finding.value = mask.Apply(finding.value);
      finding.advice = mask.Apply(finding.advice);
    }
  }
}

void MaskSnapshot(Snapshot& snapshot, Mask& mask) {
  snapshot.computer = mask.Apply(snapshot.computer);
  MaskReport(snapshot.status, mask);
  MaskReport(snapshot.identity, mask);
  snapshot.settings.problem = mask.Apply(snapshot.settings.problem);
  for (Setting& setting : snapshot.settings.settings) {
    setting.value = mask.Apply(setting.value);
  }
  for (TraceLine& line : snapshot.trace.lines) {
    line.module = mask.Apply(line.module);
    line.function = mask.Apply(line.function);
    line.text = mask.Apply(line.text);
  }
}

void AddText(ZipWriter& zip, const std::string& name, const std::string& text) {
  zip.Begin(name);
  zip.Write(text);
  zip.End();
}

// UTF-8 of a text with a byte order mark, or in the ANSI code page.
std::string DecodedText(const std::string& bytes) {
  if (bytes.compare(0, 3, "\xEF\xBB\xBF") == 0) {
    return bytes.substr(3);
  }
  const bool isLittle = bytes.compare(0, 2, "\xFF\xFE") == 0;
  if (!isLittle && bytes.compare(0, 2, "\xFE\xFF") != 0) {
    return Utf8FromAnsi(bytes);
  }
  std::wstring wide;
  for (std::size_t i = 2; i + 1 < bytes.size(); i += 2) {
    const auto first = static_cast<unsigned char>(bytes[i]);
    const auto second = static_cast<unsigned char>(bytes[i + 1]);
    wide += static_cast<wchar_t>(isLittle ? first | second << 8 : first << 8 | second);
  }
  return Utf8(wide);
}

void AddConfiguration(ZipWriter& zip, const Situation& situation, Mask* mask, BundleFacts& facts) {
  std::string bytes;
  const std::wstring path = situation.ConfigurationFile();
  const DWORD error = situation.configuration.path.empty()
                          ? DWORD{ERROR_PATH_NOT_FOUND}
                          : ReadSharedFile(path, kLargestConfiguration, bytes);
  if (error != ERROR_SUCCESS) {
    facts.leftOut.push_back("conf/vorlconf.ini: " + ErrorText(error));
    return;
  }
  AddText(zip, "conf/vorlconf.ini",
          mask == nullptr ? bytes : "\xEF\xBB\xBF" + mask->Apply(DecodedText(bytes)));
}

// Whole lines at a time, because a value to be masked may begin in one reading and end in the next.
void AddTraceFile(ZipWriter& zip, HANDLE file, Mask* mask) {
  constexpr std::size_t longestLine = 16 * kMegabyte;
  std::string buffer(kMegabyte, '\0');
  std::string rest;
  DWORD read = 0;
  while (ReadFile(file, buffer.data(), static_cast<DWORD>(buffer.size()), &read, nullptr) &&
         read != 0) {
    if (mask == nullptr) {
      zip.Write({buffer.data(), read});
      continue;
    }
    rest.append(buffer, 0, read);
    const std::size_t end = rest.rfind('\n');
    const std::size_t whole = end != std::string::npos     ? end + 1
                              : rest.size() >= longestLine ? rest.size()
                                                           : 0;
    zip.Write(mask->Apply({rest.data(), whole}));
    rest.erase(0, whole);
  }
  if (mask != nullptr) {
    zip.Write(mask->Apply(rest));
  }
}

void AddTrace(ZipWriter& zip, const std::wstring& folder, Mask* mask, BundleFacts& facts) {
  const std::vector<std::wstring> files = TraceFiles(folder);
  std::uint64_t taken = 0;
  for (auto path = files.rbegin(); path != files.rend(); ++path) {
    const std::string name = "logs/" + NameOf(*path);
    const FileHandle file = OpenShared(*path);
    LARGE_INTEGER size{};
    if (!file || !GetFileSizeEx(file.Get(), &size)) {
      const DWORD error = GetLastError();
      facts.leftOut.push_back(name + ": " + ErrorText(error));
      continue;
    }
    taken += static_cast<std::uint64_t>(size.QuadPart);
    if (taken > kMostTrace) {
      facts.leftOut.push_back(name + ": older than the " + std::to_string(kMostTrace / kMegabyte) +
                              " MB of the trace that a bundle takes");
      continue;
    }
    zip.Begin(name);
    AddTraceFile(zip, file.Get(), mask);
    zip.End();
  }
}

std::string ContentsText(const Snapshot& snapshot, bool isMasked, const BundleFacts& facts) {
  std::string text = "Client Agent on " + snapshot.computer + ", " + snapshot.moment +
                     "\n\nreport.html          everything on one page, for a browser\n"
                     "status.json, identity.json\n"
                     "conf/vorlconf.ini    the settings\n"
                     "logs/                the trace\n\n";
  text += isMasked ? "Identifier, UUIDs, serial number, network addresses, and the names of "
                     "computer, domain and\nusers are replaced; equal values have equal "
                     "replacements in all files.\n"
                   : "Nothing is replaced.\n";
  for (const std::string& name : facts.leftOut) {
    text += "Left out: " + name + "\n";
  }
  return text;
}

}  // namespace

BundleFacts WriteBundle(const std::string& path, const Situation& situation, Snapshot snapshot,
                        Mask* mask) {
  if (mask != nullptr) {
    MaskSnapshot(snapshot, *mask);
  }
  OutputFile file(path);
  ZipWriter zip(file);
  BundleFacts facts;
  AddText(zip, "report.html", ReportPage(snapshot));
  AddText(zip, "status.json", JsonText(ToJson(snapshot.status)));
  AddText(zip, "identity.json", JsonText(ToJson(snapshot.identity)));
  AddConfiguration(zip, situation, mask, facts);
  AddTrace(zip, situation.Logs(), mask, facts);
  for (std::string& name : facts.leftOut) {
    name = mask == nullptr ? name : mask->Apply(name);
  }
  AddText(zip, "contents.txt", ContentsText(snapshot, mask != nullptr, facts));
  zip.Finish();
  file.Finish();
  facts.entries = zip.Entries();
  facts.size = file.Size();
  return facts;
}

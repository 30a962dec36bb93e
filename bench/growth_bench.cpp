// How the cost of the fingerprint grows with the machine: its time and its COM calls against disks,
// partitions and network adapters, on a WMI server in this process. No partition holds the system
// drive, and no adapter but the last has an address, so that everything is walked. All disks and
// all partitions have one name, because the server looks for a query's text in a list.
//
//   growth_bench [ROUNDS]    prints one line for each point: curve, size, microseconds, calls
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <list>
#include <string>
#include <vector>

#include "identity/fingerprintstatus.h"
#include "identity/systemdisk.h"
#include "identity/wmiadapters.h"
#include "tests/support/fake_wmi.h"

namespace {

constexpr int kDefaultRounds = 25;
constexpr int kSizes[] = {1, 4, 16, 64, 256};
constexpr wchar_t kNamespace[] = L"ROOT\\CIMV2";

LONGLONG Ticks() noexcept {
  LARGE_INTEGER now;
  QueryPerformanceCounter(&now);
  return now.QuadPart;
}

double Microseconds(LONGLONG ticks) noexcept {
  LARGE_INTEGER frequency;
  QueryPerformanceFrequency(&frequency);
  return static_cast<double>(ticks) * 1e6 / static_cast<double>(frequency.QuadPart);
}

FakeQuery QueryOf(std::wstring text, std::vector<FakeObject> objects) {
  FakeQuery query;
  query.namespacePath = kNamespace;
  query.text = std::move(text);
  query.objects = std::move(objects);
  return query;
}

// A machine with so many disks, each with so many partitions.
void AddDisks(FakeWmi& wmi, int disks, int partitions) {
  const FakeObject media{"", {{L"Tag", Text(L"\\\\.\\PHYSICALDRIVE0")}}};
  const FakeObject partition{"", {{L"DeviceID", Text(L"Disk #0, Partition #0")}}};
  const FakeObject logicalDisk{"", {{L"DeviceID", Text(L"X:")}}};
  wmi.Add(QueryOf(L"SELECT * FROM Win32_PhysicalMedia",
                  std::vector<FakeObject>(static_cast<std::size_t>(disks), media)));
  wmi.Add(
      QueryOf(L"Associators of {Win32_DiskDrive.DeviceID='\\\\.\\PHYSICALDRIVE0'} where "
              L"AssocClass=Win32_DiskDriveToDiskPartition",
              std::vector<FakeObject>(static_cast<std::size_t>(partitions), partition)));
  wmi.Add(
      QueryOf(L"Associators of {Win32_DiskPartition.DeviceID='Disk #0, Partition #0'} where "
              L"AssocClass=Win32_LogicalDiskToPartition",
              {logicalDisk}));
}

void AddAdapters(FakeWmi& wmi, int adapters) {
  std::vector<FakeObject> found(static_cast<std::size_t>(adapters),
                                FakeObject{"", {{L"MACAddress", Null()}}});
  found.back().properties[L"MACAddress"] = Text(L"00:1A:2B:3C:4D:5E");
  wmi.Add(
      QueryOf(L"SELECT * FROM Win32_NetworkAdapter WHERE Manufacturer != 'Microsoft' AND NOT "
              L"PNPDeviceID LIKE 'ROOT\\\\%'",
              found));
}

// Both say whether the outcome is the right one.
bool ReadDisk() {
  FingerprintStatus status{};
  char serial[kPrimaryHddSerialSize] = {};
  return !ReadSystemDiskSerial(serial, status);
}

bool ReadAdapters() {
  FingerprintStatus status{};
  std::list<NetAdapterEntry> adapters;
  return ListHardwareAdapters(adapters, status) && adapters.size() == 1;
}

// One point of a curve: the median time and the calls of one reading.
bool Measure(const char* curve, int size, int rounds, const std::function<void(FakeWmi&)>& fill,
             bool (*read)()) {
  std::vector<double> times;
  std::size_t calls = 0;
  for (int round = 0; round < rounds; ++round) {
    // A server of its own: the journal of the rounds before would take time, too.
    FakeWmi wmi;
    fill(wmi);
    const LONGLONG start = Ticks();
    if (!read()) {
      std::fprintf(stderr, "%s %d: another outcome than was to be\n", curve, size);
      return false;
    }
    times.push_back(Microseconds(Ticks() - start));
    calls = wmi.Journal().size();
  }
  std::nth_element(times.begin(), times.begin() + rounds / 2, times.end());
  std::printf("%s %d %.1f %zu\n", curve, size, times[static_cast<std::size_t>(rounds / 2)], calls);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : kDefaultRounds;
  bool isComplete = true;
  for (const int size : kSizes) {
    isComplete &= Measure(
        "disks", size, rounds, [size](FakeWmi& wmi) { AddDisks(wmi, size, 4); }, &ReadDisk);
    isComplete &= Measure(
        "partitions", size, rounds, [size](FakeWmi& wmi) { AddDisks(wmi, 1, size); }, &ReadDisk);
    isComplete &= Measure(
        "adapters", size, rounds, [size](FakeWmi& wmi) { AddAdapters(wmi, size); }, &ReadAdapters);
  }
  return isComplete ? 0 : 1;
}

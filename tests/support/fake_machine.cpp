#include "tests/support/fake_machine.h"

#include <algorithm>
#include <cstdlib>

#include "tests/support/journal.h"

ComSetUp::ComSetUp(FakeWmi& server)
    : m_initialize("ole32.dll", "CoInitializeEx",
                   [this, &server](void* reserved, DWORD apartment) {
                     EXPECT_EQ(reserved, nullptr);
                     EXPECT_EQ(apartment, 0U);
                     server.Note("CoInitializeEx");
                     return isReal ? m_initialize.CallOriginal(reserved, apartment)
                                   : initializeResult;
                   }),
      m_security("ole32.dll", "CoInitializeSecurity",
                 [this, &server](PSECURITY_DESCRIPTOR descriptor, LONG services,
                                 SOLE_AUTHENTICATION_SERVICE* list, void* reserved1,
                                 DWORD authentication, DWORD impersonation, void* authentications,
                                 DWORD capabilities, void* reserved3) {
                   EXPECT_EQ(descriptor, nullptr);
                   EXPECT_EQ(services, -1);
                   EXPECT_EQ(list, nullptr);
                   EXPECT_EQ(reserved1, nullptr);
                   EXPECT_EQ(authentication, 0U);
                   EXPECT_EQ(impersonation, 3U);
                   EXPECT_EQ(authentications, nullptr);
                   EXPECT_EQ(capabilities, 0U);
                   EXPECT_EQ(reserved3, nullptr);
                   server.Note("CoInitializeSecurity");
                   return securityResult;
                 }),
      m_uninitialize("ole32.dll", "CoUninitialize", [this, &server] {
        server.Note("CoUninitialize");
        // The test's own apartment must outlive a call that answers no successful set-up.
        if (isReal && SUCCEEDED(initializeResult)) {
          m_uninitialize.CallOriginal();
        }
      }) {}

Machine::Machine(DWORD apartment)
    : server(apartment),
      com(server),
      m_adapters("iphlpapi.dll", "GetAdaptersInfo",
                 [this](IP_ADAPTER_INFO* list, ULONG* size) { return ReadAdapters(list, size); }) {
  const char* const present = std::getenv("SystemDrive");
  m_systemDrive = present != nullptr ? present : "";
  _putenv_s("SystemDrive", "C:");
  version.emplace(10U, 0U);
}

Machine::~Machine() {
  _putenv_s("SystemDrive", m_systemDrive.c_str());
  EXPECT_THAT(server.Problems(), ::testing::IsEmpty());
}

void Machine::SetBiosUuid(FakeValue uuid) {
  Set("products", L"ROOT\\CIMV2", L"SELECT * FROM Win32_ComputerSystemProduct",
      {{"product", {{L"UUID", std::move(uuid)}}}});
}

void Machine::SetDiskSerial(const std::wstring& serial) {
  Set("media", L"ROOT\\CIMV2", L"SELECT * FROM Win32_PhysicalMedia",
      {{"media", {{L"Tag", Text(L"\\\\.\\PHYSICALDRIVE0")}, {L"SerialNumber", Text(serial)}}}});
  Set("partitions", L"ROOT\\CIMV2",
      L"Associators of {Win32_DiskDrive.DeviceID='\\\\.\\PHYSICALDRIVE0'} where "
      L"AssocClass=Win32_DiskDriveToDiskPartition",
      {{"partition", {{L"DeviceID", Text(L"Disk #0, Partition #0")}}}});
  Set("drives", L"ROOT\\CIMV2",
      L"Associators of {Win32_DiskPartition.DeviceID='Disk #0, Partition #0'} where "
      L"AssocClass=Win32_LogicalDiskToPartition",
      {{"drive", {{L"DeviceID", Text(L"C:")}}}});
}

void Machine::SetAddresses(const std::vector<std::wstring>& addresses) {
  std::vector<FakeObject> adapters;
  for (const std::wstring& address : addresses) {
    adapters.push_back({"adapter", {{L"MACAddress", Text(address)}, {L"GUID", Null()}}});
  }
  Set("adapters", L"ROOT\\CIMV2",
      L"SELECT * FROM Win32_NetworkAdapter WHERE Manufacturer != 'Microsoft' AND NOT PNPDeviceID "
      L"LIKE 'ROOT\\\\%'",
      std::move(adapters));
  Set("interfaces", L"ROOT\\StandardCIMV2",
      L"SELECT * FROM MSFT_NetAdapter WHERE ConnectorPresent = TRUE", {});
}

void Machine::SetEverything() {
  SetBiosUuid(Text(L"4C4C4544-0035-3010-8048-B4C04F4B3732"));
  SetDiskSerial(L"WD-WCC4E1234567");
  SetAddresses({L"00:AA:BB:CC:DD:EE", L"00:1A:2B:3C:4D:5E"});
}

void Machine::Set(const std::string& name, const std::wstring& path, const std::wstring& text,
                  std::vector<FakeObject> objects) {
  server.Add({name, path, text, std::move(objects), {}});
}

ULONG Machine::ReadAdapters(IP_ADAPTER_INFO* list, ULONG* size) {
  if (ipAdapters.empty()) {
    return ERROR_NO_DATA;
  }
  const auto needed = static_cast<ULONG>(ipAdapters.size() * sizeof(IP_ADAPTER_INFO));
  if (*size < needed) {
    *size = needed;
    return ERROR_BUFFER_OVERFLOW;
  }
  for (std::size_t i = 0; i < ipAdapters.size(); ++i) {
    list[i] = {};
    list[i].Next = i + 1 < ipAdapters.size() ? &list[i + 1] : nullptr;
    std::copy(ipAdapters[i].begin(), ipAdapters[i].end(), list[i].Address);
  }
  return ERROR_SUCCESS;
}

LinesInJournal::LinesInJournal(FakeWmi& server) {
  FakeTraceSetCallback(
      [](const FakeTraceLine* line, void* context) {
        static_cast<FakeWmi*>(context)->Note(JournalText(*line));
      },
      &server);
}

LinesInJournal::~LinesInJournal() { FakeTraceSetCallback(nullptr, nullptr); }

// The machine's identifier: 32 upper-case hexadecimal digits, the MD5 of the BIOS UUID, the tail of
// the system disk's serial number and up to two network addresses.
#pragma once

#include <cstddef>
#include <list>
#include <string>

#include "identity/parameters.h"
#include "identity/wmiadapters.h"

class Trace;

// The size of a buffer for the four parameters in one text.
constexpr std::size_t kCombinedSize = 260;

// The size of a buffer that takes the identifier, terminator included.
constexpr unsigned kIdentifierSize = 33;

// One fingerprint: the parameters as collected, the same normalised, and the operations between
// them. A fresh record is empty; it serves one collection and belongs to one thread. Operations
// return true for success; a failure is also offered to LastError, which is kept under its own
// rule.
class CZTUUID : public FingerprintFields, public RawParameters {
 public:
  // Collects, normalises and hashes: writes the identifier into `out`, which has room for
  // `outChars` characters, terminator included; fewer than 33 are refused. Nothing is thrown.
  // GetZTUUIDEx also works where the thread or the process has set up COM already.
  bool GetZTUUID(char* out, unsigned int outChars);
  bool GetZTUUIDEx(char* out, unsigned int outChars);

  // Collect every raw parameter this machine has into BiosUuid, PrimaryHddSerial and
  // MacAddressList. False only when COM cannot be set up, or on version 5.0 when the adapter list
  // cannot be read. The Ex variant accepts a thread in another apartment and COM security that is
  // set already. Throws _com_error for a COM text or std::bad_alloc when memory runs out.
  bool GetUUIDParameters();
  bool GetUUIDParametersEx();

  // Normalises the collected parameters in place; a step that fails empties its own result. Always
  // true.
  bool ProcessUUIDParameters();

  // Brings the entries of MacAddressList into the form with hyphens, letter case kept.
  bool ProcessMACAddresses();

  // Puts the entries of MacAddressList, without hyphens, into MacAddress1, MacAddress2 and the
  // fields after them (at most four entries), and orders the first two.
  bool SortMacAddress();

  // Whether BiosUuid has the form of a GUID.
  bool ValidateUUID();

  // Keeps the last 8 characters of PrimaryHddSerial as OptimumHddSerial; a shorter serial gives an
  // empty text.
  bool GetOptimumHDDSrNo();

  // Keeps BiosUuid without hyphens as ProcessedBiosId, which is left alone when BiosUuid is empty.
  bool ProcessBiosId();

  // Writes the 16 bytes of the digest as 32 upper-case hexadecimal digits.
  bool StringifyMD5(const unsigned char* digest16, char* out, unsigned int outChars);

  // Read the BIOS UUID and the serial number of the disk that carries the system drive. COM must be
  // set up on the calling thread. No UUID is success; no serial is a failure. Throw as
  // GetUUIDParameters.
  bool GetBiosUuid();
  bool GetPrimaryHDDSrNo();

  // Append up to two network addresses to MacAddressList: the first adapters of the IP Helper
  // interface, or those of WMI (COM must be set up; throws as GetUUIDParameters).
  bool GetMacAddresses();
  bool GetOnboardNICMacAddress();

  // Lists up to two adapters that are hardware of other makers than Microsoft.
  bool GetNetworkAdapterList(std::list<NetAdapterEntry>& adapters);

  // Replaces the addresses of listed adapters by their permanent ones, matched by GUID.
  bool ApplyPermanentAddresses(std::list<NetAdapterEntry>& adapters);

  // The cache file hwcdata.dat in CacheFolder keeps the raw parameters, so that a later run can
  // tell whether the hardware is still the same. `payload173` takes 173 bytes.
  bool WriteCacheFile();
  bool ReadCacheFile(unsigned char* payload173);
  bool IsCacheCurrent();

  // Where the cache file lies: a folder with a trailing backslash, or empty for the current folder.
  std::string CacheFolder;

 private:
  // Whether COM that somebody else has set up is good enough.
  enum class ForeignCom { Refused, Accepted };

  bool CollectParameters(const Trace& trace, ForeignCom foreignCom);
  bool CollectThroughWmi(const Trace& trace, ForeignCom foreignCom);
  bool CombineParameters(const Trace& trace, char (&combined)[kCombinedSize]);
  bool HashCombined(const Trace& trace, const char* combined, char* out, unsigned int outChars);
};

// Each computes the identifier with a record of its own and writes it into `out` (`outChars`
// characters, at least 33). On success `*status` is left untouched. On failure it receives what the
// record holds, which is (0, 0): a new record keeps no failure, so only the result says that it
// failed. The Into forms write into `out` directly; the others write a copy, and when that does not
// fit `*status` receives (the copy's HRESULT, 0). `reserved` is ignored.
bool ComputeZTUUID(void* reserved, char* out, unsigned int outChars, FingerprintStatus* status);
bool ComputeZTUUIDEx(char* out, unsigned int outChars, FingerprintStatus* status);
bool ComputeZTUUIDInto(void* reserved, char* out, unsigned int outChars, FingerprintStatus* status);
bool ComputeZTUUIDExInto(char* out, unsigned int outChars, FingerprintStatus* status);

// Questions to the operating system. Unless said otherwise, operations return whether the question
// could be asked and write the answer through their last parameters, which a failure leaves as they
// were. Nothing is traced and nothing thrown.
#pragma once

#include <cstddef>
#include <cstdint>

#include "support/windows_api.h"

// The version record as the system knows it, untouched by compatibility settings.
bool GetOSVersionInfo(OSVERSIONINFOEXW& record);

// Returns the answer itself: whether the native processor is a 64-bit one.
bool IsNative64Bit();

// Comparisons with a version named by its index: 1 is 5.0; 2 is 5.2 on a native 64-bit processor,
// else 5.1; 3 is 5.2; 4 is 6.0; 5 is 6.1; 6 is 6.2; 7 is 6.3; any other is 10.0.
bool IsVersionOrGreater(int index, bool& answer);
bool IsVersionEqual(int index, bool& answer);

// Compares the service pack too, where the versions are equal.
bool IsVersionLess(int index, WORD spMajor, WORD spMinor, bool& answer);

bool IsServicePackOrGreater(WORD spMajor, WORD spMinor, bool& answer);
bool IsWin2000OrGreater(bool& answer);
bool IsWinXPOrGreater(bool& answer);

// Physical address extension.
bool IsPAEEnabled(bool& answer);

// The index of the running version, 1 to 8. Fails for versions that have none.
bool GetVersionIndex(int& index);

// 1 for Windows 9x, 2 for Windows NT and its successors, 0 for anything else.
bool GetPlatform(int& platform);
bool IsWin9x(bool& answer);
bool IsWinNT(bool& answer);

// Domain controllers are servers too.
bool IsServer(bool& answer);

bool GetServicePack(WORD& major, WORD& minor);

// From version 6.0 on a PRODUCT_ value of GetProductInfo, before that a VER_NT_ value.
bool GetProductType(DWORD& type);

// Returns the code of the running system, 50001 to 50049, or 0 when it has none.
std::uint32_t GetOSCode();

// Returns the code of an exact name, or 0 when there is none. The two Small Business Server names
// are not found.
std::uint32_t GetOSCodeByName(const char* name);

// Copies the name into `buffer` of `size` characters (1 to 0x7FFFFFFF), terminator included.
// Returns false for an unknown code and for a name that does not fit.
bool GetOSNameByCode(std::uint32_t code, char* buffer, std::size_t size);

// Questions to the operating system about its version. CZTUUID asks two of them; the others are
// kept for the product's other modules, which link this library. Unless said otherwise, operations
// return whether the question could be asked and write the answer through their last parameters,
// which a failure leaves as they were. Nothing is traced and nothing thrown.
#pragma once

#include "support/windows_api.h"

// The version record as the system knows it, untouched by compatibility settings.
bool GetOSVersionInfo(OSVERSIONINFOEXW& record);

// The native processor's PROCESSOR_ARCHITECTURE_ value; PROCESSOR_ARCHITECTURE_UNKNOWN where the
// system cannot be asked.
WORD NativeArchitecture() noexcept;
bool Is64BitArchitecture(WORD architecture) noexcept;

// Returns the answer itself: whether the native processor is a 64-bit one.
bool IsNative64Bit();

// Returns the answer itself: whether this is Windows Server 2003 R2.
bool IsServerR2() noexcept;

// The versions that have an index.
constexpr int kVersionIndex50 = 1;
constexpr int kVersionIndexXp = 2;  // 5.2 on a native 64-bit processor, else 5.1
constexpr int kVersionIndex52 = 3;
constexpr int kVersionIndex60 = 4;
constexpr int kVersionIndex61 = 5;
constexpr int kVersionIndex62 = 6;
constexpr int kVersionIndex63 = 7;
constexpr int kVersionIndex100 = 8;

// Comparisons with the version of an index; any other index stands for 10.0.
bool IsVersionOrGreater(int index, bool& answer);
bool IsVersionEqual(int index, bool& answer);

// Compares the service pack too, where the versions are equal.
bool IsVersionLess(int index, WORD spMajor, WORD spMinor, bool& answer);

bool IsServicePackOrGreater(WORD spMajor, WORD spMinor, bool& answer);
bool IsWin2000OrGreater(bool& answer);
bool IsWinXPOrGreater(bool& answer);

// Physical address extension.
bool IsPAEEnabled(bool& answer);

// The index of the running version. Fails for versions that have none.
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

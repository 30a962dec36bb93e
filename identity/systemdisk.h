// Source of the system disk's serial number: WMI, from the physical media over the partitions of
// their disks to the logical disk that is the system drive. Used by CZTUUID. Writes no trace lines.
#pragma once

#include "identity/parameters.h"

// Reads the serial number, without leading and trailing spaces, into `serial`. False, with `serial`
// left alone, when there is none. COM must be set up on the calling thread. A failure is offered to
// `lastError`. Throws _com_error for a COM text or std::bad_alloc when memory runs out.
bool ReadSystemDiskSerial(char (&serial)[kPrimaryHddSerialSize], FingerprintStatus& lastError);

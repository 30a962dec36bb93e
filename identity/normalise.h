// From raw to normalised parameters: pure operations on text, used by CZTUUID. They write no trace
// lines; a failure is offered to `lastError`.
#pragma once

#include "identity/parameters.h"
#include "support/windows_api.h"

// Brings every address into the form with hyphens, letter case kept. False at the first one whose
// form is unknown; those before it have been changed by then.
bool HyphenateMacAddresses(std::list<std::string>& addresses, FingerprintStatus& lastError);

// Puts the addresses, without hyphens, into MacAddress1, MacAddress2 and the fields after them (at
// most four), and orders the first two. No addresses: nothing is done.
bool PlaceMacAddresses(const std::list<std::string>& addresses, FingerprintFields& fields);

// Whether the text has the form of a GUID without braces.
bool HasUuidForm(const char (&text)[kBiosUuidSize], FingerprintStatus& lastError);

// Keeps the last 8 characters of the serial number; a shorter one gives an empty text.
bool TakeSerialTail(const char (&serial)[kPrimaryHddSerialSize],
                    char (&tail)[kOptimumHddSerialSize], FingerprintStatus& lastError);

// Copies the UUID without its hyphens. A result that does not fit is cut, recorded and returned.
HRESULT RemoveHyphens(const char (&uuid)[kBiosUuidSize], char (&bare)[kProcessedBiosIdSize],
                      FingerprintStatus& lastError);

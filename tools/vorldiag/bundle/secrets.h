// What a report must not tell when it is handed out without names.
#pragma once

#include "tools/vorldiag/bundle/mask.h"
#include "tools/vorldiag/identity/hardware.h"

// Adds what tells this computer and its users from others: the identifier that the hardware gives
// and its parts, the computer's and its domain's names, and the names of all accounts that have a
// profile here or were named by a check.
void AddSecrets(const Hardware& hardware, Mask& mask);

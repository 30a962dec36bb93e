// The client's unique identifier in the agent's configuration file. Every failure writes one trace
// line and gives false.
#pragma once

// Whether vorlconf.ini holds an identifier. Any text that is not empty counts.
bool IsClientUUIDPresent();

// Stores `clientId` in vorlconf.ini, which is created when it is missing; its folder is not.
bool SetClientUUID(const char* clientId);

// Computes the identifier from the machine's hardware and stores it.
bool CreateAndSetClientUUID();

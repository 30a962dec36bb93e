// The client's unique identifier, from the configuration file or new: what main calls before it
// looks at the command line. Every false result has written its trace lines at the error level.
#pragma once

// Whether vorlconf.ini holds an identifier. Any text that is not empty counts. False also when the
// file cannot be read.
bool IsClientUUIDPresent();

// Stores `clientId` in vorlconf.ini, which is created when it is missing; its folder is not. An
// identifier that stands there by now is kept, with a line that says so, and that is a success.
// What cannot be read is not written.
bool SetClientUUID(const char* clientId);

// Computes the identifier from the machine's hardware and stores it.
bool CreateAndSetClientUUID();

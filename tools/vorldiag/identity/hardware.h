// The parameters of the identifier, collected once: what is printed is what is hashed.
#pragma once

#include <string>
#include <vector>

#include "identity/parameters.h"

struct RawParameter {
  std::string value;       // as its source gave it; empty when there is none
  std::string origin;      // class and property
  std::string error;       // what WMI said when there is none: "80041010 (query)"; else empty
  bool hasFailed = false;  // WMI could not answer; otherwise it said that there is none
};

struct Hardware {
  // Why nothing could be collected; empty when it could.
  std::string problem;

  RawParameter biosUuid;
  RawParameter diskSerial;
  std::vector<RawParameter> addresses;  // in WMI's order
  std::string addressError;             // what WMI said when there are none
  bool haveAddressesFailed = false;     // as above

  // What normalisation made of them.
  std::string processedBiosId;
  std::string optimumSerial;
  std::string address1;
  std::string address2;

  std::string combined;    // the text that is hashed
  std::string identifier;  // empty when the combined text is empty

  RawParameters raw;  // for the cache file

  // Lines that the product's own units wrote meanwhile.
  std::vector<std::string> lines;

  // What is missing because WMI could not answer: "BIOS UUID, disk serial"; empty when nothing is.
  // The identifier is then not the computer's.
  std::string FailedParts() const;
};

// Asks WMI on a thread of its own. A WMI that does not answer within `seconds` is given up; the
// thread is then left behind, and the program must end without waiting for it.
Hardware CollectHardware(unsigned seconds);

// The identifier as each of the two collections of the program makes it, which differ where
// somebody else has set up COM, with the lines that it wrote.
struct Collection {
  std::string name;
  std::string identifier;  // empty when it failed
  std::vector<std::string> lines;
};

// Must be called before anything else of the process uses COM: that is what the service does.
std::vector<Collection> RunBothCollections(unsigned seconds);

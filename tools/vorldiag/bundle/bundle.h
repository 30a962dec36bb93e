// The archive for a ticket: report, status and identity as JSON, settings, and the trace.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/vorldiag/bundle/mask.h"
#include "tools/vorldiag/bundle/zip.h"
#include "tools/vorldiag/report/snapshot.h"

struct BundleFacts {
  std::vector<ZipWriter::Entry> entries;
  std::vector<std::string> leftOut;  // with the reason
  std::uint64_t size = 0;
};

// Writes it to `path`. With `mask`, through which everything goes then, nothing of it tells this
// computer from another. Throws std::runtime_error.
BundleFacts WriteBundle(const std::string& path, const Situation& situation, Snapshot snapshot,
                        Mask* mask);

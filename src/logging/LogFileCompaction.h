#pragma once
// Keeps a log file from growing without bound: past a size limit, the file is cut to its
// most recent part, starting on a line boundary, and a notice says so on its last line.

#include <cstdint>
#include <string>

namespace tavix {

struct LogFileLimits {
  int64_t maxLogFileBytes = 5 * 1024 * 1024;      // compact at or above this size
  int64_t retainedLogTailBytes = 4 * 1024 * 1024; // keep at most this much of the end
};

// Compacts the file when it has reached the limit; returns whether it did. Other
// processes appending to the same file wait meanwhile: they write under a shared
// `flock`, and compaction holds an exclusive one. Failures go to the system log only.
bool compactLogFileIfNeeded(const std::string &path, const LogFileLimits &limits = {});

} // namespace tavix

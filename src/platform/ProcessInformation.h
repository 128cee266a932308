#pragma once
// What the system tells about a process: which process it holds responsible for it, its
// user-facing name and its executable.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace tavix {

class ProcessInformation {
public:
  virtual ~ProcessInformation() = default;
  virtual int32_t currentProcessIdentifier() = 0;
  // The process the system holds responsible for `pid`; nothing when the system has no
  // such notion or no answer.
  virtual std::optional<int32_t> responsibleProcess(int32_t pid) = 0;
  // The name the desktop shows for the process's application, when it has one.
  virtual std::optional<std::string> localizedName(int32_t pid) = 0;
  virtual std::optional<std::string> executablePath(int32_t pid) = 0;
};

std::unique_ptr<ProcessInformation> makeSystemProcessInformation();

} // namespace tavix

#pragma once
// Process information with fixed answers: this process's id, and per process id the
// responsible process, the desktop name and the executable path (nothing when not set).
// Set the answers before use; reading them afterwards is safe from several threads.

#include "platform/ProcessInformation.h"

#include <map>

namespace tavix::test {

class FakeProcessInformation final : public ProcessInformation {
public:
  int32_t self = 100;
  std::map<int32_t, int32_t> responsible;
  std::map<int32_t, std::string> localizedNames;
  std::map<int32_t, std::string> executablePaths;

  int32_t currentProcessIdentifier() override { return self; }
  std::optional<int32_t> responsibleProcess(int32_t pid) override { return find(responsible, pid); }
  std::optional<std::string> localizedName(int32_t pid) override { return find(localizedNames, pid); }
  std::optional<std::string> executablePath(int32_t pid) override { return find(executablePaths, pid); }

private:
  template <typename Value> static std::optional<Value> find(const std::map<int32_t, Value> &answers, int32_t pid) {
    const auto found = answers.find(pid);
    if (found == answers.end())
      return std::nullopt;
    return found->second;
  }
};

} // namespace tavix::test

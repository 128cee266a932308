// Linux has no consent system for one program driving another, and no notion of a
// process held responsible for another: the permission probe always answers that the
// send may go ahead (a bus policy that refuses it still surfaces at send time), and the
// responsible process is unknown.

#include "platform/AutomationPermission.h"
#include "platform/ProcessInformation.h"
#include "platform/linux/ProcExecutable.h"

#include <unistd.h>

namespace tavix {
namespace {

class LinuxAutomationPermission final : public AutomationPermission {
public:
  int32_t probe(int32_t, bool) override { return 0; }
};

class LinuxProcessInformation final : public ProcessInformation {
public:
  int32_t currentProcessIdentifier() override { return static_cast<int32_t>(::getpid()); }
  std::optional<int32_t> responsibleProcess(int32_t) override { return std::nullopt; }
  std::optional<std::string> localizedName(int32_t) override { return std::nullopt; }
  std::optional<std::string> executablePath(int32_t pid) override { return procExecutablePath(pid); }
};

} // namespace

std::unique_ptr<AutomationPermission> makeSystemAutomationPermission() {
  return std::make_unique<LinuxAutomationPermission>();
}

std::unique_ptr<ProcessInformation> makeSystemProcessInformation() {
  return std::make_unique<LinuxProcessInformation>();
}

} // namespace tavix

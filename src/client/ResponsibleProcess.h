#pragma once
// Which process the system holds responsible for the bridge (normally the host app that
// started it), and a name to show for it: the user grants permissions to that process,
// not to the bridge.

#include "platform/ProcessInformation.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tavix {

class ResponsibleProcess {
public:
  struct Attribution {
    std::optional<int32_t> processIdentifier;
    std::optional<std::string> name;
    bool isSelf = false;
    friend bool operator==(const Attribution &, const Attribution &) = default;
  };

  explicit ResponsibleProcess(ProcessInformation &system) : system_(system) {}

  // The process responsible for `pid`; nothing below 1 or when the system cannot say.
  std::optional<int32_t> processIdentifier(int32_t pid) const;
  Attribution current() const;
  // The desktop's name for the process; else the application bundle its executable lies
  // in; else the executable's file name.
  std::optional<std::string> name(int32_t pid) const;
  // The nearest enclosing "*.app" component of a path, without its extension.
  static std::optional<std::string> enclosingApplicationName(std::string_view executablePath);

private:
  ProcessInformation &system_;
};

} // namespace tavix

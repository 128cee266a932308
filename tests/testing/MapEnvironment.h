#pragma once
// An environment lookup over a map that a test fills and changes as it goes.

#include "platform/Environment.h"

#include <map>
#include <string>

namespace tavix::test {

// Reads `variables` at each lookup; the map must outlive the lookup.
inline EnvironmentLookup lookupIn(const std::map<std::string, std::string> &variables) {
  return [&variables](const char *name) -> std::optional<std::string> {
    auto found = variables.find(name);
    if (found == variables.end())
      return std::nullopt;
    return found->second;
  };
}

} // namespace tavix::test

#pragma once
// Looking up environment variables through a function, so that code which reads the
// environment on every run can be handed a fixed one in tests.

#include <cstdlib>
#include <functional>
#include <optional>
#include <string>

namespace tavix {

using EnvironmentLookup = std::function<std::optional<std::string>(const char *name)>;

// The process's own environment, read at each lookup.
inline EnvironmentLookup processEnvironment() {
  return [](const char *name) -> std::optional<std::string> {
    const char *value = std::getenv(name);
    if (value == nullptr)
      return std::nullopt;
    return std::string(value);
  };
}

} // namespace tavix

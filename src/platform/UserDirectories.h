#pragma once
// Per-user directories whose place depends on the operating system.

#include "platform/Environment.h"

#include <string>
#include <string_view>

namespace tavix {

// The directory that holds per-user application data and settings, such as the host's
// logs and this program's user defaults.
std::string applicationSupportDirectory(std::string_view home, const EnvironmentLookup &environment);

} // namespace tavix

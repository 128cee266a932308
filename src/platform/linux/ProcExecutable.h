#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace tavix {

// The executable of process `pid`, from /proc/<pid>/exe; nothing when it cannot be read.
std::optional<std::string> procExecutablePath(int32_t pid);

} // namespace tavix

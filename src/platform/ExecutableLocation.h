#pragma once

#include <string>

namespace tavix {

// The full path of the running executable; empty when it cannot be found.
std::string currentExecutablePath();

} // namespace tavix

#pragma once

#include <string>

namespace tavix {

// The full path of the running executable; empty when it cannot be found.
std::string currentExecutablePath();

// The file name of the running executable; empty when it cannot be found.
std::string currentExecutableName();

} // namespace tavix

#pragma once

#include <string>

namespace tavix {

// A fresh random UUID in its standard upper-case form.
std::string makeUUIDString();

} // namespace tavix

#pragma once

#include <string>
#include <string_view>

namespace tavix {

// The current user's home directory: $HOME, else the user's password entry; without a
// trailing slash. Empty when neither is known.
std::string homeDirectory();

// Replaces the home directory prefix of a path with "~", so that logs do not carry the
// user's name.
std::string sanitizedPath(std::string_view text, std::string_view home);
std::string sanitizedPath(std::string_view text);

} // namespace tavix

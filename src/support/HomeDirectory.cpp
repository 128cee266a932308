#include "support/HomeDirectory.h"

#include <cstdlib>
#include <pwd.h>
#include <unistd.h>
#include <vector>

namespace tavix {

std::string homeDirectory() {
  std::string home;
  if (const char *value = std::getenv("HOME"); value != nullptr && *value != '\0') {
    home = value;
  } else {
    std::vector<char> buffer(16384);
    passwd entry{};
    passwd *found = nullptr;
    if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found &&
        found->pw_dir)
      home = found->pw_dir;
  }
  while (home.size() > 1 && home.back() == '/')
    home.pop_back();
  return home;
}

std::string sanitizedPath(std::string_view text, std::string_view home) {
  if (home.empty() || home == "/")
    return std::string(text);
  if (text == home)
    return "~";
  if (text.size() > home.size() && text.starts_with(home) && text[home.size()] == '/')
    return std::string("~").append(text.substr(home.size()));
  return std::string(text);
}

std::string sanitizedPath(std::string_view text) { return sanitizedPath(text, homeDirectory()); }

} // namespace tavix

#include "support/HomeDirectory.h"

#include <cstdlib>
#include <pwd.h>
#include <unistd.h>
#include <vector>

namespace tavix {

namespace {

// The password entry does not change while the process runs, so it is read once; the
// logger asks for the home directory on every line. Never destroyed: threads may still
// log while the process exits.
const std::string &passwordEntryHome() {
  static const std::string *home = new std::string([] {
    std::vector<char> buffer(16384);
    passwd entry{};
    passwd *found = nullptr;
    if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found &&
        found->pw_dir)
      return std::string(found->pw_dir);
    return std::string();
  }());
  return *home;
}

} // namespace

std::string homeDirectory() {
  const char *value = std::getenv("HOME");
  std::string home = value != nullptr && *value != '\0' ? value : passwordEntryHome();
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

#include "gateway/AppInstructionProvider.h"

#include "gateway/BuiltInInstructions.h"
#include "support/HomeDirectory.h"
#include "support/UserPerceivedText.h"
#include "support/Whitespace.h"

#include <fstream>
#include <iterator>
#include <system_error>
#include <utility>

namespace tavix {
namespace {

// Lower-cased bundle identifiers.
constexpr std::pair<std::string_view, std::string_view> bundleFileMap[] = {
    {"com.apple.clock", "Clock"},
    {"com.apple.music", "AppleMusic"},
    {"com.microsoft.excel", "Excel"},
    {"com.apple.iwork.numbers", "Numbers"},
    {"notion.id", "Notion"},
    {"com.spotify.client", "Spotify"},
    {"com.apple.screencontinuity", "iPhone Mirroring"},
    {"com.exafunction.windsurf", "VSCodeLikeIDE"},
    {"com.google.antigravity", "VSCodeLikeIDE"},
    {"com.microsoft.vscode", "VSCodeLikeIDE"},
    {"com.microsoft.vscodeinsiders", "VSCodeLikeIDE"},
    {"com.tavix.app", "VSCodeLikeIDE"},
    {"com.tavix.ide", "VSCodeLikeIDE"},
    {"com.tavix.work", "VSCodeLikeIDE"},
    {"com.todesktop.230313mzl4w4u92", "VSCodeLikeIDE"},
    {"com.trae.app", "VSCodeLikeIDE"},
    {"com.vscodium", "VSCodeLikeIDE"},
};

// Normalised app names, in the order the containment match tries them.
constexpr std::pair<std::string_view, std::string_view> builtInFiles[] = {
    {"applemusic", "AppleMusic"}, {"clock", "Clock"},     {"excel", "Excel"},
    {"notion", "Notion"},         {"numbers", "Numbers"}, {"spotify", "Spotify"},
    {"antigravity", "VSCodeLikeIDE"}, {"cursor", "VSCodeLikeIDE"},
};

template <size_t N>
std::optional<std::string_view> lookUp(const std::pair<std::string_view, std::string_view> (&table)[N],
                                       std::string_view key) {
  for (const auto &[name, baseName] : table)
    if (name == key)
      return baseName;
  return std::nullopt;
}

std::string withoutBlanks(std::string_view text) {
  std::string kept;
  for (size_t i = 0; i < text.size();) {
    const size_t blank = whitespaceLengthAt(text, i);
    if (blank == 0)
      kept.push_back(text[i]);
    i += blank == 0 ? 1 : blank;
  }
  return kept;
}

} // namespace

AppInstructionProvider AppInstructionProvider::forCurrentUser() {
  const std::string home = homeDirectory();
  if (home.empty())
    return AppInstructionProvider({});
  return AppInstructionProvider(std::filesystem::path(home) / userInstructionsFolderName);
}

std::optional<std::string_view> AppInstructionProvider::instructionFileBaseName(
    std::optional<std::string_view> bundleIdentifier, std::string_view appName) {
  if (bundleIdentifier)
    if (const auto found = lookUp(bundleFileMap, asciiLowercased(*bundleIdentifier)))
      return found;
  const std::string name = asciiLowercased(trimmedWhitespaceAndNewlines(appName));
  if (const auto found = lookUp(builtInFiles, name))
    return found;
  const std::string compact = withoutBlanks(name);
  for (const auto &[key, baseName] : builtInFiles)
    if (compact.find(key) != std::string::npos || name.find(key) != std::string::npos)
      return baseName;
  return std::nullopt;
}

bool AppInstructionProvider::knowsBundleIdentifier(std::string_view bundleIdentifier) {
  return lookUp(bundleFileMap, asciiLowercased(bundleIdentifier)).has_value();
}

std::optional<std::string> AppInstructionProvider::readInstructionFile(const std::filesystem::path &file) {
  // Anything but a regular file (a FIFO, a device) could block or never end.
  std::error_code error;
  if (!std::filesystem::is_regular_file(file, error))
    return std::nullopt;
  std::ifstream stream(file, std::ios::binary);
  if (!stream)
    return std::nullopt;
  std::string text((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
  if (stream.bad() || !isValidUTF8(text))
    return std::nullopt;
  const std::string_view trimmed = trimmedWhitespaceAndNewlines(text);
  if (trimmed.empty())
    return std::nullopt;
  return std::string(trimmed);
}

std::optional<std::string> AppInstructionProvider::readUserInstruction(std::string_view baseName) const {
  if (userDirectory_.empty())
    return std::nullopt;
  return readInstructionFile(userDirectory_ / (std::string(baseName) + ".md"));
}

std::optional<std::string> AppInstructionProvider::instructions(std::optional<std::string_view> bundleIdentifier,
                                                                std::string_view appName) const {
  const auto baseName = instructionFileBaseName(bundleIdentifier, appName);
  if (!baseName)
    return std::nullopt;
  const auto builtIn = builtInInstructions(*baseName);
  auto user = readUserInstruction(*baseName);
  // The user adds to the built-in advice; they never replace it.
  if (builtIn && user)
    return std::string(*builtIn) + "\n\n" + *user;
  if (builtIn)
    return std::string(*builtIn);
  return user;
}

} // namespace tavix

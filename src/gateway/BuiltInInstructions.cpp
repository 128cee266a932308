#include "gateway/BuiltInInstructions.h"

#include "support/Whitespace.h"

#include <cstddef>
#include <utility>

// Generated from the files of gateway/instructions/: {file name, text}.
extern const std::pair<std::string_view, std::string_view> tavixInstructionFiles[];
extern const size_t tavixInstructionFilesCount;

namespace tavix {
namespace {

// The base names that users name their own files after, and the files that hold their
// built-in texts (file names stay free of spaces).
constexpr std::pair<std::string_view, std::string_view> baseNameFiles[] = {
    {"AppleMusic", "AppleMusic.md"}, {"Clock", "Clock.md"},
    {"Excel", "Excel.md"},           {"Notion", "Notion.md"},
    {"Numbers", "Numbers.md"},       {"Spotify", "Spotify.md"},
    {"iPhone Mirroring", "iPhoneMirroring.md"},
    {"VSCodeLikeIDE", "VSCodeLikeIDE.md"},
};

std::optional<std::string_view> embeddedFile(std::string_view fileName) {
  for (size_t i = 0; i < tavixInstructionFilesCount; ++i)
    if (tavixInstructionFiles[i].first == fileName)
      // The file's closing line break is not part of the advice.
      return trimmedWhitespaceAndNewlines(tavixInstructionFiles[i].second);
  return std::nullopt;
}

} // namespace

std::optional<std::string_view> builtInInstructions(std::string_view baseName) {
  for (const auto &[name, file] : baseNameFiles)
    if (name == baseName)
      return embeddedFile(file);
  return std::nullopt;
}

const std::vector<std::string_view> &builtInInstructionBaseNames() {
  static const std::vector<std::string_view> names = [] {
    std::vector<std::string_view> all;
    for (const auto &entry : baseNameFiles)
      all.push_back(entry.first);
    return all;
  }();
  return names;
}

std::string_view computerUseGuide() { return embeddedFile("ComputerUseGuide.md").value_or(""); }

} // namespace tavix

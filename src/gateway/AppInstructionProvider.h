#pragma once
// Finds the advice to give the model about one app: the built-in text for its family of
// apps, the user's own file for it, or both, the user's after the built-in one.

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace tavix {

// The folder in the user's home that holds their own instruction files, named after the
// base names ("Excel.md").
inline constexpr std::string_view userInstructionsFolderName = "ZelComputerUseInstructions";

class AppInstructionProvider {
public:
  // `userDirectory` holds the user's own files; empty for none.
  explicit AppInstructionProvider(std::filesystem::path userDirectory)
      : userDirectory_(std::move(userDirectory)) {}
  // The current user's folder in their home directory.
  static AppInstructionProvider forCurrentUser();

  // Which instruction file serves an app: by its bundle identifier when one is known,
  // else by its name, exactly and then by containment.
  static std::optional<std::string_view> instructionFileBaseName(std::optional<std::string_view> bundleIdentifier,
                                                                 std::string_view appName);

  // Whether a bundle identifier (in any case) has instructions of its own.
  static bool knowsBundleIdentifier(std::string_view bundleIdentifier);

  // A regular file's UTF-8 text, trimmed; none when it is missing, unreadable, not UTF-8
  // or blank.
  static std::optional<std::string> readInstructionFile(const std::filesystem::path &file);

  std::optional<std::string> readUserInstruction(std::string_view baseName) const;

  // The text to deliver for an app, or none.
  std::optional<std::string> instructions(std::optional<std::string_view> bundleIdentifier,
                                          std::string_view appName) const;

private:
  std::filesystem::path userDirectory_;
};

} // namespace tavix

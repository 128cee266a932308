#pragma once
// The program's own bundle: the directory of its executable. Its information dictionary
// (Info.plist) sits beside the executable in a build tree or relocatable layout, or in
// ../share/<executable name>/ in an installed layout.

#include "platform/Environment.h"
#include "config/PropertyListSource.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavix {

inline constexpr const char *bundleIdentifierKey = "CFBundleIdentifier";

// Where the information dictionary may be, in the order they are tried.
std::vector<std::string> infoPlistCandidates(std::string_view executablePath);

// The first candidate that exists, chosen at each read; reads as empty when none does.
class BundleInfoDictionary final : public PropertyListSource {
public:
  explicit BundleInfoDictionary(std::string_view executablePath)
      : candidates_(infoPlistCandidates(executablePath)) {}
  PropertyListDictionary read() const override;

private:
  std::vector<std::string> candidates_;
};

// The running program's information dictionary.
std::shared_ptr<const PropertyListSource> mainBundleInfoDictionary();

// The bundle identifier named in an information dictionary; nothing when it is absent,
// blank or not text.
std::optional<std::string> bundleIdentifier(const PropertyListDictionary &info);
std::optional<std::string> mainBundleIdentifier();

// The file of the standard user defaults: named after the bundle identifier, or the
// executable's name when there is none, in the per-user settings directory.
std::string userDefaultsPath(const std::optional<std::string> &bundleID,
                             std::string_view executableName, std::string_view home,
                             const EnvironmentLookup &environment);
std::string standardUserDefaultsPath();

} // namespace tavix

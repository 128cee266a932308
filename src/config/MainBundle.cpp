#include "config/MainBundle.h"

#include "platform/ExecutableLocation.h"
#include "platform/UserDirectories.h"
#include "support/FileName.h"
#include "support/HomeDirectory.h"
#include "support/Whitespace.h"

#include <filesystem>
#include <system_error>

namespace tavix {
namespace {

bool isRegularFile(const std::string &path) {
  std::error_code ignored;
  return std::filesystem::is_regular_file(path, ignored);
}

} // namespace

std::vector<std::string> infoPlistCandidates(std::string_view executablePath) {
  const size_t slash = executablePath.find_last_of('/');
  if (slash == std::string_view::npos || fileName(executablePath).empty())
    return {};
  const std::string directory(executablePath.substr(0, slash));
  return {directory + "/Info.plist",
          directory + "/../share/" + std::string(fileName(executablePath)) + "/Info.plist"};
}

PropertyListDictionary BundleInfoDictionary::read() const {
  for (const std::string &candidate : candidates_)
    if (isRegularFile(candidate))
      return PropertyListFileSource(candidate).read();
  return {};
}

std::shared_ptr<const PropertyListSource> mainBundleInfoDictionary() {
  // Never destroyed: the log file's refresh thread may read it while the process exits.
  static const auto *source = new std::shared_ptr<const PropertyListSource>(
      std::make_shared<const BundleInfoDictionary>(currentExecutablePath()));
  return *source;
}

std::optional<std::string> bundleIdentifier(const PropertyListDictionary &info) {
  const auto found = info.find(bundleIdentifierKey);
  if (found == info.end())
    return std::nullopt;
  return trimmedNonEmpty(found->second.get<std::string>());
}

std::optional<std::string> mainBundleIdentifier() {
  return bundleIdentifier(mainBundleInfoDictionary()->read());
}

std::string userDefaultsPath(const std::optional<std::string> &bundleID,
                             std::string_view executableName, std::string_view home,
                             const EnvironmentLookup &environment) {
  const std::string name = bundleID ? *bundleID : std::string(executableName);
  return applicationSupportDirectory(home, environment) + "/" + name + ".plist";
}

std::string standardUserDefaultsPath() {
  return userDefaultsPath(mainBundleIdentifier(), currentExecutableName(), homeDirectory(),
                          processEnvironment());
}

} // namespace tavix

#include "client/RuntimeBundleLocations.h"

#include <algorithm>
#include <filesystem>

namespace tavix {
namespace {

namespace fs = std::filesystem;

// `path` less its last `count` components ("/a/b/c" less 2 is "/a").
fs::path withoutLastComponents(fs::path path, int count) {
  for (int i = 0; i < count; ++i) {
    if (path.has_filename())
      path = path.parent_path();
    else
      path = path.parent_path().parent_path(); // a trailing separator is not a component
  }
  return path;
}

std::string standardized(const std::string &path) {
  std::error_code error;
  fs::path resolved = fs::weakly_canonical(fs::absolute(path, error), error);
  if (error)
    return fs::path(path).lexically_normal().string();
  return resolved.string();
}

int healthRank(const RuntimeSelectionCandidate &candidate) {
  if (!candidate.health)
    return 2;
  return candidate.health->isHealthy ? 0 : 1;
}

} // namespace

std::vector<std::string> runtimeBundleCandidates(const RuntimeLocationInputs &inputs) {
  if (auto override = inputs.environment(runtimePathEnvironmentKey); override && !override->empty())
    return {*override};
  const fs::path bridge(inputs.bridgeBundleLocation);
  return {withoutLastComponents(bridge, 3).string(),
          (withoutLastComponents(bridge, 4) / inputs.runtimeAppName).string(),
          (fs::path(inputs.currentDirectory) / inputs.runtimeAppName).string()};
}

std::vector<std::string> expectedRuntimeBundlePaths(const RuntimeLocationInputs &inputs) {
  std::vector<std::string> paths;
  for (const auto &candidate : runtimeBundleCandidates(inputs))
    paths.push_back(standardized(candidate));
  return paths;
}

std::optional<RuntimeSelectionCandidate>
selectPreferredRuntimeCandidate(std::vector<RuntimeSelectionCandidate> candidates,
                                const std::vector<std::string> &expectedBundlePaths) {
  if (candidates.empty())
    return std::nullopt;
  if (candidates.size() == 1)
    return std::move(candidates.front());
  auto isExpected = [&](const RuntimeSelectionCandidate &candidate) {
    if (!candidate.bundlePath)
      return false;
    const std::string path = standardized(*candidate.bundlePath);
    return std::find(expectedBundlePaths.begin(), expectedBundlePaths.end(), path) != expectedBundlePaths.end();
  };
  std::stable_sort(candidates.begin(), candidates.end(), [&](const auto &a, const auto &b) {
    const int rankA = healthRank(a), rankB = healthRank(b);
    if (rankA != rankB)
      return rankA < rankB;
    return isExpected(a) && !isExpected(b);
  });
  return std::move(candidates.front());
}

} // namespace tavix

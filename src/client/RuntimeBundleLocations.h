#pragma once
// Where the runtime app is looked for and which running instance is used: the places it
// may be installed, and the order that prefers a healthy instance started from one of
// them.

#include "config/BundleIdentifiers.h"
#include "contracts/ComputerUseRequests.h"
#include "platform/Environment.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tavix {

inline constexpr const char *runtimePathEnvironmentKey = "TAVIX_COMPUTER_USE_RUNTIME_PATH";

struct RuntimeSelectionCandidate {
  int32_t processIdentifier = 0;
  std::optional<std::string> bundlePath;
  // Its answer to a health probe; nothing when it did not answer.
  std::optional<ComputerUseIPCHealthResponse> health;
};

// What the candidate locations are made from.
struct RuntimeLocationInputs {
  EnvironmentLookup environment;
  // The bridge's own bundle location: on Linux the directory holding its executable.
  std::string bridgeBundleLocation;
  std::string currentDirectory;
  std::string runtimeAppName;
};

// The override alone when it is set and not empty; otherwise the bridge's location less
// three components, that location less four components plus the app's name, and the
// working directory plus the app's name.
std::vector<std::string> runtimeBundleCandidates(const RuntimeLocationInputs &inputs);

// The same locations made absolute and lexically normal, with symbolic links resolved as
// far as they exist.
std::vector<std::string> expectedRuntimeBundlePaths(const RuntimeLocationInputs &inputs);

// A single candidate is chosen as it is. Otherwise the first after a stable sort that puts
// healthy answers before unhealthy ones and those before no answer, and within each, an
// instance started from an expected path first; the system's own order breaks ties.
// Nothing for no candidates.
std::optional<RuntimeSelectionCandidate>
selectPreferredRuntimeCandidate(std::vector<RuntimeSelectionCandidate> candidates,
                                const std::vector<std::string> &expectedBundlePaths);

} // namespace tavix

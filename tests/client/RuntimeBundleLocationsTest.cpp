// Where the runtime app is looked for (the override, else three places around the bridge
// and the working directory) and which of several running instances is chosen.

#include "client/RuntimeBundleLocations.h"

#include "testing/MapEnvironment.h"
#include "testing/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace tavix::test {
namespace {

namespace fs = std::filesystem;

constexpr const char *appName = "Tavix Computer Use.app";
const std::map<std::string, std::string> noOverride;

RuntimeLocationInputs inputs(const std::map<std::string, std::string> &environment = noOverride,
                             std::string bridge = "/a/b/c/d/e", std::string cwd = "/work") {
  return {lookupIn(environment), std::move(bridge), std::move(cwd), appName};
}
std::map<std::string, std::string> overriding(const std::string &path) { return {{runtimePathEnvironmentKey, path}}; }

TEST(RuntimeBundleLocations, TheOverrideIsTheOnlyCandidateElseThreePlacesAroundTheBridgeAndTheWorkingDirectory) {
  const std::vector<std::string> around = {"/a/b", "/a/Tavix Computer Use.app", "/work/Tavix Computer Use.app"};
  const struct {
    std::map<std::string, std::string> environment;
    const char *bridge, *cwd;
    std::vector<std::string> expected;
  } cases[] = {
      {overriding("/does/not/exist/Runtime.app"), "/a/b/c/d/e", "/work", {"/does/not/exist/Runtime.app"}},
      {overriding("runtime/Tavix.app"), "/a/b/c/d/e", "/work", {"runtime/Tavix.app"}},
      {overriding(""), "/a/b/c/d/e", "/work", around},
      {{{"OTHER", "/x"}}, "/a/b/c/d/e", "/work", around},
      {{}, "/a/b/c/d/e/", "/work", around},
      {{},
       "/opt/Tavix/resources/app/computer-use/bin",
       "/home/u/project",
       {"/opt/Tavix/resources", "/opt/Tavix/Tavix Computer Use.app", "/home/u/project/Tavix Computer Use.app"}},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.bridge);
    EXPECT_EQ(runtimeBundleCandidates(inputs(c.environment, c.bridge, c.cwd)), c.expected);
  }
}

// A candidate: H healthy, U unhealthy, N no answer; with an expected path or another one.
RuntimeSelectionCandidate candidate(int32_t pid, char health, std::optional<std::string> bundlePath) {
  RuntimeSelectionCandidate made{pid, std::move(bundlePath), std::nullopt};
  if (health != 'N')
    made.health = ComputerUseIPCHealthResponse{.runtimePID = pid, .isHealthy = health == 'H'};
  return made;
}

TEST(RuntimeBundleLocations, PrefersHealthThenAnExpectedPathThenTheSystemsOrder) {
  const std::string expected = "/nonexistent-tavix/Applications/Tavix Computer Use.app";
  const std::string other = "/nonexistent-tavix/elsewhere/Tavix Computer Use.app";
  const std::string unnormalized = "/nonexistent-tavix/x/../Applications/Tavix Computer Use.app";
  const struct {
    std::vector<RuntimeSelectionCandidate> candidates;
    std::optional<int32_t> chosen;
  } cases[] = {
      {{candidate(1, 'N', other), candidate(2, 'U', other), candidate(3, 'H', other)}, 3},
      {{candidate(1, 'N', other), candidate(2, 'U', other)}, 2},
      {{candidate(1, 'N', expected), candidate(2, 'U', other)}, 2},
      {{candidate(1, 'U', expected), candidate(2, 'H', other)}, 2},
      {{candidate(1, 'H', other), candidate(2, 'H', expected)}, 2},
      {{candidate(1, 'U', other), candidate(2, 'U', expected)}, 2},
      {{candidate(1, 'N', other), candidate(2, 'N', expected)}, 2},
      {{candidate(1, 'H', std::nullopt), candidate(2, 'H', expected)}, 2},
      {{candidate(1, 'H', other), candidate(2, 'H', unnormalized)}, 2},
      {{candidate(1, 'H', other), candidate(2, 'H', other)}, 1},
      {{candidate(1, 'U', other), candidate(2, 'H', expected), candidate(3, 'H', expected)}, 2},
      {{candidate(1, 'N', std::nullopt), candidate(2, 'N', std::nullopt)}, 1},
      {{candidate(1, 'U', other), candidate(2, 'U', other), candidate(3, 'H', {}), candidate(4, 'H', {})}, 3},
      {{candidate(9, 'U', other)}, 9},
      {{candidate(9, 'N', other)}, 9},
      {{}, std::nullopt},
  };
  for (size_t row = 0; row < std::size(cases); ++row) {
    SCOPED_TRACE(row);
    const auto chosen = selectPreferredRuntimeCandidate(cases[row].candidates, {expected});
    EXPECT_EQ(chosen ? std::optional(chosen->processIdentifier) : std::nullopt, cases[row].chosen);
    if (chosen && chosen->health)
      EXPECT_EQ(chosen->health->runtimePID, chosen->processIdentifier); // the whole candidate, not only its id
  }
}

TEST(RuntimeBundleLocations, ExpectedPathsAreAbsoluteNormalAndResolveSymbolicLinksOnEitherSide) {
  TemporaryDirectory directory;
  const std::string real = fs::canonical(directory.path()).string() + "/real", link = directory / "link";
  fs::create_directories(real + "/" + appName);
  fs::create_directory_symlink(real, link);
  const struct {
    std::string override;
    std::vector<std::string> expected;
  } cases[] = {
      {link + "/" + appName, {real + "/" + appName}},
      {link + "/Missing.app", {real + "/Missing.app"}},
      {"/nonexistent-tavix/x/../y/./Runtime.app", {"/nonexistent-tavix/y/Runtime.app"}},
  };
  for (const auto &c : cases) {
    const auto environment = overriding(c.override);
    EXPECT_EQ(expectedRuntimeBundlePaths(inputs(environment)), c.expected) << c.override;
  }
  // An instance that reports the link, or the real path when the override names the link.
  for (const auto &[overridden, reported] : {std::pair(real, link), std::pair(link, real)}) {
    const auto environment = overriding(overridden + "/" + appName);
    const auto chosen = selectPreferredRuntimeCandidate(
        {candidate(1, 'H', directory / "elsewhere.app"), candidate(2, 'H', reported + "/" + appName)},
        expectedRuntimeBundlePaths(inputs(environment)));
    EXPECT_EQ(chosen.value().processIdentifier, 2) << reported;
  }
}

} // namespace
} // namespace tavix::test

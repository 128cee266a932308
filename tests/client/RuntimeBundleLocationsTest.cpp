// Where the runtime app is looked for (the override, else three places around the bridge
// and the working directory) and which of several running instances is chosen.

#include "client/RuntimeBundleLocations.h"

#include "testing/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tavix::test {
namespace {

namespace fs = std::filesystem;

constexpr const char *appName = "Tavix Computer Use.app";

EnvironmentLookup environmentOf(std::map<std::string, std::string> variables) {
  return [variables](const char *name) -> std::optional<std::string> {
    const auto found = variables.find(name);
    if (found == variables.end())
      return std::nullopt;
    return found->second;
  };
}

RuntimeLocationInputs inputs(std::map<std::string, std::string> environment, std::string bridge = "/a/b/c/d/e",
                             std::string cwd = "/work") {
  return {environmentOf(std::move(environment)), std::move(bridge), std::move(cwd), appName};
}

TEST(RuntimeBundleLocations, TheOverrideIsTheOnlyCandidateEvenWhenItDoesNotExist) {
  const struct {
    const char *name;
    std::map<std::string, std::string> environment;
    std::vector<std::string> expected;
  } cases[] = {
      {"missing path", {{runtimePathEnvironmentKey, "/does/not/exist/Runtime.app"}}, {"/does/not/exist/Runtime.app"}},
      {"relative path", {{runtimePathEnvironmentKey, "runtime/Tavix.app"}}, {"runtime/Tavix.app"}},
      {"empty", {{runtimePathEnvironmentKey, ""}}, {"/a/b", "/a/Tavix Computer Use.app", "/work/Tavix Computer Use.app"}},
      {"unset", {{"OTHER", "/x"}}, {"/a/b", "/a/Tavix Computer Use.app", "/work/Tavix Computer Use.app"}},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(runtimeBundleCandidates(inputs(c.environment)), c.expected);
  }
}

TEST(RuntimeBundleLocations, TheDefaultCandidatesSurroundTheBridgeAndTheWorkingDirectory) {
  const struct {
    const char *bridge;
    const char *cwd;
    std::vector<std::string> expected;
  } cases[] = {
      {"/a/b/c/d/e", "/work", {"/a/b", "/a/Tavix Computer Use.app", "/work/Tavix Computer Use.app"}},
      {"/a/b/c/d/e/", "/work", {"/a/b", "/a/Tavix Computer Use.app", "/work/Tavix Computer Use.app"}},
      {"/opt/Tavix/resources/app/computer-use/bin", "/home/u/project",
       {"/opt/Tavix/resources", "/opt/Tavix/Tavix Computer Use.app", "/home/u/project/Tavix Computer Use.app"}},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.bridge);
    EXPECT_EQ(runtimeBundleCandidates(inputs({}, c.bridge, c.cwd)), c.expected);
  }
}

TEST(RuntimeBundleLocations, ExpectedPathsAreAbsoluteNormalAndResolveSymbolicLinks) {
  TemporaryDirectory directory;
  const std::string real = fs::canonical(directory.path()).string() + "/real";
  fs::create_directories(real + "/" + appName);
  fs::create_directory_symlink(real, directory / "link");
  const struct {
    const char *name;
    std::string override;
    std::vector<std::string> expected;
  } cases[] = {
      {"through a link", directory / "link" + "/" + appName, {real + "/" + appName}},
      {"a link to a missing bundle", directory / "link/Missing.app", {real + "/Missing.app"}},
      {"dot segments of a missing path", "/nonexistent-tavix/x/../y/./Runtime.app", {"/nonexistent-tavix/y/Runtime.app"}},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(expectedRuntimeBundlePaths(inputs({{runtimePathEnvironmentKey, c.override}})), c.expected);
  }
}

// A candidate: H healthy, U unhealthy, N no answer; with an expected path or another one.
RuntimeSelectionCandidate candidate(int32_t pid, char health, std::optional<std::string> bundlePath) {
  RuntimeSelectionCandidate made;
  made.processIdentifier = pid;
  made.bundlePath = std::move(bundlePath);
  if (health != 'N') {
    made.health = ComputerUseIPCHealthResponse{};
    made.health->isHealthy = health == 'H';
    made.health->runtimePID = pid;
  }
  return made;
}

const std::string expected = "/nonexistent-tavix/Applications/Tavix Computer Use.app";
const std::string other = "/nonexistent-tavix/elsewhere/Tavix Computer Use.app";

TEST(RuntimeBundleLocations, PrefersHealthThenAnExpectedPathThenTheSystemsOrder) {
  const struct {
    const char *name;
    std::vector<RuntimeSelectionCandidate> candidates;
    int32_t chosen;
  } cases[] = {
      {"healthy before unhealthy before none", {candidate(1, 'N', other), candidate(2, 'U', other), candidate(3, 'H', other)}, 3},
      {"unhealthy before none", {candidate(1, 'N', other), candidate(2, 'U', other)}, 2},
      {"health before an expected path: none", {candidate(1, 'N', expected), candidate(2, 'U', other)}, 2},
      {"health before an expected path: unhealthy", {candidate(1, 'U', expected), candidate(2, 'H', other)}, 2},
      {"expected among healthy", {candidate(1, 'H', other), candidate(2, 'H', expected)}, 2},
      {"expected among unhealthy", {candidate(1, 'U', other), candidate(2, 'U', expected)}, 2},
      {"expected among no answers", {candidate(1, 'N', other), candidate(2, 'N', expected)}, 2},
      {"no path is not expected", {candidate(1, 'H', std::nullopt), candidate(2, 'H', expected)}, 2},
      {"expected after normalizing", {candidate(1, 'H', other), candidate(2, 'H', "/nonexistent-tavix/x/../Applications/Tavix Computer Use.app")}, 2},
      {"tie of healthy", {candidate(1, 'H', other), candidate(2, 'H', other)}, 1},
      {"tie of expected", {candidate(1, 'U', other), candidate(2, 'H', expected), candidate(3, 'H', expected)}, 2},
      {"tie of no paths", {candidate(1, 'N', std::nullopt), candidate(2, 'N', std::nullopt)}, 1},
      {"tie of unhealthy after a healthy", {candidate(1, 'U', other), candidate(2, 'U', other), candidate(3, 'H', std::nullopt), candidate(4, 'H', std::nullopt)}, 3},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    const auto chosen = selectPreferredRuntimeCandidate(c.candidates, {expected});
    ASSERT_TRUE(chosen.has_value());
    EXPECT_EQ(chosen->processIdentifier, c.chosen);
    if (chosen->health) {
      EXPECT_EQ(chosen->health->runtimePID, c.chosen); // the whole candidate, not only its id
    }
  }
}

TEST(RuntimeBundleLocations, ASingleCandidateIsChosenAsItIsAndNoneGivesNothing) {
  for (char health : {'H', 'U', 'N'}) {
    SCOPED_TRACE(health);
    const auto chosen = selectPreferredRuntimeCandidate({candidate(9, health, std::nullopt)}, {expected});
    ASSERT_TRUE(chosen.has_value());
    EXPECT_EQ(chosen->processIdentifier, 9);
    EXPECT_EQ(chosen->health.has_value(), health != 'N');
  }
  EXPECT_FALSE(selectPreferredRuntimeCandidate({}, {expected}).has_value());
}

TEST(RuntimeBundleLocations, AnInstanceReachedThroughASymbolicLinkCountsAsExpected) {
  TemporaryDirectory directory;
  fs::create_directories(directory / "real" + "/" + appName);
  fs::create_directory_symlink(directory / "real", directory / "link");
  const std::string realBundle = directory / "real" + "/" + appName;
  const std::string linkedBundle = directory / "link" + "/" + appName;
  const struct {
    const char *name;
    std::string expectedThrough, candidatePath;
  } cases[] = {
      {"the instance reports the link", realBundle, linkedBundle},
      {"the override names the link", linkedBundle, realBundle},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    const auto expectedPaths = expectedRuntimeBundlePaths(inputs({{runtimePathEnvironmentKey, c.expectedThrough}}));
    const auto chosen = selectPreferredRuntimeCandidate(
        {candidate(1, 'H', directory / "elsewhere.app"), candidate(2, 'H', c.candidatePath)}, expectedPaths);
    ASSERT_TRUE(chosen.has_value());
    EXPECT_EQ(chosen->processIdentifier, 2);
  }
}

} // namespace
} // namespace tavix::test

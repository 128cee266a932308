// The parent check, step by step with scripted signing services, and with the system's
// own services against real processes.

#include "bridge/ParentAuthorization.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <vector>
#include <unistd.h>

namespace tavix::test {
namespace {

// Code-signing services that answer from a script about one process: the status each step
// returns and the signing information at the end. Any other process has exited.
struct FakeCodeSigning final : CodeSigningServices {
  struct Process {
    int32_t pid = 4242, staticStatus = 0, informationStatus = 0;
    std::optional<PropertyListDictionary> information = PropertyListDictionary{};
  };
  std::optional<Process> process; // none: every process has exited
  std::vector<std::string> calls; // the steps asked for, in order

  CodeResult guestCode(int32_t pid) override {
    calls.push_back("guestCode");
    return process && pid == process->pid ? CodeResult{0, std::make_shared<const Code>()}
                                          : CodeResult{codeSigningNoSuchCodeStatus, nullptr};
  }
  CodeResult staticCode(const Code &) override {
    calls.push_back("staticCode");
    return {process->staticStatus, process->staticStatus != 0 ? nullptr : std::make_shared<const Code>()};
  }
  SigningInformationResult signingInformation(const Code &) override {
    calls.push_back("signingInformation");
    return {process->informationStatus, process->information};
  }
};

BundleIdentifiers configuration(PropertyListDictionary entries = {}) {
  return BundleIdentifiers(std::make_shared<const PropertyListSnapshot>(std::move(entries)));
}

std::string outcome(const auto &result) { return result ? "trusted" : result.error().description(); }

// A parent whose signature names `team` and `identifier`, each when given.
FakeCodeSigning::Process signedBy(std::optional<PropertyListValue> team, std::optional<PropertyListValue> identifier) {
  FakeCodeSigning::Process process;
  if (team)
    process.information->emplace(signingInformationTeamIdentifierKey, *team);
  if (identifier)
    process.information->emplace(signingInformationIdentifierKey, *identifier);
  return process;
}

TEST(ParentAuthorization, TheParentsSignatureDecidesTeamFirstAndAFailedStepReportsItsStatus) {
  const PropertyListDictionary builtIn, off = {{"TavixComputerUseEnforceSenderAuthorization", "no"}},
                               custom = {{"TavixComputerUseTrustedTeamIdentifiers", "OURTEAM"},
                                         {"TavixComputerUseTrustedBundleIdentifiers", PropertyListArray{"org.example.host"}}};
  const std::string team = "Untrusted parent team identifier: ", host = "Untrusted parent bundle identifier: ",
                    failed = "Code signing verification failed: ";
  const std::tuple<PropertyListDictionary, std::optional<FakeCodeSigning::Process>, std::string, size_t> cases[] = {
      // Configuration, the parent (none: it has exited), the outcome, and how many steps were asked for.
      {off, std::nullopt, "trusted", 0},
      {builtIn, signedBy("K4ZQ7MR2XN", "com.tavix.app"), "trusted", 3},
      {builtIn, signedBy(std::nullopt, std::nullopt), team + "nil", 3},
      {builtIn, signedBy(int64_t{5}, "com.tavix.app"), team + "nil", 3},
      {builtIn, signedBy("k4zq7mr2xn", "com.tavix.app"), team + "k4zq7mr2xn", 3},
      {builtIn, signedBy("ZZ", "org.example"), team + "ZZ", 3},
      {builtIn, signedBy("R8WJ3N6PLC", "org.example.shell"), host + "org.example.shell", 3},
      {builtIn, signedBy("R8WJ3N6PLC", std::nullopt), host + "nil", 3},
      // Configured identities replace the built-in ones.
      {custom, signedBy("OURTEAM", "org.example.host"), "trusted", 3},
      {custom, signedBy("K4ZQ7MR2XN", "org.example.host"), team + "K4ZQ7MR2XN", 3},
      {custom, signedBy("OURTEAM", "com.tavix.app"), host + "com.tavix.app", 3},
      {builtIn, std::nullopt, failed + "-67065", 1},
      {builtIn, FakeCodeSigning::Process{.staticStatus = -67068}, failed + "-67068", 2},
      {builtIn, FakeCodeSigning::Process{.informationStatus = -67061}, failed + "-67061", 3},
      {builtIn, FakeCodeSigning::Process{.information = std::nullopt}, failed + "0", 3},
  };
  for (const auto &[entries, parent, expected, asked] : cases) {
    FakeCodeSigning signing;
    signing.process = parent;
    EXPECT_EQ(outcome(verifyParentProcessIfNeeded(configuration(entries), signing, 4242)), expected);
    EXPECT_EQ(signing.calls.size(), asked) << expected;
  }
}

TEST(ParentAuthorization, OnThisSystemAParentIsUnsignedAndAGoneOneIsNotFound) {
  const auto signing = makeSystemCodeSigningServices();
  EXPECT_EQ(outcome(verifyParentProcessIfNeeded(configuration(), *signing, getppid())), "Untrusted parent team identifier: nil");
  const pid_t child = fork();
  if (child == 0)
    _exit(0);
  ASSERT_EQ(waitpid(child, nullptr, 0), child);
  EXPECT_EQ(outcome(verifyParentProcessIfNeeded(configuration(), *signing, child)), "Code signing verification failed: -67065");
}

} // namespace
} // namespace tavix::test

// The parent check, step by step with scripted signing services, and with the system's
// own services against real processes.

#include "bridge/ParentAuthorization.h"
#include "fakes/FakeCodeSigning.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

namespace tavix::test {
namespace {

using ::testing::ElementsAre;

BundleIdentifiers configuration(PropertyListDictionary entries = {}) {
  return BundleIdentifiers(std::make_shared<const PropertyListSnapshot>(std::move(entries)));
}

PropertyListDictionary signedBy(std::optional<PropertyListValue> team,
                                std::optional<PropertyListValue> identifier) {
  PropertyListDictionary information;
  if (team)
    information.emplace(signingInformationTeamIdentifierKey, *team);
  if (identifier)
    information.emplace(signingInformationIdentifierKey, *identifier);
  return information;
}

constexpr int32_t parent = 4242;

std::string outcome(const BundleIdentifiers &config, FakeCodeSigning &signing) {
  const auto result = verifyParentProcessIfNeeded(config, signing, parent);
  return result ? "trusted" : result.error().description();
}

TEST(ParentAuthorization, NothingIsAskedWhenEnforcementIsOff) {
  FakeCodeSigning signing; // knows no process: any question would fail
  EXPECT_EQ(outcome(configuration({{"TavixComputerUseEnforceSenderAuthorization", "no"}}), signing),
            "trusted");
  EXPECT_TRUE(signing.calls.empty());
}

TEST(ParentAuthorization, SignatureIdentitiesDecideTeamFirst) {
  struct Case {
    const char *name;
    std::optional<PropertyListValue> team;
    std::optional<PropertyListValue> identifier;
    std::string expected;
  };
  const std::vector<Case> cases = {
      {"trusted team and host", "K4ZQ7MR2XN", "com.tavix.app", "trusted"},
      {"another trusted team", "M2HX9TQ4VE", "tavixcli", "trusted"},
      {"unsigned", std::nullopt, std::nullopt, "Untrusted parent team identifier: nil"},
      {"team not text", int64_t{5}, "com.tavix.app", "Untrusted parent team identifier: nil"},
      {"unknown team", "ZZZZZZZZZZ", "com.tavix.app", "Untrusted parent team identifier: ZZZZZZZZZZ"},
      {"team compared exactly", "k4zq7mr2xn", "com.tavix.app",
       "Untrusted parent team identifier: k4zq7mr2xn"},
      {"both wrong: team reported", "ZZ", "org.example", "Untrusted parent team identifier: ZZ"},
      {"unknown host", "R8WJ3N6PLC", "org.example.shell",
       "Untrusted parent bundle identifier: org.example.shell"},
      {"host without identifier", "R8WJ3N6PLC", std::nullopt,
       "Untrusted parent bundle identifier: nil"},
      {"host compared exactly", "R8WJ3N6PLC", "com.tavix.APP",
       "Untrusted parent bundle identifier: com.tavix.APP"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    FakeCodeSigning signing;
    signing.processes[parent].information = signedBy(c.team, c.identifier);
    EXPECT_EQ(outcome(configuration(), signing), c.expected);
    EXPECT_THAT(signing.calls, ElementsAre("guestCode", "staticCode", "signingInformation"));
  }
}

TEST(ParentAuthorization, EachFailedStepReportsItsStatus) {
  FakeCodeSigning exited;
  EXPECT_EQ(outcome(configuration(), exited), "Code signing verification failed: -67065");
  EXPECT_THAT(exited.calls, ElementsAre("guestCode"));

  FakeCodeSigning noStatic;
  noStatic.processes[parent].staticStatus = -67068;
  EXPECT_EQ(outcome(configuration(), noStatic), "Code signing verification failed: -67068");
  EXPECT_THAT(noStatic.calls, ElementsAre("guestCode", "staticCode"));

  FakeCodeSigning badInformation;
  badInformation.processes[parent].informationStatus = -67061;
  EXPECT_EQ(outcome(configuration(), badInformation), "Code signing verification failed: -67061");

  FakeCodeSigning noInformation;
  noInformation.processes[parent].information = std::nullopt;
  EXPECT_EQ(outcome(configuration(), noInformation), "Code signing verification failed: 0");
}

TEST(ParentAuthorization, ConfiguredTrustReplacesTheBuiltInSets) {
  const auto custom = configuration({{"TavixComputerUseTrustedTeamIdentifiers", "OURTEAM"},
                                     {"TavixComputerUseTrustedBundleIdentifiers",
                                      PropertyListArray{"org.example.host"}}});
  FakeCodeSigning signing;
  signing.processes[parent].information = signedBy("OURTEAM", "org.example.host");
  EXPECT_EQ(outcome(custom, signing), "trusted");
  signing.processes[parent].information = signedBy("K4ZQ7MR2XN", "org.example.host");
  EXPECT_EQ(outcome(custom, signing), "Untrusted parent team identifier: K4ZQ7MR2XN");
  signing.processes[parent].information = signedBy("OURTEAM", "com.tavix.app");
  EXPECT_EQ(outcome(custom, signing), "Untrusted parent bundle identifier: com.tavix.app");
}

TEST(ParentAuthorization, OnThisSystemAParentIsUnsignedAndAGoneOneIsNotFound) {
  const auto signing = makeSystemCodeSigningServices();
  const auto enforced = configuration();
  const auto live = verifyParentProcessIfNeeded(enforced, *signing, getppid());
  ASSERT_FALSE(live);
  EXPECT_EQ(live.error().description(), "Untrusted parent team identifier: nil");

  const pid_t child = fork();
  if (child == 0)
    _exit(0);
  ASSERT_GT(child, 0);
  ASSERT_EQ(waitpid(child, nullptr, 0), child);
  const auto gone = verifyParentProcessIfNeeded(enforced, *signing, child);
  ASSERT_FALSE(gone);
  EXPECT_EQ(gone.error().description(), "Code signing verification failed: -67065");
}

} // namespace
} // namespace tavix::test

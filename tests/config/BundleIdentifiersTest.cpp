// Configuration read from information dictionaries written by the test, in both file
// formats: every reading rule, its fall-backs, and that nothing is cached.

#include "config/BundleIdentifiers.h"
#include "testing/PropertyListWriter.h"
#include "testing/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <functional>

namespace tavix::test {
namespace {

using Set = std::set<std::string>;

class BundleIdentifiersTest : public ::testing::TestWithParam<PropertyListFormat> {
protected:
  // The identifiers, once the Info.plist holds just `entries`. Always the same object, so
  // that every table also shows that each read sees the file as it is now.
  const BundleIdentifiers &with(const PropertyListDictionary &entries) {
    writePropertyList(path_, entries, GetParam());
    return identifiers_;
  }
  // What `read` makes of each value under `key`, in the order of `values`, and last of the key unset.
  template <typename Read> auto readEach(const char *key, const std::vector<PropertyListValue> &values, Read read) {
    std::vector<std::decay_t<std::invoke_result_t<Read, const BundleIdentifiers &>>> results;
    for (const auto &value : values)
      results.push_back(std::invoke(read, with({{key, value}})));
    results.push_back(std::invoke(read, with({})));
    return results;
  }

  TemporaryDirectory directory_;
  std::string path_ = directory_ / "Info.plist";
  const BundleIdentifiers identifiers_{std::make_shared<const PropertyListFileSource>(path_)};
};

TEST_P(BundleIdentifiersTest, TextIsTrimmedAndFallsBackWhenBlankOrNotText) {
  const std::string fallback = "com.tavix.computeruse";
  EXPECT_EQ(readEach("TavixComputerUseRuntimeBundleIdentifier",
                     {" \t com.example.runtime\n", "\xE3\x80\x80name\xC2\xA0", // ideographic and no-break spaces
                      "", " \n\t", int64_t{7}, true, PropertyListArray{"com.example.runtime"}},
                     &BundleIdentifiers::computerUseRuntime),
            (std::vector<std::string>{"com.example.runtime", "name", fallback, fallback, fallback, fallback, fallback, fallback}));
}

TEST_P(BundleIdentifiersTest, DisplayNameDropsOnlyATrailingAppSuffix) {
  EXPECT_EQ(readEach("TavixComputerUseRuntimeAppName", {"Runner", "Runner.app", "Runner.app.app", "Runner.App", ".app"},
                     &BundleIdentifiers::runtimeAppDisplayName),
            (std::vector<std::string>{"Runner", "Runner", "Runner.app", "Runner.App", "", "Tavix Computer Use"}));
}

TEST_P(BundleIdentifiersTest, TextSetsComeFromArraysThenListsThenDefaults) {
  const auto builtIn = with({}).trustedBundleIDs();
  EXPECT_EQ(readEach("TavixComputerUseTrustedBundleIdentifiers",
                     {PropertyListArray{" a ", "b", "", "a"}, PropertyListArray{"a b"}, PropertyListArray{" ", "\n"},
                      PropertyListArray{}, PropertyListArray{"a", int64_t{1}}, "a, b;c\n d", ";;a;;\r\n;b\t\t",
                      "same,same", ",,; \t\n", int64_t{3}},
                     &BundleIdentifiers::trustedBundleIDs),
            // Array items are not split; an array with anything but texts is not a list.
            (std::vector<Set>{{"a", "b"}, {"a b"}, builtIn, builtIn, builtIn, {"a", "b", "c", "d"}, {"a", "b"},
                              {"same"}, builtIn, builtIn, builtIn}));
}

// The built-in lists: trusted hosts, which include the configured bridge identifier,
// trusted teams, which include the configured team, and forbidden targets.
TEST_P(BundleIdentifiersTest, BuiltInListsFollowTheConfiguredIdentifiers) {
  EXPECT_EQ(with({}).trustedBundleIDs().size(), 32u); // 33; the bridge's own is listed twice
  const auto custom = with({{"TavixComputerUseBridgeBundleIdentifier", "org.example.bridge"}});
  EXPECT_EQ(custom.trustedBundleIDs().size(), 33u);
  EXPECT_TRUE(custom.trustedBundleIDs().contains("org.example.bridge"));
  EXPECT_EQ(custom.defaultTrustedBundleIDs(), custom.trustedBundleIDs());
  EXPECT_EQ(with({{"TavixComputerUseTrustedTeamIdentifier", "NEW"}}).trustedTeamIdentifiers(),
            (Set{"NEW", "K4ZQ7MR2XN", "R8WJ3N6PLC", "M2HX9TQ4VE"}));
  EXPECT_EQ(with({{"TavixComputerUseTrustedTeamIdentifiers", "ONLY"}}).trustedTeamIdentifiers(), Set{"ONLY"});
  EXPECT_EQ(BundleIdentifiers::disallowedThiefProcesses().size(), 18u);
}

TEST_P(BundleIdentifiersTest, BooleansAcceptBooleansZeroOrOneAndTheUsualWords) {
  EXPECT_EQ(readEach("TavixComputerUseEnforceSenderAuthorization",
                     {false, true, int64_t{0}, int64_t{1}, 0.0, int64_t{2}, 0.5, "  NO ", "no", "False", "0",
                      "\tyes\n", "TRUE", "1", "off", "", "n", PropertyListArray{}},
                     &BundleIdentifiers::senderAuthorizationEnforced),
            (std::vector<bool>{false, true, false, true, false, true, true, false, false, false, false,
                               true, true, true, true, true, true, true, true}));
}

// A pinned certificate replaces the team check: exactly 64 hex digits, any separators.
TEST_P(BundleIdentifiersTest, CertificateDigestKeepsHexDigitsAndNeedsExactlySixtyFour) {
  const std::string lower = "0123456789abcdef0123456789abcdeffedcba9876543210fedcba9876543210";
  const std::string pairs = "01:23:45:67:89:AB:CD:EF:01:23:45:67:89:AB:CD:EF:"
                            "FE:DC:BA:98:76:54:32:10:FE:DC:BA:98:76:54:32:10";
  const auto pinning = [](const BundleIdentifiers &ids) {
    return std::pair(ids.lockedUseCertificateSHA256(), ids.lockedUseTrustedTeamIdentifiers());
  };
  const auto unpinned = std::pair(std::optional<std::string>(), Set{"K4ZQ7MR2XN"});
  EXPECT_EQ(readEach("TavixLockedUseCertificateSHA256", {pairs, lower.substr(1), lower + "0", std::string(64, 'g'), 1}, pinning),
            (std::vector{std::pair(std::optional(lower), Set{}), unpinned, unpinned, unpinned, unpinned, unpinned}));
}

INSTANTIATE_TEST_SUITE_P(Formats, BundleIdentifiersTest, ::testing::Values(PropertyListFormat::xml, PropertyListFormat::binary),
                         ::testing::PrintToStringParamName());

// Sender authorization, above all, stays enforced when the file cannot be read.
TEST_P(BundleIdentifiersTest, UnreadableOrMissingInformationMeansEveryDefault) {
  for (const std::string text : {"", "not a property list", "<?xml version=\"1.0\"?><plist><dict><key>a</key>",
                                 "bplist00\x01\x02", // a binary header with nothing behind it
                                 "<?xml version=\"1.0\"?><plist version=\"1.0\"><array><string>a</string></array></plist>"}) {
    writeFile(path_, text);
    EXPECT_TRUE(identifiers_.senderAuthorizationEnforced()) << text;
  }
  for (const std::string &path : {directory_ / "missing.plist", directory_.path()})
    EXPECT_TRUE(BundleIdentifiers(std::make_shared<const PropertyListFileSource>(path)).senderAuthorizationEnforced()) << path;
}

} // namespace
} // namespace tavix::test

// Configuration read from information dictionaries written by the test, in both file
// formats: every reading rule, its fall-backs, and that nothing is cached.

#include "config/BundleIdentifiers.h"
#include "testing/PropertyListWriter.h"
#include "testing/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tavix::test {
namespace {

using ::testing::ElementsAre;
using Set = std::set<std::string>;

class BundleIdentifiersTest : public ::testing::TestWithParam<PropertyListFormat> {
protected:
  // Identifiers over an Info.plist that holds just `entries`.
  BundleIdentifiers with(const PropertyListDictionary &entries) {
    writePropertyList(path_, entries, GetParam());
    return BundleIdentifiers(source_);
  }

  TemporaryDirectory directory_;
  std::string path_ = directory_ / "Info.plist";
  std::shared_ptr<const PropertyListFileSource> source_ =
      std::make_shared<const PropertyListFileSource>(path_);
};

TEST_P(BundleIdentifiersTest, TextIsTrimmedAndFallsBackWhenBlankOrNotText) {
  const std::string fallback = "com.tavix.computeruse";
  // clang-format off
  const std::pair<PropertyListValue, std::string> cases[] = {
      {" \t com.example.runtime\n", "com.example.runtime"},
      {"\xE3\x80\x80name\xC2\xA0", "name"}, // ideographic and no-break spaces
      {"", fallback}, {" \n\t", fallback}, {int64_t{7}, fallback}, {true, fallback},
      {PropertyListArray{"com.example.runtime"}, fallback}};
  // clang-format on
  for (const auto &[value, expected] : cases)
    EXPECT_EQ(with({{"TavixComputerUseRuntimeBundleIdentifier", value}}).computerUseRuntime(),
              expected);
  EXPECT_EQ(with({}).computerUseRuntime(), fallback);
}

TEST_P(BundleIdentifiersTest, DisplayNameDropsOnlyATrailingAppSuffix) {
  // clang-format off
  const std::pair<const char *, const char *> cases[] = {
      {"Runner", "Runner"}, {"Runner.app", "Runner"}, {"Runner.app.app", "Runner.app"},
      {"Runner.App", "Runner.App"}, {".app", ""}};
  // clang-format on
  for (const auto &[name, shown] : cases)
    EXPECT_EQ(with({{"TavixComputerUseRuntimeAppName", name}}).runtimeAppDisplayName(), shown);
  EXPECT_EQ(with({}).runtimeAppDisplayName(), "Tavix Computer Use");
}

TEST_P(BundleIdentifiersTest, TextSetsComeFromArraysThenListsThenDefaults) {
  const auto builtIn = with({}).trustedBundleIDs();
  // clang-format off
  const std::pair<PropertyListValue, Set> cases[] = {
      {PropertyListArray{" a ", "b", "", "a"}, {"a", "b"}},
      {PropertyListArray{"a b"}, {"a b"}}, // array items are not split
      {PropertyListArray{" ", "\n"}, builtIn}, {PropertyListArray{}, builtIn},
      {PropertyListArray{"a", int64_t{1}}, builtIn}, // not an array of texts
      {"a, b;c\n d", {"a", "b", "c", "d"}}, {";;a;;\r\n;b\t\t", {"a", "b"}},
      {"same,same", {"same"}}, {",,; \t\n", builtIn}, {int64_t{3}, builtIn}};
  // clang-format on
  for (const auto &[value, expected] : cases)
    EXPECT_EQ(with({{"TavixComputerUseTrustedBundleIdentifiers", value}}).trustedBundleIDs(),
              expected);
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
  EXPECT_EQ(with({{"TavixComputerUseTrustedTeamIdentifiers", "ONLY"}}).trustedTeamIdentifiers(),
            Set{"ONLY"});
  EXPECT_EQ(BundleIdentifiers::disallowedThiefProcesses().size(), 18u);
}

TEST_P(BundleIdentifiersTest, BooleansAcceptBooleansZeroOrOneAndTheUsualWords) {
  // clang-format off
  const std::pair<PropertyListValue, bool> cases[] = {
      {false, false}, {true, true},       {int64_t{0}, false}, {int64_t{1}, true},
      {0.0, false},   {int64_t{2}, true}, {0.5, true},         {"  NO ", false},
      {"no", false},  {"False", false},   {"0", false},        {"\tyes\n", true},
      {"TRUE", true}, {"1", true},        {"off", true},       {"", true},
      {"n", true},    {PropertyListArray{}, true}};
  // clang-format on
  for (size_t row = 0; row < std::size(cases); ++row)
    EXPECT_EQ(with({{"TavixComputerUseEnforceSenderAuthorization", cases[row].first}})
                  .senderAuthorizationEnforced(),
              cases[row].second)
        << "row " << row;
  EXPECT_TRUE(with({}).senderAuthorizationEnforced());
}

// A pinned certificate replaces the team check: exactly 64 hex digits, any separators.
TEST_P(BundleIdentifiersTest, CertificateDigestKeepsHexDigitsAndNeedsExactlySixtyFour) {
  const std::string key = "TavixLockedUseCertificateSHA256";
  const std::string lower = "0123456789abcdef0123456789abcdeffedcba9876543210fedcba9876543210";
  const std::string pairs = "01:23:45:67:89:AB:CD:EF:01:23:45:67:89:AB:CD:EF:"
                            "FE:DC:BA:98:76:54:32:10:FE:DC:BA:98:76:54:32:10";
  const auto pinned = with({{key, pairs}});
  EXPECT_EQ(pinned.lockedUseCertificateSHA256(), lower);
  EXPECT_TRUE(pinned.lockedUseTrustedTeamIdentifiers().empty());
  for (const PropertyListValue &bad :
       {PropertyListValue(lower.substr(1)), PropertyListValue(lower + "0"),
        PropertyListValue(std::string(64, 'g')), PropertyListValue(1)}) {
    EXPECT_EQ(with({{key, bad}}).lockedUseCertificateSHA256(), std::nullopt);
    EXPECT_EQ(with({{key, bad}}).lockedUseTrustedTeamIdentifiers(), Set{"K4ZQ7MR2XN"});
  }
}

TEST_P(BundleIdentifiersTest, EveryReadSeesTheFileAsItIsNow) {
  const auto identifiers = with({{"TavixComputerUseEnforceSenderAuthorization", false}});
  EXPECT_FALSE(identifiers.senderAuthorizationEnforced());
  writePropertyList(path_, {{"TavixComputerUseEnforceSenderAuthorization", "yes"}}, GetParam());
  EXPECT_TRUE(identifiers.senderAuthorizationEnforced());
}

INSTANTIATE_TEST_SUITE_P(Formats, BundleIdentifiersTest,
                         ::testing::Values(PropertyListFormat::xml, PropertyListFormat::binary),
                         [](const auto &info) {
                           return info.param == PropertyListFormat::xml ? "XML" : "Binary";
                         });

// Sender authorization, above all, stays enforced when the file cannot be read.
TEST(BundleIdentifiers, UnreadableOrMissingInformationMeansEveryDefault) {
  TemporaryDirectory directory;
  const auto enforcedAt = [](const std::string &path) {
    return BundleIdentifiers(std::make_shared<const PropertyListFileSource>(path))
        .senderAuthorizationEnforced();
  };
  for (const std::string text :
       {"", "not a property list", "<?xml version=\"1.0\"?><plist><dict><key>a</key>",
        "bplist00\x01\x02", // a binary header with nothing behind it
        "<?xml version=\"1.0\"?><plist "
        "version=\"1.0\"><array><string>a</string></array></plist>"}) {
    writeFile(directory / "Info.plist", text);
    EXPECT_TRUE(enforcedAt(directory / "Info.plist")) << text;
  }
  EXPECT_TRUE(enforcedAt(directory / "missing.plist"));
  EXPECT_TRUE(enforcedAt(directory.path()));
}

} // namespace
} // namespace tavix::test

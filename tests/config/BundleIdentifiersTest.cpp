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
using ::testing::UnorderedElementsAre;
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
  const std::string key = "TavixComputerUseRuntimeBundleIdentifier";
  const std::vector<std::pair<PropertyListValue, std::string>> cases = {
      {"com.example.runtime", "com.example.runtime"},
      {" \t com.example.runtime\n", "com.example.runtime"},
      {"\xE3\x80\x80name\xC2\xA0", "name"}, // ideographic and no-break spaces
      {"", "com.tavix.computeruse"},
      {" \n\t", "com.tavix.computeruse"},
      {int64_t{7}, "com.tavix.computeruse"},
      {true, "com.tavix.computeruse"},
      {PropertyListArray{"com.example.runtime"}, "com.tavix.computeruse"},
  };
  for (const auto &[value, expected] : cases) {
    SCOPED_TRACE(expected);
    EXPECT_EQ(with({{key, value}}).computerUseRuntime(), expected);
  }
  EXPECT_EQ(with({}).computerUseRuntime(), "com.tavix.computeruse");
}

TEST_P(BundleIdentifiersTest, EveryTextPropertyHasItsKeyAndDefault) {
  const auto defaults = with({});
  EXPECT_EQ(defaults.computerUseBridge(), "com.tavix.computeruse.bridge");
  EXPECT_EQ(defaults.lockedUseGuardian(), "com.tavix.computeruse.guardian");
  EXPECT_EQ(defaults.lockedUseAuthorizationPlugin(), "com.tavix.computeruse.AuthorizationPlugin");
  EXPECT_EQ(defaults.runtimeAppName(), "Tavix Computer Use.app");
  EXPECT_EQ(defaults.runtimeAppDisplayName(), "Tavix Computer Use");
  EXPECT_EQ(defaults.defaultTavixHomeDirectoryName(), ".tavix");
  EXPECT_EQ(defaults.teamIdentifier(), "K4ZQ7MR2XN");

  const auto configured = with({{"TavixComputerUseBridgeBundleIdentifier", "b"},
                                {"TavixLockedUseGuardianBundleIdentifier", "g"},
                                {"TavixLockedUseAuthorizationPluginBundleIdentifier", "p"},
                                {"TavixComputerUseRuntimeAppName", "Runner"},
                                {"TavixComputerUseDefaultHomeDirectoryName", ".home"},
                                {"TavixComputerUseTrustedTeamIdentifier", "TEAM"}});
  EXPECT_EQ(configured.computerUseBridge(), "b");
  EXPECT_EQ(configured.lockedUseGuardian(), "g");
  EXPECT_EQ(configured.lockedUseAuthorizationPlugin(), "p");
  EXPECT_EQ(configured.runtimeAppName(), "Runner");
  EXPECT_EQ(configured.defaultTavixHomeDirectoryName(), ".home");
  EXPECT_EQ(configured.teamIdentifier(), "TEAM");
}

TEST_P(BundleIdentifiersTest, DisplayNameDropsOnlyATrailingAppSuffix) {
  const std::string key = "TavixComputerUseRuntimeAppName";
  EXPECT_EQ(with({{key, "Runner"}}).runtimeAppDisplayName(), "Runner");
  EXPECT_EQ(with({{key, "Runner.app"}}).runtimeAppDisplayName(), "Runner");
  EXPECT_EQ(with({{key, "Runner.app.app"}}).runtimeAppDisplayName(), "Runner.app");
  EXPECT_EQ(with({{key, "Runner.App"}}).runtimeAppDisplayName(), "Runner.App");
  EXPECT_EQ(with({{key, ".app"}}).runtimeAppDisplayName(), "");
}

TEST_P(BundleIdentifiersTest, TextSetsComeFromArraysThenListsThenDefaults) {
  const std::string key = "TavixComputerUseTrustedBundleIdentifiers";
  const auto builtIn = with({}).trustedBundleIDs();
  const std::vector<std::pair<PropertyListValue, Set>> cases = {
      {PropertyListArray{" a ", "b", "", "a"}, {"a", "b"}},
      {PropertyListArray{"a b"}, {"a b"}}, // array items are not split
      {PropertyListArray{" ", "\n"}, builtIn},
      {PropertyListArray{}, builtIn},
      {PropertyListArray{"a", int64_t{1}}, builtIn}, // not an array of texts
      {"a, b;c\n d", {"a", "b", "c", "d"}},
      {"com.one\tcom.two", {"com.one", "com.two"}},
      {",,; \t\n", builtIn},
      {int64_t{3}, builtIn},
  };
  for (const auto &[value, expected] : cases) {
    SCOPED_TRACE(::testing::PrintToString(expected));
    EXPECT_EQ(with({{key, value}}).trustedBundleIDs(), expected);
  }
}

TEST_P(BundleIdentifiersTest, DefaultTrustedHostsFollowTheConfiguredBridgeIdentifier) {
  const auto defaults = with({}).trustedBundleIDs();
  EXPECT_EQ(defaults.size(), 32u); // 33 entries; the bridge's own identifier is listed twice
  for (const char *id : {"com.tavix.app", "com.tavix.app.helper.Renderer", "tavixcli", "Tavix",
                         "com.tavixcn.app.dev", "com.varnel.quorin.ide.helper", "TavixCN",
                         "com.tavix.work", "com.tavix.cn.computeruse.bridge"})
    EXPECT_TRUE(defaults.contains(id)) << id;

  const auto custom = with({{"TavixComputerUseBridgeBundleIdentifier", "org.example.bridge"}});
  EXPECT_EQ(custom.trustedBundleIDs().size(), 33u);
  EXPECT_TRUE(custom.trustedBundleIDs().contains("org.example.bridge"));
  EXPECT_EQ(custom.defaultTrustedBundleIDs(), custom.trustedBundleIDs());
}

TEST_P(BundleIdentifiersTest, TrustedTeamsDefaultToTheThreeKnownTeamsPlusTheConfiguredOne) {
  EXPECT_THAT(with({}).trustedTeamIdentifiers(),
              UnorderedElementsAre("K4ZQ7MR2XN", "R8WJ3N6PLC", "M2HX9TQ4VE"));
  EXPECT_THAT(with({{"TavixComputerUseTrustedTeamIdentifier", "NEWTEAM"}}).trustedTeamIdentifiers(),
              UnorderedElementsAre("NEWTEAM", "K4ZQ7MR2XN", "R8WJ3N6PLC", "M2HX9TQ4VE"));
  EXPECT_THAT(with({{"TavixComputerUseTrustedTeamIdentifiers", "ONLY"}}).trustedTeamIdentifiers(),
              ElementsAre("ONLY"));
}

TEST_P(BundleIdentifiersTest, BooleansAcceptBooleansZeroOrOneAndTheUsualWords) {
  const std::string key = "TavixComputerUseEnforceSenderAuthorization";
  const std::vector<std::pair<PropertyListValue, bool>> cases = {
      {false, false},       {true, true},          {int64_t{0}, false}, {int64_t{1}, true},
      {0.0, false},         {int64_t{2}, true},    {0.5, true},         {"  NO ", false},
      {"no", false},        {"False", false},      {"0", false},        {"\tyes\n", true},
      {"TRUE", true},       {"1", true},           {"off", true},       {"", true},
      {"n", true},          {PropertyListArray{}, true},
  };
  for (const auto &[value, expected] : cases) {
    SCOPED_TRACE(::testing::PrintToString(value.storage().index()));
    EXPECT_EQ(with({{key, value}}).senderAuthorizationEnforced(), expected);
  }
  EXPECT_TRUE(with({}).senderAuthorizationEnforced());
}

TEST_P(BundleIdentifiersTest, CertificateDigestKeepsHexDigitsAndNeedsExactlySixtyFour) {
  const std::string key = "TavixLockedUseCertificateSHA256";
  std::string pairs;
  std::string lower;
  for (int i = 0; i < 32; ++i) {
    static constexpr char hex[] = "0123456789ABCDEF";
    const char high = hex[(i * 7) % 16];
    const char low = hex[(i * 11 + 10) % 16];
    pairs += std::string(i == 0 ? "" : ":") + high + low;
    lower += static_cast<char>(std::tolower(high));
    lower += static_cast<char>(std::tolower(low));
  }
  const auto pinned = with({{key, pairs}});
  EXPECT_EQ(pinned.lockedUseCertificateSHA256(), lower);
  EXPECT_TRUE(pinned.lockedUseTrustedTeamIdentifiers().empty());

  EXPECT_EQ(with({{key, " " + lower + "\n"}}).lockedUseCertificateSHA256(), lower);
  for (const PropertyListValue &bad :
       {PropertyListValue(lower.substr(1)), PropertyListValue(lower + "0"),
        PropertyListValue(std::string(64, 'g')), PropertyListValue(int64_t{1})}) {
    const auto identifiers = with({{key, bad}});
    EXPECT_EQ(identifiers.lockedUseCertificateSHA256(), std::nullopt);
    EXPECT_THAT(identifiers.lockedUseTrustedTeamIdentifiers(), ElementsAre("K4ZQ7MR2XN"));
  }
}

TEST_P(BundleIdentifiersTest, EveryReadSeesTheFileAsItIsNow) {
  const auto identifiers = with({{"TavixComputerUseEnforceSenderAuthorization", false}});
  EXPECT_FALSE(identifiers.senderAuthorizationEnforced());
  writePropertyList(path_, {{"TavixComputerUseEnforceSenderAuthorization", "yes"}}, GetParam());
  EXPECT_TRUE(identifiers.senderAuthorizationEnforced());
  std::filesystem::remove(path_);
  EXPECT_TRUE(identifiers.senderAuthorizationEnforced());
}

INSTANTIATE_TEST_SUITE_P(Formats, BundleIdentifiersTest,
                         ::testing::Values(PropertyListFormat::xml, PropertyListFormat::binary),
                         [](const auto &info) {
                           return info.param == PropertyListFormat::xml ? "XML" : "Binary";
                         });

TEST(BundleIdentifiers, UnreadableInformationMeansEveryDefault) {
  TemporaryDirectory directory;
  const std::vector<std::string> contents = {
      "", "not a property list", "<?xml version=\"1.0\"?><plist><dict><key>a</key>",
      "bplist00\x01\x02", // a binary header with nothing behind it
      "<?xml version=\"1.0\"?><plist version=\"1.0\"><array><string>a</string></array></plist>"};
  for (const auto &text : contents) {
    SCOPED_TRACE(text);
    writeFile(directory / "Info.plist", text);
    const BundleIdentifiers identifiers(
        std::make_shared<const PropertyListFileSource>(directory / "Info.plist"));
    EXPECT_TRUE(identifiers.senderAuthorizationEnforced());
    EXPECT_EQ(identifiers.computerUseRuntime(), "com.tavix.computeruse");
  }
  for (const std::string &path : {directory / "missing.plist", directory.path()}) {
    const BundleIdentifiers identifiers(std::make_shared<const PropertyListFileSource>(path));
    EXPECT_TRUE(identifiers.senderAuthorizationEnforced());
  }
}

TEST(BundleIdentifiers, HandWrittenXMLIsRead) {
  TemporaryDirectory directory;
  writeFile(directory / "Info.plist", R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
  <key>TavixComputerUseEnforceSenderAuthorization</key>
  <false/>
  <key>TavixComputerUseTrustedBundleIdentifiers</key>
  <array><string>one</string><string> two </string></array>
  <key>TavixComputerUseRuntimeAppName</key>
  <string>Caf&#xE9; &amp; Co.app</string>
</dict>
</plist>
)");
  const BundleIdentifiers identifiers(
      std::make_shared<const PropertyListFileSource>(directory / "Info.plist"));
  EXPECT_FALSE(identifiers.senderAuthorizationEnforced());
  EXPECT_THAT(identifiers.trustedBundleIDs(), ElementsAre("one", "two"));
  EXPECT_EQ(identifiers.runtimeAppDisplayName(), "Caf\xC3\xA9 & Co");
}

TEST(BundleIdentifiers, ForbiddenTargetsAreTheEighteenKnownApplications) {
  const auto &forbidden = BundleIdentifiers::disallowedThiefProcesses();
  EXPECT_EQ(forbidden.size(), 18u);
  for (const char *id : {"com.1password.1password", "com.apple.Terminal", "com.google.Chrome",
                         "com.apple.ScreenContinuity", "me.proton.pass.catalyst"})
    EXPECT_TRUE(forbidden.contains(id)) << id;
}

TEST(ParseStringList, SplitsAtEverySeparatorAndDropsEmptyPieces) {
  EXPECT_THAT(parseStringList("a, b;c\n d"), ElementsAre("a", "b", "c", "d"));
  EXPECT_THAT(parseStringList(";;a;;\r\n;b\t\t"), ElementsAre("a", "b"));
  EXPECT_THAT(parseStringList("same,same"), ElementsAre("same"));
  EXPECT_TRUE(parseStringList("").empty());
  EXPECT_TRUE(parseStringList(" ,\n;\t").empty());
}

} // namespace
} // namespace tavix::test

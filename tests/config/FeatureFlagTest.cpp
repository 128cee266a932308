// Feature flags over user-defaults files written by the test, and where the
// program's own information dictionary and user defaults are looked for.

#include "config/FeatureFlag.h"
#include "config/MainBundle.h"
#include "testing/PropertyListWriter.h"
#include "testing/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

namespace tavix::test {
namespace {

class FeatureFlagTest : public ::testing::Test {
protected:
  const FeatureFlag &flagsWith(const PropertyListDictionary &entries, PropertyListFormat format = PropertyListFormat::binary) {
    writePropertyList(path_, entries, format);
    return flags_;
  }

  TemporaryDirectory directory_;
  std::string path_ = directory_ / "defaults.plist";
  FeatureFlag flags_{std::make_shared<const UserDefaults>(std::make_shared<const PropertyListFileSource>(path_))};
};

// Also when the file is missing or unreadable.
TEST_F(FeatureFlagTest, OnlyTheCursorIsOnByDefaultAndForbiddenTargetsHaveAKeyOfTheirOwn) {
  EXPECT_TRUE(flags_.computerUseCursor() && !flags_.lockedUseAutoUnlock() && !flags_.screenshot());
  EXPECT_FALSE(flagsWith({{"feature/computerUseCursor", false}}).computerUseCursor());
  // Without the "feature/" prefix; the prefixed key is another one.
  EXPECT_TRUE(flagsWith({{"ComputerUseAllowForbiddenTargets", true}}).computerUseAllowForbiddenTargets());
  EXPECT_FALSE(flagsWith({{"feature/ComputerUseAllowForbiddenTargets", true}}).computerUseAllowForbiddenTargets());
  writeFile(path_, "garbage");
  EXPECT_TRUE(flags_.computerUseCursor());
  EXPECT_FALSE(flags_.computerUseAllowForbiddenTargets());
}

// The rows alternate the file's format and change the result, read through one object:
// each read sees the file as it is now.
TEST_F(FeatureFlagTest, BooleansAcceptNumbersAndWords) {
  // clang-format off
  const std::pair<PropertyListValue, bool> cases[] = {
      {true, true}, {false, false}, {int64_t{1}, true}, {int64_t{-2}, true}, {int64_t{0}, false}, {0.25, true},
      {0.0, false}, {" YES ", true}, {"true", true}, {"1", true}, {"no", false}, {"on", false}, {"", false},
      {PropertyListArray{true}, false}, {PropertyListValue::Other{}, false}};
  // clang-format on
  for (size_t row = 0; row < std::size(cases); ++row) {
    const auto &flags = flagsWith({{"feature/screenshot", cases[row].first}},
                                 row % 2 ? PropertyListFormat::xml : PropertyListFormat::binary);
    EXPECT_EQ(std::pair(flags.screenshot(), flags.isEnabled("feature/screenshot", !cases[row].second)),
              std::pair(cases[row].second, cases[row].second)) << "row " << row;
  }
  // A default applies only when the key is unset, whatever is set.
  EXPECT_TRUE(flagsWith({{"present", "nonsense"}}).isEnabled("absent", true));
  EXPECT_FALSE(flags_.isEnabled("present", true));
}

TEST_F(FeatureFlagTest, StringValuesAreTextOrNumbers) {
  const auto flags =
      flagsWith({{"text", " spaced "}, {"integer", int64_t{-42}}, {"real", 1.5}, {"list", PropertyListArray{"a"}}});
  std::vector<std::optional<std::string>> values;
  for (const char *key : {"text", "integer", "real", "list", "absent"})
    values.push_back(flags.stringValue(key));
  EXPECT_EQ(values, (decltype(values){" spaced ", "-42", "1.5", std::nullopt, std::nullopt}));
}

TEST(MainBundle, InformationIsBesideTheExecutableElseInItsShareDirectory) {
  EXPECT_THAT(infoPlistCandidates("/opt/tavix/bin/TavixComputerUseBridge"),
              ::testing::ElementsAre("/opt/tavix/bin/Info.plist", "/opt/tavix/bin/../share/TavixComputerUseBridge/Info.plist"));
  EXPECT_TRUE(infoPlistCandidates("").empty());
  TemporaryDirectory root;
  std::filesystem::create_directories(root / "bin");
  const BundleInfoDictionary info(root / "bin/Bridge");
  EXPECT_TRUE(info.read().empty());
  writePropertyList(root / "share/Bridge/Info.plist", {{"CFBundleIdentifier", "installed"}}, PropertyListFormat::xml);
  EXPECT_EQ(bundleIdentifier(info.read()), "installed");
  writePropertyList(root / "bin/Info.plist", {{"CFBundleIdentifier", " beside "}}, PropertyListFormat::binary);
  EXPECT_EQ(bundleIdentifier(info.read()), "beside");
  EXPECT_EQ(bundleIdentifier({{"CFBundleIdentifier", "  "}}), std::nullopt);
  EXPECT_EQ(bundleIdentifier({{"CFBundleIdentifier", int64_t{1}}}), std::nullopt);
}

TEST(MainBundle, UserDefaultsAreNamedAfterTheBundleInTheConfigurationDirectory) {
  const auto path = [](std::optional<std::string> id, std::optional<std::string> xdg) {
    return userDefaultsPath(id, "Bridge", "/home/u", [xdg](const char *name) {
      return std::string_view(name) == "XDG_CONFIG_HOME" ? xdg : std::nullopt;
    });
  };
  EXPECT_EQ(path("com.example.id", std::nullopt), "/home/u/.config/com.example.id.plist");
  EXPECT_EQ(path(std::nullopt, "/xdg/"), "/xdg/Bridge.plist");
  // A relative setting is not a valid configuration directory.
  EXPECT_EQ(path(std::nullopt, "relative"), "/home/u/.config/Bridge.plist");
}

} // namespace
} // namespace tavix::test

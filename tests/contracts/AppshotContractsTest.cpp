// The appshot records through their JSON form: every key of every record, the nested
// records' own rules, the window id's 32-bit range, and the three request type names.

#include "contracts/AppshotContracts.h"

#include "testing/ContractFieldRules.h"

#include <gtest/gtest.h>

#include <string_view>
#include <type_traits>

namespace tavix::test {
namespace {

using nlohmann::json;

const json rect = {{"x", 1.5}, {"y", -2}, {"width", 300}, {"height", 200.25}};
const json display = {{"id", -9007199254740993LL}, {"scaleFactor", 2}, {"bounds", rect}, {"workArea", rect}};
const json animationTarget = {{"zumexDisplay", display},
                              {"destinationBackgroundColor", "#101010"},
                              {"destinationCornerRadius", 12},
                              {"destinationFrame", rect},
                              {"destinationPrimaryTextColor", "#fafafa"}};
const json target = {{"bundleIdentifier", "com.example.notes"},
                     {"name", "Notes"},
                     {"iconSmallDataURL", "data:image/png;base64,AAAA"},
                     {"windowTitle", "Groceries"}};

TEST(AppshotContracts, RequestsFollowTheFieldRules) {
  expectFieldRules<ComputerUseIPCAppStartFrontmostCaptureRequest>(
      {{"requestId", "r1"}, {"bundleIdentifier", "com.example.notes"}, {"windowID", 4294967295U},
       {"animationTarget", animationTarget}},
      {"requestId"});
  expectFieldRules<ComputerUseIPCAppNextCaptureUpdateRequest>({{"requestId", "r1"}, {"timeoutMs", 2500}},
                                                              {"requestId"});
  expectFieldRules<ComputerUseIPCAppCancelCaptureRequest>({{"requestId", "r1"}}, {"requestId"});
}

TEST(AppshotContracts, ResponsesAndNestedRecordsFollowTheFieldRules) {
  expectFieldRules<ComputerUseIPCAppStartFrontmostCaptureResponse>(
      {{"target", target},
       {"transitionSnapshotHeight", 640.5},
       {"error", {{"code", "no_window"}, {"message", "Nothing to capture"}}}},
      {});
  expectFieldRules<ComputerUseIPCAppshotUpdateEnvelope>({{"requestId", "r1"}, {"update", {{"type", "x"}}}},
                                                        {"requestId", "update"});
  expectFieldRules<ComputerUseIPCAppshotCaptureUpdate>({{"type", "frame"},
                                                        {"target", target},
                                                        {"text", "t"},
                                                        {"screenshotDataURL", "data:image/png;base64,AA"},
                                                        {"transitionSnapshotDataURL", "data:image/png;base64,BB"},
                                                        {"error", "e"}},
                                                       {"type"});
  expectFieldRules<ComputerUseIPCAppshotTarget>(target, {"bundleIdentifier", "name"});
  expectFieldRules<ComputerUseIPCAppshotError>({{"code", "c"}, {"message", "m"}}, {"code", "message"});
  expectFieldRules<ComputerUseIPCAppshotAnimationTarget>(animationTarget, {});
  expectFieldRules<ComputerUseIPCAppshotDisplay>(display, {});
  expectFieldRules<ComputerUseIPCAppshotRect>(rect, {"x", "y", "width", "height"});
  expectFieldRules<ComputerUseIPCEmptyResponse>(json::object(), {});
}

TEST(AppshotContracts, ShortestFormsDecodeWithEverythingElseAbsent) {
  const auto start = ComputerUseIPCAppStartFrontmostCaptureRequest::fromJSON({{"requestId", "r1"}});
  ASSERT_TRUE(start.has_value());
  EXPECT_EQ(*start, (ComputerUseIPCAppStartFrontmostCaptureRequest{"r1", {}, {}, {}}));
  EXPECT_EQ(start->toJSON().dump(), R"({"requestId":"r1"})");

  const auto envelope = ComputerUseIPCAppshotUpdateEnvelope::fromJSON(json::parse(R"({"requestId":"r1","update":{"type":"x"}})"));
  ASSERT_TRUE(envelope.has_value());
  EXPECT_EQ(envelope->update, (ComputerUseIPCAppshotCaptureUpdate{"x", {}, {}, {}, {}, {}}));
  EXPECT_EQ(envelope->toJSON().dump(), R"({"requestId":"r1","update":{"type":"x"}})");
}

TEST(AppshotContracts, NestedFailuresFailTheWholeRecord) {
  json rectWithoutHeight = rect;
  rectWithoutHeight.erase("height");
  const struct {
    json value;
    std::string error;
  } cases[] = {
      {{{"requestId", "r1"}, {"animationTarget", {{"destinationFrame", rectWithoutHeight}}}},
       "Missing required key \"height\""},
      {{{"requestId", "r1"}, {"animationTarget", {{"zumexDisplay", {{"workArea", rectWithoutHeight}}}}}},
       "Missing required key \"height\""},
      {{{"requestId", "r1"}, {"animationTarget", {{"zumexDisplay", {{"id", 1.5}}}}}},
       "Expected an integer in range for \"id\""},
      {{{"requestId", "r1"}, {"animationTarget", {{"destinationFrame", {1, 2, 3, 4}}}}},
       "Expected an object for ComputerUseIPCAppshotRect"},
      {{{"requestId", 1}}, "Expected a string for \"requestId\""},
      {{{"bundleIdentifier", "b"}}, "Missing required key \"requestId\""},
  };
  for (const auto &c : cases) {
    const auto decoded = ComputerUseIPCAppStartFrontmostCaptureRequest::fromJSON(c.value);
    ASSERT_FALSE(decoded.has_value()) << c.value;
    EXPECT_EQ(decoded.error().description, c.error) << c.value;
  }
  EXPECT_EQ(ComputerUseIPCAppshotUpdateEnvelope::fromJSON({{"requestId", "r1"}, {"update", json::object()}})
                .error()
                .description,
            "Missing required key \"type\"");
}

TEST(AppshotContracts, WindowIDIsAnUnsigned32BitInteger) {
  const auto windowID = [](const json &value) {
    return ComputerUseIPCAppStartFrontmostCaptureRequest::fromJSON({{"requestId", "r1"}, {"windowID", value}});
  };
  // Parsed (unsigned), built in code (signed), and as doubles without a fraction.
  for (const json &accepted : {json::parse("4294967295"), json::parse("0"), json(4294967295LL), json(0LL),
                               json(4294967295.0), json(7.0), json::parse("-0")}) {
    const auto decoded = windowID(accepted);
    ASSERT_TRUE(decoded.has_value()) << accepted;
    EXPECT_EQ(decoded->windowID, static_cast<uint32_t>(accepted.get<double>())) << accepted;
  }
  for (const json &refused : {json::parse("4294967296"), json(4294967296LL), json(-1), json::parse("-1"),
                              json(4294967296.0), json(-1.0), json(7.5), json("7"), json(true),
                              json::parse("18446744073709551615")}) {
    const auto decoded = windowID(refused);
    ASSERT_FALSE(decoded.has_value()) << refused;
    EXPECT_EQ(decoded.error().description, "Expected an integer in range for \"windowID\"");
  }
}

TEST(AppshotContracts, SignedLimitsStillHoldForSixtyFourBitFields) {
  const auto timeout = [](const json &value) {
    return ComputerUseIPCAppNextCaptureUpdateRequest::fromJSON({{"requestId", "r1"}, {"timeoutMs", value}});
  };
  for (const json &accepted : {json::parse("9223372036854775807"), json::parse("-9223372036854775808"),
                               json(-9223372036854775808.0)})
    EXPECT_TRUE(timeout(accepted).has_value()) << accepted;
  for (const json &refused : {json::parse("9223372036854775808"), json(9223372036854775808.0)})
    EXPECT_FALSE(timeout(refused).has_value()) << refused;
}

TEST(AppshotContracts, RequestTypesAreTheRecordNames) {
  EXPECT_EQ(ComputerUseIPCAppStartFrontmostCaptureRequest::requestType, "ComputerUseIPCAppStartFrontmostCaptureRequest");
  EXPECT_EQ(ComputerUseIPCAppNextCaptureUpdateRequest::requestType, "ComputerUseIPCAppNextCaptureUpdateRequest");
  EXPECT_EQ(ComputerUseIPCAppCancelCaptureRequest::requestType, "ComputerUseIPCAppCancelCaptureRequest");
  static_assert(ComputerUseRequest<ComputerUseIPCAppStartFrontmostCaptureRequest>);
  static_assert(std::is_same_v<ComputerUseIPCAppStartFrontmostCaptureRequest::Response,
                               ComputerUseIPCAppStartFrontmostCaptureResponse>);
  static_assert(std::is_same_v<ComputerUseIPCAppNextCaptureUpdateRequest::Response,
                               ComputerUseIPCAppshotUpdateEnvelope>);
  static_assert(std::is_same_v<ComputerUseIPCAppCancelCaptureRequest::Response, ComputerUseIPCEmptyResponse>);
}

} // namespace
} // namespace tavix::test

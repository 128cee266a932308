// Tool results, failures and the bridge's tool errors: their JSON, their texts and the
// failure each reports.

#include "contracts/ToolError.h"
#include "contracts/ToolResult.h"

#include <gtest/gtest.h>

namespace tavix::test {
namespace {

using nlohmann::json;
using Kind = ComputerUseFailure::Kind;

TEST(ToolResult, JSONForms) {
  const std::pair<ToolResult, std::string> cases[] = {
      {ToolResult::text("ok"), R"({"content":[{"text":"ok","type":"text"}]})"},
      {ToolResult::error("bad", ComputerUseFailure{Kind::timeout, "d", "e", 1}),
       R"({"content":[{"text":"bad","type":"text"}],"isError":true})"},
      {ToolResult::error("bad", std::nullopt), R"({"content":[{"text":"bad","type":"text"}],"isError":true})"},
      {ToolResult{{ToolResultContent::text("a"), ToolResultContent::image("iVBORw0KGgo=", "image/png")}, false, {}},
       R"({"content":[{"text":"a","type":"text"},{"data":"iVBORw0KGgo=","mimeType":"image/png","type":"image"}]})"},
      {ToolResult{{}, false, {}}, R"({"content":[]})"},
  };
  for (const auto &[result, text] : cases)
    EXPECT_EQ(result.toJSON().dump(), text);
}

TEST(ToolResult, RuntimeBlocksBecomeContent) {
  const std::pair<json, ToolResultContent> cases[] = {
      {{{"type", "image"}, {"data", "AAAA"}}, ToolResultContent::image("AAAA", "image/png")},
      {{{"type", "image"}, {"data", "AAAA"}, {"mimeType", "image/jpeg"}}, ToolResultContent::image("AAAA", "image/jpeg")},
      {{{"type", "image"}}, ToolResultContent::text("")},
      {{{"type", "image"}, {"text", "caption"}}, ToolResultContent::text("caption")},
      {{{"type", "Image"}, {"data", "AAAA"}}, ToolResultContent::text("")},
      {{{"type", "text"}, {"text", "hi"}}, ToolResultContent::text("hi")},
      {{{"type", "text"}}, ToolResultContent::text("")},
      {{{"type", "audio"}, {"text", "t"}, {"data", "AAAA"}}, ToolResultContent::text("t")},
  };
  for (const auto &[block, expected] : cases) {
    const auto decoded = ComputerUseIPCToolContentBlock::fromJSON(block);
    ASSERT_TRUE(decoded.has_value()) << block;
    EXPECT_EQ(decoded->toToolResultContent(), expected) << block;
    // The response's own conversion, which takes the data instead of copying it, agrees.
    auto response = ComputerUseIPCToolResultResponse::fromJSON(
        json{{"content", json::array({block})}, {"isError", false}});
    ASSERT_TRUE(response.has_value());
    EXPECT_EQ(std::move(*response).toToolResult().content, std::vector{expected}) << block;
  }
}

TEST(ToolResult, MalformedResponsesFailWithTheirReason) {
  const std::pair<std::string, std::string> cases[] = {
      {R"({"content":"x","isError":false})", "Expected an array for \"content\""},
      {R"({"content":["x"],"isError":false})", "Expected an object for ComputerUseIPCToolContentBlock"},
      {R"({"content":[{"text":"x"}],"isError":false})", "Missing required key \"type\""},
      {R"({"content":[],"isError":"no"})", "Expected a boolean for \"isError\""},
      {R"({"content":[{"type":"image","data":"AAA"}],"isError":false})", "Expected standard padded base64 for \"data\""},
      {R"({"content":[{"type":"image","data":"AA\nAA=="}],"isError":false})", "Expected standard padded base64 for \"data\""},
      {R"({"content":[],"isError":false,"failure":{"kind":"oops"}})", "Unknown value for \"kind\""},
  };
  for (const auto &[text, reason] : cases) {
    const auto decoded = ComputerUseIPCToolResultResponse::fromJSON(json::parse(text));
    ASSERT_FALSE(decoded.has_value()) << text;
    EXPECT_EQ(decoded.error().description, reason) << text;
    const auto copied = ComputerUseIPCToolResultResponse::fromJSON(static_cast<const json &>(json::parse(text)));
    EXPECT_FALSE(copied.has_value()) << text;
  }
}

TEST(ToolResult, AResponseCarriesItsErrorFlagAndFailure) {
  auto response = ComputerUseIPCToolResultResponse::fromJSON(json::parse(
      R"({"content":[{"type":"text","text":"gone"}],"isError":true,"failure":{"kind":"appNotFound","detail":"Notes"}})"));
  ASSERT_TRUE(response.has_value());
  const ToolResult result = std::move(*response).toToolResult();
  EXPECT_TRUE(result.isError);
  EXPECT_EQ(result.failure, (ComputerUseFailure{Kind::appNotFound, "Notes", std::nullopt, std::nullopt}));
  EXPECT_EQ(result.toJSON().dump(), R"({"content":[{"text":"gone","type":"text"}],"isError":true})");
}

TEST(ComputerUseFailure, JSONAndIPCErrors) {
  EXPECT_EQ(ComputerUseFailure::unknownError().toJSON().dump(), R"({"kind":"unknown"})");
  EXPECT_EQ(ComputerUseFailure::cancelled().toJSON().dump(), R"({"kind":"cancelled"})");
  const std::pair<ComputerUseIPCError, std::string> cases[] = {
      {ComputerUseIPCError::unknown, R"({"kind":"unknown","nativeCode":-10000})"},
      {ComputerUseIPCError::authorizationFailed, R"({"kind":"unknown","nativeCode":-10006})"},
      {ComputerUseIPCError::uiElementError, R"({"kind":"unknown","nativeCode":-10008})"},
      {ComputerUseIPCError::bundleIdLookupError, R"({"kind":"unknown","nativeCode":-10010})"},
      {ComputerUseIPCError::timeout, R"({"kind":"timeout","nativeCode":-10011})"},
      {ComputerUseIPCError::cancelled, R"({"kind":"cancelled","nativeCode":-10012})"},
      {ComputerUseIPCError::urlBlocklist, R"({"kind":"blockedURL","nativeCode":-10015})"},
      {ComputerUseIPCError::rateLimited, R"({"kind":"rateLimited","nativeCode":-10016})"},
  };
  for (const auto &[error, text] : cases)
    EXPECT_EQ(failureFrom(error).toJSON().dump(), text);
}

TEST(ComputerUseFailure, TheTwentyOneKindsAndTheirRawValuesInOrder) {
  const std::string_view names[] = {
      "unknown", "invalidArgument", "keyNotFound", "invalidElement", "invalidSecondaryAction",
      "appNotFound", "noActiveState", "staleState", "userIntervened", "appNotAllowed",
      "permissionsPending", "permissionsNotGranted", "cancelled", "timeout", "blockedURL",
      "rateLimited", "lockedUseDisabled", "lockedUseUnavailable", "lockedUsePaused",
      "lockedUseUnlockFailed", "lockedUseTimedOut"};
  EXPECT_EQ(RawValues<Kind>::names.size(), 21u);
  for (size_t i = 0; i < std::size(names); ++i) {
    const auto decoded = ComputerUseFailure::fromJSON({{"kind", names[i]}});
    ASSERT_TRUE(decoded.has_value()) << names[i];
    EXPECT_EQ(static_cast<size_t>(decoded->kind), i) << names[i];
    EXPECT_EQ(decoded->toJSON().dump(), R"({"kind":")" + std::string(names[i]) + R"("})");
  }
}

TEST(ToolError, MessagesAndFailures) {
  const ComputerUseFailure carried{Kind::lockedUsePaused, "paused", std::nullopt, 9};
  struct Case {
    ToolError error;
    std::string message;
    std::string failure;
  };
  const Case cases[] = {
      {ToolError::missingRequiredArgument("app"), "Missing required argument: app", R"({"kind":"invalidArgument"})"},
      {ToolError::missingExpectedArgument("x"), "Missing expected argument 'x'", R"({"kind":"invalidArgument"})"},
      {ToolError::invalidScrollDirection("sideways"), "Invalid scroll direction: sideways", R"({"kind":"invalidArgument"})"},
      {ToolError::invalidMouseButton("4"), "Invalid mouse button: 4", R"({"kind":"invalidArgument"})"},
      {ToolError::invalidSecondaryAction("AXPress", "12"), "AXPress is not a valid secondary action for 12",
       R"({"detail":"AXPress","elementID":"12","kind":"invalidSecondaryAction"})"},
      {ToolError::appNotFound("Notes"), "App not found: Notes", R"({"kind":"appNotFound"})"},
      {ToolError::elementNotFound(12), "Element not found at index: 12", R"({"elementID":"12","kind":"invalidElement"})"},
      {ToolError::elementNotFound(-3), "Element not found at index: -3", R"({"elementID":"-3","kind":"invalidElement"})"},
      {ToolError::axActionFailed("AXPress", -25205), "AX action AXPress failed with code: -25205", R"({"kind":"unknown"})"},
      {ToolError::axSetValueFailed(-25200), "AX set value failed with code: -25200", R"({"kind":"unknown"})"},
      {ToolError::staleAppState("Notes"),
       "The user changed 'Notes'. Re-query the latest state with `get_app_state` before sending more actions.",
       R"({"kind":"staleState"})"},
      {ToolError::actionRejected("pages must be a finite number in (0, 100]."),
       "pages must be a finite number in (0, 100].", R"({"kind":"unknown"})"},
      {ToolError::ipcError("broken pipe"), "IPC error: broken pipe", R"({"kind":"unknown"})"},
      {ToolError::identified("Locked", carried), "Locked", R"({"detail":"paused","kind":"lockedUsePaused","nativeCode":9})"},
      {ToolError::pagesMustBeGreaterThanZero(), "pages must be > 0", R"({"kind":"invalidArgument"})"},
      {ToolError::mouseActionNotSupportedForMenuItems(), "Mouse action not supported for menu items", R"({"kind":"unknown"})"},
      {ToolError::cannotSetValueForNonSettableElement(), "Cannot set a value for an element that is not settable",
       R"({"kind":"unknown"})"},
      {ToolError::missingTextToType(), "Missing text to type", R"({"kind":"invalidArgument"})"},
      {ToolError::invalidDuration(), "Invalid duration", R"({"kind":"invalidArgument"})"},
      {ToolError::noActiveAppState(), "No active app state. Call get_app_state first.", R"({"kind":"noActiveState"})"},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(c.error.description(), c.message);
    EXPECT_EQ(c.error.failure().toJSON().dump(), c.failure) << c.message;
    EXPECT_EQ(failureFrom(c.error), c.error.failure()) << c.message;
  }
}

} // namespace
} // namespace tavix::test

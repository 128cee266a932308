// The records exchanged with the runtime app, through their JSON form: the keys of every
// record, one rule for required and optional keys, the limits of integer fields, raw values
// of enumerations, actions and their validations at every bound, and the runtime's tool
// results as the host reads them.

#include "contracts/AppshotContracts.h"
#include "contracts/ComputerUseIPCAction.h"
#include "contracts/ComputerUseRequests.h"
#include "contracts/EventStreamContracts.h"
#include "contracts/ToolResult.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace tavix::test {
namespace {

using nlohmann::json;
constexpr double nan = std::numeric_limits<double>::quiet_NaN(), inf = std::numeric_limits<double>::infinity();
constexpr auto none = std::nullopt;

// Why a value did not decode; "decoded" when it did.
template <typename Record> std::string why(const Decoded<Record> &decoded) { return decoded ? "decoded" : decoded.error().description; }

// Decodes a complete example, in which required keys are marked "!", checks that it
// encodes back to the same JSON, then takes each key away in turn: a required key must fail
// by name, an optional one must read as absent, missing or null. Unknown keys are ignored.
template <typename Record> void expectFieldRules(const std::string &example) {
  SCOPED_TRACE(example);
  json complete = json::object();
  std::set<std::string> required;
  const json marked = json::parse(example);
  for (const auto &[key, value] : marked.items())
    complete[key.starts_with('!') ? *required.insert(key.substr(1)).first : key] = value;
  EXPECT_EQ(Record::fromJSON(complete).value().toJSON(), complete);
  for (const auto &[key, value] : complete.items()) {
    json without = complete, nulled = complete;
    without.erase(key);
    nulled[key] = nullptr;
    if (required.contains(key)) {
      EXPECT_EQ(why(Record::fromJSON(without)), "Missing required key \"" + key + "\"");
      EXPECT_NE(why(Record::fromJSON(nulled)), "decoded") << key;
    } else {
      EXPECT_EQ(Record::fromJSON(without).value().toJSON(), without) << key;
      EXPECT_EQ(Record::fromJSON(nulled).value().toJSON(), without) << key;
    }
  }
  complete["someFutureKey"] = {1, 2};
  EXPECT_EQ(why(Record::fromJSON(complete)), "decoded");
  EXPECT_NE(why(Record::fromJSON(json::array())), "decoded");
}

const std::string rect = R"({"!x":1.5,"!y":-2,"!width":300,"!height":200.25})";
const std::string display =
    R"({"id":-9007199254740993,"scaleFactor":2,"bounds":{"x":1,"y":2,"width":3,"height":4},"workArea":{"x":0,"y":0,"width":3,"height":4}})";
const std::string animation = R"({"zumexDisplay":)" + display + R"(,"destinationBackgroundColor":"#101010","destinationCornerRadius":12,)"
                              R"("destinationFrame":{"x":1,"y":2,"width":3,"height":4},"destinationPrimaryTextColor":"#fafafa"})";
const std::string target = R"({"bundleIdentifier":"b","name":"N","iconSmallDataURL":"data:,","windowTitle":"G"})";
const std::string click = R"({"click":{"_0":{"clickCount":1,"elementIndex":7,"mouseButton":0}}})";

TEST(ContractRecords, EveryRecordFollowsTheFieldRules) {
  expectFieldRules<ComputerUseIPCHealthRequest>(R"({"refreshClientActivity":true})");
  expectFieldRules<ComputerUseIPCAppGetStateRequest>(R"({"!app":"N","sessionId":"s","observation":"both","disableDiffing":false})");
  expectFieldRules<ComputerUseIPCAppPerformActionRequest>(R"({"!app":"N","sessionId":"s","!action":)" + click + "}");
  expectFieldRules<ComputerUseIPCAppExecuteActionRequest>(R"({"!app":"N","sessionId":"s","!action":)" + click + "}");
  expectFieldRules<ComputerUseIPCAppStartRequest>(R"({"!app":"Notes"})");
  expectFieldRules<ComputerUseIPCAppModifyRequest>(R"({"!app":"N","!modification":"hide"})");
  expectFieldRules<ComputerUseIPCHostSessionObserveRequest>(R"({"!context":{"sessionId":"s","turnId":"t"}})");
  expectFieldRules<ComputerUseHostTurnContext>(R"({"!sessionId":"s","turnId":"t"})");
  expectFieldRules<ComputerUseIPCCancelRequest>(R"({"!requestID":"ABC"})");
  expectFieldRules<ComputerUseIPCEventStreamStartRequest>(
      R"({"sessionId":"s","approvalAlreadyGranted":true,"maxDurationSeconds":600,"screenshotMode":"off"})");
  expectFieldRules<ComputerUseIPCEventStreamStopRequest>(R"({"!reason":"toolStopped"})");
  expectFieldRules<ComputerUseIPCHealthResponse>(R"({"!generationID":"g","!runtimePID":4242,"!bundleIdentifier":"b","!bundlePath":"/p",)"
                                                 R"("!isHealthy":true,"activeClientCount":2,"heartbeatTimeoutSeconds":90.5})");
  expectFieldRules<ComputerUseIPCToolResultResponse>(
      R"({"!content":[{"type":"text","text":"t"}],"!isError":true,"failure":{"kind":"staleState"}})");
  expectFieldRules<ComputerUseIPCToolContentBlock>(R"({"!type":"image","text":"t","data":"AAAA","mimeType":"m"})");
  expectFieldRules<ComputerUseFailure>(R"({"!kind":"lockedUseTimedOut","detail":"d","elementID":"e","nativeCode":5})");
  expectFieldRules<ComputerUseIPCEventStreamSessionStatus>(
      R"({"!isRecording":true,"recordSessionId":"r","sessionDirectoryPath":"/d","eventsPath":"/d/e","metadataPath":"/d/m",)"
      R"("suppressedEventsPath":"/d/s","startedAt":"2026-11-23T08:00:00Z","endedAt":"2026-11-23T08:10:00Z","endReason":"somethingNew",)"
      R"("errorMessage":"e","sessionId":"s","!eventCount":3,"!suppressedEventCount":1,"!maxDurationSeconds":600,)"
      R"("!screenshotMode":"interaction_settled"})");
  // The appshot records, which the bridge passes between the host and the runtime app.
  expectFieldRules<ComputerUseIPCAppStartFrontmostCaptureRequest>(
      R"({"!requestId":"r","bundleIdentifier":"b","windowID":4294967295,"animationTarget":)" + animation + "}");
  expectFieldRules<ComputerUseIPCAppNextCaptureUpdateRequest>(R"({"!requestId":"r","timeoutMs":2500})");
  expectFieldRules<ComputerUseIPCAppCancelCaptureRequest>(R"({"!requestId":"r1"})");
  expectFieldRules<ComputerUseIPCAppStartFrontmostCaptureResponse>(
      R"({"target":)" + target + R"(,"transitionSnapshotHeight":640.5,"error":{"code":"c","message":"m"}})");
  expectFieldRules<ComputerUseIPCAppshotUpdateEnvelope>(R"({"!requestId":"r1","!update":{"type":"x"}})");
  expectFieldRules<ComputerUseIPCAppshotCaptureUpdate>(R"({"!type":"frame","target":)" + target +
      R"(,"text":"t","screenshotDataURL":"data:,A","transitionSnapshotDataURL":"data:,B","error":"e"})");
  expectFieldRules<ComputerUseIPCAppshotTarget>(R"({"!bundleIdentifier":"b","!name":"N","iconSmallDataURL":"d"})");
  expectFieldRules<ComputerUseIPCAppshotError>(R"({"!code":"c","!message":"m"})");
  expectFieldRules<ComputerUseIPCAppshotAnimationTarget>(animation);
  expectFieldRules<ComputerUseIPCAppshotDisplay>(display);
  expectFieldRules<ComputerUseIPCAppshotRect>(rect);
}

// Whether `Record` decodes with a value at `key` of `base`.
template <typename Record> std::function<bool(const json &)> decodesAt(const json &base, const std::string &key) {
  return [=](const json &value) {
    json record = base;
    record[key] = value;
    return Record::fromJSON(record).has_value();
  };
}

TEST(ContractRecords, IntegersMustBeWholeAndFitTheirFieldAndEnumerationsTakeOnlyTheirRawValues) {
  // Parsed (unsigned when not negative), built in code (signed), and as doubles.
  const struct {
    std::function<bool(const json &)> decodes;
    std::vector<json> accepted, refused;
  } cases[] = {
      {decodesAt<ComputerUseIPCHealthResponse>(
           {{"generationID", "g"}, {"bundleIdentifier", "b"}, {"bundlePath", "p"}, {"isHealthy", true}}, "runtimePID"),
       {2147483647, -2147483648LL, 7.0, json::parse("2147483647"), 2147483647.0, -2147483648.0},
       {2147483648LL, -2147483649LL, 7.5, "7", true, json::parse("2147483648"), 2147483648.0, -2147483649.0,
        json::parse("18446744073709551615")}},
      {decodesAt<ComputerUseIPCAppStartFrontmostCaptureRequest>({{"requestId", "r"}}, "windowID"),
       {json::parse("4294967295"), json::parse("0"), 4294967295LL, 4294967295.0, json::parse("-0")},
       {json::parse("4294967296"), 4294967296LL, -1, json::parse("-1"), 4294967296.0, -1.0}},
      {decodesAt<ComputerUseIPCAppNextCaptureUpdateRequest>({{"requestId", "r"}}, "timeoutMs"),
       {json::parse("9223372036854775807"), json::parse("-9223372036854775808"), -9223372036854775808.0},
       {json::parse("9223372036854775808"), 9223372036854775808.0}},
      {decodesAt<ComputerUseIPCAppGetStateRequest>({{"app", "a"}}, "observation"), {"screenshot"}, {"State", 1}},
      {decodesAt<ComputerUseFailure>({}, "kind"), {"blockedURL", "lockedUseUnlockFailed"}, {"blockedUrl"}},
      {decodesAt<ComputerUseIPCEventStreamStopRequest>({}, "reason"), {"recordingControlsCancelled"}, {"stopped"}},
  };
  for (const auto &c : cases) {
    for (const json &value : c.accepted)
      EXPECT_TRUE(c.decodes(value)) << value;
    for (const json &value : c.refused)
      EXPECT_FALSE(c.decodes(value)) << value;
  }
  EXPECT_EQ(why(ComputerUseIPCAppStartFrontmostCaptureRequest::fromJSON({{"requestId", "r"}, {"windowID", -1}})),
            "Expected an integer in range for \"windowID\"");
  EXPECT_EQ(why(ComputerUseIPCEventStreamStopRequest::fromJSON({{"reason", "stopped"}})),
            "Unknown value for \"reason\"");
}

TEST(ContractRecords, ANestedRecordsFailureFailsTheWholeRecord) {
  const std::pair<const char *, std::string> cases[] = {{R"({"destinationFrame":{"x":1,"y":2,"width":3}})", "Missing required key \"height\""},
      {R"({"zumexDisplay":{"workArea":{"x":1,"y":2,"width":3}}})", "Missing required key \"height\""},
      {R"({"zumexDisplay":{"id":1.5}})", "Expected an integer in range for \"id\""},
      {R"({"destinationFrame":[1,2,3,4]})", "Expected an object for ComputerUseIPCAppshotRect"}};
  for (const auto &[animationTarget, error] : cases)
    EXPECT_EQ(why(ComputerUseIPCAppStartFrontmostCaptureRequest::fromJSON(
                  {{"requestId", "r1"}, {"animationTarget", json::parse(animationTarget)}})), error);
}

TEST(ComputerUseIPCAction, EveryCaseRoundTripsThroughItsOneKeyForm) {
  const std::pair<ComputerUseIPCAction, std::string> cases[] = {
      {{ClickParams{3, none, none, 1, 0}}, R"({"click":{"_0":{"clickCount":1,"elementIndex":3,"mouseButton":0}}})"},
      {{ClickParams{none, 10.5, 20.0, 2, 1}}, R"({"click":{"_0":{"clickCount":2,"mouseButton":1,"x":10.5,"y":20.0}}})"},
      {{ScrollParams{none, 1.0, 2.0, 1, 0.5}}, R"({"scroll":{"_0":{"direction":1,"pages":0.5,"x":1.0,"y":2.0}}})"},
      {{DragParams{1, 2, 3, 4}}, R"({"drag":{"_0":{"fromX":1.0,"fromY":2.0,"toX":3.0,"toY":4.0}}})"},
      {{TypeTextParams{"héllo"}}, R"({"typeText":{"_0":{"text":"héllo"}}})"},
      {{PasteParams{"a\nb", PasteFormat::md}}, R"({"paste":{"_0":{"format":"md","text":"a\nb"}}})"},
      {{PressKeyParams{"return"}}, R"({"pressKey":{"_0":{"key":"return"}}})"},
      {{SetValueParams{4, ""}}, R"({"setValue":{"_0":{"elementIndex":4,"value":""}}})"},
      {{TextSelectionParams{5, "w", "a ", "b", TextSelectionMode::cursorAfter}},
       R"({"selectText":{"_0":{"elementIndex":5,"prefix":"a ","selection":"cursor_after","suffix":"b","text":"w"}}})"},
      {{PerformSecondaryActionParams{6, "AXShowMenu"}}, R"({"performSecondaryAction":{"_0":{"action":"AXShowMenu","elementIndex":6}}})"}};
  for (const auto &[action, text] : cases) {
    EXPECT_EQ(action.toJSON().dump(), text);
    EXPECT_EQ(ComputerUseIPCAction::fromJSON(json::parse(text)), action) << text;
  }
  // Keys that name no case are ignored, as in every record.
  EXPECT_EQ(ComputerUseIPCAction::fromJSON(json::parse(R"({"pressKey":{"_0":{"key":"a"}},"hover":1})")), ComputerUseIPCAction{PressKeyParams{"a"}});
  const std::string notOne = "Invalid number of keys found, expected one.";
  const std::pair<std::string, std::string> malformed[] = {{R"({})", notOne}, {R"({"click":{"_0":{}},"drag":{"_0":{}}})", notOne},
      {R"({"Click":{"_0":{"clickCount":1,"mouseButton":0}}})", notOne}, {R"({"click":{}})", "Missing required key \"_0\""},
      {R"({"click":[]})", "Expected an object for click"}, {R"([])", "Expected an object for ComputerUseIPCAction"}};
  for (const auto &[text, reason] : malformed)
    EXPECT_EQ(why(ComputerUseIPCAction::fromJSON(json::parse(text))), reason) << text;
}

// The message a validation fails with, or "" when it passes.
template <typename Params> std::string verdict(const Params &params) {
  return params.validate() ? "" : params.validate().error().description();
}

TEST(ActionValidation, ClickScrollAndPasteAtTheirBounds) {
  const std::string needsPoint = "click requires either element_index or both x and y";
  const std::string badPoint = "Invalid click coordinates. Provide finite numeric x and y in screenshot pixel coordinates.";
  const std::string badCount = "Invalid click_count. Provide a positive integer such as 1 or 2, or omit it for 1.";
  const std::string badButton = "Invalid mouseButton. Use 0 (left), 1 (right), or 2 (middle).";
  const std::pair<ClickParams, std::string> clicks[] = {
      {{3, none, none, 1, 0}, ""}, {{none, 10, none, 1, 0}, needsPoint}, {{none, none, 10, 1, 0}, needsPoint},
      {{none, nan, 1, 1, 0}, badPoint}, {{none, 1, inf, 1, 0}, badPoint},
      {{none, 1e12, -1e12, 1, 0}, ""}, // no bound on click coordinates
      {{-5, nan, nan, 1, 0}, ""},      // an index leaves coordinates (and itself) unchecked
      {{3, none, none, 0, 0}, badCount}, {{none, nan, 1, 0, 7}, badPoint}, // the first failure wins
      {{3, none, none, 1, -1}, badButton}, {{3, none, none, 1, 2}, ""}, {{3, none, none, 1, 3}, badButton}};
  for (const auto &[params, expected] : clicks)
    EXPECT_EQ(verdict(params), expected) << params.toJSON();
  const std::string badIndex = "Invalid element_index. Provide a non-negative integer index.", badPages = "pages must be a finite number in (0, 100].";
  const std::string needsTarget = "scroll requires an element_index string or both numeric x and y in screenshot pixel coordinates.";
  const std::string badDirection = "Invalid scroll direction. Use up, down, left, or right.";
  const std::pair<ScrollParams, std::string> scrolls[] = {
      {{0, none, none, 0, 1}, ""}, {{1000000, none, none, 0, 1}, ""}, {{1000001, none, none, 0, 1}, badIndex},
      {{-1, none, none, 0, 1}, badIndex}, {{none, 1000000, -1000000, 0, 1}, ""},
      {{none, 1000001, 0, 0, 1}, needsTarget}, {{none, 0, -1000000.5, 0, 1}, needsTarget},
      {{none, 0, none, 0, 1}, needsTarget}, {{none, nan, 0, 0, 1}, needsTarget}, {{none, 0, inf, 0, 1}, needsTarget},
      {{0, none, none, 3, 1}, ""}, {{0, none, none, 4, 1}, badDirection}, {{0, none, none, -1, 1}, badDirection},
      {{0, none, none, 0, 100.0}, ""}, {{0, none, none, 0, std::nextafter(100.0, 200.0)}, badPages},
      {{0, none, none, 0, 0}, badPages}, {{0, none, none, 0, 5e-324}, ""}, {{0, none, none, 0, nan}, badPages},
      {{0, none, none, 0, inf}, badPages}, {{-1, none, none, 9, 0}, badIndex}, // the first failure wins
      {{0, nan, inf, 0, 1}, ""}}; // an index leaves coordinates unchecked
  for (const auto &[params, expected] : scrolls)
    EXPECT_EQ(verdict(params), expected) << params.toJSON();
  // Bytes of UTF-8 count, not characters: "€" is three.
  const std::string tooLong = "paste text must be nonempty and at most 4 MB of UTF-8.", justFits = std::string(3999997, 'a') + "€";
  const std::pair<std::string, std::string> pastes[] = {
      {"", tooLong}, {std::string(4000000, 'a'), ""}, {std::string(4000001, 'a'), tooLong}, {justFits, ""}, {justFits + "a", tooLong}};
  for (const auto &[text, expected] : pastes)
    EXPECT_EQ(verdict(PasteParams{text, PasteFormat::text}), expected) << text.size();
}

TEST(ToolResult, RuntimeResponsesBecomeTheResultTheHostReads) {
  // An image without data, and a block of another type, are read as their text; the
  // failure is kept for the log, and the host reads only the content and the flag.
  auto response = ComputerUseIPCToolResultResponse::fromJSON(json::parse(
      R"({"content":[{"type":"text","text":"hi"},{"type":"text"},{"type":"image","data":"AAAA"},)"
      R"({"type":"image","data":"AAAA","mimeType":"image/jpeg"},{"type":"image","text":"caption"},)"
      R"({"type":"Image","data":"AAAA"},{"type":"audio","text":"t"}],"isError":true,"failure":{"kind":"appNotFound"}})"));
  const ToolResult result = std::move(response.value()).toToolResult();
  EXPECT_EQ(result.failure, (ComputerUseFailure{ComputerUseFailure::Kind::appNotFound, none, none, none}));
  EXPECT_EQ(result.toJSON().dump(),
            R"({"content":[{"text":"hi","type":"text"},{"text":"","type":"text"},{"data":"AAAA","mimeType":"image/png",)"
            R"("type":"image"},{"data":"AAAA","mimeType":"image/jpeg","type":"image"},{"text":"caption","type":"text"},)"
            R"({"text":"","type":"text"},{"text":"t","type":"text"}],"isError":true})");
  EXPECT_EQ(why(ComputerUseIPCToolResultResponse::fromJSON(
                json::parse(R"({"content":[{"type":"image","data":"AAA"}],"isError":false})"))),
            "Expected standard padded base64 for \"data\"");
}

} // namespace
} // namespace tavix::test

#include "logging/LogLineEncoder.h"
#include "testing/ScopedTimeZone.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <limits>
#include <optional>

namespace tavix {
namespace {

using namespace std::chrono;

constexpr std::string_view home = "/home/ann";

std::string repeated(std::string_view unit, size_t count) {
  std::string result;
  for (size_t i = 0; i < count; ++i)
    result += unit;
  return result;
}

struct ValueCase {
  std::string key;
  LogValue value;
  std::string expected;
};

TEST(LogLineEncoderTest, EncodesValuesByKeyAndType) {
  const std::string a1023 = repeated("a", 1023);
  const std::string flag = "\U0001F1EB\U0001F1F7";                         // one flag
  const std::string family = "\U0001F468\u200D\U0001F469\u200D\U0001F467"; // one emoji
  const std::vector<ValueCase> cases = {
      // Redaction by key substring, whatever the value (even absent) and the value type.
      {"AXTree", LogValue(), "[redacted]"},
      {"myPassword", int64_t{42}, "[redacted]"},
      {"tokenPath", "/home/ann/x", "[redacted]"},
      // Errors: plain text under "error" never, error values by type, domain and code.
      {"error", "disk full of secrets", "[redacted-string-error]"},
      {"Error", "", "[redacted-string-error]"},
      {"lastError", "boom", "boom"},
      {"error", true, "true"},
      {"error", LogError{"tavix::IpcError", "ipc", -7}, "\"tavix::IpcError(domain=ipc,code=-7)\""},
      // Paths under keys containing "path".
      {"file_path", "/home/ann", "~"},
      {"Path", "/home/ann/x", "~/x"},
      {"logPath", "/home/annex/x", "/home/annex/x"},
      {"path", "/home/ann/My Files", "\"~/My Files\""},
      {"directory", "/home/ann/x", "/home/ann/x"},
      {"path", "/home", "/home"},
      {"path", "/tmp/home/ann", "/tmp/home/ann"},
      // Scalars.
      {"note", LogValue(), "nil"},
      {"note", std::nullopt, "nil"},
      {"flag", true, "true"},
      {"flag", false, "false"},
      {"count", 0, "0"},
      {"count", -42, "-42"},
      {"count", 4000000000u, "4000000000"},
      {"count", std::numeric_limits<int64_t>::min(), "-9223372036854775808"},
      {"ratio", 0.1, "0.1"},
      {"ratio", 2.5, "2.5"},
      {"ratio", 1.0 / 3.0, "0.3333333333333333"},
      // Quoting.
      {"note", "plain-text_1.2/ok", "plain-text_1.2/ok"},
      {"note", "日本語", "日本語"},
      {"note", "a b", "\"a b\""},
      {"note", "a\tb", "\"a\tb\""},
      {"note", "a=b", "\"a=b\""},
      {"note", "say \"hi\"", "\"say \\\"hi\\\"\""},
      {"note", "C:\\dir", "\"C:\\\\dir\""},
      {"note", "\\\"", "\"\\\\\\\"\""},
      {"note", "a\u00A0b", "\"a\u00A0b\""},
      {"note", "a\u3000b", "\"a\u3000b\""},
      {"note", "", "\"\""},
      // At most 1024 user-perceived characters, then an ellipsis.
      {"note", repeated("a", 1024), repeated("a", 1024)},
      {"note", repeated("a", 2000), repeated("a", 1024) + "…"},
      {"note", repeated("e\u0301", 1500), repeated("e\u0301", 1024) + "…"},
      {"note", repeated("é", 1500), repeated("é", 1024) + "…"},
      {"note", repeated("語", 1025), repeated("語", 1024) + "…"},
      {"note", a1023 + flag + "b", a1023 + flag + "…"},
      {"note", a1023 + family + "zz", a1023 + family + "…"},
      {"note", repeated("a", 1020) + repeated(flag, 4), repeated("a", 1020) + repeated(flag, 4)},
  };
  for (const ValueCase &c : cases)
    EXPECT_EQ(encodeLogValue(c.value, c.key, home), c.expected)
        << "key " << c.key << ", expected " << c.expected.substr(0, 60);
  for (std::string_view key :
       {"userText", "AuthToken", "base64Data", "client_SECRET", "clipboardText", "requestData",
        "requestArguments", "screenshotContent"})
    EXPECT_EQ(encodeLogValue("hello", key, home), "[redacted]") << key;
}

// Line breaks become visible escapes, so a line stays one line.
TEST(LogLineEncoderTest, WritesLineBreaksAsEscapes) {
  const std::vector<ValueCase> cases = {
      // The escape leaves a backslash in the text, which then makes the value quoted.
      {"note", "a\nb", "\"a\\\\nb\""},
      {"note", "a\r\nb", "\"a\\\\r\\\\nb\""},
      {"note", "\n", "\"\\\\n\""},
      {"note", "a b\nc", "\"a b\\\\nc\""}, {"note", "a=\r", "\"a=\\\\r\""},
  };
  for (const ValueCase &c : cases)
    EXPECT_EQ(encodeLogValue(c.value, c.key, home), c.expected) << "expected " << c.expected;
}

TEST(LogLineEncoderTest, AcceptsOnlyWellFormedFieldKeys) {
  for (std::string_view key : {"x.y-z_1", "_k", "A", "a1", "requestId"})
    EXPECT_TRUE(isValidLogFieldKey(key)) << key;
  for (std::string_view key : {"", "1abc", "a b", "-a", ".a", "a/b", "a:b", "é", "a\n"})
    EXPECT_FALSE(isValidLogFieldKey(key)) << key;
}

TEST(LogLineEncoderTest, LabelsTheProcess) {
  const std::vector<std::pair<std::string_view, std::string_view>> cases = {
      {"TavixComputerUseBridge", "Bridge"}, {"TavixRuntimeHelper", "Runtime"},
      {"RuntimeBridge", "Bridge"},          {"BridgeRuntime", "Bridge"},
      {"tavix_tests", "tavix_tests"},       {"bridge", "bridge"},
  };
  for (const auto &[name, label] : cases)
    EXPECT_EQ(processLabel(name), label) << name;
}

const system_clock::time_point someInstant = sys_days{2026y / January / 15} + 4h + 5min + 6s;

LogLineContext contextWith(std::string_view requestID = {},
                           std::string processName = "TavixComputerUseBridge") {
  return {someInstant, {std::move(processName), 4242}, requestID, home};
}

std::string prefix(std::string_view level, std::string_view category, std::string_view event) {
  return formatLogTimestamp(someInstant) + " level=" + std::string(level) +
         " process=Bridge pid=4242 category=" + std::string(category) +
         " event=" + std::string(event);
}

TEST(LogLineEncoderTest, WritesFixedPartsThenRequestIdThenValidFieldsSorted) {
  const LogFields fields = {
      {"zeta", 1},      {"alpha", "x"}, {"1abc", 1}, {"a b", 2},
      {"", 3},          {"_k", "v"},    {"Beta", 2}, {"file_path", "/home/ann/f"},
      {"x.y-z_1", true}};
  EXPECT_EQ(encodeLogLine(LogLevel::warning, LogCategory::appDiscovery, "tool_call_started", fields,
                          contextWith()),
            prefix("warning", "app-discovery", "tool_call_started") +
                " Beta=2 _k=v alpha=x file_path=~/f x.y-z_1=true zeta=1\n");

  EXPECT_EQ(encodeLogLine(LogLevel::info, LogCategory::ipc, "e", {{"a", 1}}, contextWith("req 7")),
            prefix("info", "ipc", "e") + " requestId=\"req 7\" a=1\n");
  // A requestId field wins over the request being served and sorts among the fields.
  EXPECT_EQ(encodeLogLine(LogLevel::info, LogCategory::ipc, "e",
                          {{"a", 1}, {"requestId", "mine"}, {"z", 2}}, contextWith("req-7")),
            prefix("info", "ipc", "e") + " a=1 requestId=mine z=2\n");

  // The process label and the event are encoded like values.
  const std::string line =
      encodeLogLine(LogLevel::error, LogCategory::tools, "a b", {}, contextWith({}, "my app"));
  EXPECT_NE(line.find(" process=\"my app\" pid=4242 category=tools event=\"a b\"\n"),
            std::string::npos)
      << line;
}

TEST(LogLineEncoderTest, DropsLastSortingFieldsFromLongLines) {
  LogFields fields;
  for (int i = 10; i < 40; ++i)
    fields["f" + std::to_string(i)] = repeated("x", 1000);
  const std::string line =
      encodeLogLine(LogLevel::info, LogCategory::tools, "big", fields, contextWith());
  ASSERT_LE(line.size(), maxEncodedLineBytes);
  ASSERT_TRUE(line.ends_with(" truncated=true\n")) << line.substr(line.size() - 40);
  const std::string kept = line.substr(0, line.size() - std::string(" truncated=true\n").size());
  std::string expected = prefix("info", "tools", "big");
  int i = 10;
  for (; expected.size() < kept.size(); ++i)
    expected += " f" + std::to_string(i) + "=" + repeated("x", 1000);
  EXPECT_EQ(kept, expected);
  // As many fields as fit: one more would not have.
  EXPECT_GT(line.size() + std::string(" f00=").size() + 1000, maxEncodedLineBytes);
  EXPECT_GT(i, 20);
}

TEST(LogLineEncoderTest, LineOfExactlyTheLimitIsKept) {
  LogFields fields;
  for (int i = 10; i < 26; ++i)
    fields["f" + std::to_string(i)] = repeated("x", 1000);
  const std::string base =
      encodeLogLine(LogLevel::info, LogCategory::tools, "edge", fields, contextWith());
  const size_t room = maxEncodedLineBytes - base.size() - std::string(" zz=").size();
  ASSERT_TRUE(room >= 1 && room <= 1024) << room;

  fields["zz"] = repeated("y", room);
  const std::string exact =
      encodeLogLine(LogLevel::info, LogCategory::tools, "edge", fields, contextWith());
  EXPECT_EQ(exact.size(), maxEncodedLineBytes);
  EXPECT_TRUE(exact.ends_with(repeated("y", room) + "\n"));

  fields["zz"] = repeated("y", room + 1);
  EXPECT_EQ(encodeLogLine(LogLevel::info, LogCategory::tools, "edge", fields, contextWith()),
            base.substr(0, base.size() - 1) + " truncated=true\n");
}

TEST(LogLineEncoderTest, TruncatesDownToTheFixedParts) {
  // 1024 characters of 17 bytes each still exceed the line limit after the value cap.
  const std::string heavy = repeated("a" + repeated("\u0301", 8), 1100);
  EXPECT_EQ(
      encodeLogLine(LogLevel::info, LogCategory::ipc, "e", {{"a", heavy}}, contextWith("req-7")),
      prefix("info", "ipc", "e") + " requestId=req-7 truncated=true\n");
  EXPECT_EQ(encodeLogLine(LogLevel::info, LogCategory::ipc, "e", {{"a", 1}, {"b", "x"}},
                          contextWith(heavy)),
            prefix("info", "ipc", "e") + " truncated=true\n");
}

using test::ScopedTimeZone;

TEST(LogLineEncoderTest, FormatsTimestampsInTheLocalZone) {
  struct Case {
    const char *namedZone;
    const char *posixZone; // the same rules, for machines without a zone database
    system_clock::time_point time;
    const char *expected;
  };
  const auto january = sys_days{2026y / January / 15} + 4h + 5min + 6s + 7ms;
  const std::vector<Case> cases = {
      {"UTC", "UTC0", january, "2026-01-15T04:05:06.007Z"},
      {"Asia/Shanghai", "CST-8", january, "2026-01-15T12:05:06.007+08:00"},
      {"America/New_York", "EST5EDT,M3.2.0,M11.1.0", january, "2026-01-14T23:05:06.007-05:00"},
      {"America/New_York", "EST5EDT,M3.2.0,M11.1.0", sys_days{2026y / July / 1},
       "2026-06-30T20:00:00.000-04:00"},
      {"Asia/Kolkata", "IST-5:30", january, "2026-01-15T09:35:06.007+05:30"},
      {"America/St_Johns", "NST3:30NDT,M3.2.0,M11.1.0", january, "2026-01-15T00:35:06.007-03:30"},
      {"UTC", "UTC0", sys_days{2026y / March / 4} + 15h + 7min + 9s + 120ms,
       "2026-03-04T15:07:09.120Z"},
      {"UTC", "UTC0", sys_days{1970y / January / 1} - 1ms, "1969-12-31T23:59:59.999Z"},
  };
  for (const Case &c : cases) {
    const bool named = std::filesystem::exists(std::string("/usr/share/zoneinfo/") + c.namedZone);
    ScopedTimeZone zone(named ? c.namedZone : c.posixZone);
    EXPECT_EQ(formatLogTimestamp(c.time), c.expected) << c.namedZone;
  }
}

} // namespace
} // namespace tavix

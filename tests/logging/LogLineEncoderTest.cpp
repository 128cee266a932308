// Encoding one log call as one line: values by key and type, the fixed parts, the order
// of fields, the length limits, and local timestamps.

#include "logging/LogLineEncoder.h"
#include "logging/LogFileLocation.h"

#include <gtest/gtest.h>

#include <limits>

namespace tavix {
namespace {

using namespace std::chrono;

std::string repeated(std::string_view unit, size_t count) {
  std::string result;
  while (count-- > 0)
    result += unit;
  return result;
}

TEST(LogLineEncoderTest, EncodesValuesByKeyAndType) {
  const std::string a1023 = repeated("a", 1023), flag = "\U0001F1EB\U0001F1F7",
                    family = "\U0001F468\u200D\U0001F469\u200D\U0001F467"; // one character each
  // clang-format off
  const std::tuple<std::string, LogValue, std::string> cases[] = {
      // Redaction by key substring, whatever the value (even absent) and the value type.
      {"AXTree", LogValue(), "[redacted]"}, {"myPassword", 42, "[redacted]"}, {"tokenPath", "/home/ann/x", "[redacted]"},
      {"userText", "a", "[redacted]"}, {"AuthToken", "a", "[redacted]"}, {"base64Data", "a", "[redacted]"},
      {"client_SECRET", "a", "[redacted]"}, {"clipboardText", "a", "[redacted]"}, {"requestData", "a", "[redacted]"},
      {"requestArguments", "a", "[redacted]"}, {"screenshotContent", "a", "[redacted]"},
      // Errors: plain text under "error" never, error values by type, domain and code.
      {"error", "disk full of secrets", "[redacted-string-error]"}, {"Error", "", "[redacted-string-error]"},
      {"lastError", "boom", "boom"}, {"error", true, "true"},
      {"error", LogError{"tavix::IpcError", "ipc", -7}, "\"tavix::IpcError(domain=ipc,code=-7)\""},
      // The home directory shortened under keys containing "path", at a path boundary.
      {"file_path", "/home/ann", "~"}, {"Path", "/home/ann/x", "~/x"}, {"logPath", "/home/annex/x", "/home/annex/x"},
      {"path", "/home/ann/My Files", "\"~/My Files\""}, {"directory", "/home/ann/x", "/home/ann/x"},
      {"path", "/home", "/home"}, {"path", "/tmp/home/ann", "/tmp/home/ann"},
      // Scalars.
      {"note", LogValue(), "nil"}, {"note", std::nullopt, "nil"}, {"flag", false, "false"}, {"count", -42, "-42"},
      {"count", 4000000000u, "4000000000"}, {"count", std::numeric_limits<int64_t>::min(), "-9223372036854775808"},
      {"ratio", 2.5, "2.5"}, {"ratio", 1.0 / 3.0, "0.3333333333333333"},
      // Quoting, and line breaks as escapes, whose backslash then calls for quotes.
      {"note", "plain-text_1.2/ok", "plain-text_1.2/ok"}, {"note", "日本語", "日本語"}, {"note", "a b", "\"a b\""},
      {"note", "a\tb", "\"a\tb\""}, {"note", "a=b", "\"a=b\""}, {"note", "say \"hi\"", "\"say \\\"hi\\\"\""},
      {"note", "C:\\dir", "\"C:\\\\dir\""}, {"note", "a\u3000b", "\"a\u3000b\""}, {"note", "a\u00A0b", "\"a\u00A0b\""},
      {"note", "", "\"\""}, {"note", "a\r\nb", "\"a\\\\r\\\\nb\""}, {"note", "a=\n", "\"a=\\\\n\""},
      // At most 1024 user-perceived characters, then an ellipsis.
      {"note", repeated("a", 1024), repeated("a", 1024)}, {"note", repeated("語", 1025), repeated("語", 1024) + "…"},
      {"note", repeated("e\u0301", 1500), repeated("e\u0301", 1024) + "…"},
      {"note", a1023 + flag + "b", a1023 + flag + "…"}, {"note", a1023 + family + "zz", a1023 + family + "…"},
      {"note", repeated("a", 1020) + repeated(flag, 4), repeated("a", 1020) + repeated(flag, 4)}};
  // clang-format on
  for (const auto &[key, value, expected] : cases)
    EXPECT_EQ(encodeLogValue(value, key, "/home/ann"), expected) << "key " << key << ", expected " << expected.substr(0, 60);
}

TEST(LogLineEncoderTest, KeysAndProcessLabels) {
  for (std::string_view key : {"x.y-z_1", "_k", "A", "a1"})
    EXPECT_TRUE(isValidLogFieldKey(key)) << key;
  for (std::string_view key : {"", "1abc", "a b", "-a", ".a", "a/b", "a:b", "é", "a\n"})
    EXPECT_FALSE(isValidLogFieldKey(key)) << key;
  for (const auto &[name, label] : {std::pair{"TavixComputerUseBridge", "Bridge"}, {"TavixRuntimeHelper", "Runtime"},
                                    {"BridgeRuntime", "Bridge"}, {"bridge", "bridge"}})
    EXPECT_EQ(processLabel(name), label);
}

const system_clock::time_point someInstant = sys_days{2026y / January / 15} + 4h;

std::string encode(const LogFields &fields, std::string_view requestID = {}, std::string process = "TavixComputerUseBridge",
                   std::string_view event = "e", LogLevel level = LogLevel::info, LogCategory category = LogCategory::ipc) {
  return encodeLogLine(level, category, event, fields, {someInstant, {std::move(process), 4242}, requestID, "/home/ann"});
}

const std::string prefix = formatLogTimestamp(someInstant) + " level=info process=Bridge pid=4242 category=ipc event=e";

TEST(LogLineEncoderTest, WritesFixedPartsThenRequestIdThenValidFieldsSorted) {
  EXPECT_EQ(encode({{"zeta", 1}, {"alpha", "x"}, {"1abc", 1}, {"_k", "v"}, {"Beta", 2}, {"file_path", "/home/ann/f"}},
                   "req 7", "TavixComputerUseBridge", "tool_call_started", LogLevel::warning, LogCategory::appDiscovery),
            formatLogTimestamp(someInstant) + " level=warning process=Bridge pid=4242 category=app-discovery"
                                              " event=tool_call_started requestId=\"req 7\" Beta=2 _k=v alpha=x file_path=~/f zeta=1\n");
  // A requestId field wins over the request being served and sorts among the fields.
  EXPECT_EQ(encode({{"a", 1}, {"requestId", "mine"}, {"z", 2}}, "req-7"), prefix + " a=1 requestId=mine z=2\n");
  // The process label and the event are encoded like values.
  EXPECT_TRUE(encode({}, {}, "my app", "a b").ends_with(" process=\"my app\" pid=4242 category=ipc event=\"a b\"\n"));
}

// A line of exactly the limit is kept; one byte more drops the field that sorts last, and
// only that one; a line still too long without any field keeps just the fixed parts.
TEST(LogLineEncoderTest, LongLinesDropTheFieldsThatSortLast) {
  LogFields fields;
  for (int i = 10; i < 26; ++i)
    fields["f" + std::to_string(i)] = repeated("x", 1000);
  const std::string base = encode(fields), open = base.substr(0, base.size() - 1);
  const size_t room = maxEncodedLineBytes - base.size() - std::string(" zz=").size();
  ASSERT_TRUE(room >= 1 && room <= 1024) << room;
  fields["zz"] = repeated("y", room);
  EXPECT_EQ(encode(fields), open + " zz=" + repeated("y", room) + "\n");
  fields["zz"] = repeated("y", room + 1);
  EXPECT_EQ(encode(fields), open + " truncated=true\n");
  // 1024 characters of 17 bytes each exceed the limit even after the value cap.
  const std::string heavy = repeated("a" + repeated("\u0301", 8), 1100);
  EXPECT_EQ(encode({{"a", heavy}}, "req-7"), prefix + " requestId=req-7 truncated=true\n");
  EXPECT_EQ(encode({{"a", 1}, {"b", "x"}}, heavy), prefix + " truncated=true\n");
}

// Local times, for log lines and for the names of session directories. TZ takes POSIX
// rules, which need no zone database; it is put back afterwards.
TEST(LogLineEncoderTest, FormatsTimestampsInTheLocalZone) {
  const auto january = sys_days{2026y / January / 15} + 4h + 5min + 6s + 7ms;
  // clang-format off
  const std::tuple<const char *, system_clock::time_point, const char *, const char *> cases[] = {
      {"UTC0", january, "2026-01-15T04:05:06.007Z", "20260115T040506"},
      {"CST-8", january, "2026-01-15T12:05:06.007+08:00", "20260115T120506"},
      {"EST5EDT,M3.2.0,M11.1.0", january, "2026-01-14T23:05:06.007-05:00", "20260114T230506"},
      {"EST5EDT,M3.2.0,M11.1.0", sys_days{2026y / July / 1}, "2026-06-30T20:00:00.000-04:00", "20260630T200000"},
      {"IST-5:30", january + 113ms, "2026-01-15T09:35:06.120+05:30", "20260115T093506"},
      {"NST3:30NDT,M3.2.0,M11.1.0", january, "2026-01-15T00:35:06.007-03:30", "20260115T003506"},
      {"UTC0", sys_days{2027y / January / 1} - 1ms, "2026-12-31T23:59:59.999Z", "20261231T235959"},
      {"UTC0", sys_days{1970y / January / 1} - 1ms, "1969-12-31T23:59:59.999Z", nullptr}};
  // clang-format on
  const std::optional<std::string> previous = std::getenv("TZ") ? std::optional(std::string(std::getenv("TZ"))) : std::nullopt;
  for (const auto &[zone, time, lineTime, directoryName] : cases) {
    setenv("TZ", zone, 1), tzset();
    EXPECT_EQ(formatLogTimestamp(time), lineTime) << zone;
    if (directoryName) // sessions are never named for times before 1970
      EXPECT_EQ(timestampDirectoryName(time), directoryName) << zone;
  }
  previous ? setenv("TZ", previous->c_str(), 1) : unsetenv("TZ"), tzset();
}

} // namespace
} // namespace tavix

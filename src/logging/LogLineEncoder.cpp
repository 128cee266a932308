#include "logging/LogLineEncoder.h"

#include "support/HomeDirectory.h"
#include "support/UserPerceivedText.h"
#include "support/Whitespace.h"

#include <array>
#include <charconv>
#include <cstdint>
#include <ctime>
#include <vector>

namespace tavix {
namespace {

constexpr std::array<std::string_view, 10> redactedKeyParts = {
    "password",    "token",           "secret", "clipboard",          "base64",
    "requestdata", "requestarguments", "axtree", "screenshotcontent", "usertext"};

bool isRedactedKey(const std::string &lowerKey) {
  for (std::string_view part : redactedKeyParts)
    if (lowerKey.find(part) != std::string::npos)
      return true;
  return false;
}

std::string formatDouble(double value) {
  std::array<char, 64> buffer{};
  auto [end, error] = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value);
  if (error != std::errc())
    return "nan";
  return std::string(buffer.data(), end);
}

std::string describe(const LogValue &value, const std::string &lowerKey, std::string_view home) {
  struct Visitor {
    const std::string &lowerKey;
    std::string_view home;
    std::string operator()(LogValue::Absent) const { return "nil"; }
    std::string operator()(bool b) const { return b ? "true" : "false"; }
    std::string operator()(int64_t i) const { return std::to_string(i); }
    std::string operator()(double d) const { return formatDouble(d); }
    std::string operator()(const std::string &text) const {
      // Error texts are never logged as plain text: they can quote anything.
      if (lowerKey == "error")
        return "[redacted-string-error]";
      if (lowerKey.find("path") != std::string::npos)
        return sanitizedPath(text, home);
      return text;
    }
    std::string operator()(const LogError &error) const {
      return error.typeName + "(domain=" + error.domain + ",code=" + std::to_string(error.code) +
             ")";
    }
  };
  return std::visit(Visitor{lowerKey, home}, value.storage());
}

void replaceLineBreaks(std::string &text) {
  if (text.find_first_of("\r\n") == std::string::npos)
    return;
  std::string result;
  result.reserve(text.size() + 8);
  for (char c : text) {
    if (c == '\r')
      result += "\\r";
    else if (c == '\n')
      result += "\\n";
    else
      result += c;
  }
  text = std::move(result);
}

bool needsQuoting(std::string_view text) {
  return text.find_first_of("\"=\\") != std::string_view::npos || containsWhitespace(text);
}

std::string quotedText(std::string_view text) {
  std::string result = "\"";
  for (char c : text) {
    if (c == '\\' || c == '"')
      result += '\\';
    result += c;
  }
  return result + "\"";
}

bool isAsciiLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

std::string joinParts(const std::vector<std::string> &parts, size_t count) {
  std::string line;
  for (size_t i = 0; i < count; ++i) {
    if (i > 0)
      line += ' ';
    line += parts[i];
  }
  return line;
}

} // namespace

std::string formatLogTimestamp(std::chrono::system_clock::time_point now) {
  using namespace std::chrono;
  const auto sinceEpoch = now.time_since_epoch();
  auto seconds = duration_cast<std::chrono::seconds>(sinceEpoch);
  auto millis = duration_cast<milliseconds>(sinceEpoch - seconds).count();
  if (millis < 0) {
    millis += 1000;
    seconds -= std::chrono::seconds(1);
  }
  const std::time_t time = static_cast<std::time_t>(seconds.count());
  std::tm local{};
  localtime_r(&time, &local);
  std::array<char, 64> buffer{};
  const size_t length = std::strftime(buffer.data(), buffer.size(), "%Y-%m-%dT%H:%M:%S", &local);
  std::string result(buffer.data(), length);
  std::array<char, 8> fraction{};
  std::snprintf(fraction.data(), fraction.size(), ".%03d", static_cast<int>(millis));
  result += fraction.data();
  const long offset = local.tm_gmtoff;
  if (offset == 0)
    return result + "Z";
  const long magnitude = offset < 0 ? -offset : offset;
  std::array<char, 48> zone{};
  std::snprintf(zone.data(), zone.size(), "%c%02ld:%02ld", offset < 0 ? '-' : '+',
                magnitude / 3600, (magnitude % 3600) / 60);
  return result + zone.data();
}

std::string_view processLabel(std::string_view processName) {
  if (processName.find("Bridge") != std::string_view::npos)
    return "Bridge";
  if (processName.find("Runtime") != std::string_view::npos)
    return "Runtime";
  return processName;
}

bool isValidLogFieldKey(std::string_view key) {
  if (key.empty() || !(isAsciiLetter(key.front()) || key.front() == '_'))
    return false;
  for (char c : key)
    if (!(isAsciiLetter(c) || (c >= '0' && c <= '9') || c == '_' || c == '.' || c == '-'))
      return false;
  return true;
}

std::string encodeLogValue(const LogValue &value, std::string_view key, std::string_view home) {
  const std::string lowerKey = asciiLowercased(key);
  std::string text = isRedactedKey(lowerKey) ? "[redacted]" : describe(value, lowerKey, home);
  replaceLineBreaks(text);
  if (const size_t cut = prefixLengthForCharacters(text, maxEncodedValueCharacters);
      cut < text.size()) {
    text.resize(cut);
    text += "\u2026";
  }
  if (text.empty())
    return "\"\"";
  return needsQuoting(text) ? quotedText(text) : text;
}

std::string encodeLogLine(LogLevel level, LogCategory category, std::string_view event,
                          const LogFields &fields, const LogLineContext &context) {
  std::vector<std::string> parts;
  parts.reserve(8 + fields.size());
  parts.push_back(formatLogTimestamp(context.now));
  parts.push_back("level=" + std::string(rawValue(level)));
  parts.push_back("process=" +
                  encodeLogValue(std::string(processLabel(context.process.name)), "process", {}));
  parts.push_back("pid=" + std::to_string(context.process.pid));
  parts.push_back("category=" + std::string(rawValue(category)));
  parts.push_back("event=" + encodeLogValue(std::string(event), "event", {}));
  constexpr size_t fixedParts = 6;
  if (!fields.contains("requestId") && !context.requestID.empty())
    parts.push_back("requestId=" +
                    encodeLogValue(std::string(context.requestID), "requestId", context.home));
  for (const auto &[key, value] : fields)
    if (isValidLogFieldKey(key))
      parts.push_back(key + "=" + encodeLogValue(value, key, context.home));

  std::string line = joinParts(parts, parts.size()) + "\n";
  if (line.size() <= maxEncodedLineBytes)
    return line;
  // Drop parts from the end (the fields that sort last) until the line fits.
  for (size_t count = parts.size(); count > fixedParts; --count) {
    line = joinParts(parts, count) + " truncated=true\n";
    if (line.size() <= maxEncodedLineBytes)
      return line;
  }
  return joinParts(parts, fixedParts) + " truncated=true\n";
}

} // namespace tavix

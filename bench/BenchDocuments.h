#pragma once
// The large documents the benchmarks move: a runtime reply carrying a 5 MB base64
// screenshot, and a 4 MB paste request of prose and code.

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>

namespace tavix::bench {

using nlohmann::json;

// Base64 of pseudo-random bytes, as a PNG screenshot would be.
inline std::string base64Image(size_t bytes) {
  static constexpr char alphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  text.reserve(bytes);
  uint64_t state = 0x9E3779B97F4A7C15ULL;
  while (text.size() + 4 < bytes) {
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    text.push_back(alphabet[state & 63]);
  }
  return text + "AA==";
}

// Prose and code with line breaks, quotes, tabs and some non-ASCII text.
inline std::string pasteText(size_t bytes) {
  static const std::string paragraph =
      "The quarterly report — drafted by the team in Zürich — covers revenue, churn and the "
      "\"north star\" metrics.\nEach section ends with a short summary.\n\n"
      "```cpp\nint main(int argc, char **argv) {\n\tif (argc < 2) {\n\t\tstd::cerr << \"usage: "
      "tool FILE\\n\";\n\t\treturn 1;\n\t}\n\treturn run(argv[1]);\n}\n```\n\n";
  std::string text;
  while (text.size() < bytes)
    text += paragraph;
  text.resize(bytes);
  return text;
}

inline const std::string &screenshotReply() {
  static const std::string text =
      json{{"content", json::array({{{"type", "text"}, {"text", "<app_state>…</app_state>"}},
                                    {{"type", "image"}, {"mimeType", "image/png"},
                                     {"data", base64Image(5 * 1024 * 1024)}}})},
           {"isError", false}}
          .dump();
  return text;
}

inline const std::string &pasteRequest() {
  static const std::string text =
      json{{"app", "TextEdit"},
           {"action", {{"paste", {{"_0", {{"format", "text"}, {"text", pasteText(4 * 1024 * 1024)}}}}}}},
           {"sessionId", "5E2B1C8A-0F1D-4C52-9F7C-3B0E2A6D9C11"}}
          .dump();
  return text;
}

} // namespace tavix::bench

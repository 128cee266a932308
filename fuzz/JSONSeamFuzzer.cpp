// The JSON seam against nlohmann alone, on arbitrary bytes: the same accept or reject
// decision and the same value when parsed, and the same bytes when written, both for the
// parsed value and for the input taken as one text.

#include "support/JSON.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

using nlohmann::json;

namespace {

// dump()'s bytes, or nothing where it refuses (a text that is not UTF-8).
std::optional<std::string> dumped(const json &value) {
  try {
    return value.dump();
  } catch (const json::type_error &) {
    return std::nullopt;
  }
}

// The deepest nesting of arrays and objects in the text, strings skipped.
size_t nestingDepth(std::string_view text) {
  size_t depth = 0, deepest = 0;
  bool inString = false, escaped = false;
  for (char c : text) {
    if (inString) {
      if (escaped)
        escaped = false;
      else if (c == '\\')
        escaped = true;
      else if (c == '"')
        inString = false;
    } else if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      deepest = std::max(deepest, ++depth);
    } else if ((c == ']' || c == '}') && depth > 0) {
      --depth;
    }
  }
  return deepest;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string_view text(reinterpret_cast<const char *>(data), size);
  std::string padded(text);
  padded.append(tavix::jsonParsePadding, '\0');
  const json expected = json::parse(text, nullptr, false);
  for (tavix::JSONInput input : {tavix::JSONInput::copied, tavix::JSONInput::padded}) {
    const auto parsed = tavix::parseJSON(std::string_view(padded).substr(0, size), input);
    if (parsed.has_value() == expected.is_discarded())
      abort();
    if (!parsed)
      continue;
    // nlohmann compares and dumps recursively, which deep values overflow under the
    // sanitizers; there the seam's own (iterative) writer is the witness.
    if (nestingDepth(text) > 256) {
      if (tavix::serializeJSON(*parsed) != tavix::serializeJSON(expected))
        abort();
      continue;
    }
    if (*parsed != expected || parsed->type() != expected.type() ||
        tavix::serializeJSON(*parsed) != dumped(expected))
      abort();
  }
  const json asText = std::string(text);
  if (tavix::serializeJSON(asText) != dumped(asText))
    abort();
  return 0;
}

#include "support/JSON.h"

#include <simdjson.h>

#include <array>
#include <bit>
#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

namespace tavix {
namespace {

static_assert(jsonParsePadding == simdjson::SIMDJSON_PADDING);

using Json = nlohmann::json;

// ---- Parsing ----

// simdjson's tree, one value at a time, as nlohmann's. Its depth is bounded by the
// parser's (1024 levels), so the recursion is too. `sawZero` is set by an integer 0,
// which simdjson reads the same from "0" and "-0" while nlohmann does not.
Json toJSON(simdjson::dom::element element, bool &sawZero) {
  using Type = simdjson::dom::element_type;
  switch (element.type()) {
  case Type::ARRAY: {
    Json array = Json::array();
    auto &items = array.get_ref<Json::array_t &>();
    const simdjson::dom::array source = element.get_array().value_unsafe();
    items.reserve(source.size());
    for (simdjson::dom::element item : source)
      items.push_back(toJSON(item, sawZero));
    return array;
  }
  case Type::OBJECT: {
    Json object = Json::object();
    auto &fields = object.get_ref<Json::object_t &>();
    const simdjson::dom::object source = element.get_object().value_unsafe();
    for (simdjson::dom::key_value_pair field : source)
      fields.insert_or_assign(std::string(field.key), toJSON(field.value, sawZero)); // the last wins
    return object;
  }
  case Type::INT64: {
    // nlohmann keeps every integer without a sign as unsigned.
    const int64_t value = element.get_int64().value_unsafe();
    sawZero = sawZero || value == 0;
    return value >= 0 ? Json(static_cast<uint64_t>(value)) : Json(value);
  }
  case Type::UINT64:
    return Json(element.get_uint64().value_unsafe());
  case Type::DOUBLE:
    return Json(element.get_double().value_unsafe());
  case Type::STRING:
    return Json(std::string(element.get_string().value_unsafe()));
  case Type::BOOL:
    return Json(element.get_bool().value_unsafe());
  case Type::NULL_VALUE:
    break;
  }
  return Json(nullptr);
}

// One parser per thread, kept between documents so that its buffers are reused; one
// that grew for a very large document is let go, so that it does not hold the memory.
simdjson::dom::parser &threadParser() {
  thread_local std::unique_ptr<simdjson::dom::parser> parser;
  constexpr size_t keptCapacity = 16 * 1024 * 1024;
  if (!parser || parser->capacity() > keptCapacity)
    parser = std::make_unique<simdjson::dom::parser>();
  return *parser;
}

// Whether the text holds "-0" as an integer: nlohmann keeps it as a signed integer, where
// a plain 0 is unsigned. Such a text goes to nlohmann; a "-0" inside a string only costs
// that detour.
bool containsNegativeZeroInteger(std::string_view text) {
  for (size_t at = text.find("-0"); at != std::string_view::npos; at = text.find("-0", at + 1)) {
    const size_t next = at + 2;
    if (next == text.size() || std::string_view(".eE0123456789").find(text[next]) == std::string_view::npos)
      return true;
  }
  return false;
}

// Texts whose first byte only nlohmann takes: a byte-order mark, which it skips.
bool startsWithByteOrderMark(std::string_view text) { return text.starts_with("\xEF\xBB\xBF"); }

// simdjson's value, or nothing when nlohmann must decide.
std::optional<Json> parseFast(std::string_view text, JSONInput input) {
  if (startsWithByteOrderMark(text))
    return std::nullopt;
  simdjson::dom::parser &parser = threadParser();
  const bool inPlace = input == JSONInput::padded;
  simdjson::dom::element root;
  if (parser.parse(text.data(), text.size(), !inPlace).get(root) != simdjson::SUCCESS)
    return std::nullopt;
  bool sawZero = false;
  Json value = toJSON(root, sawZero);
  if (sawZero && containsNegativeZeroInteger(text))
    return std::nullopt;
  return value;
}

// nlohmann's message without its "[json.exception.parse_error.101] " tag.
std::string parseErrorText(const Json::exception &error) {
  std::string_view text = error.what();
  if (text.starts_with("[json.exception.")) {
    if (const size_t close = text.find("] "); close != std::string_view::npos)
      text.remove_prefix(close + 2);
  }
  return std::string(text);
}

} // namespace

std::optional<Json> parseJSON(std::string_view text, JSONInput input) {
  if (auto value = parseFast(text, input))
    return value;
  Json value = Json::parse(text, nullptr, false);
  if (value.is_discarded())
    return std::nullopt;
  return value;
}

tl::expected<Json, std::string> parseJSONExplained(std::string_view text, JSONInput input) {
  if (auto value = parseFast(text, input))
    return std::move(*value);
  try {
    return Json::parse(text);
  } catch (const Json::exception &error) {
    return tl::unexpected(parseErrorText(error));
  }
}

// ---- Writing ----

namespace {

constexpr uint64_t eachByte(uint8_t byte) { return 0x0101010101010101ULL * byte; }

// The high bit of each of the eight bytes (loaded little-endian) that is a control
// character, a quotation mark, a backslash or not ASCII: the bytes not copied as they are.
// A byte above a marked one may be marked wrongly, so only the lowest mark is exact.
uint64_t attentionMask(uint64_t word) {
  constexpr uint64_t high = eachByte(0x80);
  const uint64_t below20 = (word - eachByte(0x20)) & ~word & high;
  const uint64_t quote = word ^ eachByte('"');
  const uint64_t backslash = word ^ eachByte('\\');
  const uint64_t isQuote = (quote - eachByte(1)) & ~quote & high;
  const uint64_t isBackslash = (backslash - eachByte(1)) & ~backslash & high;
  return below20 | isQuote | isBackslash | (word & high);
}

bool isContinuation(uint8_t byte) { return (byte & 0xC0) == 0x80; }

// The length of the well-formed UTF-8 sequence at `at` (no overlong forms, surrogates or
// values past U+10FFFF), or 0.
size_t sequenceLength(std::string_view text, size_t at) {
  const auto byte = [&](size_t i) { return static_cast<uint8_t>(text[at + i]); };
  const size_t left = text.size() - at;
  const uint8_t lead = byte(0);
  if (lead >= 0xC2 && lead <= 0xDF)
    return left >= 2 && isContinuation(byte(1)) ? 2 : 0;
  if (lead >= 0xE0 && lead <= 0xEF) {
    if (left < 3 || !isContinuation(byte(1)) || !isContinuation(byte(2)))
      return 0;
    if ((lead == 0xE0 && byte(1) < 0xA0) || (lead == 0xED && byte(1) > 0x9F))
      return 0;
    return 3;
  }
  if (lead >= 0xF0 && lead <= 0xF4) {
    if (left < 4 || !isContinuation(byte(1)) || !isContinuation(byte(2)) ||
        !isContinuation(byte(3)))
      return 0;
    if ((lead == 0xF0 && byte(1) < 0x90) || (lead == 0xF4 && byte(1) > 0x8F))
      return 0;
    return 4;
  }
  return 0;
}

// The letter of a two-character escape, or 0 where the byte is written as \u00XX.
constexpr char shortEscape(uint8_t byte) {
  switch (byte) {
  case '"':
    return '"';
  case '\\':
    return '\\';
  case '\b':
    return 'b';
  case '\t':
    return 't';
  case '\n':
    return 'n';
  case '\f':
    return 'f';
  case '\r':
    return 'r';
  default:
    return 0;
  }
}

void appendEscaped(std::string &out, uint8_t byte) {
  out.push_back('\\');
  if (const char letter = shortEscape(byte)) {
    out.push_back(letter);
    return;
  }
  static constexpr char hex[] = "0123456789abcdef";
  const char escaped[] = {'u', '0', '0', hex[byte >> 4], hex[byte & 0xF]};
  out.append(escaped, sizeof escaped);
}

// Grows `out` for `more` bytes by at least doubling, so that large texts are copied once.
void reserveFor(std::string &out, size_t more) {
  if (out.capacity() - out.size() < more)
    out.reserve(std::max(out.size() + more, 2 * out.capacity()));
}

bool isPlain(uint8_t byte) { return byte >= 0x20 && byte != '"' && byte != '\\' && byte < 0x80; }

// The first byte at or after `at` that is not copied as it is; the end when there is none.
size_t nextAttention(std::string_view text, size_t at) {
  for (; at + 8 <= text.size(); at += 8) {
    uint64_t word;
    std::memcpy(&word, text.data() + at, sizeof word);
    if (const uint64_t mask = attentionMask(word)) {
      if constexpr (std::endian::native == std::endian::little)
        return at + static_cast<size_t>(std::countr_zero(mask)) / 8;
      break;
    }
  }
  while (at < text.size() && isPlain(static_cast<uint8_t>(text[at])))
    ++at;
  return at;
}

bool appendString(std::string &out, std::string_view text) {
  reserveFor(out, text.size() + 2);
  out.push_back('"');
  size_t runStart = 0;
  for (size_t i = nextAttention(text, 0); i < text.size(); i = nextAttention(text, i)) {
    const auto byte = static_cast<uint8_t>(text[i]);
    if (byte >= 0x80) {
      const size_t length = sequenceLength(text, i);
      if (length == 0)
        return false;
      i += length;
      continue;
    }
    out.append(text.data() + runStart, i - runStart);
    appendEscaped(out, byte);
    runStart = ++i;
  }
  out.append(text.data() + runStart, text.size() - runStart);
  out.push_back('"');
  return true;
}

template <typename Number> void appendInteger(std::string &out, Number value) {
  std::array<char, 24> buffer;
  const auto result = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value);
  out.append(buffer.data(), static_cast<size_t>(result.ptr - buffer.data()));
}

bool appendDouble(std::string &out, double value, NonFiniteNumbers nonFinite) {
  if (!std::isfinite(value)) {
    out += "null";
    return nonFinite == NonFiniteNumbers::asNull;
  }
  // nlohmann's own shortest round-trip formatting, so that the text is the same as dump().
  std::array<char, 64> buffer;
  char *end = nlohmann::detail::to_chars(buffer.data(), buffer.data() + buffer.size(), value);
  out.append(buffer.data(), static_cast<size_t>(end - buffer.data()));
  return true;
}

// Writes a value that holds no array or object; false for a text that is not UTF-8, or a
// non-finite number that is refused.
bool appendScalar(std::string &out, const Json &value, NonFiniteNumbers nonFinite) {
  switch (value.type()) {
  case Json::value_t::null:
    out += "null";
    return true;
  case Json::value_t::boolean:
    out += value.get<bool>() ? "true" : "false";
    return true;
  case Json::value_t::number_integer:
    appendInteger(out, value.get<Json::number_integer_t>());
    return true;
  case Json::value_t::number_unsigned:
    appendInteger(out, value.get<Json::number_unsigned_t>());
    return true;
  case Json::value_t::number_float:
    return appendDouble(out, value.get<double>(), nonFinite);
  case Json::value_t::string:
    return appendString(out, value.get_ref<const std::string &>());
  default: // binary and discarded values never reach the wire; dump() knows their form
    out += value.dump();
    return true;
  }
}

// An array or object being written, and how far.
struct Frame {
  const Json *container;
  Json::const_iterator next;
};

} // namespace

std::optional<std::string> serializeJSON(const Json &value, NonFiniteNumbers nonFinite) {
  std::string out;
  std::vector<Frame> stack;
  const Json *current = &value;
  for (;;) {
    if (current != nullptr) {
      if (current->is_structured() && !current->empty()) {
        out.push_back(current->is_object() ? '{' : '[');
        stack.push_back({current, current->cbegin()});
      } else if (current->is_object()) {
        out += "{}";
      } else if (current->is_array()) {
        out += "[]";
      } else if (!appendScalar(out, *current, nonFinite)) {
        return std::nullopt;
      }
    }
    if (stack.empty())
      return out;
    Frame &frame = stack.back();
    if (frame.next == frame.container->cend()) {
      out.push_back(frame.container->is_object() ? '}' : ']');
      stack.pop_back();
      current = nullptr;
      continue;
    }
    if (frame.next != frame.container->cbegin())
      out.push_back(',');
    if (frame.container->is_object()) {
      if (!appendString(out, frame.next.key()))
        return std::nullopt;
      out.push_back(':');
    }
    current = &*frame.next;
    ++frame.next;
  }
}

std::optional<std::string> prettyJSON(const Json &value) {
  // Only short texts for the model come here, so nlohmann's own recursive writer serves.
  try {
    return value.dump(2);
  } catch (const Json::exception &) {
    return std::nullopt;
  }
}

} // namespace tavix

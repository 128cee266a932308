// The JSON seam against nlohmann's own parser and dump(): the same decision and value
// for every input, the same bytes for every value, at any depth. (Texts of megabytes cross
// it in the simulator's and the bridge's own tests of large screenshots and pastes.)

#include "support/JSON.h"

#include <gtest/gtest.h>

#include <limits>
#include <numeric>

namespace tavix::test {
namespace {

using nlohmann::json;

// nlohmann's own verdict: the value, or nothing.
std::optional<json> reference(std::string_view text) {
  json value = json::parse(text, nullptr, false);
  return value.is_discarded() ? std::nullopt : std::optional<json>(value);
}

TEST(JSONParse, DecidesAndReadsEveryInputAsNlohmannDoes) {
  const std::string_view inputs[] = {
      // Numbers, at and past the edges of each kind; nlohmann keeps "-0" signed and 0 unsigned.
      "0", "-0", "[0,-0]", "[-0,0]", "[-0 ]", R"({"a":"-0","b":0})", "-0.0", "-0e0", "1E2", "1e-2", "0.1",
      "123456789012345678901234567890", "9223372036854775807", "9223372036854775808", "18446744073709551615",
      "18446744073709551616", "-9223372036854775808", "-9223372036854775809", "1e308", "1e309", "-1e309", "1e-400",
      "4.9e-324", "01", "1.", ".5", "+1", "-", "NaN",
      // Texts.
      R"("")", R"("a\"b\\c\/d\b\f\n\r\t")", R"("\u0000\u001f\u007f")", R"("\u00e9\u20ac")", R"("\ud83d\ude00")",
      R"("\ud800")", R"("\udc00")", R"("\ud800\u0041")", R"("\x")", "\"\x01\"", "\"\xff\"", "\"\xc3\xa9\"",
      "\"\xed\xa0\x80\"", "\"\xf4\x90\x80\x80\"", "\"unterminated",
      // Structure.
      "[]", "{}", R"({"b":1,"a":[true,false,null]})", R"({"a":1,"a":2})", R"({"a":1,})", "[1,]", "[1 2]",
      R"({"a" 1})", R"({1:2})", " \t\r\n{} \n", "{} x", "{}{}", "", " ", "\xEF\xBB\xBF{}", "\xEF\xBB\xBF", "nul",
      std::string_view("[\0]", 3), std::string_view("[1]\0", 4), std::string_view("[1]\0x", 5),
  };
  for (std::string_view text : inputs)
    for (JSONInput input : {JSONInput::copied, JSONInput::padded}) {
      const std::string padded = std::string(text) + std::string(jsonParsePadding, '\0');
      const auto parsed = parseJSON(std::string_view(padded).substr(0, text.size()), input);
      const auto expected = reference(text);
      ASSERT_EQ(parsed.has_value(), expected.has_value()) << testing::PrintToString(std::string(text));
      if (expected)
        EXPECT_EQ(parsed->type() == expected->type() ? parsed->dump() : "<type differs>", expected->dump());
    }
}

// nlohmann's own comparison and dump() recurse, which deep values overflow under the
// sanitizers; the seam's writer does not, so it is the witness here.
TEST(JSONParse, NestingDeeperThanSimdjsonGoesIsDecidedByNlohmannAndWrittenWithoutRecursion) {
  for (size_t depth : {1024u, 1025u, 5000u})
    for (const std::string &text : {std::string(depth, '[') + "{\"a\":1}" + std::string(depth, ']'),
                                    std::string(depth, '[') + std::string(depth - 1, ']')}) {
      const auto expected = reference(text);
      ASSERT_EQ(parseJSON(text).has_value(), expected.has_value()) << depth;
      if (expected)
        EXPECT_EQ(serializeJSON(*parseJSON(text)), serializeJSON(*expected)) << depth;
    }
  const std::string deepest = std::string(1000000, '[') + std::string(1000000, ']');
  EXPECT_EQ(serializeJSON(parseJSON(deepest).value()), deepest);
  EXPECT_EQ(parseJSON(deepest.substr(1)), std::nullopt);
}

TEST(JSONParse, ExplainedParsingGivesTheValueOrWhereAndWhyItFailed) {
  EXPECT_EQ(parseJSONExplained("[1,\n2").error(),
            "parse error at line 2, column 2: syntax error while parsing array - unexpected end of input; expected ']'");
  for (std::string_view text : {"{\"a\":[1,-0,2.5]}", "\xEF\xBB\xBF{}", "18446744073709551616"})
    EXPECT_EQ(parseJSONExplained(text).value().dump(), parseJSON(text)->dump()) << text;
}

TEST(JSONSerialize, WritesWhatDumpWritesOrRefusesWhatItRefuses) {
  std::string everyControl(0x20, '\0');
  std::iota(everyControl.begin(), everyControl.end(), '\0');
  const json values[] = {
      nullptr, true, 0, -1, 7u, std::numeric_limits<int64_t>::min(), std::numeric_limits<uint64_t>::max(), -0.0,
      1.0, 0.1, 1e100, 1e-7, 1e15, 1e16, 1e21, 5e-324, std::numeric_limits<double>::max(),
      std::numeric_limits<double>::quiet_NaN(), -std::numeric_limits<double>::infinity(), "", everyControl, "\x7f",
      "quote \" backslash \\ slash /", std::string("nul\0inside", 10), "exactly8", "seven77", "sixteen bytes 16",
      std::string(31, 'q'), std::string(32, 'q'), std::string(33, 'q'), std::string(31, 'q') + "\n",
      std::string(32, 'q') + "\"", std::string(40, 'q') + "é",
      // The first and last code point of each UTF-8 length and around the surrogates.
      "\xc2\x80", "\xdf\xbf", "\xe0\xa0\x80", "\xed\x9f\xbf", "\xee\x80\x80", "\xef\xbf\xbf", "\xf0\x90\x80\x80",
      "\xf4\x8f\xbf\xbf", json::array({json::array(), json::object()}), json::binary({1, 2, 3}),
      {{"b", 1}, {"a", {{"d", json::array({1, "x", nullptr})}, {"c", 2.5}}}, {"", "e"}, {"key \"q\"\n", "é"}},
  };
  for (const json &value : values)
    EXPECT_EQ(serializeJSON(value), value.dump()) << value.dump();
  // Past each edge, cut short, bad continuation bytes, bad leads: dump() throws, the seam refuses.
  for (const std::string text : {"\xff", "ok\xc3", "\xc3\x28", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xc0\xaf",
                                 "\xc1\xbf", "\xe0\x9f\xbf", "\xf0\x8f\xbf\xbf", "\xe2\x82", "\xf0\x9f\x28\x80",
                                 "\xf5\x80\x80\x80", "\x80", "12345678\x80"}) {
    EXPECT_THROW(json(text).dump(), json::type_error) << testing::PrintToString(text);
    EXPECT_EQ(serializeJSON(json{{"key", {text}}}), std::nullopt) << testing::PrintToString(text);
    EXPECT_EQ(serializeJSON(json{{text, 1}}), std::nullopt) << testing::PrintToString(text);
  }
  const json nonFinite = json::array({1, {{"a", -std::numeric_limits<double>::infinity()}}});
  EXPECT_EQ(serializeJSON(nonFinite, NonFiniteNumbers::refuse), std::nullopt);
  EXPECT_EQ(serializeJSON(json::array({1.5, 2}), NonFiniteNumbers::refuse), "[1.5,2]");
}

} // namespace
} // namespace tavix::test

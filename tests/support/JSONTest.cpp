// The JSON seam against nlohmann's own parser and dump(): the same decision and value
// for every input, the same bytes for every value.

#include "support/JSON.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace tavix::test {
namespace {

using nlohmann::json;

// nlohmann's own verdict: the value, or nothing.
std::optional<json> reference(std::string_view text) {
  json value = json::parse(text, nullptr, false);
  if (value.is_discarded())
    return std::nullopt;
  return value;
}

void expectSameAsNlohmann(std::string_view text) {
  SCOPED_TRACE(testing::Message() << "input: " << std::string(text.substr(0, 200)));
  const auto expected = reference(text);
  for (JSONInput input : {JSONInput::copied, JSONInput::padded}) {
    std::string padded(text);
    padded.append(jsonParsePadding, '\0');
    const auto parsed = parseJSON(std::string_view(padded).substr(0, text.size()), input);
    ASSERT_EQ(parsed.has_value(), expected.has_value());
    if (!expected)
      continue;
    EXPECT_EQ(*parsed, *expected);
    EXPECT_EQ(parsed->type(), expected->type());
    EXPECT_EQ(parsed->dump(), expected->dump());
  }
}

TEST(JSONParse, DecidesAndReadsEveryInputAsNlohmannDoes) {
  const std::string_view inputs[] = {
      // Numbers, at and past the edges of each kind.
      "0", "-0", "[0,-0]", "[-0,0]", "[-0 ]", R"({"a":"-0","b":0})", "-0.0", "-0e0", "0.0", "1.0", "1E2", "1e-2", "0.1", "123456789012345678901234567890",
      "9223372036854775807", "9223372036854775808", "18446744073709551615",
      "18446744073709551616", "-9223372036854775808", "-9223372036854775809", "1e308", "1e309",
      "-1e309", "1e-400", "4.9e-324", "01", "1.", ".5", "+1", "-", "1e", "NaN", "Infinity",
      // Texts.
      R"("")", R"("a\"b\\c\/d\b\f\n\r\t")", R"("\u0000\u001f\u007f")", R"("\u00e9\u20ac")",
      R"("\ud83d\ude00")", R"("\ud800")", R"("\udc00")", R"("\ud800\u0041")", R"("\x")",
      "\"\x01\"", "\"\xff\"", "\"\xc3\xa9\"", "\"\xed\xa0\x80\"", "\"\xf4\x90\x80\x80\"",
      "\"unterminated",
      // Structure.
      "[]", "{}", "[1,2,3]", R"({"b":1,"a":[true,false,null]})", R"({"a":1,"a":2})",
      R"({"a":1,})", "[1,]", "[1 2]", R"({"a" 1})", R"({1:2})", " \t\r\n{} \n", "{} x", "{}{}",
      "", " ", "\xEF\xBB\xBF{}", "\xEF\xBB\xBF", "nul", "true", "false", "null", "tru",
      std::string_view("[\0]", 3), std::string_view("[1]\0", 4), std::string_view("[1]\0x", 5),
  };
  for (std::string_view text : inputs)
    expectSameAsNlohmann(text);
}

// nlohmann's own comparison and dump() recurse, which deep values overflow under the
// sanitizers; the seam's writer does not, so it is the witness here.
TEST(JSONParse, NestingDeeperThanSimdjsonGoesIsDecidedByNlohmann) {
  for (size_t depth : {1023u, 1024u, 1025u, 5000u}) {
    SCOPED_TRACE(depth);
    for (const std::string &text : {std::string(depth, '[') + std::string(depth, ']'),
                                    std::string(depth, '[') + "{\"a\":1}" + std::string(depth, ']'),
                                    std::string(depth, '[') + std::string(depth - 1, ']')}) {
      const auto expected = reference(text);
      const auto parsed = parseJSON(text);
      ASSERT_EQ(parsed.has_value(), expected.has_value());
      if (expected)
        EXPECT_EQ(serializeJSON(*parsed), serializeJSON(*expected));
    }
  }
}

TEST(JSONParse, AMillionLevelsDeepNeitherCrashesNorLosesTheValue) {
  const size_t depth = 1000000;
  const std::string text = std::string(depth, '[') + std::string(depth, ']');
  const auto parsed = parseJSON(text);
  ASSERT_TRUE(parsed.has_value());
  EXPECT_EQ(serializeJSON(*parsed), text);
  EXPECT_EQ(parseJSON(text.substr(1)), std::nullopt);
}

TEST(JSONParse, LargeTextsParseWhetherPaddedOrNot) {
  const std::string base64(5 * 1024 * 1024, 'Q');
  const std::string text = R"({"content":[{"data":")" + base64 + R"(","type":"image"}]})";
  for (JSONInput input : {JSONInput::copied, JSONInput::padded}) {
    std::string buffer = text + std::string(jsonParsePadding, ' ');
    const auto parsed = parseJSON(std::string_view(buffer).substr(0, text.size()), input);
    ASSERT_TRUE(parsed.has_value());
    EXPECT_EQ(parsed->at("content").at(0).at("data").get_ref<const std::string &>(), base64);
  }
}

TEST(JSONParse, ExplainedParsingGivesTheValueOrWhereAndWhyItFailed) {
  const std::pair<std::string_view, std::string_view> refused[] = {
      {"", "parse error at line 1, column 1: syntax error while parsing value - unexpected end of input; "
           "expected '[', '{', or a literal"},
      {"tru", "parse error at line 1, column 4: syntax error while parsing value - invalid literal; last read: 'tru'"},
      {"{\"a\":1,}", "parse error at line 1, column 8: syntax error while parsing object key - unexpected '}'; "
                    "expected string literal"},
      {"1 2", "parse error at line 1, column 3: syntax error while parsing value - unexpected number literal; "
              "expected end of input"},
      {"[1,\n2", "parse error at line 2, column 2: syntax error while parsing array - unexpected end of input; "
                 "expected ']'"},
  };
  for (const auto &[text, error] : refused) {
    const auto parsed = parseJSONExplained(text);
    ASSERT_FALSE(parsed.has_value()) << text;
    EXPECT_EQ(parsed.error(), error);
  }
  // Accepted texts read as parseJSON reads them, through either parser.
  for (std::string_view text : {"{\"a\":[1,-0,2.5]}", "\xEF\xBB\xBF{}", "18446744073709551616", "\"x\""}) {
    const auto parsed = parseJSONExplained(text);
    ASSERT_TRUE(parsed.has_value()) << text;
    EXPECT_EQ(parsed->dump(), parseJSON(text)->dump());
  }
}

TEST(JSONSerialize, WritesWhatDumpWrites) {
  std::string everyControl;
  for (int c = 0; c < 0x20; ++c)
    everyControl.push_back(static_cast<char>(c));
  const json values[] = {
      nullptr, true, false, 0, -1, 7u,
      std::numeric_limits<int64_t>::min(), std::numeric_limits<int64_t>::max(),
      std::numeric_limits<uint64_t>::max(),
      0.0, -0.0, 1.0, -1.5, 0.1, 1e100, 1e-7, 1e15, 1e16, 1e21, 123456.789, 5e-324,
      std::numeric_limits<double>::max(), std::numeric_limits<double>::quiet_NaN(),
      std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity(),
      "", "plain", everyControl, "\x7f", "quote \" backslash \\ slash /", "é € 😀 \xf4\x8f\xbf\xbf",
      std::string("nul\0inside", 10), "ends with a quote\"", "\"starts with one",
      "exactly8", "seven77", "nine99999", "sixteen bytes 16", "\x1f at the start",
      std::string(31, 'q'), std::string(32, 'q'), std::string(33, 'q'), std::string(64, 'q'),
      std::string(31, 'q') + "\n", std::string(32, 'q') + "\"", std::string(40, 'q') + "é",
      json::array(), json::object(), json::array({json::array(), json::object()}),
      {{"b", 1}, {"a", {{"d", json::array({1, "x", nullptr})}, {"c", 2.5}}}, {"", "empty key"}},
      {{"key \"quoted\"\n", "value"}, {"é", 1}},
      json::array({json::array({json::array({json::object({{"deep", true}})})})}),
      json::binary({1, 2, 3}),
  };
  for (const json &value : values) {
    SCOPED_TRACE(value.dump());
    EXPECT_EQ(serializeJSON(value), value.dump());
  }
}

TEST(JSONSerialize, LargeTextsWithAndWithoutEscapes) {
  const std::string whole(5 * 1024 * 1024, 'Q'); // a multiple of every step the writer takes
  std::string plain(5 * 1024 * 1024 + 3, 'A');
  std::string prose;
  while (prose.size() < 4 * 1024 * 1024)
    prose += "Line with \"quotes\", a tab\tand é — then code: if (a < b) { return \\n; }\n";
  for (const json &value : {json(whole), json(plain), json{{"text", prose}, {"data", plain}}}) {
    const auto written = serializeJSON(value);
    ASSERT_TRUE(written.has_value());
    EXPECT_TRUE(*written == value.dump());
  }
}

TEST(JSONSerialize, UTF8AtTheEdgesOfEachSequenceLength) {
  // The first and last code point of each length and around the surrogates: accepted.
  for (const std::string text : {"\xc2\x80", "\xdf\xbf", "\xe0\xa0\x80", "\xed\x9f\xbf", "\xee\x80\x80",
                                 "\xef\xbf\xbf", "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf"}) {
    SCOPED_TRACE(testing::PrintToString(text));
    EXPECT_EQ(serializeJSON(json(text)), json(text).dump());
  }
}

TEST(JSONSerialize, NonFiniteNumbersAreNullOrRefused) {
  const json values[] = {std::numeric_limits<double>::quiet_NaN(), json::array({1, {{"a", -std::numeric_limits<double>::infinity()}}})};
  for (const json &value : values) {
    EXPECT_EQ(serializeJSON(value), value.dump());
    EXPECT_EQ(serializeJSON(value, NonFiniteNumbers::refuse), std::nullopt);
  }
  EXPECT_EQ(serializeJSON(json::array({1.5, 2}), NonFiniteNumbers::refuse), "[1.5,2]");
}

TEST(JSONSerialize, TextThatIsNotUTF8IsRefusedAsDumpRefusesIt) {
  // The first value past each edge, cut-off sequences, bad continuation bytes, bad leads.
  const std::string invalid[] = {"\xff", "ok\xc3", "\xc3\x28", "\xed\xa0\x80", "\xf4\x90\x80\x80",
                                 "\xc0\xaf", "\xc1\xbf", "\xe0\x80\xaf", "\xe0\x9f\xbf", "\xf0\x80\x80\xaf",
                                 "\xf0\x8f\xbf\xbf", "\xe2\x82", "\xf0\x9f\x98", "\xe2\x28\xa1", "\xf0\x9f\x28\x80",
                                 "\xf5\x80\x80\x80", "\x80", "12345678\x80"};
  for (const std::string &text : invalid) {
    SCOPED_TRACE(testing::PrintToString(text));
    EXPECT_THROW(json(text).dump(), json::type_error);
    EXPECT_EQ(serializeJSON(json(text)), std::nullopt);
    EXPECT_EQ(serializeJSON(json{{"key", {text}}}), std::nullopt);
    EXPECT_EQ(serializeJSON(json{{text, 1}}), std::nullopt);
  }
}

TEST(JSONSerialize, AMillionLevelsDeepIsWrittenWithoutRecursion) {
  json value = json::array();
  for (int i = 0; i < 1000000; ++i)
    value = json::array({std::move(value)});
  const auto written = serializeJSON(value);
  ASSERT_TRUE(written.has_value());
  EXPECT_EQ(written->size(), 2000002u);
  EXPECT_TRUE(written->starts_with("[[[[") && written->ends_with("]]]]"));
}

} // namespace
} // namespace tavix::test

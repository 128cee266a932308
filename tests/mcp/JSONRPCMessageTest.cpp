#include "mcp/JSONRPCMessage.h"

#include <gtest/gtest.h>

namespace tavix::test {
namespace {

using nlohmann::json;

std::optional<JSONRPCRequest> parse(std::string_view text) {
  return JSONRPCRequest::from(json::parse(text));
}

TEST(JSONRPCRequest, RequiresVersionTwoAndATextMethod) {
  for (const char *invalid :
       {R"({"id":1,"method":"ping"})", R"({"jsonrpc":2.0,"id":1,"method":"ping"})",
        R"({"jsonrpc":"2.0 ","id":1,"method":"ping"})", R"({"jsonrpc":"2.0","id":1})",
        R"({"jsonrpc":"2.0","id":1,"method":null})", R"({"jsonrpc":"2.0","method":["ping"]})",
        R"([{"jsonrpc":"2.0","method":"ping"}])", R"("ping")"}) {
    EXPECT_EQ(parse(invalid), std::nullopt) << invalid;
  }
  const auto request = parse(R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"a":[1]}})");
  ASSERT_TRUE(request);
  EXPECT_EQ(request->method, "tools/call");
  EXPECT_EQ(request->params, json::parse(R"({"a":[1]})"));
}

TEST(JSONRPCRequest, ParamsThatAreNotAnObjectAreDroppedSilently) {
  for (const char *params : {"[1,2]", "\"x\"", "null", "3"}) {
    const auto request =
        parse(std::string(R"({"jsonrpc":"2.0","id":1,"method":"m","params":)") + params + "}");
    ASSERT_TRUE(request) << params;
    EXPECT_EQ(request->params, std::nullopt) << params;
  }
}

TEST(JSONRPCRequest, IdsAreIntegersOrTextsAndAnythingElseMakesANotification) {
  const std::vector<std::pair<std::string, std::optional<JSONRPCId>>> cases = {
      {"7", JSONRPCId(7)},
      {"-12", JSONRPCId(-12)},
      {"0", JSONRPCId(0)},
      {"9223372036854775807", JSONRPCId(INT64_MAX)},
      {"3.0", JSONRPCId(3)},
      {"\"7\"", JSONRPCId(std::string("7"))},
      {"\"\"", JSONRPCId(std::string())},
      {"1.5", std::nullopt},
      {"null", std::nullopt},
      {"true", std::nullopt},
      {"[1]", std::nullopt},
      {"{\"a\":1}", std::nullopt},
      {"18446744073709551615", std::nullopt},
      {"1e300", std::nullopt},
  };
  for (const auto &[id, expected] : cases) {
    const auto request = parse(R"({"jsonrpc":"2.0","method":"m","id":)" + id + "}");
    ASSERT_TRUE(request) << id;
    EXPECT_EQ(request->id, expected) << id;
  }
}

TEST(JSONRPCId, IntegerAndTextIdsNeverCompareEqual) {
  EXPECT_NE(JSONRPCId(7), JSONRPCId(std::string("7")));
  EXPECT_EQ(JSONRPCId(7), JSONRPCId(7));
  EXPECT_EQ(JSONRPCId(7).text(), "7");
  EXPECT_EQ(JSONRPCId(std::string("a b")).text(), "a b");
  EXPECT_EQ(JSONRPCId(7).toJSON().dump(), "7");
  EXPECT_EQ(JSONRPCId(std::string("7")).toJSON().dump(), "\"7\"");
}

TEST(JSONRPCResponse, WithoutAnIdTheKeyIsLeftOutNotNull) {
  EXPECT_EQ(buildErrorResponse(std::nullopt, -32700, "Parse error").dump(),
            R"({"error":{"code":-32700,"message":"Parse error"},"jsonrpc":"2.0"})");
  EXPECT_EQ(buildSuccessResponse(JSONRPCId(std::string("x")), json::object()).dump(),
            R"({"id":"x","jsonrpc":"2.0","result":{}})");
  EXPECT_EQ(buildErrorResponse(JSONRPCId(0), -32601, "Method not found: a").dump(),
            R"({"error":{"code":-32601,"message":"Method not found: a"},"id":0,"jsonrpc":"2.0"})");
}

} // namespace
} // namespace tavix::test

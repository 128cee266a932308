#include "gateway/ToolCatalogue.h"
#include "TestPaths.h"

#include <gtest/gtest.h>

#include <fstream>
#include <latch>
#include <thread>

namespace tavix {
namespace {

using nlohmann::json;

constexpr MCPServerMode modes[] = {MCPServerMode::computerUse, MCPServerMode::recordReplay};

const char *modeKey(MCPServerMode mode) {
  return mode == MCPServerMode::computerUse ? "computerUse" : "recordReplay";
}

// Transcribed independently of the code, so that each checks the other's typos.
const json &expectedCatalogue() {
  static const json catalogue =
      json::parse(std::ifstream(TAVIX_TEST_DATA_DIR "/gateway/expected_tool_catalogue.json"));
  return catalogue;
}

std::vector<std::string> namesOf(const json &tools) {
  std::vector<std::string> names;
  for (const auto &tool : tools)
    names.push_back(tool.value("name", "<unnamed>"));
  return names;
}

TEST(ToolCatalogueTest, MatchesTheExpectedCatalogueToolByToolAndByteForByte) {
  for (MCPServerMode mode : modes) {
    const json &actual = toolDefinitions(mode);
    const json &expected = expectedCatalogue().at(modeKey(mode));
    ASSERT_EQ(namesOf(actual), namesOf(expected)) << modeKey(mode);
    for (size_t i = 0; i < expected.size(); ++i)
      // Serialised text also tells 1 from 1.0 and true from 1; the patch names the path.
      EXPECT_EQ(actual[i].dump(), expected[i].dump())
          << expected[i]["name"] << " differs:\n"
          << json::diff(actual[i], expected[i]).dump(2);
  }
}

TEST(ToolCatalogueTest, SchemaShapesClientsRelyOn) {
  std::vector<std::string> withDefault, withoutProperties;
  for (MCPServerMode mode : modes)
    for (const auto &tool : toolDefinitions(mode)) {
      const json &schema = tool.at("inputSchema");
      for (const auto &[property, propertySchema] : schema.at("properties").items())
        if (propertySchema.contains("default"))
          withDefault.push_back(tool.at("name").get<std::string>() + "." + property);
      // An empty object, never null or missing: some clients index into it.
      if (schema.at("properties").is_object() && schema.at("properties").empty())
        withoutProperties.push_back(tool.at("name"));
      EXPECT_EQ(schema.at("additionalProperties"), mode == MCPServerMode::recordReplay);
    }
  EXPECT_EQ(withDefault, std::vector<std::string>{"paste.format"});
  EXPECT_EQ(withoutProperties,
            (std::vector<std::string>{"list_apps", "event_stream_status", "event_stream_stop"}));
}

TEST(ToolCatalogueTest, ConcurrentCallersShareOneCompleteCatalogue) {
  // Each test runs in a process of its own under ctest, so these are the first calls.
  constexpr int threadCount = 8;
  std::latch start(threadCount);
  std::vector<const json *> seen(threadCount);
  std::vector<std::thread> threads;
  for (int i = 0; i < threadCount; ++i)
    threads.emplace_back([&, i] {
      start.arrive_and_wait();
      seen[static_cast<size_t>(i)] = &toolDefinitions(modes[i % 2]);
    });
  for (auto &thread : threads)
    thread.join();
  for (int i = 0; i < threadCount; ++i) {
    EXPECT_EQ(seen[static_cast<size_t>(i)], &toolDefinitions(modes[i % 2]));
    EXPECT_EQ(seen[static_cast<size_t>(i)]->size(), i % 2 == 0 ? 11u : 3u);
  }
}

} // namespace
} // namespace tavix

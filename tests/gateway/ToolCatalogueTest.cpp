#include "gateway/ToolCatalogue.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <latch>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#ifndef TAVIX_TEST_DATA_DIR
#error "TAVIX_TEST_DATA_DIR must name the tests/ directory"
#endif

namespace tavix {
namespace {

using nlohmann::json;

constexpr MCPServerMode kModes[] = {MCPServerMode::computerUse, MCPServerMode::recordReplay};

const char *modeKey(MCPServerMode mode) {
    return mode == MCPServerMode::computerUse ? "computerUse" : "recordReplay";
}

const json &expectedCatalogue() {
    static const json catalogue = [] {
        const std::string path = TAVIX_TEST_DATA_DIR "/gateway/expected_tool_catalogue.json";
        std::ifstream in(path);
        if (!in) throw std::runtime_error("cannot open " + path);
        return json::parse(in);
    }();
    return catalogue;
}

std::vector<std::string> namesOf(const json &tools) {
    std::vector<std::string> names;
    for (const auto &tool : tools) names.push_back(tool.value("name", "<unnamed>"));
    return names;
}

const json *findTool(const json &tools, const std::string &name) {
    for (const auto &tool : tools)
        if (tool.value("name", "") == name) return &tool;
    return nullptr;
}

// Recursively compares objects key by key, so a failure names the exact path
// (e.g. "click.inputSchema.properties.x.type") instead of dumping two catalogues.
void expectSameJson(const json &actual, const json &expected, const std::string &where) {
    if (expected.is_object()) {
        ASSERT_TRUE(actual.is_object()) << where << " should be an object, got " << actual.dump();
        for (const auto &[key, value] : expected.items()) {
            if (!actual.contains(key)) {
                ADD_FAILURE() << where << ": missing key \"" << key << "\"";
                continue;
            }
            expectSameJson(actual.at(key), value, where + "." + key);
        }
        for (const auto &[key, value] : actual.items())
            EXPECT_TRUE(expected.contains(key)) << where << ": unexpected key \"" << key << "\" = " << value.dump();
        return;
    }
    if (actual == expected) {
        // Equal values may still differ on the wire: 1 vs 1.0.
        EXPECT_EQ(actual.dump(), expected.dump()) << where << " has the right value but the wrong JSON type";
    } else {
        EXPECT_EQ(actual, expected) << where;
    }
}

TEST(ToolCatalogueTest, ListsEachModesToolsInOrderWithoutMixing) {
    for (MCPServerMode mode : kModes) {
        SCOPED_TRACE(modeKey(mode));
        const json &tools = toolDefinitions(mode);
        ASSERT_TRUE(tools.is_array());
        EXPECT_EQ(namesOf(tools), namesOf(expectedCatalogue().at(modeKey(mode))));
    }
    EXPECT_EQ(toolDefinitions(MCPServerMode::computerUse).size(), 11u);
    EXPECT_EQ(toolDefinitions(MCPServerMode::recordReplay).size(), 3u);

    const auto recordNames = namesOf(toolDefinitions(MCPServerMode::recordReplay));
    const std::set<std::string> recordSet(recordNames.begin(), recordNames.end());
    for (const auto &name : namesOf(toolDefinitions(MCPServerMode::computerUse)))
        EXPECT_EQ(recordSet.count(name), 0u) << name << " is listed in both modes";
}

TEST(ToolCatalogueTest, DefinitionsMatchExpectedCatalogueFieldByField) {
    for (MCPServerMode mode : kModes) {
        const json &actualTools = toolDefinitions(mode);
        for (const auto &expected : expectedCatalogue().at(modeKey(mode))) {
            const std::string name = expected.at("name");
            SCOPED_TRACE(std::string(modeKey(mode)) + " tool " + name);
            const json *actual = findTool(actualTools, name);
            if (actual == nullptr) {
                ADD_FAILURE() << "tool " << name << " is missing";
                continue;
            }
            expectSameJson(*actual, expected, name);
        }
    }
}

TEST(ToolCatalogueTest, SchemaShapesClientsRelyOn) {
    std::vector<std::string> withDefault;
    for (MCPServerMode mode : kModes)
        for (const auto &tool : toolDefinitions(mode))
            for (const auto &[property, schema] : tool.at("inputSchema").at("properties").items())
                if (schema.contains("default")) withDefault.push_back(tool.at("name").get<std::string>() + "." + property);
    EXPECT_EQ(withDefault, std::vector<std::string>{"paste.format"});

    const json *paste = findTool(toolDefinitions(MCPServerMode::computerUse), "paste");
    ASSERT_NE(paste, nullptr);
    EXPECT_EQ(paste->at("inputSchema").at("properties").at("format").value("default", json()), "text");

    const std::pair<MCPServerMode, const char *> propertyless[] = {
        {MCPServerMode::computerUse, "list_apps"},
        {MCPServerMode::recordReplay, "event_stream_status"},
        {MCPServerMode::recordReplay, "event_stream_stop"},
    };
    for (const auto &[mode, name] : propertyless) {
        const json *tool = findTool(toolDefinitions(mode), name);
        ASSERT_NE(tool, nullptr) << name;
        const json &schema = tool->at("inputSchema");
        ASSERT_TRUE(schema.contains("properties")) << name;
        EXPECT_TRUE(schema.at("properties").is_object()) << name << " properties = " << schema.at("properties").dump();
        EXPECT_TRUE(schema.at("properties").empty()) << name;
        EXPECT_FALSE(schema.contains("required")) << name;
    }
}

TEST(ToolCatalogueTest, RepeatedCallsReturnTheSameObject) {
    for (MCPServerMode mode : kModes)
        EXPECT_EQ(&toolDefinitions(mode), &toolDefinitions(mode)) << modeKey(mode);
    EXPECT_NE(&toolDefinitions(MCPServerMode::computerUse), &toolDefinitions(MCPServerMode::recordReplay));
}

// Runs in a freshly executed child process so the calls below really are the
// first ones for each mode, whatever ran earlier in this binary.
bool concurrentFirstCallsAgree() {
    constexpr int kThreads = 8;
    const json &expected = expectedCatalogue();
    std::latch start(kThreads);
    std::vector<const json *> seen(kThreads);
    std::vector<std::string> dumps(kThreads);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            start.arrive_and_wait();
            seen[i] = &toolDefinitions(kModes[i % 2]);
            dumps[i] = seen[i]->dump();
        });
    }
    for (auto &thread : threads) thread.join();

    bool ok = true;
    for (int i = 0; i < kThreads; ++i) {
        const MCPServerMode mode = kModes[i % 2];
        if (seen[i] != seen[i % 2]) {
            std::fprintf(stderr, "thread %d saw a different %s object\n", i, modeKey(mode));
            ok = false;
        }
        const auto names = namesOf(json::parse(dumps[i]));
        if (dumps[i] != dumps[i % 2] || names != namesOf(expected.at(modeKey(mode)))) {
            std::string listed;
            for (const auto &name : names) listed += " " + name;
            std::fprintf(stderr, "thread %d saw an incomplete %s catalogue:%s\n", i, modeKey(mode), listed.c_str());
            ok = false;
        }
    }
    return ok;
}

TEST(ToolCatalogueDeathTest, ConcurrentFirstCallsShareOneCompleteCatalogue) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(std::exit(concurrentFirstCallsAgree() ? 0 : 1), ::testing::ExitedWithCode(0), "");
}

} // namespace
} // namespace tavix

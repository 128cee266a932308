#pragma once
// The one rule every record's JSON follows, checked from a complete example: it decodes
// and encodes back unchanged, each required key is required by name, each optional key
// reads as absent when missing or null, and unknown keys are ignored.

#include <nlohmann/json.hpp>

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace tavix::test {

// Decodes a complete example, checks that it encodes back to the same JSON, then takes
// each key away in turn: a required key must fail by name, an optional one must read as
// absent, missing or null.
template <typename Record>
void expectFieldRules(const nlohmann::json &complete, const std::set<std::string> &requiredKeys) {
  SCOPED_TRACE(complete.dump());
  const auto decoded = Record::fromJSON(complete);
  ASSERT_TRUE(decoded.has_value()) << decoded.error().description;
  EXPECT_EQ(decoded->toJSON(), complete);
  std::set<std::string> seen;
  for (const auto &[key, value] : complete.items()) {
    SCOPED_TRACE(key);
    seen.insert(key);
    nlohmann::json without = complete;
    without.erase(key);
    nlohmann::json nulled = complete;
    nulled[key] = nullptr;
    if (requiredKeys.contains(key)) {
      const auto missing = Record::fromJSON(without);
      ASSERT_FALSE(missing.has_value());
      EXPECT_EQ(missing.error().description, "Missing required key \"" + key + "\"");
      EXPECT_FALSE(Record::fromJSON(nulled).has_value());
    } else {
      for (const nlohmann::json &absent : {without, nulled}) {
        const auto read = Record::fromJSON(absent);
        ASSERT_TRUE(read.has_value()) << read.error().description;
        EXPECT_EQ(read->toJSON(), without);
      }
    }
  }
  for (const auto &key : requiredKeys)
    EXPECT_TRUE(seen.contains(key)) << key << " missing from the example";
  nlohmann::json withUnknown = complete;
  withUnknown["someFutureKey"] = {1, 2};
  EXPECT_TRUE(Record::fromJSON(withUnknown).has_value());
  EXPECT_FALSE(Record::fromJSON(nlohmann::json::array()).has_value());
}

} // namespace tavix::test

#pragma once
// The id of a JSON-RPC request: an integer or a text. 7 and "7" are different ids.

#include <nlohmann/json.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <variant>

namespace tavix {

class JSONRPCId {
public:
  explicit JSONRPCId(int64_t value) : value_(value) {}
  explicit JSONRPCId(std::string value) : value_(std::move(value)) {}

  // An integer (or a number with no fraction) or a text; anything else is no id.
  static std::optional<JSONRPCId> from(const nlohmann::json &value);

  bool isInt() const { return std::holds_alternative<int64_t>(value_); }
  nlohmann::json toJSON() const;
  // The id as text, for logs: 7 as "7", "abc" as "abc".
  std::string text() const;

  friend bool operator==(const JSONRPCId &, const JSONRPCId &) = default;

private:
  std::variant<int64_t, std::string> value_;
};

} // namespace tavix

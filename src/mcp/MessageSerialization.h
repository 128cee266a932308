#pragma once

#include <nlohmann/json.hpp>

#include <optional>
#include <string>

namespace tavix {

// The bytes of one outgoing message: compact JSON with sorted keys. Nothing, and an
// error logged, when the value cannot be serialised (text that is not UTF-8).
std::optional<std::string> serializeMessage(const nlohmann::json &message);

} // namespace tavix

#include "mcp/JSONRPCId.h"

#include <cmath>

namespace tavix {

std::optional<JSONRPCId> JSONRPCId::from(const nlohmann::json &value) {
  if (value.is_number_integer() && !value.is_number_unsigned())
    return JSONRPCId(value.get<int64_t>());
  if (value.is_number_unsigned()) {
    const auto unsignedValue = value.get<uint64_t>();
    if (unsignedValue <= static_cast<uint64_t>(INT64_MAX))
      return JSONRPCId(static_cast<int64_t>(unsignedValue));
    return std::nullopt;
  }
  if (value.is_number_float()) {
    // 3.0 is the integer 3; 1.5 is not an id at all.
    const double number = value.get<double>();
    if (std::trunc(number) == number && number >= -9.2233720368547758e18 &&
        number < 9.2233720368547758e18)
      return JSONRPCId(static_cast<int64_t>(number));
    return std::nullopt;
  }
  if (value.is_string())
    return JSONRPCId(value.get<std::string>());
  return std::nullopt;
}

nlohmann::json JSONRPCId::toJSON() const {
  return std::visit([](const auto &v) { return nlohmann::json(v); }, value_);
}

std::string JSONRPCId::text() const {
  if (const auto *number = std::get_if<int64_t>(&value_))
    return std::to_string(*number);
  return std::get<std::string>(value_);
}

} // namespace tavix

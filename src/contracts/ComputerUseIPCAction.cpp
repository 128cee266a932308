#include "contracts/ComputerUseIPCAction.h"

#include <cmath>
#include <utility>

namespace tavix {
namespace {

ActionValidation rejected(const char *message) {
  return tl::unexpected(ToolError::actionRejected(message));
}

} // namespace

ActionValidation ClickParams::validate() const {
  if (!elementIndex) {
    if (!x || !y)
      return rejected("click requires either element_index or both x and y");
    if (!std::isfinite(*x) || !std::isfinite(*y))
      return rejected("Invalid click coordinates. Provide finite numeric x and y in screenshot "
                      "pixel coordinates.");
  }
  if (clickCount < 1)
    return rejected("Invalid click_count. Provide a positive integer such as 1 or 2, or omit it for 1.");
  if (mouseButton < 0 || mouseButton > 2)
    return rejected("Invalid mouseButton. Use 0 (left), 1 (right), or 2 (middle).");
  return {};
}

ActionValidation ScrollParams::validate() const {
  constexpr double coordinateLimit = 1e6;
  constexpr int64_t elementIndexLimit = 1000000;
  if (elementIndex) {
    if (*elementIndex < 0 || *elementIndex > elementIndexLimit)
      return rejected("Invalid element_index. Provide a non-negative integer index.");
  } else if (!x || !y || !std::isfinite(*x) || !std::isfinite(*y) ||
             std::fabs(*x) > coordinateLimit || std::fabs(*y) > coordinateLimit) {
    return rejected("scroll requires an element_index string or both numeric x and y in "
                    "screenshot pixel coordinates.");
  }
  if (direction < 0 || direction > 3)
    return rejected("Invalid scroll direction. Use up, down, left, or right.");
  if (!std::isfinite(pages) || pages <= 0 || pages > 100.0)
    return rejected("pages must be a finite number in (0, 100].");
  return {};
}

ActionValidation PasteParams::validate() const {
  // std::string holds UTF-8, so its size is the byte count.
  if (text.empty() || text.size() > maxTextBytes)
    return rejected("paste text must be nonempty and at most 4 MB of UTF-8.");
  return {};
}

nlohmann::json ComputerUseIPCAction::toJSON() const {
  nlohmann::json parameters = std::visit([](const auto &p) { return p.toJSON(); }, params);
  return {{std::string(caseName()), {{"_0", std::move(parameters)}}}};
}

namespace {

// Decodes the parameters of case `Index` and wraps them in an action.
template <size_t Index>
Decoded<ComputerUseIPCAction> decodeCase(const nlohmann::json &parameters) {
  using Record = std::variant_alternative_t<Index, ComputerUseIPCAction::Params>;
  auto record = Record::fromJSON(parameters);
  if (!record)
    return tl::unexpected(record.error());
  return ComputerUseIPCAction{ComputerUseIPCAction::Params(std::in_place_index<Index>, std::move(*record))};
}

template <size_t... Index>
Decoded<ComputerUseIPCAction> decodeCaseAt(size_t index, const nlohmann::json &parameters,
                                           std::index_sequence<Index...>) {
  using Decoder = Decoded<ComputerUseIPCAction> (*)(const nlohmann::json &);
  static constexpr Decoder decoders[] = {&decodeCase<Index>...};
  return decoders[index](parameters);
}

} // namespace

Decoded<ComputerUseIPCAction> ComputerUseIPCAction::fromJSON(const nlohmann::json &json) {
  const nlohmann::json *object;
  TAVIX_TRY(object, decoding::object(json, "ComputerUseIPCAction"));
  // Only the keys that name a case count; others are ignored, as in every record.
  std::optional<size_t> found;
  nlohmann::json::const_iterator payload;
  for (auto it = object->begin(); it != object->end(); ++it) {
    for (size_t index = 0; index < caseNames.size(); ++index) {
      if (caseNames[index] != it.key())
        continue;
      if (found)
        return decoding::fail("Invalid number of keys found, expected one.");
      found = index;
      payload = it;
    }
  }
  if (!found)
    return decoding::fail("Invalid number of keys found, expected one.");
  const nlohmann::json *wrapper;
  TAVIX_TRY(wrapper, decoding::object(payload.value(), payload.key()));
  const auto parameters = wrapper->find("_0");
  if (parameters == wrapper->end())
    return decoding::fail("Missing required key \"_0\"");
  return decodeCaseAt(*found, *parameters, std::make_index_sequence<std::variant_size_v<Params>>());
}

} // namespace tavix

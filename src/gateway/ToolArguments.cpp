#include "gateway/ToolArguments.h"

namespace tavix {
namespace {

// Sets the element index or the point of a click or scroll.
template <typename Params> void aim(Params &params, const ClickTarget &target) {
  if (const auto *index = std::get_if<int64_t>(&target)) {
    params.elementIndex = *index;
  } else {
    params.x = std::get<ClickPoint>(target).x;
    params.y = std::get<ClickPoint>(target).y;
  }
}

Parsed<ToolAction> validated(std::string app, ComputerUseIPCAction::Params params,
                             const ActionValidation &validation) {
  if (!validation)
    return tl::unexpected(validation.error());
  return ToolAction{std::move(app), {std::move(params)}};
}

const nlohmann::json *optionalText(const ToolArgumentsObject &arguments, std::string_view key) {
  const nlohmann::json *value = argument(arguments, key);
  return value != nullptr && value->is_string() ? value : nullptr;
}

} // namespace

Parsed<std::string> readGetAppStateArguments(const ToolArgumentsObject &arguments) {
  return requiredString("app", arguments);
}

Parsed<ToolAction> readClickArguments(const ToolArgumentsObject &arguments) {
  std::string app;
  TAVIX_TRY(app, requiredString("app", arguments));
  ClickTarget target;
  TAVIX_TRY(target, parseClickTarget("click", arguments));
  ClickParams params;
  TAVIX_TRY(params.clickCount, parseClickCount(argument(arguments, "click_count")));
  MouseButton button;
  TAVIX_TRY(button, parseMouseButton(argument(arguments, "mouse_button")));
  params.mouseButton = static_cast<int64_t>(button);
  aim(params, target);
  return validated(std::move(app), params, params.validate());
}

Parsed<ToolAction> readPerformSecondaryActionArguments(const ToolArgumentsObject &arguments) {
  std::string app;
  TAVIX_TRY(app, requiredString("app", arguments));
  PerformSecondaryActionParams params;
  TAVIX_TRY(params.elementIndex, parseRequiredElementIndex(argument(arguments, "element_index")));
  TAVIX_TRY(params.action, requiredString("action", arguments));
  return ToolAction{std::move(app), {params}};
}

Parsed<ToolAction> readSetValueArguments(const ToolArgumentsObject &arguments) {
  std::string app;
  TAVIX_TRY(app, requiredString("app", arguments));
  SetValueParams params;
  TAVIX_TRY(params.elementIndex, parseRequiredElementIndex(argument(arguments, "element_index")));
  // The empty text is a value too: it clears the field.
  const nlohmann::json *value = optionalText(arguments, "value");
  if (value == nullptr)
    return tl::unexpected(ToolError::missingRequiredArgument("value"));
  params.value = value->get<std::string>();
  return ToolAction{std::move(app), {std::move(params)}};
}

Parsed<ToolAction> readSelectTextArguments(const ToolArgumentsObject &arguments) {
  std::string app;
  TAVIX_TRY(app, requiredString("app", arguments));
  TextSelectionParams params;
  TAVIX_TRY(params.elementIndex, parseRequiredElementIndex(argument(arguments, "element_index")));
  TAVIX_TRY(params.text, requiredString("text", arguments));
  if (const auto *prefix = optionalText(arguments, "prefix"))
    params.prefix = prefix->get<std::string>();
  if (const auto *suffix = optionalText(arguments, "suffix"))
    params.suffix = suffix->get<std::string>();
  TAVIX_TRY(params.selection, parseTextSelectionMode(argument(arguments, "selection")));
  return ToolAction{std::move(app), {std::move(params)}};
}

Parsed<ToolAction> readScrollArguments(const ToolArgumentsObject &arguments) {
  std::string app;
  TAVIX_TRY(app, requiredString("app", arguments));
  const nlohmann::json *direction = optionalText(arguments, "direction");
  if (direction == nullptr)
    return tl::unexpected(ToolError::missingRequiredArgument("direction"));
  ClickTarget target;
  TAVIX_TRY(target, parseClickTarget("scroll", arguments));
  ScrollParams params;
  TAVIX_TRY(params.pages, parseScrollPages(argument(arguments, "pages")));
  ScrollDirection parsedDirection;
  TAVIX_TRY(parsedDirection, parseScrollDirection(direction->get_ref<const std::string &>()));
  params.direction = static_cast<int64_t>(parsedDirection);
  aim(params, target);
  return validated(std::move(app), params, params.validate());
}

Parsed<ToolAction> readDragArguments(const ToolArgumentsObject &arguments) {
  std::string app;
  TAVIX_TRY(app, requiredString("app", arguments));
  DragParams params;
  for (const auto &[key, target] : {std::pair{"from_x", &params.fromX}, std::pair{"from_y", &params.fromY},
                                    std::pair{"to_x", &params.toX}, std::pair{"to_y", &params.toY}}) {
    const auto value = parseOptionalDouble(argument(arguments, key));
    if (!value)
      return tl::unexpected(ToolError::missingRequiredArgument(key));
    *target = *value;
  }
  return ToolAction{std::move(app), {params}};
}

Parsed<ToolAction> readPressKeyArguments(const ToolArgumentsObject &arguments) {
  std::string app;
  TAVIX_TRY(app, requiredString("app", arguments));
  PressKeyParams params;
  TAVIX_TRY(params.key, requiredString("key", arguments));
  return ToolAction{std::move(app), {std::move(params)}};
}

Parsed<ToolAction> readPasteArguments(const ToolArgumentsObject &arguments) {
  std::string app;
  TAVIX_TRY(app, requiredString("app", arguments));
  PasteParams params;
  TAVIX_TRY(params.text, requiredString("text", arguments));
  TAVIX_TRY(params.format, parsePasteFormat(argument(arguments, "format")));
  const ActionValidation validation = params.validate();
  return validated(std::move(app), std::move(params), validation);
}

Parsed<ToolAction> readTypeTextArguments(const ToolArgumentsObject &arguments) {
  std::string app;
  TAVIX_TRY(app, requiredString("app", arguments));
  TypeTextParams params;
  TAVIX_TRY(params.text, requiredString("text", arguments));
  return ToolAction{std::move(app), {std::move(params)}};
}

ActionReader actionReader(std::string_view toolName) {
  static constexpr std::pair<std::string_view, ActionReader> readers[] = {
      {"click", readClickArguments},
      {"perform_secondary_action", readPerformSecondaryActionArguments},
      {"set_value", readSetValueArguments},
      {"select_text", readSelectTextArguments},
      {"scroll", readScrollArguments},
      {"drag", readDragArguments},
      {"press_key", readPressKeyArguments},
      {"type_text", readTypeTextArguments},
      {"paste", readPasteArguments},
  };
  for (const auto &[name, reader] : readers)
    if (name == toolName)
      return reader;
  return nullptr;
}

} // namespace tavix

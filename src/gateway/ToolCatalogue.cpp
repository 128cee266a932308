#include "gateway/ToolCatalogue.h"

#include <initializer_list>
#include <utility>

namespace tavix {
namespace {

using nlohmann::json;

// ---------------------------------------------------------------------------------------------
// Building blocks
// ---------------------------------------------------------------------------------------------

json property(const char *type, const char *description) {
  return json::object({{"type", type}, {"description", description}});
}

json stringProperty(const char *description) { return property("string", description); }
json integerProperty(const char *description) { return property("integer", description); }

// Coordinates are declared as "number", not "integer", on purpose; the argument parser decides
// which values it actually accepts.
json numberProperty(const char *description) { return property("number", description); }

json stringList(std::initializer_list<const char *> values) {
  json list = json::array();
  for (const char *value : values) {
    list.push_back(value);
  }
  return list;
}

json withEnum(json schema, std::initializer_list<const char *> values) {
  schema["enum"] = stringList(values);
  return schema;
}

// The computer-use tools declare every argument they take: "additionalProperties": false.
json closedSchema(json properties, std::initializer_list<const char *> required) {
  return json::object({{"type", "object"},
                       {"properties", std::move(properties)},
                       {"required", stringList(required)},
                       {"additionalProperties", false}});
}

// The computer-use tools without arguments still carry "properties": {} and no "required".
json closedSchema() {
  return json::object(
      {{"type", "object"}, {"properties", json::object()}, {"additionalProperties", false}});
}

// The record-and-replay tools tolerate extra arguments and declare nothing required.
json openSchema(json properties = json::object()) {
  return json::object({{"type", "object"},
                       {"properties", std::move(properties)},
                       {"additionalProperties", true}});
}

// Behaviour hints shown to the client next to each tool.
struct Hints {
  bool readOnly;
  bool destructive;
  bool idempotent;
  bool openWorld;
};

constexpr Hints kObserves{true, false, true, false}; // reads state, safe to repeat
constexpr Hints kActs{false, false, false, false};   // changes state, not safe to repeat
constexpr Hints kSettles{false, false, true, false}; // changes state, repeating is harmless

json annotations(Hints hints) {
  return json::object({{"readOnlyHint", hints.readOnly},
                        {"destructiveHint", hints.destructive},
                        {"idempotentHint", hints.idempotent},
                        {"openWorldHint", hints.openWorld}});
}

json tool(const char *name, const char *description, json inputSchema, Hints hints) {
  return json::object({{"name", name},
                       {"description", description},
                       {"inputSchema", std::move(inputSchema)},
                       {"annotations", annotations(hints)}});
}

// ---------------------------------------------------------------------------------------------
// Shared argument texts
// ---------------------------------------------------------------------------------------------

// Two wordings of the "app" argument stand side by side on purpose: get_app_state and click use
// the long form, every other tool the short one. Likewise click, select_text and the rest each
// word element_index their own way. Each text belongs to its tool; do not unify them.
constexpr const char *kAppLong = "App name, full app path, or unambiguous bundle identifier";
constexpr const char *kAppShort = "App name or bundle identifier";

// element_index is declared as a JSON string on purpose: the model is to send "7", not 7. The
// argument parser decides what it actually accepts.
json elementIndex(const char *description) { return stringProperty(description); }

// ---------------------------------------------------------------------------------------------
// Computer-use tools
// ---------------------------------------------------------------------------------------------

json listApps() {
  return tool("list_apps",
              "List the apps on this computer. Returns the set of apps that are currently "
              "running, as well as any that have been used in the last 14 days, including "
              "details on usage frequency",
              closedSchema(), kObserves);
}

json getAppState() {
  return tool("get_app_state",
              "Start an app use session if needed, then get the state of the app's key window "
              "and return a screenshot and accessibility tree. This must be called once per "
              "assistant turn before interacting with the app",
              closedSchema(json::object({{"app", stringProperty(kAppLong)}}), {"app"}),
              kObserves);
}

json click() {
  // Whether an index or a point was given is checked by the argument parser, not the schema.
  json properties = json::object({
      {"app", stringProperty(kAppLong)},
      {"element_index", elementIndex("Element index to click")},
      {"x", numberProperty("X coordinate in screenshot pixel coordinates")},
      {"y", numberProperty("Y coordinate in screenshot pixel coordinates")},
      {"click_count", integerProperty("Number of clicks. Defaults to 1")},
      {"mouse_button", withEnum(stringProperty("Mouse button to click. Defaults to left."),
                                {"left", "right", "middle"})},
  });
  return tool("click", "Click an element by index or pixel coordinates from screenshot",
              closedSchema(std::move(properties), {"app"}), kActs);
}

json performSecondaryAction() {
  json properties = json::object({
      {"app", stringProperty(kAppShort)},
      {"element_index", elementIndex("Element identifier")},
      {"action", stringProperty("Secondary accessibility action name")},
  });
  return tool("perform_secondary_action",
              "Invoke a secondary accessibility action exposed by an element",
              closedSchema(std::move(properties), {"app", "element_index", "action"}), kActs);
}

json setValue() {
  json properties = json::object({
      {"app", stringProperty(kAppShort)},
      {"element_index", elementIndex("Element identifier")},
      {"value", stringProperty("Value to assign")},
  });
  return tool("set_value", "Set the value of a settable accessibility element",
              closedSchema(std::move(properties), {"app", "element_index", "value"}), kActs);
}

json selectText() {
  json properties = json::object({
      {"app", stringProperty(kAppShort)},
      {"element_index", elementIndex("Text element identifier")},
      {"text", stringProperty("Target text as shown in the accessibility tree")},
      {"prefix", stringProperty("Optional text immediately before the target, used to "
                                "disambiguate repeated matches")},
      {"suffix", stringProperty("Optional text immediately after the target, used to "
                                "disambiguate repeated matches")},
      {"selection", withEnum(stringProperty("Whether to select the text or place the cursor "
                                            "before or after it. Defaults to text."),
                             {"text", "cursor_before", "cursor_after"})},
  });
  return tool("select_text",
              "Select text inside a text element, or place the text cursor before or after it. "
              "Provide text exactly as it appears in the accessibility tree, including any "
              "Markdown formatting. If the text is not unique, provide surrounding prefix or "
              "suffix text to disambiguate it.",
              closedSchema(std::move(properties), {"app", "element_index", "text"}), kActs);
}

json scroll() {
  // "direction" has no enum on purpose: the argument parser checks the four words.
  json properties = json::object({
      {"app", stringProperty(kAppShort)},
      {"element_index", elementIndex("Element identifier")},
      {"x", numberProperty("X coordinate in the latest app screenshot; requires y when "
                           "element_index is omitted")},
      {"y", numberProperty("Y coordinate in the latest app screenshot; requires x when "
                           "element_index is omitted")},
      {"direction", stringProperty("Scroll direction: up, down, left, or right")},
      {"pages", numberProperty("Number of pages to scroll. Fractional values are supported. "
                               "Defaults to 1")},
  });
  return tool("scroll",
              "Scroll at an element or screenshot coordinates by a number of pages. Provide "
              "element_index or both x and y; element_index takes precedence.",
              closedSchema(std::move(properties), {"app", "direction"}), kActs);
}

json drag() {
  json properties = json::object({
      {"app", stringProperty(kAppShort)},
      {"from_x", numberProperty("Start X coordinate")},
      {"from_y", numberProperty("Start Y coordinate")},
      {"to_x", numberProperty("End X coordinate")},
      {"to_y", numberProperty("End Y coordinate")},
  });
  return tool("drag", "Drag from one point to another using pixel coordinates",
              closedSchema(std::move(properties), {"app", "from_x", "from_y", "to_x", "to_y"}),
              kActs);
}

json pressKey() {
  json properties = json::object({
      {"app", stringProperty(kAppShort)},
      {"key", stringProperty("Key or key combination to press")},
  });
  return tool("press_key",
              "Press a key or key-combination on the keyboard, including modifier and "
              "navigation keys.\n"
              "  - This supports xdotool's `key` syntax.\n"
              "  - Examples: \"a\", \"Return\", \"Tab\", \"super+c\", \"Up\", \"KP_0\" (for the "
              "numpad 0 key).",
              closedSchema(std::move(properties), {"app", "key"}), kActs);
}

json paste() {
  // The only property in either catalogue with a default, and "format" alone goes without a
  // description.
  json text = stringProperty("Content to paste");
  text["minLength"] = 1;
  json format = withEnum(json::object({{"type", "string"}}), {"text", "md", "html"});
  format["default"] = "text";
  json properties = json::object({
      {"app", stringProperty(kAppShort)},
      {"text", std::move(text)},
      {"format", std::move(format)},
  });
  return tool("paste",
              "Paste text, Markdown, or HTML into the app's current input focus using the "
              "clipboard. Select the intended target first. Restores the previous clipboard "
              "unless another operation has changed it; verify the app state after pasting.",
              closedSchema(std::move(properties), {"app", "text"}), kActs);
}

json typeText() {
  json properties = json::object({
      {"app", stringProperty(kAppShort)},
      {"text", stringProperty("Literal text to type")},
  });
  return tool("type_text", "Type literal text using keyboard input",
              closedSchema(std::move(properties), {"app", "text"}), kActs);
}

// ---------------------------------------------------------------------------------------------
// Record-and-replay tools (no property descriptions, nothing required)
// ---------------------------------------------------------------------------------------------

json eventStreamStart() {
  json duration = json::object({{"type", "integer"}, {"minimum", 1}, {"maximum", 3600}});
  json screenshots = withEnum(json::object({{"type", "string"}}),
                              {"off", "window_changes", "interaction_settled"});
  json properties = json::object({
      {"max_duration_seconds", std::move(duration)},
      {"screenshot_mode", std::move(screenshots)},
  });
  return tool("event_stream_start",
              "Ask the user for approval, then record their Mac interactions for a reusable "
              "workflow.",
              openSchema(std::move(properties)), kActs);
}

json eventStreamStatus() {
  return tool("event_stream_status",
              "Return the active or most recently ended Record & Replay session status.",
              openSchema(), kObserves);
}

json eventStreamStop() {
  return tool("event_stream_stop", "Stop the active recording and finalize its event stream.",
              openSchema(), kSettles);
}

// ---------------------------------------------------------------------------------------------
// Catalogues, each built once (function-local statics give thread-safe one-time set-up)
// ---------------------------------------------------------------------------------------------

const json &computerUseCatalogue() {
  static const json catalogue = json::array({
      listApps(),
      getAppState(),
      click(),
      performSecondaryAction(),
      setValue(),
      selectText(),
      scroll(),
      drag(),
      pressKey(),
      paste(),
      typeText(),
  });
  return catalogue;
}

const json &recordReplayCatalogue() {
  static const json catalogue = json::array({
      eventStreamStart(),
      eventStreamStatus(),
      eventStreamStop(),
  });
  return catalogue;
}

} // namespace

const nlohmann::json &toolDefinitions(MCPServerMode mode) {
  switch (mode) {
  case MCPServerMode::computerUse:
    return computerUseCatalogue();
  case MCPServerMode::recordReplay:
    return recordReplayCatalogue();
  }
  return computerUseCatalogue(); // only for a value outside the enumeration
}

} // namespace tavix

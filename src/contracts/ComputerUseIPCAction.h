#pragma once
// One input action for the runtime app to perform on an app, and the records of its
// parameters. On the wire an action is a one-key object naming its case, whose value holds
// the parameters under "_0": {"pressKey":{"_0":{"key":"return"}}}.

#include "contracts/ContractDecoding.h"
#include "contracts/ToolError.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>

namespace tavix {

using ActionValidation = tl::expected<void, ToolError>;

struct ClickParams {
  std::optional<int64_t> elementIndex;
  std::optional<double> x;
  std::optional<double> y;
  int64_t clickCount = 1;
  int64_t mouseButton = 0; // 0 left, 1 right, 2 middle

  ActionValidation validate() const;
  using R = ClickParams;
  static constexpr auto fields = std::make_tuple(
      field("elementIndex", &R::elementIndex),
      field("x", &R::x),
      field("y", &R::y),
      field("clickCount", &R::clickCount),
      field("mouseButton", &R::mouseButton));
  TAVIX_RECORD_JSON(ClickParams);
};

struct ScrollParams {
  std::optional<int64_t> elementIndex;
  std::optional<double> x;
  std::optional<double> y;
  int64_t direction = 0; // 0 up, 1 down, 2 left, 3 right
  double pages = 1;

  ActionValidation validate() const;
  using R = ScrollParams;
  static constexpr auto fields = std::make_tuple(
      field("elementIndex", &R::elementIndex),
      field("x", &R::x),
      field("y", &R::y),
      field("direction", &R::direction),
      field("pages", &R::pages));
  TAVIX_RECORD_JSON(ScrollParams);
};

struct DragParams {
  double fromX = 0, fromY = 0, toX = 0, toY = 0;

  using R = DragParams;
  static constexpr auto fields = std::make_tuple(
      field("fromX", &R::fromX),
      field("fromY", &R::fromY),
      field("toX", &R::toX),
      field("toY", &R::toY));
  TAVIX_RECORD_JSON(DragParams);
};

struct TypeTextParams {
  std::string text;

  using R = TypeTextParams;
  static constexpr auto fields = std::make_tuple(
      field("text", &R::text));
  TAVIX_RECORD_JSON(TypeTextParams);
};

enum class PasteFormat { text, md, html };
template <> struct RawValues<PasteFormat> {
  static constexpr std::array<std::string_view, 3> names = {"text", "md", "html"};
};

struct PasteParams {
  static constexpr size_t maxTextBytes = 4000000;
  std::string text;
  PasteFormat format = PasteFormat::text;

  ActionValidation validate() const;
  using R = PasteParams;
  static constexpr auto fields = std::make_tuple(
      field("text", &R::text),
      field("format", &R::format));
  TAVIX_RECORD_JSON(PasteParams);
};

struct PressKeyParams {
  std::string key;

  using R = PressKeyParams;
  static constexpr auto fields = std::make_tuple(
      field("key", &R::key));
  TAVIX_RECORD_JSON(PressKeyParams);
};

struct SetValueParams {
  int64_t elementIndex = 0;
  std::string value;

  using R = SetValueParams;
  static constexpr auto fields = std::make_tuple(
      field("elementIndex", &R::elementIndex),
      field("value", &R::value));
  TAVIX_RECORD_JSON(SetValueParams);
};

enum class TextSelectionMode { text, cursorBefore, cursorAfter };
template <> struct RawValues<TextSelectionMode> {
  static constexpr std::array<std::string_view, 3> names = {"text", "cursor_before", "cursor_after"};
};

struct TextSelectionParams {
  int64_t elementIndex = 0;
  std::string text;
  std::optional<std::string> prefix;
  std::optional<std::string> suffix;
  TextSelectionMode selection = TextSelectionMode::text;

  using R = TextSelectionParams;
  static constexpr auto fields = std::make_tuple(
      field("elementIndex", &R::elementIndex),
      field("text", &R::text),
      field("prefix", &R::prefix),
      field("suffix", &R::suffix),
      field("selection", &R::selection));
  TAVIX_RECORD_JSON(TextSelectionParams);
};

struct PerformSecondaryActionParams {
  int64_t elementIndex = 0;
  std::optional<std::string> action;

  using R = PerformSecondaryActionParams;
  static constexpr auto fields = std::make_tuple(
      field("elementIndex", &R::elementIndex),
      field("action", &R::action));
  TAVIX_RECORD_JSON(PerformSecondaryActionParams);
};

struct ComputerUseIPCAction {
  // In case order: click, scroll, drag, typeText, paste, pressKey, setValue, selectText,
  // performSecondaryAction.
  using Params = std::variant<ClickParams, ScrollParams, DragParams, TypeTextParams, PasteParams,
                              PressKeyParams, SetValueParams, TextSelectionParams,
                              PerformSecondaryActionParams>;
  static constexpr std::array<std::string_view, 9> caseNames = {
      "click",   "scroll",   "drag",       "typeText",           "paste",
      "pressKey", "setValue", "selectText", "performSecondaryAction"};

  Params params;

  std::string_view caseName() const { return caseNames[params.index()]; }
  nlohmann::json toJSON() const;
  static Decoded<ComputerUseIPCAction> fromJSON(const nlohmann::json &json);
  friend bool operator==(const ComputerUseIPCAction &, const ComputerUseIPCAction &) = default;
};

} // namespace tavix

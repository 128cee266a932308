#include "runtime/VirtualAppActions.h"

#include "runtime/BitmapFont.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <string_view>

namespace tavix::runtime {
namespace {

using Kind = ComputerUseFailure::Kind;

tl::unexpected<ActionFailure> rejected(const ToolError &error) {
  return tl::unexpected(ActionFailure{error.failure(), error.description()});
}

std::string number(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%g", value);
  return text;
}

std::string point(double x, double y) { return "(" + number(x) + ", " + number(y) + ")"; }

// A text for a message: quoted, and cut short when long, since a paste may be megabytes.
std::string inQuotes(std::string_view text) {
  constexpr size_t shown = 60;
  if (text.size() <= shown)
    return "\"" + std::string(text) + "\"";
  size_t cut = shown;
  while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80)
    --cut;
  return "\"" + std::string(text.substr(0, cut)) + "...\"";
}

std::string lowercase(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return lower;
}

std::string joined(const std::vector<std::string> &names) {
  std::string text;
  for (const auto &name : names)
    text += (text.empty() ? "" : ", ") + name;
  return text;
}

tl::expected<size_t, ActionFailure> elementAt(const VirtualApp &app, double x, double y) {
  if (const auto hit = app.hitTest(x, y))
    return *hit;
  return actionFailed(Kind::invalidArgument, "The point " + point(x, y) + " is outside the " + app.name() +
                                                 " window, which is " + std::to_string(app.width()) + " by " +
                                                 std::to_string(app.height()) + " pixels.");
}

tl::expected<size_t, ActionFailure> focusedField(const VirtualApp &app) {
  if (const auto focused = app.focused(); focused && app.element(*focused).isEditable())
    return *focused;
  return actionFailed(Kind::invalidArgument,
                      "No text field in " + app.name() + " has keyboard focus: click one first.");
}

void selectRow(VirtualApp &app, size_t row) {
  const size_t list = app.element(row).listElement;
  app.element(list).list->selected = app.rowItem(row);
  app.focus(std::nullopt);
}

// ---- click ----

ActionOutcome click(VirtualApp &app, const ClickParams &params) {
  if (auto valid = params.validate(); !valid)
    return rejected(valid.error());
  const auto index = params.elementIndex ? app.target(*params.elementIndex) : elementAt(app, *params.x, *params.y);
  if (!index)
    return tl::unexpected(index.error());
  const std::string where = params.elementIndex ? "" : " at " + point(*params.x, *params.y);
  VirtualElement &element = app.element(*index);
  if (params.mouseButton == 1) {
    // A right click opens the element's menu of secondary actions; the menu is its list.
    if (element.secondaryActions.empty())
      return "Right-clicked " + app.describe(*index) + where + ": it has no secondary actions.";
    return "Right-clicked " + app.describe(*index) + where + ": its secondary actions are " +
           joined(element.secondaryActions) + ".";
  }
  const std::string described = app.describe(*index);
  if (element.isEditable()) {
    app.focus(*index);
    if (params.clickCount >= 2)
      element.text->selectAll();
    else
      element.text->moveToEnd();
  } else if (element.role == ElementRole::button) {
    for (int64_t press = 0; press < std::min(params.clickCount, VirtualAppActions::maximumPresses); ++press)
      app.press(*index);
  } else if (element.role == ElementRole::row) {
    selectRow(app, *index);
  } else {
    app.focus(std::nullopt);
  }
  const std::string times = params.clickCount > 1 ? " " + std::to_string(params.clickCount) + " times" : "";
  return "Clicked " + described + where + times + ".";
}

// ---- scroll ----

ActionOutcome scroll(VirtualApp &app, const ScrollParams &params) {
  if (auto valid = params.validate(); !valid)
    return rejected(valid.error());
  const auto index = params.elementIndex ? app.target(*params.elementIndex) : elementAt(app, *params.x, *params.y);
  if (!index)
    return tl::unexpected(index.error());
  const VirtualElement &hit = app.element(*index);
  if (hit.role != ElementRole::list && hit.role != ElementRole::row)
    return actionFailed(Kind::invalidElement, app.describe(*index) + " does not scroll; only lists do.");
  const size_t listIndex = hit.role == ElementRole::list ? *index : hit.listElement;
  ListContent &list = *app.element(listIndex).list;
  const std::string name = "the list \"" + app.element(listIndex).title + "\"";
  if (params.direction > 1)
    return actionFailed(Kind::invalidArgument, "Cannot scroll " + name + " sideways: it scrolls up and down.");
  const bool down = params.direction == 1;
  const auto rows = static_cast<size_t>(
      std::max<long long>(1, std::llround(params.pages * static_cast<double>(list.visibleRows))));
  const size_t before = list.offset;
  list.offset = down ? std::min(list.maxOffset(), list.offset + rows) : list.offset - std::min(list.offset, rows);
  if (list.offset == before)
    return "Did not scroll: " + name + " is already at the " + (down ? "bottom." : "top.");
  const size_t last = std::min(list.items.size(), list.offset + list.visibleRows);
  return std::string("Scrolled ") + name + (down ? " down" : " up") + ": it shows items " +
         std::to_string(list.offset + 1) + " to " + std::to_string(last) + " of " +
         std::to_string(list.items.size()) + ".";
}

// ---- drag ----

ActionOutcome drag(VirtualApp &app, const DragParams &params) {
  const auto from = elementAt(app, params.fromX, params.fromY);
  if (!from)
    return tl::unexpected(from.error());
  const auto to = elementAt(app, params.toX, params.toY);
  if (!to)
    return tl::unexpected(to.error());
  const VirtualElement &source = app.element(*from);
  const VirtualElement &destination = app.element(*to);
  if (source.role != ElementRole::row)
    return actionFailed(Kind::invalidArgument, "Nothing to drag at " + point(params.fromX, params.fromY) +
                                                   ": only the rows of a list can be dragged.");
  if (destination.role != ElementRole::row || destination.listElement != source.listElement)
    return actionFailed(Kind::invalidArgument, "A row can only be dropped onto another row of its own list, not onto " +
                                                   app.describe(*to) + ".");
  ListContent &list = *app.element(source.listElement).list;
  const size_t fromItem = *app.rowItem(*from), toItem = *app.rowItem(*to);
  std::string moved = std::move(list.items[fromItem]);
  list.items.erase(list.items.begin() + static_cast<std::ptrdiff_t>(fromItem));
  list.items.insert(list.items.begin() + static_cast<std::ptrdiff_t>(toItem), moved);
  list.selected = toItem;
  return "Moved " + inQuotes(moved) + " from position " + std::to_string(fromItem + 1) + " to position " +
         std::to_string(toItem + 1) + " of the list \"" + app.element(source.listElement).title + "\".";
}

// ---- typing and pasting ----

ActionOutcome typeText(VirtualApp &app, const TypeTextParams &params) {
  if (params.text.empty())
    return actionFailed(Kind::invalidArgument, "There is no text to type.");
  const auto field = focusedField(app);
  if (!field)
    return tl::unexpected(field.error());
  app.element(*field).text->insert(params.text);
  return "Typed " + std::to_string(BitmapFont::characterCount(params.text)) + " characters into " +
         app.describe(*field) + ".";
}

ActionOutcome paste(VirtualApp &app, const PasteParams &params) {
  if (auto valid = params.validate(); !valid)
    return rejected(valid.error());
  const auto field = focusedField(app);
  if (!field)
    return tl::unexpected(field.error());
  app.element(*field).text->insert(params.text);
  return "Pasted " + std::to_string(params.text.size()) + " bytes of " + std::string(rawValue(params.format)) +
         " into " + app.describe(*field) + ".";
}

// ---- keys ----

struct KeyChord {
  bool command = false; // Control, Command or Super
  std::string key;      // lower-case when it is a named key
};

tl::expected<KeyChord, ActionFailure> parseChord(std::string_view text) {
  const auto unknown = [&] {
    return actionFailed(Kind::keyNotFound, "Unknown key " + inQuotes(text) +
                                               ": use a key name such as Return, BackSpace, Tab, Left or "
                                               "Escape, or a single character.");
  };
  KeyChord chord;
  std::string_view rest = text;
  // "+" separates modifiers, except as the last character, where it is the key itself.
  for (size_t plus = 0; rest.size() > 1 && (plus = rest.find('+')) != std::string_view::npos;) {
    const std::string modifier = lowercase(rest.substr(0, plus));
    if (modifier == "ctrl" || modifier == "control" || modifier == "cmd" || modifier == "command" ||
        modifier == "super" || modifier == "meta")
      chord.command = true;
    else if (modifier != "shift")
      return unknown();
    rest.remove_prefix(plus + 1);
  }
  if (rest.empty())
    return unknown();
  static constexpr std::string_view named[] = {"backspace", "delete", "return", "enter", "kp_enter", "tab",
                                               "left",      "right",  "home",   "end",   "escape",   "space"};
  const std::string lower = lowercase(rest);
  if (std::find(std::begin(named), std::end(named), lower) != std::end(named))
    chord.key = lower == "enter" || lower == "kp_enter" ? "return" : lower;
  else if (BitmapFont::characterCount(rest) == 1)
    chord.key = std::string(rest);
  else
    return unknown();
  return chord;
}

bool isCharacter(const KeyChord &chord) { return BitmapFont::characterCount(chord.key) == 1; }

ActionOutcome keyInField(VirtualApp &app, size_t field, const KeyChord &chord, const std::string &shown) {
  EditableText &text = *app.element(field).text;
  const std::string described = app.describe(field);
  const std::string &key = chord.key;
  if (chord.command) {
    if (lowercase(key) != "a")
      return actionFailed(Kind::keyNotFound, "The key " + inQuotes(shown) + " does nothing in " + described + ".");
    text.selectAll();
  } else if (key == "backspace") {
    text.deleteBackward();
  } else if (key == "delete") {
    text.deleteForward();
  } else if (key == "left") {
    text.moveLeft();
  } else if (key == "right") {
    text.moveRight();
  } else if (key == "home") {
    text.moveToStart();
  } else if (key == "end") {
    text.moveToEnd();
  } else if (key == "escape") {
    app.focus(std::nullopt);
  } else if (key == "tab") {
    app.focus(app.nextEditable(field));
  } else if (key == "return") {
    if (app.element(field).role == ElementRole::textArea)
      text.insert("\n");
    else if (const auto button = app.defaultButton())
      app.press(*button);
  } else {
    text.insert(key == "space" ? " " : key);
  }
  return "Pressed " + shown + " in " + described + ".";
}

ActionOutcome keyWithoutField(VirtualApp &app, const KeyChord &chord, const std::string &shown) {
  std::optional<size_t> button;
  if (chord.command)
    return actionFailed(Kind::keyNotFound, "The key " + inQuotes(shown) + " does nothing in " + app.name() + ".");
  if (chord.key == "tab") {
    if (const auto next = app.nextEditable(std::nullopt)) {
      app.focus(next);
      return "Pressed Tab: " + app.describe(*next) + " has keyboard focus.";
    }
  } else if (chord.key == "escape") {
    return "Pressed Escape.";
  } else if (chord.key == "return") {
    button = app.defaultButton();
  } else if (isCharacter(chord)) {
    button = app.buttonTitled(chord.key);
  }
  if (!button)
    return actionFailed(Kind::invalidArgument, "The key " + inQuotes(shown) + " does nothing in " + app.name() +
                                                   ": no text field has keyboard focus and no button answers it.");
  app.press(*button);
  return "Pressed " + shown + ": it pressed " + app.describe(*button) + ".";
}

ActionOutcome pressKey(VirtualApp &app, const PressKeyParams &params) {
  const auto chord = parseChord(params.key);
  if (!chord)
    return tl::unexpected(chord.error());
  if (const auto field = focusedField(app))
    return keyInField(app, *field, *chord, params.key);
  return keyWithoutField(app, *chord, params.key);
}

// ---- values, selections, secondary actions ----

ActionOutcome setValue(VirtualApp &app, const SetValueParams &params) {
  const auto index = app.target(params.elementIndex);
  if (!index)
    return tl::unexpected(index.error());
  if (!app.element(*index).isEditable())
    return actionFailed(Kind::invalidElement, app.describe(*index) + " has no value that can be set.");
  app.element(*index).text->set(params.value);
  return "Set the value of " + app.describe(*index) + ".";
}

ActionOutcome selectText(VirtualApp &app, const TextSelectionParams &params) {
  const auto index = app.target(params.elementIndex);
  if (!index)
    return tl::unexpected(index.error());
  VirtualElement &element = app.element(*index);
  if (!element.isEditable())
    return actionFailed(Kind::invalidElement, app.describe(*index) + " has no text to select.");
  const std::string prefix = params.prefix.value_or(""), suffix = params.suffix.value_or("");
  const size_t found = element.text->value().find(prefix + params.text + suffix);
  if (found == std::string::npos)
    return actionFailed(Kind::invalidArgument, "The text " + inQuotes(prefix + params.text + suffix) +
                                                   " is not in " + app.describe(*index) + ".");
  const size_t start = found + prefix.size(), end = start + params.text.size();
  app.focus(*index);
  switch (params.selection) {
  case TextSelectionMode::text:
    element.text->select(start, end);
    return "Selected " + inQuotes(params.text) + " in " + app.describe(*index) + ".";
  case TextSelectionMode::cursorBefore:
    element.text->select(start, start);
    return "Put the cursor before " + inQuotes(params.text) + " in " + app.describe(*index) + ".";
  case TextSelectionMode::cursorAfter:
    element.text->select(end, end);
    return "Put the cursor after " + inQuotes(params.text) + " in " + app.describe(*index) + ".";
  }
  return "Selected nothing.";
}

void deleteRow(VirtualApp &app, size_t row) {
  ListContent &list = *app.element(app.element(row).listElement).list;
  const size_t item = *app.rowItem(row);
  list.items.erase(list.items.begin() + static_cast<std::ptrdiff_t>(item));
  if (list.selected && *list.selected == item)
    list.selected.reset();
  else if (list.selected && *list.selected > item)
    --*list.selected;
  list.offset = std::min(list.offset, list.maxOffset());
}

ActionOutcome secondaryAction(VirtualApp &app, const PerformSecondaryActionParams &params) {
  const auto index = app.target(params.elementIndex);
  if (!index)
    return tl::unexpected(index.error());
  VirtualElement &element = app.element(*index);
  const std::string described = app.describe(*index);
  if (element.secondaryActions.empty())
    return actionFailed(Kind::invalidSecondaryAction, described + " has no secondary actions.");
  const std::string requested = params.action.value_or(element.secondaryActions.front());
  const auto known = std::find_if(element.secondaryActions.begin(), element.secondaryActions.end(),
                                  [&](const std::string &name) { return lowercase(name) == lowercase(requested); });
  if (known == element.secondaryActions.end())
    return actionFailed(Kind::invalidSecondaryAction, described + " has no secondary action " + inQuotes(requested) +
                                                          "; it has " + joined(element.secondaryActions) + ".");
  const std::string action = *known;
  if (action == "Press") {
    app.press(*index);
  } else if (action == "Clear") {
    element.text->set("");
  } else if (action == "Select All") {
    app.focus(*index);
    element.text->selectAll();
  } else if (action == "Select") {
    selectRow(app, *index);
  } else if (action == "Delete") {
    deleteRow(app, *index);
  }
  return "Performed \"" + action + "\" on " + described + ".";
}

} // namespace

ActionOutcome VirtualAppActions::perform(VirtualApp &app, const ComputerUseIPCAction &action) {
  return std::visit(
      [&](const auto &params) -> ActionOutcome {
        using P = std::decay_t<decltype(params)>;
        if constexpr (std::is_same_v<P, ClickParams>)
          return click(app, params);
        else if constexpr (std::is_same_v<P, ScrollParams>)
          return scroll(app, params);
        else if constexpr (std::is_same_v<P, DragParams>)
          return drag(app, params);
        else if constexpr (std::is_same_v<P, TypeTextParams>)
          return typeText(app, params);
        else if constexpr (std::is_same_v<P, PasteParams>)
          return paste(app, params);
        else if constexpr (std::is_same_v<P, PressKeyParams>)
          return pressKey(app, params);
        else if constexpr (std::is_same_v<P, SetValueParams>)
          return setValue(app, params);
        else if constexpr (std::is_same_v<P, TextSelectionParams>)
          return selectText(app, params);
        else
          return secondaryAction(app, params);
      },
      action.params);
}

} // namespace tavix::runtime

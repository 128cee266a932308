#pragma once
// One element of a virtual app's window: what it is, where it is, and the state the
// actions change. A window's elements are kept in tree order, each with its depth, and
// an element's number in that order is its index in the app's state.

#include "runtime/EditableText.h"
#include "runtime/RgbImage.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavix::runtime {

enum class ElementRole { window, textField, textArea, button, staticText, list, row };

// The role as the app state names it: "text field", "button", …
std::string_view roleName(ElementRole role);

// The items of a scrollable list and which of them its rows show. The rows are elements
// of their own, a fixed number of them, so scrolling changes what they show and not the
// indices of anything.
struct ListContent {
  std::vector<std::string> items;
  size_t offset = 0; // the item in the first row
  size_t visibleRows = 0;
  std::optional<size_t> selected;

  size_t maxOffset() const { return items.size() > visibleRows ? items.size() - visibleRows : 0; }
};

struct VirtualElement {
  ElementRole role = ElementRole::staticText;
  std::string title;
  int depth = 0;
  Rect frame;
  std::optional<EditableText> text; // fields, text areas and static texts have a value
  std::optional<ListContent> list;  // lists
  size_t listElement = 0;           // rows: the index of their list
  size_t slot = 0;                  // rows: which of the list's rows, from the top
  std::vector<std::string> secondaryActions;

  bool isEditable() const { return role == ElementRole::textField || role == ElementRole::textArea; }
};

} // namespace tavix::runtime

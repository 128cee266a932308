#pragma once
// One app of the virtual desktop: a single window of elements in tree order, which of
// them has keyboard focus, and what its buttons do. The catalogue builds the apps; the
// actions change them through the operations here.

#include "runtime/ActionFailure.h"
#include "runtime/VirtualElement.h"

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavix::runtime {

class VirtualApp {
public:
  using ButtonBehaviour = std::function<void(VirtualApp &)>;

  // The window fills a screen of `width` by `height` pixels; element 0 is the window.
  // `windowID` names the window in requests; `iconColour` fills the app's icon.
  VirtualApp(std::string name, std::string bundleID, uint32_t windowID, std::string windowTitle, int width,
             int height, Rgb iconColour);
  VirtualApp(VirtualApp &&) = default;
  VirtualApp &operator=(VirtualApp &&) = default;
  // Behaviours may keep state of their own; a copy would share it.
  VirtualApp(const VirtualApp &) = delete;
  VirtualApp &operator=(const VirtualApp &) = delete;

  const std::string &name() const { return name_; }
  const std::string &bundleID() const { return bundleID_; }
  uint32_t windowID() const { return windowID_; }
  Rgb iconColour() const { return iconColour_; }
  int width() const { return elements_[0].frame.width; }
  int height() const { return elements_[0].frame.height; }
  const std::string &windowTitle() const { return elements_[0].title; }
  void setWindowTitle(std::string title) { elements_[0].title = std::move(title); }

  // Building: each returns the new element's index.
  size_t add(VirtualElement element);
  // A list and its rows, which lie one below the other inside its frame.
  size_t addList(std::string title, int depth, Rect frame, std::vector<std::string> items,
                 size_t visibleRows, std::vector<std::string> rowActions);
  void onPress(size_t button, ButtonBehaviour behaviour) { behaviours_[button] = std::move(behaviour); }
  // The button that Return presses when no text area has focus.
  void setDefaultButton(size_t button) { defaultButton_ = button; }

  const std::vector<VirtualElement> &elements() const { return elements_; }
  VirtualElement &element(size_t index) { return elements_.at(index); }
  const VirtualElement &element(size_t index) const { return elements_.at(index); }
  std::optional<size_t> focused() const { return focused_; }
  void focus(std::optional<size_t> index) { focused_ = index; }
  std::optional<size_t> defaultButton() const { return defaultButton_; }

  // Rows without an item to show are hidden; everything else is shown.
  bool isShown(size_t index) const;
  // The element an action names, when it exists and is shown.
  tl::expected<size_t, ActionFailure> target(int64_t index) const;
  // The topmost shown element under a point of the window, or nothing outside it.
  std::optional<size_t> hitTest(double x, double y) const;
  // The item a row shows.
  std::optional<size_t> rowItem(size_t row) const;
  // What an element is called: a row by its item, anything else by its title.
  std::string label(size_t index) const;
  // As `button "Save" (element 3)`, for confirmations and errors.
  std::string describe(size_t index) const;
  std::optional<size_t> buttonTitled(std::string_view title) const;
  // The next editable element after `index` in tree order, wrapping around.
  std::optional<size_t> nextEditable(std::optional<size_t> index) const;

  void press(size_t button);

private:
  std::string name_;
  std::string bundleID_;
  uint32_t windowID_;
  Rgb iconColour_;
  std::vector<VirtualElement> elements_;
  std::optional<size_t> focused_;
  std::optional<size_t> defaultButton_;
  std::map<size_t, ButtonBehaviour> behaviours_;
};

} // namespace tavix::runtime

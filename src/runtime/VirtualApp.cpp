#include "runtime/VirtualApp.h"

namespace tavix::runtime {

VirtualApp::VirtualApp(std::string name, std::string bundleID, uint32_t windowID, std::string windowTitle,
                       int width, int height, Rgb iconColour)
    : name_(std::move(name)), bundleID_(std::move(bundleID)), windowID_(windowID), iconColour_(iconColour) {
  VirtualElement window;
  window.role = ElementRole::window;
  window.title = std::move(windowTitle);
  window.frame = {0, 0, width, height};
  elements_.push_back(std::move(window));
}

size_t VirtualApp::add(VirtualElement element) {
  elements_.push_back(std::move(element));
  return elements_.size() - 1;
}

size_t VirtualApp::addList(std::string title, int depth, Rect frame, std::vector<std::string> items,
                           size_t visibleRows, std::vector<std::string> rowActions) {
  VirtualElement list;
  list.role = ElementRole::list;
  list.title = std::move(title);
  list.depth = depth;
  list.frame = frame;
  list.list = ListContent{std::move(items), 0, visibleRows, std::nullopt};
  const size_t listIndex = add(std::move(list));
  const int rowHeight = visibleRows == 0 ? 0 : (frame.height - 4) / static_cast<int>(visibleRows);
  for (size_t slot = 0; slot < visibleRows; ++slot) {
    VirtualElement row;
    row.role = ElementRole::row;
    row.depth = depth + 1;
    row.frame = {frame.x + 2, frame.y + 2 + static_cast<int>(slot) * rowHeight, frame.width - 4, rowHeight};
    row.listElement = listIndex;
    row.slot = slot;
    row.secondaryActions = rowActions;
    add(std::move(row));
  }
  return listIndex;
}

bool VirtualApp::isShown(size_t index) const {
  return index < elements_.size() && (elements_[index].role != ElementRole::row || rowItem(index));
}

tl::expected<size_t, ActionFailure> VirtualApp::target(int64_t index) const {
  if (index < 0 || static_cast<uint64_t>(index) >= elements_.size())
    return actionFailed(ComputerUseFailure::Kind::invalidElement,
                        "No element " + std::to_string(index) + " in " + name_ + ": its elements are 0 to " +
                            std::to_string(elements_.size() - 1) + ".");
  const auto at = static_cast<size_t>(index);
  if (!isShown(at))
    return actionFailed(ComputerUseFailure::Kind::invalidElement,
                        "Element " + std::to_string(index) + " of " + name_ +
                            " is an empty row that is not shown.");
  return at;
}

std::optional<size_t> VirtualApp::hitTest(double x, double y) const {
  if (!elements_[0].frame.contains(x, y))
    return std::nullopt;
  // Later elements in tree order lie on top of earlier ones.
  for (size_t index = elements_.size(); index-- > 0;)
    if (isShown(index) && elements_[index].frame.contains(x, y))
      return index;
  return 0;
}

std::optional<size_t> VirtualApp::rowItem(size_t row) const {
  const VirtualElement &element = elements_.at(row);
  if (element.role != ElementRole::row)
    return std::nullopt;
  const ListContent &content = *elements_.at(element.listElement).list;
  const size_t item = content.offset + element.slot;
  if (item >= content.items.size())
    return std::nullopt;
  return item;
}

std::string VirtualApp::label(size_t index) const {
  const VirtualElement &element = elements_.at(index);
  if (element.role == ElementRole::row) {
    const auto item = rowItem(index);
    return item ? elements_[element.listElement].list->items[*item] : std::string();
  }
  return element.title;
}

std::string VirtualApp::describe(size_t index) const {
  return std::string(roleName(elements_.at(index).role)) + " \"" + label(index) + "\" (element " +
         std::to_string(index) + ")";
}

std::optional<size_t> VirtualApp::buttonTitled(std::string_view title) const {
  for (size_t index = 0; index < elements_.size(); ++index)
    if (elements_[index].role == ElementRole::button && elements_[index].title == title)
      return index;
  return std::nullopt;
}

std::optional<size_t> VirtualApp::nextEditable(std::optional<size_t> index) const {
  const size_t count = elements_.size();
  const size_t start = index ? *index + 1 : 0;
  for (size_t step = 0; step < count; ++step) {
    const size_t candidate = (start + step) % count;
    if (elements_[candidate].isEditable())
      return candidate;
  }
  return std::nullopt;
}

void VirtualApp::press(size_t button) {
  if (const auto behaviour = behaviours_.find(button); behaviour != behaviours_.end())
    behaviour->second(*this);
}

} // namespace tavix::runtime

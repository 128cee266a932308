#include "runtime/EditableText.h"

#include <cstdint>

namespace tavix::runtime {
namespace {

bool isContinuation(char byte) { return (static_cast<uint8_t>(byte) & 0xC0) == 0x80; }

} // namespace

void EditableText::set(std::string value) {
  value_ = std::move(value);
  collapseTo(value_.size());
}

void EditableText::insert(std::string_view text) {
  const size_t start = selectionStart();
  value_.replace(start, selectionEnd() - start, text);
  collapseTo(start + text.size());
}

void EditableText::deleteBackward() {
  if (!hasSelection())
    anchor_ = previousBoundary(caret_);
  insert({});
}

void EditableText::deleteForward() {
  if (!hasSelection())
    anchor_ = nextBoundary(caret_);
  insert({});
}

void EditableText::moveLeft() { collapseTo(hasSelection() ? selectionStart() : previousBoundary(caret_)); }

void EditableText::moveRight() { collapseTo(hasSelection() ? selectionEnd() : nextBoundary(caret_)); }

void EditableText::moveToStart() { collapseTo(0); }

void EditableText::moveToEnd() { collapseTo(value_.size()); }

void EditableText::selectAll() {
  anchor_ = 0;
  caret_ = value_.size();
}

void EditableText::select(size_t start, size_t end) {
  anchor_ = start;
  caret_ = end;
}

size_t EditableText::previousBoundary(size_t position) const {
  if (position == 0)
    return 0;
  --position;
  while (position > 0 && isContinuation(value_[position]))
    --position;
  return position;
}

size_t EditableText::nextBoundary(size_t position) const {
  if (position >= value_.size())
    return value_.size();
  ++position;
  while (position < value_.size() && isContinuation(value_[position]))
    ++position;
  return position;
}

} // namespace tavix::runtime

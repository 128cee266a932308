#pragma once
// The text of a field the user can edit: its value, the caret and the selection, moved and
// edited the way keys and typing do. Positions are byte offsets into the UTF-8 value and
// always fall on character boundaries, so an edit never splits a character.

#include <cstddef>
#include <string>
#include <string_view>

namespace tavix::runtime {

class EditableText {
public:
  EditableText() = default;
  explicit EditableText(std::string value) : value_(std::move(value)), caret_(value_.size()), anchor_(caret_) {}

  const std::string &value() const { return value_; }
  size_t caret() const { return caret_; }
  // The selection runs between the anchor and the caret; empty when they meet.
  size_t selectionStart() const { return anchor_ < caret_ ? anchor_ : caret_; }
  size_t selectionEnd() const { return anchor_ < caret_ ? caret_ : anchor_; }
  bool hasSelection() const { return anchor_ != caret_; }

  // Replaces the whole value and puts the caret at its end.
  void set(std::string value);
  // Types `text` over the selection, leaving the caret after it.
  void insert(std::string_view text);
  // Deletes the selection, or else the character before (backspace) or after the caret.
  void deleteBackward();
  void deleteForward();
  void moveLeft();
  void moveRight();
  void moveToStart();
  void moveToEnd();
  void selectAll();
  // Selects [start, end); both must be character boundaries within the value.
  void select(size_t start, size_t end);

private:
  size_t previousBoundary(size_t position) const;
  size_t nextBoundary(size_t position) const;
  void collapseTo(size_t position) { caret_ = anchor_ = position; }

  std::string value_;
  size_t caret_ = 0;
  size_t anchor_ = 0;
};

} // namespace tavix::runtime

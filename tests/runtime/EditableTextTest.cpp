// Editing a field's text: each key's effect on the value, the caret and the selection,
// and that UTF-8 characters are never split.

#include "runtime/EditableText.h"

#include <gtest/gtest.h>

#include <functional>

namespace tavix::test {
namespace {

using runtime::EditableText;
using Edit = std::function<void(EditableText &)>;

TEST(EditableText, EditsAndMoves) {
  const std::tuple<std::string, Edit, std::string, size_t, size_t> rows[] = {
      // A new text has its caret at the end; insert at the caret, or over a selection.
      {"abc", [](EditableText &) {}, "abc", 3, 3},
      {"abc", [](EditableText &t) { t.moveLeft(); t.insert("X"); }, "abXc", 3, 3},
      {"abcdef", [](EditableText &t) { t.select(1, 4); t.insert("-"); }, "a-ef", 2, 2},
      // Backspace deletes the character before, nothing at the start, or a selection
      // given backwards; delete the character after, nothing at the end.
      {"abc", [](EditableText &t) { t.deleteBackward(); }, "ab", 2, 2},
      {"abc", [](EditableText &t) { t.moveToStart(); t.deleteBackward(); }, "abc", 0, 0},
      {"abcdef", [](EditableText &t) { t.select(4, 1); t.deleteBackward(); }, "aef", 1, 1},
      {"abc", [](EditableText &t) { t.moveToStart(); t.deleteForward(); }, "bc", 0, 0},
      {"abc", [](EditableText &t) { t.deleteForward(); }, "abc", 3, 3},
      // Whole two- and four-byte characters are deleted and stepped over.
      {"ab\xc3\xa9", [](EditableText &t) { t.deleteBackward(); }, "ab", 2, 2},
      {"a\xf0\x9f\x98\x80", [](EditableText &t) { t.deleteBackward(); }, "a", 1, 1},
      {"\xc3\xa9x", [](EditableText &t) { t.moveLeft(); t.moveLeft(); }, "\xc3\xa9x", 0, 0},
      {"\xe4\xb8\xad", [](EditableText &t) { t.moveToStart(); t.moveRight(); }, "\xe4\xb8\xad", 3, 3},
      // Left at the start and right at the end stay; either collapses a selection to its
      // own end.
      {"ab", [](EditableText &t) { t.moveToStart(); t.moveLeft(); }, "ab", 0, 0},
      {"ab", [](EditableText &t) { t.moveRight(); }, "ab", 2, 2},
      {"abcdef", [](EditableText &t) { t.select(2, 5); t.moveLeft(); }, "abcdef", 2, 2},
      {"abcdef", [](EditableText &t) { t.select(2, 5); t.moveRight(); }, "abcdef", 5, 5},
      // Select all; set replaces and puts the caret at the end.
      {"abc", [](EditableText &t) { t.selectAll(); }, "abc", 0, 3},
      {"abc", [](EditableText &t) { t.set("xy"); }, "xy", 2, 2},
  };
  int row = 0;
  for (const auto &[start, edit, value, selectionStart, selectionEnd] : rows) {
    SCOPED_TRACE(++row);
    EditableText text(start);
    edit(text);
    EXPECT_EQ(std::tuple(text.value(), text.selectionStart(), text.selectionEnd(), text.hasSelection()),
              std::tuple(value, selectionStart, selectionEnd, selectionStart != selectionEnd));
  }
}

} // namespace
} // namespace tavix::test

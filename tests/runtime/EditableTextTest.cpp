// Editing a field's text: each key's effect on the value, the caret and the selection,
// and that UTF-8 characters are never split.

#include "runtime/EditableText.h"

#include <gtest/gtest.h>

#include <functional>

namespace tavix::test {
namespace {

using runtime::EditableText;

struct Row {
  const char *name;
  std::string start;
  std::function<void(EditableText &)> edit;
  std::string value;
  size_t selectionStart, selectionEnd;
};

TEST(EditableText, EditsAndMoves) {
  const Row rows[] = {
      {"a new text has its caret at the end", "abc", [](EditableText &) {}, "abc", 3, 3},
      {"insert at the caret", "abc", [](EditableText &t) { t.moveLeft(); t.insert("X"); }, "abXc", 3, 3},
      {"insert over a selection", "abcdef", [](EditableText &t) { t.select(1, 4); t.insert("-"); }, "a-ef", 2, 2},
      {"backspace deletes the character before", "abc", [](EditableText &t) { t.deleteBackward(); }, "ab", 2, 2},
      {"backspace at the start does nothing", "abc",
       [](EditableText &t) { t.moveToStart(); t.deleteBackward(); }, "abc", 0, 0},
      {"backspace deletes a selection", "abcdef", [](EditableText &t) { t.select(4, 1); t.deleteBackward(); },
       "aef", 1, 1},
      {"delete removes the character after", "abc", [](EditableText &t) { t.moveToStart(); t.deleteForward(); },
       "bc", 0, 0},
      {"delete at the end does nothing", "abc", [](EditableText &t) { t.deleteForward(); }, "abc", 3, 3},
      {"backspace removes a whole two-byte character", "ab\xc3\xa9", [](EditableText &t) { t.deleteBackward(); },
       "ab", 2, 2},
      {"backspace removes a whole four-byte character", "a\xf0\x9f\x98\x80",
       [](EditableText &t) { t.deleteBackward(); }, "a", 1, 1},
      {"left steps over a whole character", "\xc3\xa9x", [](EditableText &t) { t.moveLeft(); t.moveLeft(); },
       "\xc3\xa9x", 0, 0},
      {"right steps over a whole character", "\xe4\xb8\xad", [](EditableText &t) { t.moveToStart(); t.moveRight(); },
       "\xe4\xb8\xad", 3, 3},
      {"left at the start stays", "ab", [](EditableText &t) { t.moveToStart(); t.moveLeft(); }, "ab", 0, 0},
      {"right at the end stays", "ab", [](EditableText &t) { t.moveRight(); }, "ab", 2, 2},
      {"left collapses a selection to its start", "abcdef", [](EditableText &t) { t.select(2, 5); t.moveLeft(); },
       "abcdef", 2, 2},
      {"right collapses a selection to its end", "abcdef", [](EditableText &t) { t.select(2, 5); t.moveRight(); },
       "abcdef", 5, 5},
      {"select all", "abc", [](EditableText &t) { t.selectAll(); }, "abc", 0, 3},
      {"set replaces and puts the caret at the end", "abc", [](EditableText &t) { t.set("xy"); }, "xy", 2, 2},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.name);
    EditableText text(row.start);
    row.edit(text);
    EXPECT_EQ(text.value(), row.value);
    EXPECT_EQ(text.selectionStart(), row.selectionStart);
    EXPECT_EQ(text.selectionEnd(), row.selectionEnd);
    EXPECT_EQ(text.hasSelection(), row.selectionStart != row.selectionEnd);
  }
}

} // namespace
} // namespace tavix::test

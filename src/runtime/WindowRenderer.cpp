#include "runtime/WindowRenderer.h"

#include "runtime/BitmapFont.h"

#include <algorithm>
#include <string_view>

namespace tavix::runtime {
namespace {

constexpr int scale = WindowRenderer::textScale;
constexpr int cellWidth = BitmapFont::cellWidth * scale;
constexpr int lineHeight = BitmapFont::cellHeight * scale + 2;
constexpr int padding = 6;

int textTop(const Rect &frame) { return frame.y + (frame.height - BitmapFont::glyphHeight * scale) / 2; }

// A field's label sits left of it, in the column the layouts keep free.
void drawLabel(RgbImage &image, const VirtualElement &element) {
  BitmapFont::draw(image, 12, element.frame.y + padding, element.title, WindowRenderer::ink, scale,
                   element.frame.x - 4);
}

// How many bytes of `value` from `firstByte` fill at most `columns` character cells.
size_t bytesForColumns(std::string_view value, size_t firstByte, size_t columns) {
  size_t at = firstByte;
  for (size_t count = 0; at < value.size(); ++at) {
    if ((static_cast<unsigned char>(value[at]) & 0xC0) == 0x80)
      continue; // the rest of a character already counted
    if (count == columns)
      break;
    ++count;
  }
  return at - firstByte;
}

void drawTextField(RgbImage &image, const VirtualElement &element, bool focused) {
  const Rect &frame = element.frame;
  image.fill(frame, WindowRenderer::fieldFill);
  image.outline(frame, focused ? WindowRenderer::focusBorder : WindowRenderer::border, focused ? 2 : 1);
  drawLabel(image, element);
  const EditableText &text = *element.text;
  const std::string_view value = text.value();
  const int left = frame.x + padding, right = frame.x + frame.width - padding;
  const int top = textTop(frame);
  const auto columnsBefore = [&](size_t byte) {
    return static_cast<int>(BitmapFont::characterCount(value.substr(0, byte)));
  };
  if (focused && text.hasSelection()) {
    const int from = left + columnsBefore(text.selectionStart()) * cellWidth;
    const int to = left + columnsBefore(text.selectionEnd()) * cellWidth;
    image.fill({from, top - 2, std::min(to, right) - from, BitmapFont::glyphHeight * scale + 4},
               WindowRenderer::textSelection);
  }
  // Only the first line of a single-line field's value shows.
  const size_t shown = bytesForColumns(value, 0, static_cast<size_t>((right - left) / cellWidth));
  BitmapFont::draw(image, left, top, value.substr(0, std::min(shown, value.find('\n'))), WindowRenderer::ink,
                   scale, right);
  if (focused && !text.hasSelection()) {
    const int caretX = left + columnsBefore(text.caret()) * cellWidth - 2;
    if (caretX < right)
      image.fill({caretX, top - 2, 2, BitmapFont::glyphHeight * scale + 4}, WindowRenderer::focusBorder);
  }
}

// A text area wraps its value at the frame's edge and shows the lines that fit, the rest
// of a long value unread.
void drawTextArea(RgbImage &image, const VirtualElement &element, bool focused) {
  const Rect &frame = element.frame;
  image.fill(frame, WindowRenderer::fieldFill);
  image.outline(frame, focused ? WindowRenderer::focusBorder : WindowRenderer::border, focused ? 2 : 1);
  drawLabel(image, element);
  const std::string_view value = element.text->value();
  const int left = frame.x + padding, right = frame.x + frame.width - padding;
  const auto columns = static_cast<size_t>(std::max(1, (right - left) / cellWidth));
  size_t at = 0;
  for (int y = frame.y + padding; y + lineHeight <= frame.y + frame.height && at < value.size(); y += lineHeight) {
    const size_t lineEnd = std::min(value.find('\n', at), value.size());
    const size_t length = std::min(bytesForColumns(value, at, columns), lineEnd - at);
    BitmapFont::draw(image, left, y, value.substr(at, length), WindowRenderer::ink, scale, right);
    at += length;
    if (at == lineEnd)
      ++at; // past the line break
  }
}

void drawButton(RgbImage &image, const VirtualElement &element) {
  const Rect &frame = element.frame;
  image.fill(frame, WindowRenderer::buttonFill);
  image.outline(frame, WindowRenderer::border);
  const int width = static_cast<int>(BitmapFont::characterCount(element.title)) * cellWidth - scale;
  BitmapFont::draw(image, frame.x + std::max(padding, (frame.width - width) / 2), textTop(frame), element.title,
                   WindowRenderer::ink, scale, frame.x + frame.width - 2);
}

void drawStaticText(RgbImage &image, const VirtualElement &element) {
  const Rect &frame = element.frame;
  BitmapFont::draw(image, frame.x + padding, textTop(frame), element.text->value(), WindowRenderer::ink, scale,
                   frame.x + frame.width);
}

void drawList(RgbImage &image, const VirtualElement &element) {
  image.fill(element.frame, WindowRenderer::fieldFill);
  image.outline(element.frame, WindowRenderer::border);
  drawLabel(image, element);
}

void drawRow(RgbImage &image, const VirtualApp &app, size_t index) {
  const VirtualElement &row = app.element(index);
  const auto item = app.rowItem(index);
  if (!item)
    return;
  const ListContent &list = *app.element(row.listElement).list;
  const bool selected = list.selected == item;
  if (selected)
    image.fill(row.frame, WindowRenderer::selectionFill);
  BitmapFont::draw(image, row.frame.x + padding, textTop(row.frame), list.items[*item],
                   selected ? WindowRenderer::selectedText : WindowRenderer::ink, scale,
                   row.frame.x + row.frame.width - padding);
}

} // namespace

RgbImage WindowRenderer::render(const VirtualApp &app) {
  RgbImage image(app.width(), app.height(), background);
  image.fill({0, 0, app.width(), titleBarHeight}, titleBar);
  BitmapFont::draw(image, 12, (titleBarHeight - BitmapFont::glyphHeight * scale) / 2, app.windowTitle(), titleText,
                   scale, app.width() - 12);
  for (size_t index = 1; index < app.elements().size(); ++index) {
    const VirtualElement &element = app.element(index);
    const bool focused = app.focused() == index;
    switch (element.role) {
    case ElementRole::textField:
      drawTextField(image, element, focused);
      break;
    case ElementRole::textArea:
      drawTextArea(image, element, focused);
      break;
    case ElementRole::button:
      drawButton(image, element);
      break;
    case ElementRole::staticText:
      drawStaticText(image, element);
      break;
    case ElementRole::list:
      drawList(image, element);
      break;
    case ElementRole::row:
      drawRow(image, app, index);
      break;
    case ElementRole::window:
      break;
    }
  }
  return image;
}

} // namespace tavix::runtime

#include "runtime/AppStateText.h"

#include <cstdio>

namespace tavix::runtime {
namespace {

// A value as the state shows it: whole up to this many bytes, else its start, cut at a
// character boundary, and its full size, so that a pasted document does not turn every
// state into megabytes.
constexpr size_t longestShownValue = 128 * 1024;

std::string shownValue(std::string_view value) {
  if (value.size() <= longestShownValue)
    return AppStateText::quoted(value);
  size_t cut = longestShownValue;
  while (cut > 0 && (static_cast<unsigned char>(value[cut]) & 0xC0) == 0x80)
    --cut;
  return AppStateText::quoted(value.substr(0, cut)) + " (cut; " + std::to_string(value.size()) + " bytes in all)";
}

std::string elementLine(const VirtualApp &app, size_t index) {
  const VirtualElement &element = app.element(index);
  std::string line(static_cast<size_t>(element.depth) * 2, ' ');
  line += std::to_string(index) + " " + std::string(roleName(element.role)) + " " +
          AppStateText::quoted(app.label(index));
  if (element.text)
    line += " value: " + shownValue(element.text->value());
  if (app.focused() == index) {
    const EditableText &text = *element.text;
    line += " (focused";
    line += text.hasSelection() ? ", selected bytes " + std::to_string(text.selectionStart()) + "-" +
                                      std::to_string(text.selectionEnd())
                                : ", cursor at byte " + std::to_string(text.caret());
    line += ")";
  }
  if (element.list) {
    const ListContent &list = *element.list;
    const size_t last = std::min(list.items.size(), list.offset + list.visibleRows);
    line += " (shows items " + std::to_string(list.items.empty() ? 0 : list.offset + 1) + "-" +
            std::to_string(last) + " of " + std::to_string(list.items.size());
    line += list.maxOffset() > 0 ? ", scrollable)" : ")";
  }
  if (element.role == ElementRole::row) {
    const ListContent &list = *app.element(element.listElement).list;
    if (list.selected == app.rowItem(index))
      line += " (selected)";
  }
  if (!element.secondaryActions.empty()) {
    line += " secondary actions: ";
    for (size_t at = 0; at < element.secondaryActions.size(); ++at)
      line += (at ? ", " : "") + element.secondaryActions[at];
  }
  return line;
}

} // namespace

std::string AppStateText::quoted(std::string_view value) {
  std::string text;
  text.reserve(value.size() + 2);
  text.push_back('"');
  for (char c : value) {
    switch (c) {
    case '"':
      text += "\\\"";
      break;
    case '\\':
      text += "\\\\";
      break;
    case '\n':
      text += "\\n";
      break;
    case '\t':
      text += "\\t";
      break;
    case '\r':
      text += "\\r";
      break;
    default:
      if (static_cast<unsigned char>(c) < 0x20) {
        char escaped[8];
        std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(c));
        text += escaped;
      } else {
        text.push_back(c);
      }
    }
  }
  text.push_back('"');
  return text;
}

std::string AppStateText::render(const VirtualApp &app) {
  std::string text = "<app_state>\n";
  text += "App: " + app.name() + "\n";
  text += "Bundle identifier: " + app.bundleID() + "\n";
  text += "Window: " + quoted(app.windowTitle()) + ", " + std::to_string(app.width()) + "x" +
          std::to_string(app.height()) + " pixels\n";
  text += "Focused element: " + (app.focused() ? std::to_string(*app.focused()) : std::string("none")) + "\n";
  text += "Elements:\n";
  for (size_t index = 0; index < app.elements().size(); ++index)
    if (app.isShown(index))
      text += elementLine(app, index) + "\n";
  text += "</app_state>";
  return text;
}

} // namespace tavix::runtime

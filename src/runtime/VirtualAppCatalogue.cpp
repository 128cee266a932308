#include "runtime/VirtualAppCatalogue.h"

#include <algorithm>
#include <cstdint>
#include <memory>

namespace tavix::runtime {
namespace {

// Where the controls start, right of their labels, and the margin around them.
constexpr int margin = 12;
constexpr int controlX = 96;
constexpr int rowHeight = 24;

VirtualElement element(ElementRole role, std::string title, Rect frame, int depth = 1) {
  VirtualElement made;
  made.role = role;
  made.title = std::move(title);
  made.frame = frame;
  made.depth = depth;
  return made;
}

VirtualElement editable(ElementRole role, std::string title, Rect frame) {
  VirtualElement made = element(role, std::move(title), frame);
  made.text = EditableText();
  made.secondaryActions = {"Clear", "Select All"};
  return made;
}

VirtualElement label(std::string title, std::string value, Rect frame) {
  VirtualElement made = element(ElementRole::staticText, std::move(title), frame);
  made.text = EditableText(std::move(value));
  return made;
}

VirtualElement button(std::string title, Rect frame) {
  VirtualElement made = element(ElementRole::button, std::move(title), frame);
  made.secondaryActions = {"Press"};
  return made;
}

// The calculator's arithmetic: whole numbers, one pending operation.
struct CalculatorState {
  int64_t accumulator = 0;
  char pending = 0;
  bool startNewNumber = true;
};

int64_t displayedNumber(const VirtualApp &app, size_t display) {
  try {
    return std::stoll(app.element(display).text->value());
  } catch (const std::exception &) {
    return 0; // after an overflow the display reads "Error"
  }
}

void setDisplay(VirtualApp &app, size_t display, std::string text) { app.element(display).text->set(std::move(text)); }

std::string applyOperation(int64_t left, char operation, int64_t right) {
  int64_t result = right;
  bool overflow = false;
  if (operation == '+')
    overflow = __builtin_add_overflow(left, right, &result);
  else if (operation == '-')
    overflow = __builtin_sub_overflow(left, right, &result);
  return overflow ? "Error" : std::to_string(result);
}

} // namespace

std::vector<VirtualApp> VirtualAppCatalogue::makeApps(int width, int height) {
  std::vector<VirtualApp> apps;
  apps.push_back(makeNotes(width, height));
  apps.push_back(makeCalculator(width, height));
  apps.push_back(makeFiles(width, height));
  return apps;
}

VirtualApp VirtualAppCatalogue::makeNotes(int width, int height) {
  VirtualApp app("Notes", "com.tavix.sim.notes", notesWindowID, "Notes - Untitled", width, height, {242, 192, 46});
  const int fieldWidth = width - controlX - margin;
  const int listHeight = 4 * rowHeight + 4;
  const int listY = height - margin - listHeight;
  const int buttonY = listY - margin - 28;
  const size_t title = app.add(editable(ElementRole::textField, "Title", {controlX, 44, fieldWidth, 28}));
  app.add(editable(ElementRole::textArea, "Body", {controlX, 80, fieldWidth, buttonY - margin - 80}));
  const size_t save = app.add(button("Save", {controlX, buttonY, 96, 28}));
  const size_t status =
      app.add(label("Status", "Not saved", {controlX + 108, buttonY, fieldWidth - 108, 28}));
  const size_t recent = app.addList("Recent notes", 1, {controlX, listY, fieldWidth, listHeight},
                                    {"Shopping list", "Meeting notes", "Holiday plans", "Book ideas",
                                     "Recipes", "Packing list", "Birthday gifts", "Garden tasks",
                                     "Reading list", "Workout plan", "Budget", "Quotes"},
                                    4, {"Select", "Delete"});
  app.setDefaultButton(save);
  // Saving counts, names the window after the note and puts the note at the top of the
  // recent ones: three visible changes from one press.
  auto saves = std::make_shared<int>(0);
  app.onPress(save, [=](VirtualApp &notes) {
    ++*saves;
    notes.element(status).text->set("Saved " + std::to_string(*saves) + (*saves == 1 ? " time" : " times"));
    const std::string &name = notes.element(title).text->value();
    const std::string shown = name.empty() ? "Untitled" : name;
    notes.setWindowTitle("Notes - " + shown);
    auto &items = notes.element(recent).list->items;
    items.insert(items.begin(), shown);
  });
  return app;
}

VirtualApp VirtualAppCatalogue::makeCalculator(int width, int height) {
  VirtualApp app("Calculator", "com.tavix.sim.calculator", calculatorWindowID, "Calculator", width, height,
                 {88, 88, 96});
  const size_t display = app.add(label("Display", "0", {margin, 44, width - 2 * margin, 40}));
  static constexpr const char *keys[] = {"7", "8", "9", "+", "4", "5", "6", "-",
                                         "1", "2", "3", "=", "0", "C"};
  auto state = std::make_shared<CalculatorState>();
  for (size_t at = 0; at < std::size(keys); ++at) {
    const int column = static_cast<int>(at % 4), line = static_cast<int>(at / 4);
    const std::string key = keys[at];
    const size_t index = app.add(button(key, {margin + column * 72, 96 + line * 48, 64, 40}));
    app.onPress(index, [=](VirtualApp &calculator) {
      if (key == "C") {
        *state = CalculatorState();
        setDisplay(calculator, display, "0");
      } else if (key == "+" || key == "-" || key == "=") {
        const int64_t shown = displayedNumber(calculator, display);
        const std::string result =
            state->pending ? applyOperation(state->accumulator, state->pending, shown) : std::to_string(shown);
        setDisplay(calculator, display, result);
        state->accumulator = displayedNumber(calculator, display);
        state->pending = key == "=" ? 0 : key[0];
        state->startNewNumber = true;
      } else {
        const std::string &current = calculator.element(display).text->value();
        const bool fresh = state->startNewNumber || current == "0" || current == "Error";
        // Fifteen digits keep every sum inside 64 bits but for the overflow check's sake.
        if (!fresh && current.size() >= 15)
          return;
        setDisplay(calculator, display, fresh ? key : current + key);
        state->startNewNumber = false;
      }
    });
    if (key == "=")
      app.setDefaultButton(index);
  }
  return app;
}

VirtualApp VirtualAppCatalogue::makeFiles(int width, int height) {
  VirtualApp app("Files", "com.tavix.sim.files", filesWindowID, "Files - Documents", width, height,
                 {30, 110, 220});
  const int fieldWidth = width - controlX - margin;
  app.add(editable(ElementRole::textField, "Search", {controlX, 44, fieldWidth, 28}));
  static constexpr const char *stems[] = {"report", "invoice", "letter", "photo"};
  static constexpr const char *extensions[] = {".txt", ".pdf", ".doc", ".png"};
  std::vector<std::string> files;
  for (size_t number = 1; number <= 24; ++number)
    files.push_back(std::string(stems[number % 4]) + (number < 10 ? "-0" : "-") + std::to_string(number) +
                    extensions[number % 4]);
  const size_t documents =
      app.addList("Documents", 1, {controlX, 80, fieldWidth, 6 * rowHeight + 4}, std::move(files), 6,
                  {"Select", "Delete"});
  const int buttonY = 80 + 6 * rowHeight + 4 + margin;
  const size_t open = app.add(button("Open", {controlX, buttonY, 96, 28}));
  const size_t status = app.add(label("Status", "No file open", {controlX + 108, buttonY, fieldWidth - 108, 28}));
  app.setDefaultButton(open);
  app.onPress(open, [=](VirtualApp &window) {
    const ListContent &content = *window.element(documents).list;
    if (!content.selected) {
      window.element(status).text->set("Select a file first");
      return;
    }
    const std::string &name = content.items[*content.selected];
    window.element(status).text->set("Opened " + name);
    window.setWindowTitle("Files - " + name);
  });
  return app;
}

} // namespace tavix::runtime

#pragma once
// Each tool's arguments read in the tool's own order, into the action it asks of the
// runtime app. The first failure ends the reading, so a call with several faults reports
// only the first, and nothing is sent for it.

#include "gateway/ArgumentParsers.h"

#include <string>

namespace tavix {

// One action for one app.
struct ToolAction {
  std::string app;
  ComputerUseIPCAction action;
  friend bool operator==(const ToolAction &, const ToolAction &) = default;
};

// get_app_state: the app alone.
Parsed<std::string> readGetAppStateArguments(const ToolArgumentsObject &arguments);

Parsed<ToolAction> readClickArguments(const ToolArgumentsObject &arguments);
Parsed<ToolAction> readPerformSecondaryActionArguments(const ToolArgumentsObject &arguments);
Parsed<ToolAction> readSetValueArguments(const ToolArgumentsObject &arguments);
Parsed<ToolAction> readSelectTextArguments(const ToolArgumentsObject &arguments);
Parsed<ToolAction> readScrollArguments(const ToolArgumentsObject &arguments);
Parsed<ToolAction> readDragArguments(const ToolArgumentsObject &arguments);
Parsed<ToolAction> readPressKeyArguments(const ToolArgumentsObject &arguments);
Parsed<ToolAction> readPasteArguments(const ToolArgumentsObject &arguments);
Parsed<ToolAction> readTypeTextArguments(const ToolArgumentsObject &arguments);

using ActionReader = Parsed<ToolAction> (*)(const ToolArgumentsObject &arguments);
// The reader of a tool that performs one action ("click" … "paste"); null for any other name.
ActionReader actionReader(std::string_view toolName);

} // namespace tavix

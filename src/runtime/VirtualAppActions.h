#pragma once
// What each action does to a virtual app: a click focuses a field or presses a button,
// typing and pasting edit the focused field, keys edit it or press buttons, a scroll moves
// a list, a drag reorders a list's rows, and so on. The answer is a short confirmation,
// or why nothing was done.

#include "contracts/ComputerUseIPCAction.h"
#include "runtime/ActionFailure.h"
#include "runtime/VirtualApp.h"

namespace tavix::runtime {

class VirtualAppActions {
public:
  // A button is pressed at most this many times by one click, however large its count.
  static constexpr int64_t maximumPresses = 10;

  static ActionOutcome perform(VirtualApp &app, const ComputerUseIPCAction &action);
};

} // namespace tavix::runtime

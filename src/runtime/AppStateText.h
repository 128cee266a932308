#pragma once
// The text form of an app's state that the model reads: the app, its window and its
// elements as an indented tree, one element a line with its index, role, title and value,
// between "<app_state>" and "</app_state>".

#include "runtime/VirtualApp.h"

#include <string>
#include <string_view>

namespace tavix::runtime {

class AppStateText {
public:
  static std::string render(const VirtualApp &app);
  // A value as the state shows it: in double quotes, with quotes, backslashes and control
  // characters escaped, so that every element stays on one line.
  static std::string quoted(std::string_view value);
};

} // namespace tavix::runtime

#include "runtime/VirtualElement.h"

namespace tavix::runtime {

std::string_view roleName(ElementRole role) {
  switch (role) {
  case ElementRole::window:
    return "window";
  case ElementRole::textField:
    return "text field";
  case ElementRole::textArea:
    return "text area";
  case ElementRole::button:
    return "button";
  case ElementRole::staticText:
    return "static text";
  case ElementRole::list:
    return "list";
  case ElementRole::row:
    return "row";
  }
  return "element";
}

} // namespace tavix::runtime

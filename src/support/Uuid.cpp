#include "support/Uuid.h"

#include <array>
#include <uuid/uuid.h>

namespace tavix {

std::string makeUUIDString() {
  uuid_t value;
  uuid_generate_random(value);
  std::array<char, 37> text{};
  uuid_unparse_upper(value, text.data());
  return std::string(text.data());
}

} // namespace tavix

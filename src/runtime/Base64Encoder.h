#pragma once
// Standard padded base64, the form image data takes in a tool result.

#include <string>
#include <string_view>

namespace tavix::runtime {

std::string base64Encode(std::string_view bytes);

} // namespace tavix::runtime

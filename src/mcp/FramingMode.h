#pragma once

#include <string_view>

namespace tavix {

// How messages are delimited on one connection: fixed by the first byte, never changed.
enum class FramingMode { unknown, contentLength, newlineDelimited };

constexpr std::string_view framingName(FramingMode mode) {
  return mode == FramingMode::contentLength ? "content-length" : "newline-delimited";
}

} // namespace tavix

#pragma once
// Large payloads on the runtime bus travel as memfds that hold exactly the bytes and are
// sealed against writing, shrinking and growing, so the receiver can read them without a
// copy through the bus daemon and without fear of them changing underneath.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace tavix {

// The most a sealed payload may hold; a larger one is refused by the receiver.
inline constexpr size_t sealedPayloadLimit = 64 * 1024 * 1024;

// A new sealed memfd holding `bytes`, or -1 with errno set. The caller owns the descriptor.
int makeSealedMemfd(std::string_view name, std::string_view bytes);

// The bytes of a sealed memfd that `fd` refers to, or nothing when it is not a regular
// file carrying the three seals, is longer than `sealedPayloadLimit`, or cannot be read.
// The descriptor stays open and its offset is not used.
std::optional<std::string> readSealedMemfd(int fd);

} // namespace tavix

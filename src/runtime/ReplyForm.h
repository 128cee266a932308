#pragma once
// How a reply's JSON travels back: inline in the message up to the inline limit, in a
// sealed memfd above it when descriptors can be passed, and not at all above the reply
// limit, where the session bus would drop a connection sending it inline and a client
// would be slow to take it anyway.

#include "platform/linux/RuntimeBusNames.h"

#include <cstddef>

namespace tavix::runtime {

enum class ReplyForm { inlineBytes, sealedMemfd, tooLarge };

inline constexpr size_t replyLimit = 48 * 1024 * 1024;

inline ReplyForm replyFormFor(size_t bytes, bool canPassDescriptors) {
  if (bytes > replyLimit)
    return ReplyForm::tooLarge;
  if (bytes > runtimebus::inlinePayloadLimit && canPassDescriptors)
    return ReplyForm::sealedMemfd;
  return ReplyForm::inlineBytes;
}

} // namespace tavix::runtime

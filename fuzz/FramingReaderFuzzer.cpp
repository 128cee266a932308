// Feeds arbitrary bytes to the message reader as standard input would deliver them.

#include "mcp/StdioMessageReader.h"

#include <cstdint>
#include <cstdlib>
#include <unistd.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > 60000) // stays within one pipe buffer, so a single thread can write it all
    return 0;
  int fds[2];
  if (pipe(fds) != 0)
    abort();
  if (size > 0 && write(fds[1], data, size) != static_cast<ssize_t>(size))
    abort();
  close(fds[1]);
  tavix::StdioMessageReader reader(fds[0], [] { return false; });
  size_t total = 0;
  while (auto message = reader.readMessage()) {
    total += message->size();
    if (total > size) // a message can never hold more bytes than came in
      abort();
  }
  close(fds[0]);
  return 0;
}

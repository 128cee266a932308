// Arbitrary request lines through the appshot mode's line handling, with the runtime's
// reply also taken from the input. Every line must get exactly one answer line: a JSON
// object with an "id" and exactly one of "result" and "error"; and a line that is refused
// before its request is made must not have reached the runtime.
//
// Input: the request line, optionally followed by a NUL byte and the runtime's reply.

#include "bridge/AppshotStdioServer.h"
#include "fakes/ScriptedRequestTransport.h"
#include "support/JSON.h"
#include "support/Whitespace.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <set>
#include <string>

namespace {

// Reads back what the server wrote since the last call.
std::string takeOutput(int fd, off_t &offset) {
  struct stat status {};
  if (::fstat(fd, &status) != 0 || status.st_size < offset)
    abort();
  std::string bytes(static_cast<size_t>(status.st_size - offset), '\0');
  const ssize_t n = ::pread(fd, bytes.data(), bytes.size(), offset);
  if (n < 0)
    abort();
  offset += n;
  bytes.resize(static_cast<size_t>(n));
  return bytes;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  using namespace tavix;
  const std::string_view input(reinterpret_cast<const char *>(data), size);
  const size_t split = input.find('\0');
  const std::string_view line = trimmedWhitespaceAndNewlines(input.substr(0, split));
  if (line.empty() || line.find('\n') != std::string_view::npos)
    return 0;
  const std::string reply =
      split == std::string_view::npos ? std::string(R"({"requestId":"r","update":{"type":"x"}})")
                                      : std::string(input.substr(split + 1));

  static const int output = memfd_create("appshot-fuzz", MFD_CLOEXEC);
  static off_t offset = 0;
  auto *runtime = new test::ScriptedRequestTransport();
  runtime->scriptDefault(reply);
  auto client = std::make_shared<const ComputerUseClient>(std::unique_ptr<ComputerUseRequestTransport>(runtime));
  // handle() runs on this thread: the server needs no line threads.
  AppshotStdioServer server(client, {.input = -1, .output = output, .lineThreads = 0});
  server.handle(line);
  const size_t requests = runtime->sent().size();

  const std::string written = takeOutput(output, offset);
  if (written.empty() || written.back() != '\n' || written.find('\n') != written.size() - 1)
    abort();
  const auto answer = parseJSON(std::string_view(written).substr(0, written.size() - 1));
  if (!answer || !answer->is_object() || !answer->contains("id") || answer->size() != 2)
    abort();
  if (answer->contains("result") == answer->contains("error"))
    abort();
  if (answer->contains("error")) {
    const auto &error = (*answer)["error"];
    if (!error.is_object() || error.size() != 2 || !error["code"].is_string() || !error["message"].is_string())
      abort();
    static const std::set<std::string> refusedBeforeSending = {"invalid_json", "invalid_request", "invalid_params",
                                                               "unknown_method"};
    if (refusedBeforeSending.contains(error["code"].get<std::string>()) && requests != 0)
      abort();
  }
  if (requests > 1)
    abort();
  return 0;
}

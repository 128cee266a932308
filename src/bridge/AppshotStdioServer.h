#pragma once
// The appshot mode: a line-per-request JSON server on standard input and output through
// which the host asks the runtime app to capture the frontmost application for an
// animation. Each line is handled on its own, concurrently with the others, and answered
// when it finishes, matched by the caller's "id": a capture update that waits in the
// runtime app never holds back a later cancel.
//
//   request: {"id": any, "method": "startFrontmostAppshotCapture", "params": {...}}
//   answer:  {"id": the same or null, "result": {...}}  or  {"id": …, "error": {"code", "message"}}

#include "bridge/AppshotStdioTaskRegistry.h"
#include "bridge/AppshotStdioWriter.h"
#include "client/ComputerUseClient.h"
#include "support/WorkerPool.h"

#include <nlohmann/json.hpp>
#include <tl/expected.hpp>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unistd.h>

namespace tavix {

enum class AppshotStdioError {
  invalidParams, // "params must be a JSON object"
};

class AppshotStdioServer {
public:
  struct Options {
    int input = STDIN_FILENO;
    int output = STDOUT_FILENO;
    // How long the end of input waits for lines still being handled before cancelling
    // them; cancelled lines get as long again to write their answers.
    std::chrono::milliseconds endOfInputGrace{1000};
    // Lines handled at once. Only a few can wait on the runtime app (the transport runs
    // two requests and queues eight); the rest are answered without waiting, so a line
    // never waits long for a thread.
    size_t lineThreads = 16;
  };

  // `client` is never null.
  AppshotStdioServer(std::shared_ptr<const ComputerUseClient> client, Options options);
  explicit AppshotStdioServer(std::shared_ptr<const ComputerUseClient> client)
      : AppshotStdioServer(std::move(client), Options{}) {}
  ~AppshotStdioServer();
  AppshotStdioServer(const AppshotStdioServer &) = delete;
  AppshotStdioServer &operator=(const AppshotStdioServer &) = delete;

  // Serves until the input ends, then waits for the lines under way (cancelling those
  // that outlast the grace) and returns.
  void run();

  // Handles one request line (already trimmed, not empty) and writes its answer.
  void handle(std::string_view line);

  // Writes the answer for `id`: `result` when given, else the error.
  void writeResponse(const nlohmann::json &id, const std::optional<nlohmann::json> &result,
                     std::string_view errorCode, std::string_view message);

  // The value the request record is read from: the params object, with absent or null
  // read as an empty object.
  static tl::expected<nlohmann::json, AppshotStdioError> paramsData(const nlohmann::json &request);

private:
  void startTask(std::string line);
  void finishAtEndOfInput();

  const std::shared_ptr<const ComputerUseClient> client_;
  const Options options_;
  AppshotStdioWriter writer_;
  AppshotStdioTaskRegistry taskRegistry_;
  std::unique_ptr<WorkerPool> lines_; // last: its threads use everything above
};

// The text of an AppshotStdioError.
std::string_view describe(AppshotStdioError error);

} // namespace tavix

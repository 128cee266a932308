#include "bridge/AppshotStdioServer.h"

#include "bridge/AppshotStdioLineReader.h"
#include "bridge/AppshotStdioMethods.h"
#include "support/JSON.h"
#include "support/RequestContext.h"
#include "support/UserPerceivedText.h"
#include "support/Uuid.h"
#include "support/Whitespace.h"

#include <system_error>

namespace tavix {
namespace {

constexpr std::string_view encodingFailedLine =
    R"({"id":null,"error":{"code":"encoding_failed","message":"Failed to encode response"}})";

// The request's "id" as given, or null when it has none.
nlohmann::json requestID(const nlohmann::json &request) {
  const auto found = request.find("id");
  return found == request.end() ? nlohmann::json(nullptr) : *found;
}

} // namespace

std::string_view describe(AppshotStdioError error) {
  switch (error) {
  case AppshotStdioError::invalidParams:
    break;
  }
  return "params must be a JSON object";
}

AppshotStdioServer::AppshotStdioServer(std::shared_ptr<const ComputerUseClient> client, Options options)
    : client_(std::move(client)), options_(options), writer_(options.output),
      lines_(std::make_unique<WorkerPool>(options.lineThreads)) {}

AppshotStdioServer::~AppshotStdioServer() {
  taskRegistry_.cancelAll();
  writer_.close();
  lines_.reset();
}

void AppshotStdioServer::run() {
  AppshotStdioLineReader reader(options_.input);
  for (;;) {
    auto next = reader.next();
    using Kind = AppshotStdioLineReader::Next::Kind;
    if (next.kind == Kind::end)
      break;
    if (next.kind == Kind::failed) {
      writeResponse(nullptr, std::nullopt, "stdin_failed", std::system_category().message(next.error));
      break;
    }
    if (next.kind == Kind::tooLong) {
      writeResponse(nullptr, std::nullopt, "invalid_json",
                    "Request line is longer than " + std::to_string(AppshotStdioLineReader::longestLine) +
                        " bytes");
      continue;
    }
    const std::string_view trimmed = trimmedWhitespaceAndNewlines(next.text);
    if (!trimmed.empty())
      startTask(std::string(trimmed));
  }
  finishAtEndOfInput();
}

void AppshotStdioServer::startTask(std::string line) {
  std::string id = makeUUIDString();
  std::stop_token cancellation = taskRegistry_.registerTask(id);
  lines_->post([this, id = std::move(id), cancellation = std::move(cancellation), line = std::move(line)] {
    {
      WithRequestContext context(std::make_shared<const RequestContext>(id, cancellation));
      handle(line);
    }
    taskRegistry_.remove(id);
  });
}

void AppshotStdioServer::finishAtEndOfInput() {
  const auto grace = options_.endOfInputGrace;
  if (taskRegistry_.waitUntilIdle(std::chrono::steady_clock::now() + grace))
    return;
  taskRegistry_.cancelAll();
  // A cancelled request ends at once; its answer still goes out unless the host has
  // stopped reading.
  if (!taskRegistry_.waitUntilIdle(std::chrono::steady_clock::now() + grace))
    writer_.close();
}

void AppshotStdioServer::handle(std::string_view line) {
  auto parsed = parseJSONExplained(line);
  if (!parsed) {
    writeResponse(nullptr, std::nullopt, "invalid_json", replacingInvalidUTF8(parsed.error()));
    return;
  }
  const nlohmann::json &request = *parsed;
  if (!request.is_object()) {
    writeResponse(nullptr, std::nullopt, "invalid_json", "Request must be a JSON object");
    return;
  }
  const nlohmann::json id = requestID(request);
  const auto method = request.find("method");
  if (method == request.end() || !method->is_string()) {
    writeResponse(id, std::nullopt, "invalid_request", "Missing method");
    return;
  }
  const auto params = paramsData(request);
  if (!params) {
    writeResponse(id, std::nullopt, "invalid_params", describe(params.error()));
    return;
  }
  const std::string &name = method->get_ref<const std::string &>();
  const AppshotStdioMethod *found = findAppshotStdioMethod(name);
  if (!found) {
    writeResponse(id, std::nullopt, "unknown_method", "Unknown method: " + name);
    return;
  }
  auto result = found->call(*client_, *params);
  if (!result) {
    writeResponse(id, std::nullopt, "request_failed", result.error());
    return;
  }
  writeResponse(id, *result, {}, {});
}

void AppshotStdioServer::writeResponse(const nlohmann::json &id, const std::optional<nlohmann::json> &result,
                                       std::string_view errorCode, std::string_view message) {
  nlohmann::json answer = {{"id", id}};
  if (result)
    answer["result"] = *result;
  else
    answer["error"] = {{"code", errorCode}, {"message", message}};
  auto line = serializeJSON(answer);
  writer_.writeLine(line ? std::move(*line) : std::string(encodingFailedLine));
}

tl::expected<nlohmann::json, AppshotStdioError> AppshotStdioServer::paramsData(const nlohmann::json &request) {
  const auto params = request.find("params");
  if (params == request.end() || params->is_null())
    return nlohmann::json::object();
  if (!params->is_object())
    return tl::unexpected(AppshotStdioError::invalidParams);
  return *params;
}

} // namespace tavix

#include "client/AppleEventComputerUseTransport.h"

#include "client/IPCClientCancellationDelivery.h"
#include "client/IPCClientRequestTimeout.h"
#include "logging/Logger.h"
#include "platform/ExecutableLocation.h"
#include "support/CancellableWait.h"
#include "support/JSON.h"
#include "support/RequestContext.h"
#include "support/Uuid.h"

#include <cmath>
#include <filesystem>

namespace tavix {
namespace {

using Clock = std::chrono::steady_clock;

int64_t millisecondsSince(Clock::time_point start) {
  return std::llround(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
}

// The runtime app is up but not serving yet, or answered without a response: worth
// another attempt.
bool isRetried(const ClientFailure &failure) {
  if (const auto *server = std::get_if<ServerError>(&failure))
    return server->code == eventNotHandledStatus;
  const auto *client = std::get_if<ClientError>(&failure);
  return client != nullptr && client->kind() == ClientError::Kind::invalidResponse;
}

void logFinishedWithError(std::string_view requestType, Clock::time_point start, std::string_view outcome,
                          const ClientFailure &failure) {
  Log::error(LogCategory::ipc, "ipc_send_finished",
             {{"requestType", requestType},
              {"durationMs", millisecondsSince(start)},
              {"outcome", outcome},
              {"error", logError(failure)}});
}

// Sends the cancellation on its own executor without waiting for it. It runs under the
// call's correlation id but not its cancellation, which has already fired.
void deliverCancellation(std::shared_ptr<RuntimeEventSender> sender, IPCBlockingSendExecutor &executor,
                         double timeoutSeconds, int32_t pid, std::string requestType, std::string ipcRequestID) {
  auto body = serializeJSON(ComputerUseIPCCancelRequest{ipcRequestID}.toJSON());
  auto context = std::make_shared<const RequestContext>(RequestContext::current()->correlationID(), std::stop_token{});
  auto logFailure = [requestType, ipcRequestID, context](const ClientFailure &failure) {
    WithRequestContext scope(context);
    Log::warning(LogCategory::ipc, "ipc_cancellation_delivery_failed",
                 {{"requestType", requestType}, {"ipcRequestID", ipcRequestID}, {"error", logError(failure)}});
  };
  IPCBlockingSendExecutor::Job job;
  job.ticket = std::make_shared<IPCSendTicket>();
  job.run = [sender, timeoutSeconds, pid, body = std::move(*body), context, logFailure] {
    WithRequestContext scope(context);
    auto sent = sender->send(pid, ComputerUseIPCCancelRequest::requestType, body, timeoutSeconds, std::nullopt);
    if (!sent)
      logFailure(sent.error());
  };
  job.reject = logFailure;
  executor.enqueue(std::move(job));
}

} // namespace

AppleEventComputerUseTransport::AppleEventComputerUseTransport(std::string clientVersion, Services services,
                                                               Timing timing)
    : timing_(timing),
      sender_(std::make_shared<RuntimeEventSender>(
          services.events,
          std::make_shared<AutomationAuthorizer>(
              std::move(services.automation), std::move(services.processes),
              [bundleIdentifiers = services.bundleIdentifiers] { return bundleIdentifiers.runtimeAppDisplayName(); }),
          std::move(clientVersion))),
      discovery_(services.applications, services.bundleIdentifiers, std::move(services.locations), timing.discovery),
      requestExecutor_(services.requestExecutor ? *services.requestExecutor : IPCBlockingSendExecutor::requests()),
      cancellationExecutor_(services.cancellationExecutor ? *services.cancellationExecutor
                                                          : IPCBlockingSendExecutor::cancellations()) {}

std::unique_ptr<AppleEventComputerUseTransport>
AppleEventComputerUseTransport::makeSystemTransport(std::string clientVersion) {
  const BundleIdentifiers &bundleIdentifiers = BundleIdentifiers::main();
  std::error_code error;
  Services services{
      .events = makeSystemRuntimeEventChannel(bundleIdentifiers.computerUseRuntime()),
      .applications = makeSystemRuntimeApplications(),
      .automation = makeSystemAutomationPermission(),
      .processes = makeSystemProcessInformation(),
      .bundleIdentifiers = bundleIdentifiers,
      .locations = {processEnvironment(), std::filesystem::path(currentExecutablePath()).parent_path().string(),
                    std::filesystem::current_path(error).string(), bundleIdentifiers.runtimeAppName()},
  };
  return std::make_unique<AppleEventComputerUseTransport>(std::move(clientVersion), std::move(services), Timing{});
}

double AppleEventComputerUseTransport::defaultTimeout(std::string_view requestType) {
  return requestType == "ComputerUseIPCEventStreamStartRequest" ? eventStreamStartTimeoutSeconds
                                                                 : defaultTimeoutSeconds;
}

ClientResult<std::string> AppleEventComputerUseTransport::send(std::string_view requestType, std::string requestData,
                                                               std::optional<double> timeoutSeconds) {
  auto data = std::make_shared<const std::string>(std::move(requestData));
  if (timeoutSeconds)
    return sendOnce(requestType, std::move(data), *timeoutSeconds);
  return sendWithRetries(requestType, std::move(data));
}

// With an explicit time-out: once, to the selected runtime app while it runs.
ClientResult<std::string> AppleEventComputerUseTransport::sendOnce(std::string_view requestType,
                                                                   std::shared_ptr<const std::string> data,
                                                                   double timeoutSeconds) {
  std::optional<int32_t> pid = discovery_.selectedRunningRuntime();
  if (!pid) {
    auto ensured = discovery_.ensureRuntimeRunning(healthProbe());
    if (!ensured)
      return tl::unexpected(std::move(ensured.error()));
    pid = *ensured;
  }
  return sendRawEvent(*pid, requestType, std::move(data), timeoutSeconds);
}

ClientResult<std::string> AppleEventComputerUseTransport::sendWithRetries(std::string_view requestType,
                                                                          std::shared_ptr<const std::string> data) {
  // Every line of this send carries one request id, made here when the call has none.
  std::optional<WithRequestContext> scope;
  if (RequestContext::current()->correlationID().empty())
    scope.emplace(RequestContext::current()->withCorrelationID(makeUUIDString()));
  Log::info(LogCategory::ipc, "ipc_send_started",
            {{"requestType", requestType}, {"requestBytes", static_cast<int64_t>(data->size())}});
  return attemptAll(requestType, data, Clock::now());
}

ClientResult<std::string> AppleEventComputerUseTransport::attemptAll(std::string_view requestType,
                                                                     const std::shared_ptr<const std::string> &data,
                                                                     Clock::time_point start) {
  std::optional<ClientFailure> last;
  for (int attempt = 1; attempt <= maxAttempts; ++attempt) {
    ClientResult<std::string> result = tl::unexpected(ClientFailure(CancellationError{}));
    if (!RequestContext::current()->isCancelled()) {
      auto pid = discovery_.ensureRuntimeRunning(healthProbe());
      result = pid ? sendRawEvent(*pid, requestType, data, defaultTimeout(requestType))
                   : ClientResult<std::string>(tl::unexpected(std::move(pid.error())));
    }
    if (result) {
      Log::info(LogCategory::ipc, "ipc_send_finished",
                {{"requestType", requestType},
                 {"durationMs", millisecondsSince(start)},
                 {"outcome", "success"},
                 {"responseBytes", static_cast<int64_t>(result->size())}});
      return result;
    }
    if (!isRetried(result.error())) {
      logFinishedWithError(requestType, start, "failure", result.error());
      return result;
    }
    last = std::move(result.error());
    if (attempt < maxAttempts && !waitUnlessCancelled(timing_.retryDelay)) {
      logFinishedWithError(requestType, start, "failure", CancellationError{});
      return tl::unexpected(ClientFailure(CancellationError{}));
    }
  }
  ClientFailure failure = last ? std::move(*last) : ClientFailure(ClientError::invalidResponse());
  logFinishedWithError(requestType, start, "retries_exhausted", failure);
  return tl::unexpected(std::move(failure));
}

ClientResult<std::string> AppleEventComputerUseTransport::sendRawEvent(int32_t pid, std::string_view requestType,
                                                                       std::shared_ptr<const std::string> data,
                                                                       double timeoutSeconds) {
  if (RequestContext::current()->isCancelled())
    return tl::unexpected(ClientFailure(CancellationError{}));
  const std::string ipcRequestID = makeUUIDString();
  const std::string &correlation = RequestContext::current()->correlationID();
  Log::debug(LogCategory::ipc, "ipc_request_correlated",
             {{"requestID", correlation.empty() ? ipcRequestID : correlation},
              {"ipcRequestID", ipcRequestID},
              {"requestType", requestType}});

  auto delivery = std::make_shared<IPCClientCancellationDelivery>(
      [sender = sender_, &executor = cancellationExecutor_, timeout = timing_.cancellationTimeoutSeconds, pid,
       type = std::string(requestType), ipcRequestID] {
        deliverCancellation(sender, executor, timeout, pid, type, ipcRequestID);
      });
  IPCClientRequestTimeout::Hooks hooks{[delivery] { delivery->start(); }, [delivery] { delivery->start(); }};
  auto operation = [sender = sender_, pid, type = std::string(requestType), data = std::move(data), timeoutSeconds,
                    ipcRequestID](const IPCSendTicket &ticket) -> ClientResult<std::string> {
    // A caller that stopped waiting before the send started gets nothing sent for it.
    if (ticket.isCancelled())
      return tl::unexpected(ClientFailure(CancellationError{}));
    return sender->send(pid, type, *data, timeoutSeconds, ipcRequestID);
  };
  auto result = IPCClientRequestTimeout::withTimeout(requestExecutor_, timeoutSeconds + timing_.raceGraceSeconds,
                                                     requestType, std::move(hooks), std::move(operation));
  // The runtime app may still be working on a request the bridge no longer waits for.
  if (!result && isRequestTimeout(result.error()))
    delivery->start();
  return result;
}

RuntimeDiscovery::HealthProbe AppleEventComputerUseTransport::healthProbe() {
  return [this](int32_t pid) -> std::optional<ComputerUseIPCHealthResponse> {
    auto body = serializeJSON(ComputerUseIPCHealthRequest{}.toJSON());
    auto reply = sendRawEvent(pid, ComputerUseIPCHealthRequest::requestType,
                              std::make_shared<const std::string>(std::move(*body)),
                              timing_.healthProbeTimeoutSeconds);
    if (!reply)
      return std::nullopt;
    auto value = parseJSON(*reply);
    if (!value)
      return std::nullopt;
    auto health = ComputerUseIPCHealthResponse::fromJSON(*value);
    if (!health)
      return std::nullopt;
    return std::move(*health);
  };
}

} // namespace tavix

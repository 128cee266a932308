#pragma once
// The requests the bridge sends to the runtime app and the general responses. Every
// request names itself on the wire with its own record name (`requestType`) and is answered
// by its `Response` record.

#include "contracts/ComputerUseIPCAction.h"
#include "contracts/ContractDecoding.h"
#include "contracts/ToolResult.h"

#include <array>
#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tavix {

// What a request must provide to be sent through the client.
template <typename R>
concept ComputerUseRequest = requires(const R &request) {
  { R::requestType } -> std::convertible_to<std::string_view>;
  typename R::Response;
  { request.toJSON() } -> std::same_as<nlohmann::json>;
  { R::Response::fromJSON(nlohmann::json()) };
};

enum class ComputerUseIPCObservationKind { state, screenshot, both };
template <> struct RawValues<ComputerUseIPCObservationKind> {
  static constexpr std::array<std::string_view, 3> names = {"state", "screenshot", "both"};
};

// The host's current turn: a session, and within it perhaps a turn.
struct ComputerUseHostTurnContext {
  std::string sessionId;
  std::optional<std::string> turnId;
  static constexpr auto fields = std::make_tuple(field("sessionId", &ComputerUseHostTurnContext::sessionId),
                                                 field("turnId", &ComputerUseHostTurnContext::turnId));
  TAVIX_RECORD_JSON(ComputerUseHostTurnContext);
};

// ---- Responses ----

struct ComputerUseIPCHealthResponse {
  std::string generationID;
  int32_t runtimePID = 0;
  std::string bundleIdentifier;
  std::string bundlePath;
  bool isHealthy = false;
  std::optional<int64_t> activeClientCount;
  std::optional<double> heartbeatTimeoutSeconds;
  using R = ComputerUseIPCHealthResponse;
  static constexpr auto fields = std::make_tuple(
      field("generationID", &R::generationID), field("runtimePID", &R::runtimePID),
      field("bundleIdentifier", &R::bundleIdentifier), field("bundlePath", &R::bundlePath),
      field("isHealthy", &R::isHealthy), field("activeClientCount", &R::activeClientCount),
      field("heartbeatTimeoutSeconds", &R::heartbeatTimeoutSeconds));
  TAVIX_RECORD_JSON(ComputerUseIPCHealthResponse);
};

// No fields: any object decodes, and it encodes as {}.
struct ComputerUseIPCEmptyResponse {
  static constexpr auto fields = std::make_tuple();
  TAVIX_RECORD_JSON(ComputerUseIPCEmptyResponse);
};

// ---- Requests ----

struct ComputerUseIPCHealthRequest {
  static constexpr std::string_view requestType = "ComputerUseIPCHealthRequest";
  using Response = ComputerUseIPCHealthResponse;
  std::optional<bool> refreshClientActivity;
  static constexpr auto fields =
      std::make_tuple(field("refreshClientActivity", &ComputerUseIPCHealthRequest::refreshClientActivity));
  TAVIX_RECORD_JSON(ComputerUseIPCHealthRequest);
};

struct ComputerUseIPCListAppsRequest {
  static constexpr std::string_view requestType = "ComputerUseIPCListAppsRequest";
  using Response = ComputerUseIPCToolResultResponse;
  static constexpr auto fields = std::make_tuple();
  TAVIX_RECORD_JSON(ComputerUseIPCListAppsRequest);
};

struct ComputerUseIPCAppGetStateRequest {
  static constexpr std::string_view requestType = "ComputerUseIPCAppGetStateRequest";
  using Response = ComputerUseIPCToolResultResponse;
  std::string app;
  std::optional<std::string> sessionId;
  std::optional<ComputerUseIPCObservationKind> observation;
  std::optional<bool> disableDiffing;
  using R = ComputerUseIPCAppGetStateRequest;
  static constexpr auto fields =
      std::make_tuple(field("app", &R::app), field("sessionId", &R::sessionId),
                      field("observation", &R::observation), field("disableDiffing", &R::disableDiffing));
  TAVIX_RECORD_JSON(ComputerUseIPCAppGetStateRequest);
};

// The fields of both action requests: one action for one app.
struct ComputerUseIPCAppActionFields {
  std::string app;
  ComputerUseIPCAction action;
  std::optional<std::string> sessionId;
  using R = ComputerUseIPCAppActionFields;
  static constexpr auto fields = std::make_tuple(field("app", &R::app), field("action", &R::action),
                                                 field("sessionId", &R::sessionId));
  friend bool operator==(const R &, const R &) = default;
};

struct ComputerUseIPCAppPerformActionRequest : ComputerUseIPCAppActionFields {
  static constexpr std::string_view requestType = "ComputerUseIPCAppPerformActionRequest";
  using Response = ComputerUseIPCToolResultResponse;
  TAVIX_RECORD_JSON(ComputerUseIPCAppPerformActionRequest);
};

struct ComputerUseIPCAppExecuteActionRequest : ComputerUseIPCAppActionFields {
  static constexpr std::string_view requestType = "ComputerUseIPCAppExecuteActionRequest";
  using Response = ComputerUseIPCToolResultResponse;
  TAVIX_RECORD_JSON(ComputerUseIPCAppExecuteActionRequest);
};

struct ComputerUseIPCAppStartRequest {
  static constexpr std::string_view requestType = "ComputerUseIPCAppStartRequest";
  using Response = ComputerUseIPCEmptyResponse;
  std::string app;
  static constexpr auto fields = std::make_tuple(field("app", &ComputerUseIPCAppStartRequest::app));
  TAVIX_RECORD_JSON(ComputerUseIPCAppStartRequest);
};

struct ComputerUseIPCAppModifyRequest {
  static constexpr std::string_view requestType = "ComputerUseIPCAppModifyRequest";
  using Response = ComputerUseIPCEmptyResponse;
  std::string app;
  std::string modification;
  static constexpr auto fields =
      std::make_tuple(field("app", &ComputerUseIPCAppModifyRequest::app),
                      field("modification", &ComputerUseIPCAppModifyRequest::modification));
  TAVIX_RECORD_JSON(ComputerUseIPCAppModifyRequest);
};

struct ComputerUseIPCAppUsageRequest {
  static constexpr std::string_view requestType = "ComputerUseIPCAppUsageRequest";
  using Response = ComputerUseIPCEmptyResponse;
  static constexpr auto fields = std::make_tuple();
  TAVIX_RECORD_JSON(ComputerUseIPCAppUsageRequest);
};

struct ComputerUseIPCHostSessionObserveRequest {
  static constexpr std::string_view requestType = "ComputerUseIPCHostSessionObserveRequest";
  using Response = ComputerUseIPCEmptyResponse;
  ComputerUseHostTurnContext context;
  static constexpr auto fields =
      std::make_tuple(field("context", &ComputerUseIPCHostSessionObserveRequest::context));
  TAVIX_RECORD_JSON(ComputerUseIPCHostSessionObserveRequest);
};

// Deliberately not a ComputerUseRequest: the cancellation delivery encodes it and sends the
// bytes itself, and no response is read.
struct ComputerUseIPCCancelRequest {
  static constexpr std::string_view requestType = "ComputerUseIPCCancelRequest";
  std::string requestID;
  static constexpr auto fields = std::make_tuple(field("requestID", &ComputerUseIPCCancelRequest::requestID));
  TAVIX_RECORD_JSON(ComputerUseIPCCancelRequest);
};

} // namespace tavix

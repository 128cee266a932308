#pragma once
// JSON-RPC 2.0 requests as the server reads them, and the responses it writes.

#include "mcp/JSONRPCId.h"

#include <nlohmann/json.hpp>

#include <optional>
#include <string>
#include <string_view>

namespace tavix {

struct JSONRPCRequest {
  std::string jsonrpc;
  std::optional<JSONRPCId> id; // none: a notification
  std::string method;
  std::optional<nlohmann::json> params; // always an object when present

  // Nothing when "jsonrpc" is not "2.0" or "method" is not a text.
  // Takes the object by value so that large params are moved, not copied.
  static std::optional<JSONRPCRequest> from(nlohmann::json object);
};

// Every error the server answers with, code and fixed message.
namespace JSONRPCError {
inline constexpr int parseErrorCode = -32700;
inline constexpr std::string_view parseErrorMessage = "Parse error";
inline constexpr int invalidRequestCode = -32600;
inline constexpr std::string_view invalidRequestMessage = "Invalid Request";
inline constexpr std::string_view duplicateIDMessage =
    "Request ID is already active on this connection.";
inline constexpr int queueFullCode = -32000;
inline constexpr std::string_view queueFullMessage =
    "Request queue is full; retry after the active request finishes.";
inline constexpr int methodNotFoundCode = -32601;
inline constexpr std::string_view methodNotFoundPrefix = "Method not found: ";
inline constexpr int invalidParamsCode = -32602;
inline constexpr std::string_view missingToolNameMessage = "Invalid params: missing tool name";
inline constexpr int internalErrorCode = -32603;
inline constexpr std::string_view noResponseMessage =
    "Internal error: the server failed to answer this request.";
} // namespace JSONRPCError

// Without an id the "id" key is left out altogether, never written as null.
nlohmann::json buildSuccessResponse(const std::optional<JSONRPCId> &id, nlohmann::json result);
nlohmann::json buildErrorResponse(const std::optional<JSONRPCId> &id, int code,
                                  std::string_view message);

} // namespace tavix

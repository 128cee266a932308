#include "client/ClientFailure.h"

namespace tavix {
namespace {

std::string describeIPCError(ComputerUseIPCError error) {
  std::string text = "Runtime IPC error " + std::string(caseName(error)) + " (" +
                     std::to_string(static_cast<int32_t>(error)) + ")";
  if (error == ComputerUseIPCError::rateLimited)
    text += ": too many requests to the runtime app are in flight; retry shortly";
  return text;
}

} // namespace

std::string describe(const ClientFailure &failure) {
  struct Describe {
    std::string operator()(const ClientError &error) const { return error.description(); }
    std::string operator()(const ServerError &error) const { return error.description(); }
    std::string operator()(ComputerUseIPCError error) const { return describeIPCError(error); }
    std::string operator()(const ComputerUseClientError &error) const { return error.description(); }
    std::string operator()(CancellationError) const { return "The request was cancelled."; }
  };
  return std::visit(Describe{}, failure);
}

bool isRequestTimeout(const ClientFailure &failure) {
  if (const auto *ipc = std::get_if<ComputerUseIPCError>(&failure))
    return *ipc == ComputerUseIPCError::timeout;
  const auto *client = std::get_if<ClientError>(&failure);
  return client != nullptr && client->kind() == ClientError::Kind::sendFailed &&
         client->status() == ClientError::timedOutStatus;
}

LogError logError(const ClientFailure &failure) {
  struct Describe {
    LogError operator()(const ClientError &error) const {
      // A failed send is known by its status; the other kinds by their number.
      return {"ClientError", "tavix.client",
              error.kind() == ClientError::Kind::sendFailed ? error.status() : static_cast<int64_t>(error.kind())};
    }
    LogError operator()(const ServerError &error) const { return {"ServerError", "tavix.runtime", error.code}; }
    LogError operator()(ComputerUseIPCError error) const {
      return {"ComputerUseIPCError", "tavix.ipc", static_cast<int32_t>(error)};
    }
    LogError operator()(const ComputerUseClientError &error) const {
      return {"ComputerUseClientError", "tavix.client", static_cast<int64_t>(error.kind)};
    }
    LogError operator()(CancellationError) const { return {"CancellationError", "tavix.task", 0}; }
  };
  return std::visit(Describe{}, failure);
}

ComputerUseFailure failureFrom(const ClientFailure &failure) {
  if (std::holds_alternative<CancellationError>(failure))
    return ComputerUseFailure::cancelled();
  if (const auto *error = std::get_if<ComputerUseIPCError>(&failure))
    return failureFrom(*error);
  return ComputerUseFailure::unknownError();
}

} // namespace tavix

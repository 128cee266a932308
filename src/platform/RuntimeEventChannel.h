#pragma once
// Carrying one event to a runtime app process and reading its reply: the request's type
// name, JSON bytes, request id and the client's version go out, and the reply's error
// number, error text and response bytes come back, or the operating system's status for
// an event that could not be delivered or answered.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace tavix {

// Operating-system statuses the event services report, in their own numbering.
inline constexpr int32_t eventTimedOutStatus = -1712;
inline constexpr int32_t eventNotHandledStatus = -1708;
inline constexpr int32_t eventNotPermittedStatus = -1743;
inline constexpr int32_t processNotFoundStatus = -600;
inline constexpr int32_t connectionInvalidStatus = -609;
inline constexpr int32_t badReplyDataStatus = -1700;

struct RuntimeEvent {
  std::string_view eventClass;
  std::string_view eventID;
  std::string_view requestType;
  std::string_view requestData;
  std::string_view requestID;
  std::string_view clientVersion;
};

struct RuntimeEventReply {
  std::optional<int32_t> errorNumber;
  std::optional<std::string> errorText;
  std::optional<std::string> directObject;
};

struct RuntimeEventOutcome {
  // 0 when the reply below came back; otherwise the status and no reply.
  int32_t status = 0;
  RuntimeEventReply reply;
  // What the carrier called the failure, for the log; empty when it has no name for it.
  std::string detail;
};

class RuntimeEventChannel {
public:
  virtual ~RuntimeEventChannel() = default;
  // Sends `event` to process `pid` and waits for its reply at most `timeoutSeconds`.
  // Blocks the calling thread; may be called from several threads at once.
  virtual RuntimeEventOutcome send(int32_t pid, const RuntimeEvent &event, double timeoutSeconds) = 0;
};

// The channel of the platform this was built for, to runtime apps that own
// `bundleIdentifier`.
std::unique_ptr<RuntimeEventChannel> makeSystemRuntimeEventChannel(std::string bundleIdentifier);

} // namespace tavix

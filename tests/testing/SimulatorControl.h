#pragma once
// A small D-Bus client for tests: sends raw Send calls to a runtime on a bus and reads the
// reply dictionary, and drives the simulator's control interface (its fault script and
// its journal of the Send calls it received).
//
//   events() and awaitEvents() return the journal as a JSON array of objects:
//     {"requestType": "…" or null, "requestID": "…" or null, "clientVersion": "…" or null,
//      "payload": "inline" | "memfd" | "none", "bodyBytes": n,
//      "body": <the request's JSON, only when at most 64 KiB>}
//   (entries for another event than ZlCu/SndR also carry "eventClass" and "eventID"),
//   and the simulator's own events, selected by their name as a request type is:
//     {"event": "captureUpdateWaiting", "requestID": "<RqID of the next-update>",
//      "captureRequestId": "…", "timeoutMs": n}   a next-update has started waiting
//
// One object is one bus connection; use it from one thread at a time.

#include <nlohmann/json.hpp>
#include <tl/expected.hpp>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

typedef struct sd_bus sd_bus;

namespace tavix::test {

// A D-Bus error reply, or a failure of the call itself (named after its errno).
struct BusError {
  std::string name;
  std::string message;
};

// The reply dictionary of a Send call.
struct RuntimeReply {
  enum class Form { none, directObject, responseFile };
  std::optional<int32_t> errn;
  std::optional<std::string> errs;
  // The response's JSON, from "----" or from the sealed memfd of "RspF"; nothing when the
  // reply carries neither, or when RspF is not a sealed memfd.
  std::optional<std::string> bytes;
  Form form = Form::none;
};

// Everything a Send call can carry, for tests of malformed calls.
struct SendArguments {
  std::string eventClass = "ZlCu";
  std::string eventID = "SndR";
  std::optional<std::string> requestType;
  std::optional<std::string> requestData; // sent as ReqD
  int requestFile = -1;                    // sent as ReqF when not -1; the caller keeps it
  std::optional<std::string> requestID;
  std::optional<std::string> clientVersion = "1.0";
};

class SimulatorControl {
public:
  // Connects to the bus at `busAddress`, with descriptor passing, and talks to
  // `destination` (a unique or well-known name). Throws when it cannot connect.
  SimulatorControl(const std::string &busAddress, std::string destination);
  ~SimulatorControl();
  SimulatorControl(const SimulatorControl &) = delete;
  SimulatorControl &operator=(const SimulatorControl &) = delete;

  const std::string &uniqueName() const { return uniqueName_; }

  // Sends one request: its JSON inline up to 64 KiB, else in a sealed memfd.
  tl::expected<RuntimeReply, BusError> send(std::string_view requestType, std::string_view json,
                                            std::string requestID = {},
                                            std::chrono::milliseconds timeout = std::chrono::seconds(60));
  tl::expected<RuntimeReply, BusError> sendArguments(const SendArguments &arguments,
                                                     std::chrono::milliseconds timeout = std::chrono::seconds(60));

  // Sends one request (inline) and returns at once; awaitReplies() reads its reply. Several
  // may be under way on the one connection, beside calls that wait.
  tl::expected<void, BusError> sendWithoutWaiting(std::string_view requestType, std::string_view json,
                                                  std::string requestID,
                                                  std::chrono::milliseconds timeout = std::chrono::seconds(60));
  struct ArrivedReply {
    std::string requestID;
    tl::expected<RuntimeReply, BusError> reply;
  };
  // Waits for the reply of every request sent without waiting (each ends by its time-out at
  // the latest): the replies in the order they arrived.
  std::vector<ArrivedReply> awaitReplies();

  tl::expected<void, BusError> setFaults(std::string_view rulesJSON);
  // The journal; these throw std::runtime_error when the call fails.
  nlohmann::json events();
  void clearEvents();
  // The journal's entries of `requestType` ("*": all) once there are `count`, or the
  // simulator's time-out error.
  tl::expected<nlohmann::json, BusError> awaitEvents(std::string_view requestType, uint32_t count,
                                                     std::chrono::milliseconds timeout = std::chrono::seconds(20));

  // org.freedesktop.DBus.ListQueuedOwners: the unique names queued for `name`, owner first.
  tl::expected<std::vector<std::string>, BusError> queuedOwners(const std::string &name);

private:
  struct Outstanding;

  sd_bus *bus_ = nullptr;
  std::vector<std::unique_ptr<Outstanding>> outstanding_;
  std::vector<ArrivedReply> arrived_;
  std::string destination_;
  std::string uniqueName_;
};

} // namespace tavix::test

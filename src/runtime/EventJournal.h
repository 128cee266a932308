#pragma once
// What the simulator was sent, and what it did that a test cannot see from the outside,
// in the order it happened, for tests to read over the control interface instead of
// guessing or sleeping.
//
// A Send call's entry holds the request type, request id, client version, how the body
// travelled ("inline", "memfd" or "none"), its size, and the body itself, parsed, when it
// is at most 64 KiB and JSON. The simulator's own events are entries with an "event" name
// and fields of their own, and no "requestType"; event names never start with
// "ComputerUseIPC", so a request type and an event name never select each other's entries:
//   {"event":"captureUpdateWaiting","requestID":"<RqID of the next-update>",
//    "captureRequestId":"<the capture's requestId>","timeoutMs":<its wait, as clamped>}
//       a next-update found nothing due and waits (once per call, when it starts waiting)

#include "runtime/SendCall.h"

#include <nlohmann/json.hpp>

#include <cstddef>
#include <string_view>
#include <vector>

namespace tavix::runtime {

class EventJournal {
public:
  // Matches every request type and event.
  static constexpr std::string_view anyType = "*";
  static constexpr std::string_view captureUpdateWaiting = "captureUpdateWaiting";

  void record(const SendCall &call);
  // One of the simulator's own events: `fields` (an object) with "event": `name`.
  void recordEvent(std::string_view name, nlohmann::json fields);
  void clear() { entries_.clear(); }

  // How many entries have this request type or event name ("*": all).
  size_t count(std::string_view requestType) const;
  // The entries of one request type or event name, or all of them, as a JSON array.
  nlohmann::json entries(std::string_view requestType) const;

private:
  static bool matches(const nlohmann::json &entry, std::string_view requestType);

  std::vector<nlohmann::json> entries_;
};

} // namespace tavix::runtime

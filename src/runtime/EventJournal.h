#pragma once
// What the simulator was sent: one entry for every Send call, in the order they arrived,
// for tests to read over the control interface instead of guessing from the outside.
// Each entry holds the request type, request id, client version, how the body travelled
// ("inline", "memfd" or "none"), its size, and the body itself, parsed, when it is at most
// 64 KiB and JSON.

#include "runtime/SendCall.h"

#include <nlohmann/json.hpp>

#include <cstddef>
#include <string_view>
#include <vector>

namespace tavix::runtime {

class EventJournal {
public:
  // Matches every request type.
  static constexpr std::string_view anyType = "*";

  void record(const SendCall &call);
  void clear() { entries_.clear(); }

  size_t count(std::string_view requestType) const;
  // The entries of one request type, or all of them, as a JSON array.
  nlohmann::json entries(std::string_view requestType) const;

private:
  static bool matches(const nlohmann::json &entry, std::string_view requestType);

  std::vector<nlohmann::json> entries_;
};

} // namespace tavix::runtime

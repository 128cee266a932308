#pragma once
// Keeps the runtime app aware that this bridge is still in use: once a connection to it
// exists, a health request goes out at a fixed interval until the connection ends.
// Failures are logged, at most once every two minutes, and otherwise ignored.

#include "client/ComputerUseClient.h"

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <stop_token>
#include <thread>

namespace tavix {

class RuntimeHeartbeat {
public:
  // Waits for `interval`, or less when `stop` fires first.
  using Wait = std::function<void(std::chrono::milliseconds interval, std::stop_token stop)>;

  // A failure is logged at most once in this many seconds.
  static constexpr double failureLogIntervalSeconds = 120.0;

  struct Options {
    std::chrono::milliseconds interval = std::chrono::seconds(30);
    // Waits on a condition variable unless a test supplies its own.
    Wait wait;
  };

  // `client` is never null.
  RuntimeHeartbeat(std::shared_ptr<const ComputerUseClient> client, Options options);
  // As `stop`.
  ~RuntimeHeartbeat();
  RuntimeHeartbeat(const RuntimeHeartbeat &) = delete;
  RuntimeHeartbeat &operator=(const RuntimeHeartbeat &) = delete;

  // Starts sending unless it already does, or the calling request has been cancelled.
  void startIfNeeded();
  // Stops sending, cancels a heartbeat under way, and returns once it has ended.
  void stop();
  bool isRunning() const;

private:
  void run(std::stop_token stop) const;

  const std::shared_ptr<const ComputerUseClient> client_;
  const Options options_;
  mutable std::mutex lock_; // guards the task slot only
  std::jthread task_;
};

} // namespace tavix

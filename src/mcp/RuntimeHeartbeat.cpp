#include "mcp/RuntimeHeartbeat.h"

#include "logging/Logger.h"
#include "support/RequestContext.h"

#include <cassert>
#include <condition_variable>

namespace tavix {
namespace {

void waitOrStop(std::chrono::milliseconds interval, std::stop_token stop) {
  std::mutex lock;
  std::condition_variable_any wake;
  std::unique_lock guard(lock);
  wake.wait_for(guard, stop, interval, [] { return false; });
}

} // namespace

RuntimeHeartbeat::RuntimeHeartbeat(std::shared_ptr<const ComputerUseClient> client, Options options)
    : client_(std::move(client)), options_(std::move(options)) {
  assert(client_ != nullptr);
}

RuntimeHeartbeat::~RuntimeHeartbeat() { stop(); }

void RuntimeHeartbeat::startIfNeeded() {
  if (RequestContext::current()->isCancelled())
    return;
  std::lock_guard guard(lock_);
  if (!task_.joinable())
    task_ = std::jthread([this](std::stop_token stop) { run(std::move(stop)); });
}

void RuntimeHeartbeat::stop() {
  std::jthread task;
  {
    std::lock_guard guard(lock_);
    task = std::move(task_);
  }
  // Joined outside the lock: the heartbeat under way ends early on the stop request.
  if (task.joinable()) {
    task.request_stop();
    task.join();
  }
}

bool RuntimeHeartbeat::isRunning() const {
  std::lock_guard guard(lock_);
  return task_.joinable();
}

void RuntimeHeartbeat::run(std::stop_token stop) const {
  // The sends see the stop as their cancellation.
  WithRequestContext context(std::make_shared<const RequestContext>(std::string(), stop));
  const Wait &wait = options_.wait ? options_.wait : Wait(waitOrStop);
  for (;;) {
    const auto health = client_->sendHeartbeat();
    if (stop.stop_requested())
      return; // a heartbeat cut short by the stop is no failure
    if (!health)
      Log::rateLimitedWarning(LogCategory::transport, "runtime_heartbeat_failed", failureLogIntervalSeconds,
                              {{"error", logError(health.error())}});
    wait(options_.interval, stop);
    if (stop.stop_requested())
      return;
  }
}

} // namespace tavix

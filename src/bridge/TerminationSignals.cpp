#include "bridge/TerminationSignals.h"

#include "logging/Logger.h"

#include <csignal>
#include <memory>
#include <pthread.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace tavix {
namespace {

sigset_t terminationSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  return set;
}

// Handlers live as long as the process, like the threads that use them.
std::vector<std::shared_ptr<TerminationSignalHandler>> &terminationSignalSources() {
  static auto *sources = new std::vector<std::shared_ptr<TerminationSignalHandler>>();
  return *sources;
}

} // namespace

bool TerminationSignalHandler::handle(int signal) {
  {
    std::lock_guard guard(lock_);
    // A second signal, of either kind, is ignored while the first is handled.
    if (requested_)
      return false;
    requested_ = true;
  }
  const bool hasTask = static_cast<bool>(actions_.cancelTask);
  Log::info(LogCategory::lifecycle, "signal_received",
            {{"signal", static_cast<int32_t>(signal)},
             {"outcome", hasTask ? "cancelling_transport" : "exiting"}});
  if (!hasTask) {
    actions_.exitProcess(0);
    return true;
  }
  actions_.cancelTask();
  // Never cancelled: when the wind-down finishes first, the process has already ended.
  std::thread([grace = actions_.grace, exitProcess = actions_.exitProcess] {
    std::this_thread::sleep_for(grace);
    Log::warning(LogCategory::lifecycle, "shutdown_grace_expired",
                 {{"graceMs", static_cast<int64_t>(grace.count())}});
    exitProcess(0);
  }).detach();
  return true;
}

void blockTerminationSignals() {
  const sigset_t set = terminationSignals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void installTerminationSignalHandlers(std::function<void()> cancelTask) {
  auto handler = std::make_shared<TerminationSignalHandler>(
      TerminationSignalHandler::Actions{std::move(cancelTask), [](int status) { _exit(status); }});
  terminationSignalSources().push_back(handler);
  std::thread([handler] {
    const sigset_t set = terminationSignals();
    for (;;) {
      int signal = 0;
      if (sigwait(&set, &signal) == 0)
        handler->handle(signal);
    }
  }).detach();
}

} // namespace tavix

#pragma once
// How the bridge ends on SIGTERM or SIGINT: the first signal cancels the server (or exits
// at once when there is none) and arms a grace timer that exits if the wind-down takes
// too long; any later signal is ignored.

#include <chrono>
#include <functional>
#include <mutex>

namespace tavix {

class TerminationSignalHandler {
public:
  struct Actions {
    std::function<void()> cancelTask; // empty when no server task runs
    std::function<void(int status)> exitProcess;
    std::chrono::milliseconds grace{5000};
  };

  explicit TerminationSignalHandler(Actions actions) : actions_(std::move(actions)) {}

  // Acts on one signal; returns whether it was the first.
  bool handle(int signal);

private:
  std::mutex lock_;
  bool requested_ = false;
  Actions actions_;
};

// Blocks SIGTERM and SIGINT in the calling thread, so that every thread made afterwards
// leaves them to the handler thread. Called first thing in main.
void blockTerminationSignals();

// Starts the thread that receives SIGTERM and SIGINT for the rest of the process's life
// and hands them to one handler. `cancelTask` is empty when no server task runs.
void installTerminationSignalHandlers(std::function<void()> cancelTask);

} // namespace tavix

#pragma once
// The runtime simulator as a child process on a given bus: started with extra options,
// ready once it has printed "ready <unique name>", stopped with SIGTERM when the test
// ends. SimulatorOnPrivateBus bundles it with a bus of its own and a control connection.

#include "testing/ChildProcess.h"
#include "testing/PrivateSessionBus.h"
#include "testing/SimulatorControl.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace tavix::test {

class RuntimeSimulatorProcess {
public:
  // Starts the simulator with DBUS_SESSION_BUS_ADDRESS set to `busAddress` and waits up to
  // `readyTimeout` for its ready line; throws when it does not come. The executable is the
  // build's simulator unless given.
  explicit RuntimeSimulatorProcess(const std::string &busAddress, std::vector<std::string> arguments = {},
                                   std::chrono::milliseconds readyTimeout = std::chrono::seconds(30),
                                   std::string executable = {});
  // Stops it, as `stop` does, when it still runs.
  ~RuntimeSimulatorProcess();
  RuntimeSimulatorProcess(const RuntimeSimulatorProcess &) = delete;
  RuntimeSimulatorProcess &operator=(const RuntimeSimulatorProcess &) = delete;

  pid_t pid() const { return process_.pid(); }
  // Its connection's unique name on the bus, as ":1.5".
  const std::string &uniqueName() const { return uniqueName_; }
  // The process itself: further lines of output, its standard error, its exit.
  ChildProcess &process() { return process_; }

  // SIGTERM, then its exit status (or -signal), or nothing when it outlives `timeout`.
  std::optional<int> stop(std::chrono::milliseconds timeout = std::chrono::seconds(10));
  // Its exit status once it has exited by itself.
  std::optional<int> waitForExit(std::chrono::milliseconds timeout = std::chrono::seconds(10));

  // The simulator executable of this build.
  static std::string defaultExecutable();

private:
  ChildProcess process_;
  std::string uniqueName_;
  std::optional<int> status_;
};

// A private bus with one simulator on it and a control connection to the simulator, for a
// whole test suite to share (made in SetUpTestSuite): a daemon and a simulator per test
// would cost more than most of the tests themselves.
struct SimulatorOnPrivateBus {
  explicit SimulatorOnPrivateBus(std::vector<std::string> arguments = {})
      : simulator(bus.address(), std::move(arguments)), control(bus.address(), simulator.uniqueName()) {}
  PrivateSessionBus bus;
  RuntimeSimulatorProcess simulator;
  SimulatorControl control;
};

} // namespace tavix::test

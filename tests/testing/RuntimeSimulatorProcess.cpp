#include "testing/RuntimeSimulatorProcess.h"
#include "TestPaths.h"

#include <csignal>
#include <stdexcept>

namespace tavix::test {

std::string RuntimeSimulatorProcess::defaultExecutable() { return TAVIX_RUNTIME_SIMULATOR_EXECUTABLE; }

namespace {

std::vector<std::string> commandLine(std::string executable, std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), executable.empty() ? RuntimeSimulatorProcess::defaultExecutable() : executable);
  return arguments;
}

} // namespace

RuntimeSimulatorProcess::RuntimeSimulatorProcess(const std::string &busAddress, std::vector<std::string> arguments,
                                                 std::chrono::milliseconds readyTimeout, std::string executable)
    : process_(commandLine(std::move(executable), std::move(arguments)), {{"DBUS_SESSION_BUS_ADDRESS", busAddress}}) {
  const auto line = process_.readLine(readyTimeout);
  constexpr std::string_view prefix = "ready ";
  if (!line || !line->starts_with(prefix)) {
    process_.signal(SIGKILL);
    status_ = process_.wait();
    throw std::runtime_error("the runtime simulator did not get ready: " + line.value_or("(no line)") + "\n" +
                             process_.errorOutput());
  }
  uniqueName_ = line->substr(prefix.size());
}

RuntimeSimulatorProcess::~RuntimeSimulatorProcess() { stop(); }

std::optional<int> RuntimeSimulatorProcess::stop(std::chrono::milliseconds timeout) {
  if (!status_) {
    process_.signal(SIGTERM);
    status_ = process_.wait(timeout);
  }
  return status_;
}

std::optional<int> RuntimeSimulatorProcess::waitForExit(std::chrono::milliseconds timeout) {
  if (!status_)
    status_ = process_.wait(timeout);
  return status_;
}

} // namespace tavix::test

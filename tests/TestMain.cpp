// The test binary's entry: the process is set up as the bridge sets itself up,
// and log lines that a test does not capture are dropped instead of cluttering
// the output. The caller's log-level settings are cleared, so that they do not
// change what tests see.

#include "logging/Logger.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>

int main(int argc, char **argv) {
  std::signal(SIGPIPE, SIG_IGN);
  unsetenv(tavix::logLevelEnvironmentKey);
  unsetenv(tavix::osLogMirrorLevelEnvironmentKey);
  auto sinks = tavix::Log::defaultSinks();
  sinks.writeStderr = [](std::string_view) {};
  tavix::Log::replaceSinks(std::move(sinks));
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}

// The runtime simulator: serves the runtime's D-Bus interface on the session bus from a
// virtual desktop, for the bridge's tests, its demo and its benchmarks.

#include "runtime/SimulatorOptions.h"
#include "runtime/SimulatorService.h"
#include "runtime/VirtualDesktop.h"
#include "support/Uuid.h"

#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

// Health reports the executable by its real path, as a client finds it from /proc.
std::string executablePath() {
  char resolved[PATH_MAX];
  return ::realpath("/proc/self/exe", resolved) != nullptr ? std::string(resolved) : std::string();
}

} // namespace

int main(int argc, char **argv) {
  using namespace tavix::runtime;
  std::signal(SIGPIPE, SIG_IGN);
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  if (arguments.size() == 1 && (arguments[0] == "--help" || arguments[0] == "-h")) {
    std::fputs(SimulatorOptions::usage().c_str(), stdout);
    return 0;
  }
  auto options = SimulatorOptions::parse(arguments);
  if (!options) {
    std::fprintf(stderr, "%s\n%s", options.error().c_str(), SimulatorOptions::usage().c_str());
    return 2;
  }
  VirtualDesktopOptions desktopOptions;
  desktopOptions.generationID = tavix::makeUUIDString();
  desktopOptions.bundleIdentifier = options->busName;
  desktopOptions.bundlePath = executablePath();
  desktopOptions.healthy = !options->unhealthy;
  desktopOptions.screenWidth = options->screenWidth;
  desktopOptions.screenHeight = options->screenHeight;
  desktopOptions.pngLevel = options->pngLevel;
  VirtualDesktop desktop(std::move(desktopOptions));
  SimulatorService service(std::move(*options), desktop);
  return service.run();
}

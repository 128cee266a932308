#pragma once

#include <string>
#include <vector>

namespace tavix {

// The process entry: prepares the process, picks the mode from the arguments, serves it
// and returns the exit status.
class TavixComputerUseBridgeMain {
public:
  static int main(const std::vector<std::string> &arguments);
  // Logs the usage error; standard output belongs to the protocol, so nothing is printed.
  static void printUsage(const std::vector<std::string> &arguments);
};

} // namespace tavix

// A process that logs numbered lines into the log file from two threads, each
// of which also compacts the file as it goes, so that tests can run several at
// once against one file. The threads write as "<writer name>1" and "<writer
// name>2".
//
//   tavix_log_writer <log directory> <writer name> <lines> <compact every> <max
//   bytes> <kept bytes>

#include "logging/LogFileCompaction.h"
#include "logging/LogFileLocation.h"
#include "logging/Logger.h"
#include "logging/TavixComputerUseLogFile.h"

#include <string>
#include <thread>

int main(int argc, char **argv) {
  using namespace tavix;
  if (argc != 7)
    return 2;
  const std::string directory = argv[1], writer = argv[2];
  const long lines = std::stol(argv[3]), compactEvery = std::stol(argv[4]);
  const LogFileLimits limits{std::stoll(argv[5]), std::stoll(argv[6])};
  StderrRedirection redirection({.environment = [directory](const char *) { return std::optional(directory); }, .limits = limits});
  redirection.redirectIfNeeded();
  const auto path = redirection.currentLogPath();
  if (!path)
    return 3;
  const auto writeLines = [&](const std::string &name) {
    for (long i = 0; i < lines; ++i) {
      Log::info(LogCategory::logging, "test_line",
                {{"padding", std::string(120, '-')}, {"sequence", i}, {"writer", name}});
      if ((i + 1) % compactEvery == 0)
        compactLogFileIfNeeded(*path, limits);
    }
  };
  std::thread second(writeLines, writer + "2");
  writeLines(writer + "1");
  second.join();
  return 0;
}

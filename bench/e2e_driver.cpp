// End-to-end benchmark of MCP servers over stdio, side by side.
//
// Each server runs as a child through `taskset -c <cpu>`, and the driver pins
// itself to the same CPU, so every figure includes the context switches a host
// and its server pay on one core. Per server it measures:
//   startup    spawn to the initialize response, median over --spawns children
//   ping       round trip of sequential pings after a warm-up, p50 and p99
//   idle RSS   VmRSS of the server shortly after the handshake
//   4MB accept a ping whose params carry a 4 MiB string: start of the write to
//              the response line, median over --big-reps
// The "floor" row runs /bin/cat, which echoes each request line back: the cost
// of the pipes and the scheduler alone.
//
// Usage: bench_e2e_driver [options] BRIDGE
//        bench_e2e_driver [options] --only-reference
// Run from anywhere; the reference server defaults to bench/reference/server.mjs
// of the source tree (needs `npm ci` in tests/ first).

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "E2EChild.h"
#include "ToolCallMeasurement.h"

extern char** environ;

namespace {

using namespace e2e;

#ifdef TAVIX_BENCH_DIR
constexpr const char* kDefaultReference = TAVIX_BENCH_DIR "/reference/server.mjs";
#else
constexpr const char* kDefaultReference = "bench/reference/server.mjs";
#endif

struct Options {
  int cpu = 0;
  int spawns = 20;
  int pings = 10000;
  int warmup = 1000;
  int bigReps = 5;
  bool floor = true;
  std::string reference = kDefaultReference;
};

struct Server {
  std::string name;
  std::vector<std::string> argv;
};

struct Row {
  std::string name;
  std::optional<double> startupMs, pingP50Us, pingP99Us, rssMiB, bigMs;
  std::string error;
};

Row measure(const Server& server, const Options& opt) {
  Row row{server.name, {}, {}, {}, {}, {}, {}};
  try {
    std::vector<double> startups;
    for (int i = 0; i < opt.spawns; ++i) {
      auto t0 = Clock::now();
      Child child(server.argv, opt.cpu);
      child.send(kInitialize);
      child.awaitResponse("0");
      startups.push_back(millis(Clock::now() - t0));
    }
    row.startupMs = median(startups);

    Child child(server.argv, opt.cpu);
    handshake(child);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    row.rssMiB = rssMiB(child.pid());

    long id = 1;
    auto ping = [&] {
      std::string n = std::to_string(id++);
      child.send("{\"jsonrpc\":\"2.0\",\"id\":" + n + ",\"method\":\"ping\"}\n");
      child.awaitResponse(n);
    };
    for (int i = 0; i < opt.warmup; ++i) ping();
    std::vector<double> rtts;
    rtts.reserve(static_cast<size_t>(opt.pings));
    for (int i = 0; i < opt.pings; ++i) {
      auto t0 = Clock::now();
      ping();
      rtts.push_back(micros(Clock::now() - t0));
    }
    std::sort(rtts.begin(), rtts.end());
    row.pingP50Us = percentile(rtts, 50);
    row.pingP99Us = percentile(rtts, 99);

    const std::string big = R"({"jsonrpc":"2.0","id":"big","method":"ping","params":{"pad":")" +
                            std::string(4 << 20, 'x') + "\"}}\n";
    std::vector<double> bigs;
    for (int i = 0; i < opt.bigReps; ++i) {
      // The writer runs beside the reader so that a server answering before it
      // has drained the request (or cat echoing it) cannot deadlock the pipes.
      auto t0 = Clock::now();
      std::string writeError;
      std::thread writer([&] {
        try {
          child.send(big);
        } catch (const std::exception& e) {
          writeError = e.what();
        }
      });
      try {
        child.awaitResponse("\"big\"");
      } catch (...) {
        child.killNow();  // unblocks the writer
        writer.join();
        throw;
      }
      bigs.push_back(millis(Clock::now() - t0));
      writer.join();
      if (!writeError.empty()) throw std::runtime_error(writeError);
    }
    row.bigMs = median(bigs);
  } catch (const std::exception& e) {
    row.error = e.what();
  }
  return row;
}

void pinSelf(int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(static_cast<size_t>(cpu), &set);
  if (sched_setaffinity(0, sizeof set, &set) != 0)
    std::cerr << "warning: cannot pin the driver to CPU " << cpu << ": " << std::strerror(errno) << "\n";
}

std::vector<std::string> splitWords(const std::string& text) {
  std::istringstream in(text);
  std::vector<std::string> words;
  for (std::string w; in >> w;) words.push_back(w);
  return words;
}

std::string cell(const std::optional<double>& v, int precision) {
  if (!v) return "-";
  std::ostringstream s;
  s.setf(std::ios::fixed);
  s.precision(precision);
  s << *v;
  return s.str();
}

void printTable(const std::vector<Row>& rows) {
  std::printf("%-12s %12s %13s %13s %14s %15s\n", "server", "startup ms", "ping p50 us",
              "ping p99 us", "idle RSS MiB", "4MB accept ms");
  for (const auto& r : rows) {
    std::printf("%-12s %12s %13s %13s %14s %15s\n", r.name.c_str(), cell(r.startupMs, 2).c_str(),
                cell(r.pingP50Us, 1).c_str(), cell(r.pingP99Us, 1).c_str(), cell(r.rssMiB, 1).c_str(),
                cell(r.bigMs, 1).c_str());
  }
  for (const auto& r : rows)
    if (!r.error.empty()) std::printf("%s: failed: %s\n", r.name.c_str(), r.error.c_str());
}

[[noreturn]] void usage(const char* argv0, const std::string& problem) {
  std::cerr << argv0 << ": " << problem << "\n"
            << "usage: " << argv0 << " [options] BRIDGE | --only-reference\n"
               "  BRIDGE              bridge executable, run with the argument \"mcp\"\n"
               "  --only-reference    no bridge: the reference server (and the floor) only\n"
               "  --reference PATH    reference server script (default " << kDefaultReference << ")\n"
               "  --server NAME=CMD   one more server; CMD is split at spaces (repeatable)\n"
               "  --no-floor          leave out the /bin/cat floor row\n"
               "  --tool-calls SIM    also time get_app_state (5 MB screenshot) and a 4 MB paste through\n"
               "                      the bridge and the runtime simulator SIM on a private bus, beside\n"
               "                      the reference server and a bare sd-bus floor\n"
               "  --calls N (50)      timed calls per tool in --tool-calls\n"
               "  --cpu N (0)  --spawns N (20)  --pings N (10000)  --warmup N (1000)  --big-reps N (5)\n";
  std::exit(2);
}

}  // namespace

int main(int argc, char** argv) {
  Options opt;
  std::string bridge;
  bool onlyReference = false;
  std::vector<Server> extra;
  std::string simulator;
  int calls = 50;
  auto number = [&](int& i) {
    if (i + 1 >= argc) usage(argv[0], std::string(argv[i]) + " needs a value");
    char* end = nullptr;
    long v = std::strtol(argv[++i], &end, 10);
    if (*end != '\0' || v < 0 || v > 10'000'000) usage(argv[0], std::string("bad number ") + argv[i]);
    return static_cast<int>(v);
  };
  for (int i = 1; i < argc; ++i) {
    std::string_view a = argv[i];
    if (a == "--only-reference") onlyReference = true;
    else if (a == "--no-floor") opt.floor = false;
    else if (a == "--cpu") opt.cpu = number(i);
    else if (a == "--spawns") opt.spawns = number(i);
    else if (a == "--pings") opt.pings = number(i);
    else if (a == "--warmup") opt.warmup = number(i);
    else if (a == "--big-reps") opt.bigReps = number(i);
    else if (a == "--reference" && i + 1 < argc) opt.reference = argv[++i];
    else if (a == "--tool-calls" && i + 1 < argc) simulator = argv[++i];
    else if (a == "--calls") calls = number(i);
    else if (a == "--server" && i + 1 < argc) {
      std::string spec = argv[++i];
      auto eq = spec.find('=');
      if (eq == std::string::npos || eq == 0 || splitWords(spec.substr(eq + 1)).empty())
        usage(argv[0], "--server wants NAME=COMMAND");
      extra.push_back({spec.substr(0, eq), splitWords(spec.substr(eq + 1))});
    } else if (!a.empty() && a[0] != '-' && bridge.empty()) bridge = a;
    else usage(argv[0], "unexpected argument " + std::string(a));
  }
  if (bridge.empty() && !onlyReference) usage(argv[0], "give the bridge executable or --only-reference");
  if (opt.spawns < 1 || opt.pings < 1 || opt.bigReps < 1) usage(argv[0], "counts must be at least 1");
  if (access(opt.reference.c_str(), R_OK) != 0)
    usage(argv[0], "no reference server at " + opt.reference);

  signal(SIGPIPE, SIG_IGN);  // a server that dies shows as a write error
  pinSelf(opt.cpu);
  // The bridge writes its log file where this says, not among the user's own logs.
  if (getenv("TAVIX_CU_LOG_DIR") == nullptr) {
    char logDir[] = "/tmp/bench-e2e-logs-XXXXXX";
    if (mkdtemp(logDir) == nullptr) usage(argv[0], "cannot make a log directory in /tmp");
    setenv("TAVIX_CU_LOG_DIR", logDir, 1);
    std::printf("bridge log directory: %s\n", logDir);
  }

  std::vector<Server> servers;
  if (opt.floor) servers.push_back({"floor (cat)", {"/bin/cat"}});
  if (!bridge.empty()) servers.push_back({"bridge", {bridge, "mcp"}});
  servers.push_back({"reference", {"node", opt.reference}});
  servers.insert(servers.end(), extra.begin(), extra.end());

  std::printf("CPU %d for driver and servers; %d spawns, %d pings after %d warm-up, %d x 4 MiB\n\n",
              opt.cpu, opt.spawns, opt.pings, opt.warmup, opt.bigReps);
  std::fflush(stdout);
  std::vector<Row> rows;
  bool failed = false;
  for (const auto& s : servers) {
    std::fprintf(stderr, "measuring %s...\n", s.name.c_str());
    rows.push_back(measure(s, opt));
    failed = failed || !rows.back().error.empty();
  }
  printTable(rows);
  if (!simulator.empty() && !bridge.empty()) {
    std::fflush(stdout);
    std::fprintf(stderr, "measuring tool calls...\n");
    e2e::ToolCallOptions toolCalls{opt.cpu, std::max(calls, 1), 3, bridge, simulator, opt.reference};
    const auto report = e2e::measureToolCalls(toolCalls);
    e2e::printToolCallReport(report, toolCalls);
    for (const auto& r : report.rows) failed = failed || !r.error.empty();
  }
  return failed ? 1 : 0;
}

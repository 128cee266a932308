#pragma once
// Pieces shared by the end-to-end driver's measurements: a server process on pipes,
// pinned to one CPU through taskset, and the statistics the tables show.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace e2e {

using Clock = std::chrono::steady_clock;
inline constexpr auto kResponseTimeout = std::chrono::seconds(60);

inline constexpr std::string_view kInitialize =
    R"({"jsonrpc":"2.0","id":0,"method":"initialize","params":{"protocolVersion":"2024-11-05",)"
    R"("capabilities":{},"clientInfo":{"name":"bench","version":"1"}}})"
    "\n";
inline constexpr std::string_view kInitialized = "{\"jsonrpc\":\"2.0\",\"method\":\"notifications/initialized\"}\n";

inline double millis(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }
inline double micros(Clock::duration d) { return std::chrono::duration<double, std::micro>(d).count(); }

inline std::runtime_error sysError(const std::string& what) {
  return std::runtime_error(what + ": " + std::strerror(errno));
}

// One server process: `taskset -c <cpu> <argv...>`, stdin and stdout on pipes.
// taskset execs the server, so pid is the server's own pid once exec is done.
class Child {
 public:
  Child(const std::vector<std::string>& command, int cpu) {
    std::vector<std::string> args = {"taskset", "-c", std::to_string(cpu)};
    args.insert(args.end(), command.begin(), command.end());
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);

    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0) throw sysError("pipe2");
    if (pipe2(out, O_CLOEXEC) != 0) throw sysError("pipe2");
    pid_ = fork();
    if (pid_ < 0) throw sysError("fork");
    if (pid_ == 0) {  // only async-signal-safe calls from here to exec
      dup2(in[0], STDIN_FILENO);
      dup2(out[1], STDOUT_FILENO);
      execvp(argv[0], argv.data());
      _exit(127);
    }
    close(in[0]);
    close(out[1]);
    toChild_ = in[1];
    fromChild_ = out[0];
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child() { stop(); }

  pid_t pid() const { return pid_; }

  void send(std::string_view bytes) const {
    while (!bytes.empty()) {
      ssize_t n = write(toChild_, bytes.data(), bytes.size());
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) throw sysError("write to server");
      bytes.remove_prefix(static_cast<size_t>(n));
    }
  }

  // Returns the next whole line (without the line feed); throws at end of
  // output or when nothing complete arrives before the deadline.
  std::string_view readLine(Clock::time_point deadline) {
    buf_.erase(0, consumed_);
    consumed_ = 0;
    size_t scanned = 0;
    for (;;) {
      if (const void* nl = std::memchr(buf_.data() + scanned, '\n', buf_.size() - scanned)) {
        size_t end = static_cast<size_t>(static_cast<const char*>(nl) - buf_.data());
        consumed_ = end + 1;
        return std::string_view(buf_).substr(0, end);
      }
      scanned = buf_.size();
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
      if (left.count() <= 0) throw std::runtime_error("no response before the deadline");
      pollfd p{fromChild_, POLLIN, 0};
      int r = poll(&p, 1, static_cast<int>(left.count()));
      if (r < 0 && errno == EINTR) continue;
      if (r < 0) throw sysError("poll");
      if (r == 0) continue;
      ssize_t n = read(fromChild_, chunk_.data(), chunk_.size());
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) throw sysError("read from server");
      if (n == 0) throw std::runtime_error("server closed its output");
      buf_.append(chunk_.data(), static_cast<size_t>(n));
    }
  }

  // Reads lines until the response carrying `id` (the JSON text of the id,
  // e.g. 7 or "big"); other lines, such as notifications, are skipped.
  void awaitResponse(std::string_view id) {
    auto deadline = Clock::now() + kResponseTimeout;
    for (;;) {
      std::string_view line = readLine(deadline);
      for (size_t at = line.find("\"id\":"); at != std::string_view::npos;
           at = line.find("\"id\":", at + 1)) {
        size_t v = at + 5;
        while (v < line.size() && line[v] == ' ') ++v;
        size_t e = v + id.size();
        if (line.substr(v, id.size()) == id && (e == line.size() || line[e] == ',' || line[e] == '}'))
          return;
      }
    }
  }

  // Closes the server's input and reaps it; one that lingers is killed.
  void stop() {
    if (toChild_ >= 0) close(toChild_);
    toChild_ = -1;
    if (pid_ > 0) {
      auto deadline = Clock::now() + std::chrono::seconds(5);
      int status = 0;
      while (waitpid(pid_, &status, WNOHANG) == 0) {
        if (Clock::now() > deadline) {
          kill(pid_, SIGKILL);
          waitpid(pid_, &status, 0);
          break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
      pid_ = -1;
    }
    if (fromChild_ >= 0) close(fromChild_);
    fromChild_ = -1;
  }

  void killNow() const {
    if (pid_ > 0) kill(pid_, SIGKILL);
  }

 private:
  pid_t pid_ = -1;
  int toChild_ = -1;
  int fromChild_ = -1;
  std::vector<char> chunk_ = std::vector<char>(256 * 1024);  // one large read at a time
  std::string buf_;                                        // bytes read, not yet returned
  size_t consumed_ = 0;                                    // prefix of buf_ already returned
};

inline double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

// Nearest-rank percentile of a sorted sample.
inline double percentile(const std::vector<double>& sorted, double p) {
  auto rank = static_cast<size_t>(std::ceil(p / 100.0 * static_cast<double>(sorted.size())));
  return sorted[std::clamp<size_t>(rank, 1, sorted.size()) - 1];
}

// A memory figure of /proc/<pid>/status in MiB: "VmRSS:" now, "VmHWM:" at its peak.
inline std::optional<double> statusMiB(pid_t pid, std::string_view field = "VmRSS:") {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind(field, 0) == 0) return std::stod(line.substr(field.size())) / 1024.0;  // kB
  }
  return std::nullopt;
}
inline std::optional<double> rssMiB(pid_t pid) { return statusMiB(pid); }

inline void handshake(Child& child) {
  child.send(kInitialize);
  child.awaitResponse("0");
  child.send(kInitialized);
}

}  // namespace e2e

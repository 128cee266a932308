#include "ToolCallMeasurement.h"

#include "E2EChild.h"
#include "platform/linux/SealedMemfd.h"

#include <systemd/sd-bus.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>

namespace e2e {
namespace {

constexpr const char *kBusName = "com.tavix.computeruse";
constexpr std::string_view kStateRequest = R"({"app":"Notes"})";

// The largest paste a tool call may carry.
std::string pasteText() { return std::string(4'000'000, 'p'); }

std::string actionJSON(const std::string &action, const std::string &parameters) {
  return R"({"action":{")" + action + R"(":{"_0":)" + parameters + R"(}},"app":"Notes"})";
}

// The index of the Notes window's body in its state text.
std::string bodyIndex(const std::string &stateReply) {
  const std::string needle = R"( text area \"Body\")";
  const size_t at = stateReply.find(needle);
  if (at == std::string::npos) throw std::runtime_error("no body in the Notes window");
  size_t start = at;
  while (start > 0 && std::isdigit(static_cast<unsigned char>(stateReply[start - 1]))) --start;
  return stateReply.substr(start, at - start);
}

// A private dbus-daemon on the measured CPU; stopped with this object.
class PrivateBus {
 public:
  explicit PrivateBus(int cpu) {
    std::string command = "taskset -c " + std::to_string(cpu) +
                          " dbus-daemon --session --fork --print-address=1 --print-pid=1";
    FILE *out = popen(command.c_str(), "r");
    if (out == nullptr) throw sysError("dbus-daemon");
    char line[512];
    if (std::fgets(line, sizeof line, out) != nullptr) address_ = std::string(line, strcspn(line, "\n"));
    if (std::fgets(line, sizeof line, out) != nullptr) pid_ = std::atoi(line);
    pclose(out);
    if (address_.empty() || pid_ <= 0) throw std::runtime_error("dbus-daemon did not start");
    setenv("DBUS_SESSION_BUS_ADDRESS", address_.c_str(), 1);
  }
  ~PrivateBus() { kill(pid_, SIGTERM); }
  const std::string &address() const { return address_; }

 private:
  std::string address_;
  pid_t pid_ = -1;
};

// The floor: one sd-bus call to the simulator, the way the bridge makes it, without the
// bridge. The response is written to a pipe that a thread drains.
class BareBusClient {
 public:
  BareBusClient() {
    if (sd_bus_open_user(&bus_) < 0) throw std::runtime_error("cannot connect to the private bus");
    std::vector<std::string> owners;
    sd_bus_message *reply = nullptr;
    sd_bus_error error{}; // SD_BUS_ERROR_NULL without its C compound literal
    if (sd_bus_call_method(bus_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                           "GetNameOwner", &error, &reply, "s", kBusName) < 0)
      throw std::runtime_error("the simulator does not own its name");
    const char *owner = nullptr;
    sd_bus_message_read(reply, "s", &owner);
    destination_ = owner;
    sd_bus_message_unref(reply);
    sd_bus_error_free(&error);
    if (pipe2(sink_, O_CLOEXEC) != 0) throw sysError("pipe2");
    drain_ = std::thread([fd = sink_[0]] {
      std::vector<char> buffer(1 << 20);
      while (read(fd, buffer.data(), buffer.size()) > 0) {
      }
    });
  }
  ~BareBusClient() {
    close(sink_[1]);
    drain_.join();
    close(sink_[0]);
    sd_bus_flush_close_unref(bus_);
  }

  // One Send; returns the response's bytes after writing them to the pipe.
  std::string send(std::string_view requestType, std::string_view json) {
    sd_bus_message *call = nullptr, *reply = nullptr;
    sd_bus_error error{}; // SD_BUS_ERROR_NULL without its C compound literal
    int fd = -1;
    std::string type(requestType);
    int r = sd_bus_message_new_method_call(bus_, &call, destination_.c_str(), "/com/tavix/computeruse",
                                           "com.tavix.computeruse.AppleEvent1", "Send");
    r = r < 0 ? r : sd_bus_message_append(call, "ss", "ZlCu", "SndR");
    r = r < 0 ? r : sd_bus_message_open_container(call, 'a', "{sv}");
    r = r < 0 ? r : sd_bus_message_append(call, "{sv}", "RspT", "s", type.c_str());
    if (json.size() > 64 * 1024) {
      fd = tavix::makeSealedMemfd("bench-request", json);
      r = r < 0 ? r : sd_bus_message_append(call, "{sv}", "ReqF", "h", fd);
    } else {
      r = r < 0 ? r : sd_bus_message_open_container(call, 'e', "sv");
      r = r < 0 ? r : sd_bus_message_append_basic(call, 's', "ReqD");
      r = r < 0 ? r : sd_bus_message_open_container(call, 'v', "ay");
      r = r < 0 ? r : sd_bus_message_append_array(call, 'y', json.data(), json.size());
      r = r < 0 ? r : sd_bus_message_close_container(call);
      r = r < 0 ? r : sd_bus_message_close_container(call);
    }
    r = r < 0 ? r : sd_bus_message_append(call, "{sv}", "RqID", "s", "BENCH");
    r = r < 0 ? r : sd_bus_message_close_container(call);
    r = r < 0 ? r : sd_bus_call(bus_, call, 60'000'000, &error, &reply);
    std::string bytes;
    if (r >= 0) bytes = readReply(reply);
    sd_bus_message_unref(call);
    sd_bus_message_unref(reply);
    sd_bus_error_free(&error);
    if (fd >= 0) close(fd);
    if (r < 0) throw std::runtime_error("Send failed: " + std::string(strerror(-r)));
    writeAll(bytes);
    return bytes;
  }

 private:
  static std::string readReply(sd_bus_message *reply) {
    std::string bytes;
    sd_bus_message_enter_container(reply, 'a', "{sv}");
    while (sd_bus_message_enter_container(reply, 'e', "sv") > 0) {
      const char *key = nullptr;
      sd_bus_message_read_basic(reply, 's', &key);
      if (std::string_view(key) == "RspF") {
        int fd = -1;
        sd_bus_message_read(reply, "v", "h", &fd);
        bytes = tavix::readSealedMemfd(fd).value_or("");
      } else if (std::string_view(key) == "----") {
        const void *data = nullptr;
        size_t size = 0;
        sd_bus_message_enter_container(reply, 'v', "ay");
        sd_bus_message_read_array(reply, 'y', &data, &size);
        sd_bus_message_exit_container(reply);
        bytes.assign(static_cast<const char *>(data), size);
      } else {
        sd_bus_message_skip(reply, "v");
      }
      sd_bus_message_exit_container(reply);
    }
    return bytes;
  }
  void writeAll(std::string_view bytes) const {
    while (!bytes.empty()) {
      ssize_t n = write(sink_[1], bytes.data(), bytes.size());
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) throw sysError("write to the sink");
      bytes.remove_prefix(static_cast<size_t>(n));
    }
  }

  sd_bus *bus_ = nullptr;
  std::string destination_;
  int sink_[2] = {-1, -1};
  std::thread drain_;
};

double p50(std::vector<double> samples) {
  std::sort(samples.begin(), samples.end());
  return percentile(samples, 50);
}

// Times `calls` runs of `one` after `warmup` untimed ones; `between` runs untimed before each.
double timeCalls(const ToolCallOptions &options, const std::function<void()> &one,
                 const std::function<void()> &between = nullptr) {
  for (int i = 0; i < options.warmup; ++i) {
    if (between) between();
    one();
  }
  std::vector<double> samples;
  for (int i = 0; i < options.calls; ++i) {
    if (between) between();
    auto start = Clock::now();
    one();
    samples.push_back(millis(Clock::now() - start));
  }
  return p50(std::move(samples));
}

// The base64 of the screenshot inside a get-state reply.
std::string imageBase64(const std::string &reply) {
  const std::string marker = "\"data\":\"";
  size_t at = reply.find(marker);
  if (at == std::string::npos) return {};
  at += marker.size();
  return reply.substr(at, reply.find('"', at) - at);
}

// A tools/call over stdio; the writer runs beside the reader, as in the 4 MB intake.
void callTool(Child &server, long id, const std::string &name, const std::string &arguments) {
  const std::string line = R"({"jsonrpc":"2.0","id":)" + std::to_string(id) +
                           R"(,"method":"tools/call","params":{"name":")" + name + R"(","arguments":)" +
                           arguments + "}}\n";
  std::string writeError;
  std::thread writer([&] {
    try {
      server.send(line);
    } catch (const std::exception &e) {
      writeError = e.what();
    }
  });
  try {
    server.awaitResponse(std::to_string(id));
  } catch (...) {
    server.killNow();
    writer.join();
    throw;
  }
  writer.join();
  if (!writeError.empty()) throw std::runtime_error(writeError);
}

// `body` names the element that pastes land in, emptied and focused before each paste;
// empty for a server that has no such element.
ToolCallRow measureServer(const std::string &name, const std::vector<std::string> &argv,
                          const ToolCallOptions &options, const std::string &body) {
  ToolCallRow row{name, {}, {}, {}, {}};
  try {
    Child server(argv, options.cpu);
    handshake(server);
    long id = 1;
    const std::string pasteArguments = R"({"app":"Notes","text":")" + pasteText() + "\"}";
    row.stateP50Ms = timeCalls(options, [&] { callTool(server, id++, "get_app_state", R"({"app":"Notes"})"); });
    row.pasteP50Ms = timeCalls(
        options, [&] { callTool(server, id++, "paste", pasteArguments); },
        [&] {
          if (body.empty()) return;
          callTool(server, id++, "set_value", R"({"app":"Notes","element_index":")" + body + R"(","value":""})");
          callTool(server, id++, "click", R"({"app":"Notes","element_index":")" + body + R"("})");
        });
    row.peakRssMiB = statusMiB(server.pid(), "VmHWM:");
  } catch (const std::exception &e) {
    row.error = e.what();
  }
  return row;
}

}  // namespace

ToolCallReport measureToolCalls(const ToolCallOptions &options) {
  ToolCallReport report;
  PrivateBus bus(options.cpu);
  Child simulator({options.simulator, "--png-level", "0", "--screen-size", options.screenSize}, options.cpu);
  simulator.readLine(Clock::now() + std::chrono::seconds(30));  // "ready <name>"

  ToolCallRow floor{"floor (sd-bus)", {}, {}, {}, {}};
  std::string imageFile;
  std::string body = "2";
  try {
    BareBusClient client;
    body = bodyIndex(client.send("ComputerUseIPCAppGetStateRequest", R"({"app":"Notes","observation":"state"})"));
    std::string reply;
    floor.stateP50Ms = timeCalls(options, [&] { reply = client.send("ComputerUseIPCAppGetStateRequest", kStateRequest); });
    report.replyBytes = reply.size();
    const std::string base64 = imageBase64(reply);
    report.pngBytes = base64.size() / 4 * 3;
    char path[] = "/tmp/bench-screenshot-XXXXXX";
    int fd = mkstemp(path);
    if (fd < 0) throw sysError("mkstemp");
    (void)!write(fd, base64.data(), base64.size());
    close(fd);
    imageFile = path;
    // Pastes land in the body, emptied before each one so that every paste moves the
    // same bytes; the bridge's row does the same below.
    const std::string paste = actionJSON("paste", R"({"format":"text","text":")" + pasteText() + R"("})");
    const std::string empty = actionJSON("setValue", R"({"elementIndex":)" + body + R"(,"value":""})");
    const std::string focus =
        actionJSON("click", R"({"clickCount":1,"elementIndex":)" + body + R"(,"mouseButton":0})");
    floor.pasteP50Ms = timeCalls(
        options, [&] { client.send("ComputerUseIPCAppPerformActionRequest", paste); },
        [&] {
          client.send("ComputerUseIPCAppPerformActionRequest", empty);
          client.send("ComputerUseIPCAppPerformActionRequest", focus);
        });
    client.send("ComputerUseIPCAppPerformActionRequest", empty); // the bridge's screenshots start alike
  } catch (const std::exception &e) {
    floor.error = e.what();
  }
  report.rows.push_back(floor);

  report.rows.push_back(measureServer("bridge", {options.bridge, "mcp"}, options, body));
  setenv("REFERENCE_IMAGE_BASE64_FILE", imageFile.c_str(), 1);
  report.rows.push_back(measureServer("reference", {"node", options.reference}, options, ""));
  if (!imageFile.empty()) unlink(imageFile.c_str());
  return report;
}

void printToolCallReport(const ToolCallReport &report, const ToolCallOptions &options) {
  std::printf("\nTool calls: p50 over %d calls after %d warm-up; screenshot PNG %.2f MB, reply %.2f MB; "
              "paste 4.0 MB\n",
              options.calls, options.warmup, static_cast<double>(report.pngBytes) / 1e6,
              static_cast<double>(report.replyBytes) / 1e6);
  std::printf("%-16s %18s %14s %16s\n", "server", "get_app_state ms", "paste ms", "peak RSS MiB");
  auto cell = [](const std::optional<double> &v) {
    char text[32];
    if (!v) return std::string("-");
    std::snprintf(text, sizeof text, "%.2f", *v);
    return std::string(text);
  };
  for (const auto &r : report.rows)
    std::printf("%-16s %18s %14s %16s\n", r.name.c_str(), cell(r.stateP50Ms).c_str(), cell(r.pasteP50Ms).c_str(),
                cell(r.peakRssMiB).c_str());
  for (const auto &r : report.rows)
    if (!r.error.empty()) std::printf("%s: failed: %s\n", r.name.c_str(), r.error.c_str());
}

}  // namespace e2e

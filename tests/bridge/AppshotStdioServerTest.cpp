// The appshot mode in process, over pipes and a scripted runtime transport: the exact
// answer to every kind of bad line (none of which reaches the runtime app), every method
// name, the ids echoed, failures passed through; lines however the bytes arrive, and the
// longest; and the concurrency of lines: a waiting update never holds back a cancel,
// answers never interleave, and the end of input waits for the lines under way and then
// cancels what is left.

#include "bridge/AppshotStdioLineReader.h"
#include "bridge/AppshotStdioServer.h"

#include "fakes/ScriptedRequestTransport.h"
#include "support/JSON.h"
#include "testing/Pipe.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace tavix::test {
namespace {

using namespace std::chrono_literals;

constexpr const char *startType = "ComputerUseIPCAppStartFrontmostCaptureRequest",
                     *nextType = "ComputerUseIPCAppNextCaptureUpdateRequest",
                     *cancelType = "ComputerUseIPCAppCancelCaptureRequest";

// A server on pipes, its runtime scripted; start() serves its input on a thread.
struct AppshotServerHarness {
  explicit AppshotServerHarness(AppshotStdioServer::Options options = {}) {
    options.input = input.readEnd();
    options.output = output.writeEnd();
    server = std::make_unique<AppshotStdioServer>(
        std::make_shared<const ComputerUseClient>(std::unique_ptr<ComputerUseRequestTransport>(runtime)), options);
  }
  ~AppshotServerHarness() { runtime->release(); endInputAndWait(); }
  void start() { running = std::thread([this] { server->run(); }); }
  void endInputAndWait() { input.closeWrite(); if (running.joinable()) running.join(); }
  // What handle() answers for one line, on the calling thread.
  std::string answerTo(std::string_view line) { server->handle(line); return output.readAvailable(); }
  // At least `count` answer lines, read as they come; fewer when none comes for 10 s.
  std::string readLines(int count) {
    std::string lines;
    pollfd readable{output.readEnd(), POLLIN, 0};
    for (int seen = 0; seen < count && ::poll(&readable, 1, 10'000) > 0;) {
      const std::string more = output.readAvailable();
      seen += static_cast<int>(std::count(more.begin(), more.end(), '\n'));
      lines += more;
    }
    return lines;
  }

  Pipe input, output;
  ScriptedRequestTransport *runtime = new ScriptedRequestTransport(); // the client owns it
  std::unique_ptr<AppshotStdioServer> server;
  std::thread running;
};

// A request line about capture "r1" (without an id when `id` is empty), and answer lines
// (an empty id is null); ids and messages are as in JSON.
std::string request(std::string_view id, std::string_view method) {
  return R"({"method":")" + std::string(method) + R"(","params":{"requestId":"r1","unknownKey":[1]})" +
         (id.empty() ? "" : R"(,"id":)" + std::string(id)) + "}\n";
}
std::string result(std::string_view id, std::string_view result) {
  return R"({"id":)" + std::string(id.empty() ? "null" : id) + R"(,"result":)" + std::string(result) + "}\n";
}
std::string error(std::string_view code, std::string_view message, std::string_view id = "null") {
  return R"({"error":{"code":")" + std::string(code) + R"(","message":")" + std::string(message) + R"("},"id":)" +
         std::string(id) + "}\n";
}
// The lines of `text`, each with its line feed, in no particular order.
std::multiset<std::string> linesOf(const std::string &text) {
  std::istringstream in(text);
  std::multiset<std::string> lines;
  for (std::string line; std::getline(in, line);)
    lines.insert(line + "\n");
  return lines;
}

TEST(AppshotStdioServer, EachLineGetsItsExactAnswerAndOnlyRequestsReachTheRuntime) {
  AppshotServerHarness harness;
  harness.runtime->script(startType, {R"({"target":{"bundleIdentifier":"b","extra":1,"name":"N"},"transitionSnapshotHeight":3.5})"});
  harness.runtime->script(nextType, {R"({"requestId":"r1","update":{"type":"frame","text":"t"}})"});
  // The third cancel fails in the runtime.
  harness.runtime->script(cancelType, {R"({"ignored":true})", R"({"ignored":true})",
                                       tl::unexpected(ClientFailure(ServerError{7, "No capture r1"}))});
  // The response records as they re-encode, unknown keys dropped.
  const std::string started = R"({"target":{"bundleIdentifier":"b","name":"N"},"transitionSnapshotHeight":3.5})",
                    update = R"({"requestId":"r1","update":{"text":"t","type":"frame"}})";
  const std::pair<std::string, std::string> cases[] = {
      // Every method name, and ids echoed as they are.
      {request("5", "startFrontmostAppshotCapture"), result("5", started)},
      {request("-1.5", "computer-use-start-frontmost-capture"), result("-1.5", started)},
      {request(R"("a")", "computer-use-start-capture"), result(R"("a")", started)},
      {request(R"({"k":[1,null]})", "nextAppshotCaptureUpdate"), result(R"({"k":[1,null]})", update)},
      {request("18446744073709551615", "computer-use-next-capture-update"), result("18446744073709551615", update)},
      {request("null", "cancelAppshotCapture"), result("null", "{}")},
      {request("", "computer-use-cancel-capture"), result("", "{}")},
      {request("2", "cancelAppshotCapture"), error("request_failed", "Server error 7: No capture r1", "2")},
      // Lines that are not requests.
      {"[1,2]", error("invalid_json", "Request must be a JSON object")},
      {"null", error("invalid_json", "Request must be a JSON object")},
      // The parser's account, with bytes that are not UTF-8 shown as U+FFFD.
      {"\"\xff\"", error("invalid_json", "parse error at line 1, column 2: syntax error while parsing value - "
                                         "invalid string: ill-formed UTF-8 byte; last read: '\\\"\xEF\xBF\xBD'")},
      {R"({"id":7})", error("invalid_request", "Missing method", "7")},
      {R"({"id":7,"method":5})", error("invalid_request", "Missing method", "7")},
      // Params that are not an object are refused before the method is looked up.
      {R"({"id":"a","method":"noSuchMethod","params":3})", error("invalid_params", "params must be a JSON object", R"("a")")},
      // Method names compare exactly.
      {request("1", "StartFrontmostAppshotCapture"), error("unknown_method", "Unknown method: StartFrontmostAppshotCapture", "1")},
      // Absent and null params read as {}, which is not a request.
      {R"({"id":"a","method":"startFrontmostAppshotCapture"})", error("request_failed", R"(Missing required key \"requestId\")", R"("a")")},
      {R"({"id":"a","method":"computer-use-cancel-capture","params":null})", error("request_failed", R"(Missing required key \"requestId\")", R"("a")")},
  };
  for (const auto &[line, answer] : cases)
    EXPECT_EQ(harness.answerTo(line), answer) << line;
  // The requests reached the runtime as their records, with the transport's own time-out.
  EXPECT_EQ(harness.runtime->sentTypes(),
            (std::vector<std::string>{startType, startType, startType, nextType, nextType, cancelType, cancelType, cancelType}));
  for (const auto &sent : harness.runtime->sent())
    EXPECT_TRUE(sent.body == R"({"requestId":"r1"})" && !sent.timeoutSeconds) << sent.body;
  // An answer that cannot be written as JSON is a fixed line.
  harness.server->writeResponse("\xfe", std::nullopt, "request_failed", "x");
  EXPECT_EQ(harness.output.readAvailable(),
            R"({"id":null,"error":{"code":"encoding_failed","message":"Failed to encode response"}})" "\n");
}

TEST(AppshotStdioServer, ReadsLinesHoweverTheBytesArriveAndRefusesTooLongOnesWhole) {
  AppshotServerHarness harness;
  harness.runtime->script(cancelType, {"{}"});
  harness.start();
  const std::string cancel = R"({"method":"cancelAppshotCapture","params":{"requestId":"r1"},"id":)";
  const size_t limit = AppshotStdioLineReader::longestLine;
  const auto longest = [&](std::string line) { return line.append(limit - line.size(), ' '); };
  // Blank lines are skipped and lines trimmed, of Unicode white space too. Lines as long as
  // allowed are served, with a line feed or as the last line, which needs none; one a byte
  // longer is refused, and so is one far longer, skipped as it comes in. A line may arrive
  // in pieces.
  for (const std::string &piece : {"\n \t\r\n\xC2\xA0\n\r\n" + longest(cancel + "1}") + "\n" + std::string(limit + 1, ' ') +
                                       "\n" + std::string(3 * limit, ' ') + "\n\t " + cancel,
                                   "2} \xE2\x80\xA8\r\n" + longest(cancel + "3}")})
    harness.input.writeAndDrain(piece);
  harness.endInputAndWait();
  const std::string tooLong = error("invalid_json", "Request line is longer than 1048576 bytes");
  EXPECT_EQ(linesOf(harness.output.readAvailable()),
            (std::multiset<std::string>{result("1", "{}"), result("2", "{}"), result("3", "{}"), tooLong, tooLong}));
}

TEST(AppshotStdioServer, AFailedReadIsAnsweredAndEndsTheInput) {
  const int directory = ::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  Pipe output;
  AppshotStdioServer server(std::make_shared<const ComputerUseClient>(std::make_unique<ScriptedRequestTransport>()),
                            {.input = directory, .output = output.writeEnd()});
  server.run();
  EXPECT_EQ(output.readAvailable(), error("stdin_failed", "Is a directory"));
  ::close(directory);
}

TEST(AppshotStdioServer, AWaitingUpdateHoldsBackNeitherALaterCancelNorTheEndOfInput) {
  AppshotServerHarness harness({.endOfInputGrace = 60s});
  harness.runtime->holdType(nextType);
  harness.runtime->script(nextType, {R"({"requestId":"r1","update":{"type":"cancelled"}})"});
  harness.runtime->script(cancelType, {"{}"});
  harness.start();
  harness.input.write(request("1", "nextAppshotCaptureUpdate"));
  harness.runtime->waitForSent(1);
  harness.input.write(request("2", "cancelAppshotCapture"));
  EXPECT_EQ(harness.readLines(1), result("2", "{}"));
  // The end of input waits for the update, which finishes within the grace.
  harness.input.closeWrite();
  harness.runtime->release();
  harness.endInputAndWait();
  EXPECT_EQ(harness.output.readAvailable(), result("1", R"({"requestId":"r1","update":{"type":"cancelled"}})"));
  // Each line runs under its own request id, which the runtime sees as the correlation id.
  const auto sent = harness.runtime->sent();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_NE(sent[0].correlationID, sent[1].correlationID);
  EXPECT_EQ(sent[0].correlationID.size(), 36u);
}

TEST(AppshotStdioServer, ConcurrentAnswersAreWrittenWholeOneLineEach) {
  AppshotServerHarness harness;
  // Each answer is larger than a pipe holds, so that writers would interleave if they could.
  const std::string picture = "data:image/png;base64," + std::string(200 * 1024, 'A');
  const std::string update = R"({"requestId":"r1","update":{"screenshotDataURL":")" + picture + R"(","type":"frame"}})";
  harness.runtime->script(nextType, {update});
  harness.start();
  std::multiset<std::string> expected;
  for (int id = 0; id < 48; ++id) {
    harness.input.write(request(std::to_string(id), "nextAppshotCaptureUpdate"));
    expected.insert(result(std::to_string(id), update));
  }
  EXPECT_TRUE(linesOf(harness.readLines(48)) == expected) << "answers went missing or were interleaved";
}

TEST(AppshotStdioServer, TheEndOfInputCancelsWhatOutlastsTheGrace) {
  // One line thread: the start waits behind the held update and is cancelled before it
  // runs, so it never reaches the runtime.
  constexpr auto grace = 100ms;
  AppshotServerHarness harness({.endOfInputGrace = grace, .lineThreads = 1});
  harness.runtime->holdType(nextType);
  harness.start();
  harness.input.write(request("1", "nextAppshotCaptureUpdate"));
  harness.runtime->waitForSent(1);
  harness.input.write(request("2", "startFrontmostAppshotCapture") + request("3", "nope"));
  const auto ended = std::chrono::steady_clock::now();
  harness.endInputAndWait();
  EXPECT_GE(std::chrono::steady_clock::now() - ended, grace);
  const std::string cancelled = "The request was cancelled.";
  EXPECT_EQ(harness.output.readAvailable(), error("request_failed", cancelled, "1") +
                                                error("request_failed", cancelled, "2") +
                                                error("unknown_method", "Unknown method: nope", "3"));
  EXPECT_EQ(harness.runtime->sentTypes(), std::vector<std::string>{nextType});
}

} // namespace
} // namespace tavix::test

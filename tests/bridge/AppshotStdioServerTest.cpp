// The appshot mode's server in process, over pipes and a scripted runtime transport: the
// exact answer to every kind of bad line (none of which reaches the runtime app), every
// method name, the ids echoed, failures passed through, and the concurrency of lines: a
// waiting update never holds back a cancel, answers never interleave, and the end of
// input waits for the lines under way and then cancels what is left.

#include "bridge/AppshotStdioServer.h"

#include "fakes/ScriptedRequestTransport.h"
#include "support/JSON.h"
#include "testing/Pipe.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace tavix::test {
namespace {

using nlohmann::json;
using namespace std::chrono_literals;

constexpr const char *startType = "ComputerUseIPCAppStartFrontmostCaptureRequest";
constexpr const char *nextType = "ComputerUseIPCAppNextCaptureUpdateRequest";
constexpr const char *cancelType = "ComputerUseIPCAppCancelCaptureRequest";

class AppshotServerHarness {
public:
  explicit AppshotServerHarness(AppshotStdioServer::Options options = {})
      : runtime_(new ScriptedRequestTransport()),
        client_(std::make_shared<const ComputerUseClient>(std::unique_ptr<ComputerUseRequestTransport>(runtime_))) {
    options.input = input_.readEnd();
    options.output = output_.writeEnd();
    server_ = std::make_unique<AppshotStdioServer>(client_, options);
  }
  ~AppshotServerHarness() {
    input_.closeWrite();
    runtime_->release();
    if (running_.joinable())
      running_.join();
  }

  ScriptedRequestTransport &runtime() { return *runtime_; }
  AppshotStdioServer &server() { return *server_; }

  void start() {
    running_ = std::thread([this] {
      server_->run();
      returned_ = true;
    });
  }
  void send(std::string_view bytes) { input_.write(bytes); }
  void endInput() { input_.closeWrite(); }
  // Waits for run() to return.
  void waitUntilReturned() {
    running_.join();
    EXPECT_TRUE(returned_);
  }

  // The next answer line, without its line feed; nothing when none comes in time.
  std::optional<std::string> readLine(std::chrono::milliseconds timeout = 10s) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
      if (const size_t feed = pending_.find('\n'); feed != std::string::npos) {
        std::string line = pending_.substr(0, feed);
        pending_.erase(0, feed + 1);
        return line;
      }
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      if (left <= 0ms)
        return std::nullopt;
      pollfd readable{output_.readEnd(), POLLIN, 0};
      if (::poll(&readable, 1, static_cast<int>(left.count())) > 0)
        pending_ += output_.readAvailable();
    }
  }
  // Whatever is written but not yet read.
  std::string unread() { return pending_ + output_.readAvailable(); }

private:
  Pipe input_;
  Pipe output_;
  ScriptedRequestTransport *runtime_;
  std::shared_ptr<const ComputerUseClient> client_;
  std::unique_ptr<AppshotStdioServer> server_;
  std::thread running_;
  std::atomic<bool> returned_ = false;
  std::string pending_;
};

// The answer `handle` writes for one line, on the calling thread.
std::string answerTo(AppshotServerHarness &harness, std::string_view line) {
  harness.server().handle(line);
  return harness.readLine(1s).value_or("<no answer>");
}

TEST(AppshotStdioServer, BadLinesGetTheirExactErrorAndNeverReachTheRuntime) {
  AppshotServerHarness harness;
  const std::pair<std::string_view, std::string_view> cases[] = {
      // Not an object.
      {"[1,2]", R"({"error":{"code":"invalid_json","message":"Request must be a JSON object"},"id":null})"},
      {"5", R"({"error":{"code":"invalid_json","message":"Request must be a JSON object"},"id":null})"},
      {"\"text\"", R"({"error":{"code":"invalid_json","message":"Request must be a JSON object"},"id":null})"},
      {"null", R"({"error":{"code":"invalid_json","message":"Request must be a JSON object"},"id":null})"},
      // Not JSON: the parser says where and why; bytes that are not UTF-8 are shown as U+FFFD.
      {"not json",
       R"({"error":{"code":"invalid_json","message":"parse error at line 1, column 2: syntax error while parsing value - invalid literal; last read: 'no'"},"id":null})"},
      {R"({"id":1,"method":"cancelAppshotCapture")",
       R"({"error":{"code":"invalid_json","message":"parse error at line 1, column 40: syntax error while parsing object - unexpected end of input; expected '}'"},"id":null})"},
      {"\"\xff\"",
       "{\"error\":{\"code\":\"invalid_json\",\"message\":\"parse error at line 1, column 2: syntax error while "
       "parsing value - invalid string: ill-formed UTF-8 byte; last read: '\\\"\xEF\xBF\xBD'\"},\"id\":null}"},
      // No method.
      {R"({"id":7})", R"({"error":{"code":"invalid_request","message":"Missing method"},"id":7})"},
      {R"({"id":7,"method":5})", R"({"error":{"code":"invalid_request","message":"Missing method"},"id":7})"},
      {R"({"method":null,"params":{}})", R"({"error":{"code":"invalid_request","message":"Missing method"},"id":null})"},
      // Params that are not an object, checked before the method is looked up.
      {R"({"id":"a","method":"startFrontmostAppshotCapture","params":[]})",
       R"({"error":{"code":"invalid_params","message":"params must be a JSON object"},"id":"a"})"},
      {R"({"id":"a","method":"cancelAppshotCapture","params":"r1"})",
       R"({"error":{"code":"invalid_params","message":"params must be a JSON object"},"id":"a"})"},
      {R"({"id":"a","method":"noSuchMethod","params":3})",
       R"({"error":{"code":"invalid_params","message":"params must be a JSON object"},"id":"a"})"},
      // Unknown methods: names compare exactly.
      {R"({"id":1,"method":"StartFrontmostAppshotCapture"})",
       R"({"error":{"code":"unknown_method","message":"Unknown method: StartFrontmostAppshotCapture"},"id":1})"},
      {R"({"id":1,"method":" cancelAppshotCapture"})",
       R"({"error":{"code":"unknown_method","message":"Unknown method:  cancelAppshotCapture"},"id":1})"},
      {R"({"id":1,"method":""})", R"({"error":{"code":"unknown_method","message":"Unknown method: "},"id":1})"},
      // Params that are not the request record; absent and null params read as {}.
      {R"({"id":"a","method":"nextAppshotCaptureUpdate","params":{}})",
       R"({"error":{"code":"request_failed","message":"Missing required key \"requestId\""},"id":"a"})"},
      {R"({"id":"a","method":"startFrontmostAppshotCapture"})",
       R"({"error":{"code":"request_failed","message":"Missing required key \"requestId\""},"id":"a"})"},
      {R"({"id":"a","method":"computer-use-cancel-capture","params":null})",
       R"({"error":{"code":"request_failed","message":"Missing required key \"requestId\""},"id":"a"})"},
      {R"({"id":"w","method":"startFrontmostAppshotCapture","params":{"requestId":"r1","windowID":4294967296}})",
       R"({"error":{"code":"request_failed","message":"Expected an integer in range for \"windowID\""},"id":"w"})"},
      {R"({"id":"t","method":"nextAppshotCaptureUpdate","params":{"requestId":"r1","timeoutMs":1.5}})",
       R"({"error":{"code":"request_failed","message":"Expected an integer in range for \"timeoutMs\""},"id":"t"})"},
      {R"({"id":"h","method":"startFrontmostAppshotCapture","params":{"requestId":"r1","animationTarget":{"destinationFrame":{"x":0,"y":0,"width":1}}}})",
       R"({"error":{"code":"request_failed","message":"Missing required key \"height\""},"id":"h"})"},
  };
  for (const auto &[line, answer] : cases)
    EXPECT_EQ(answerTo(harness, line), answer) << line;
  EXPECT_TRUE(harness.runtime().sent().empty());
  EXPECT_EQ(harness.unread(), "");
}

TEST(AppshotStdioServer, EveryMethodNameSendsItsRequestAndAnswersItsResponse) {
  AppshotServerHarness harness;
  harness.runtime().script(startType, {R"({"target":{"bundleIdentifier":"b","name":"N","extra":1},"transitionSnapshotHeight":300.5})"});
  harness.runtime().script(nextType, {R"({"requestId":"r1","update":{"type":"frame","text":"t"}})"});
  harness.runtime().script(cancelType, {R"({"ignored":true})"});
  const struct {
    std::string_view method;
    std::string_view requestType;
    std::string_view result; // the response record as it re-encodes: unknown keys dropped
  } cases[] = {
      {"startFrontmostAppshotCapture", startType, R"({"target":{"bundleIdentifier":"b","name":"N"},"transitionSnapshotHeight":300.5})"},
      {"computer-use-start-frontmost-capture", startType, R"({"target":{"bundleIdentifier":"b","name":"N"},"transitionSnapshotHeight":300.5})"},
      {"computer-use-start-capture", startType, R"({"target":{"bundleIdentifier":"b","name":"N"},"transitionSnapshotHeight":300.5})"},
      {"nextAppshotCaptureUpdate", nextType, R"({"requestId":"r1","update":{"text":"t","type":"frame"}})"},
      {"computer-use-next-capture-update", nextType, R"({"requestId":"r1","update":{"text":"t","type":"frame"}})"},
      {"cancelAppshotCapture", cancelType, "{}"},
      {"computer-use-cancel-capture", cancelType, "{}"},
  };
  size_t sent = 0;
  for (const auto &c : cases) {
    SCOPED_TRACE(c.method);
    const std::string line =
        R"({"id":5,"method":")" + std::string(c.method) + R"(","params":{"requestId":"r1","unknownKey":[1]}})";
    EXPECT_EQ(answerTo(harness, line), R"({"id":5,"result":)" + std::string(c.result) + "}");
    const auto requests = harness.runtime().sent();
    ASSERT_EQ(requests.size(), ++sent);
    EXPECT_EQ(requests.back().requestType, c.requestType);
    EXPECT_EQ(requests.back().body, R"({"requestId":"r1"})");
    EXPECT_EQ(requests.back().timeoutSeconds, std::nullopt);
  }
}

TEST(AppshotStdioServer, EveryFieldOfAStartReachesTheRuntime) {
  AppshotServerHarness harness;
  harness.runtime().script(startType, {"{}"});
  const std::string params =
      R"({"animationTarget":{"destinationBackgroundColor":"#000","destinationCornerRadius":8.5,)"
      R"("destinationFrame":{"height":4,"width":3,"x":1,"y":2},"destinationPrimaryTextColor":"#fff",)"
      R"("zumexDisplay":{"bounds":{"height":900,"width":1440,"x":0,"y":0},"id":-3,"scaleFactor":2,)"
      R"("workArea":{"height":875,"width":1440,"x":0,"y":25}}},"bundleIdentifier":"com.example.notes",)"
      R"("requestId":"r1","windowID":4294967295})";
  EXPECT_EQ(answerTo(harness, R"({"id":1,"method":"startFrontmostAppshotCapture","params":)" + params + "}"),
            R"({"id":1,"result":{}})");
  ASSERT_EQ(harness.runtime().sent().size(), 1u);
  // The record as it encodes: its doubles as doubles, the integers as integers.
  EXPECT_EQ(harness.runtime().sent()[0].body,
            R"({"animationTarget":{"destinationBackgroundColor":"#000","destinationCornerRadius":8.5,)"
            R"("destinationFrame":{"height":4.0,"width":3.0,"x":1.0,"y":2.0},"destinationPrimaryTextColor":"#fff",)"
            R"("zumexDisplay":{"bounds":{"height":900.0,"width":1440.0,"x":0.0,"y":0.0},"id":-3,"scaleFactor":2.0,)"
            R"("workArea":{"height":875.0,"width":1440.0,"x":0.0,"y":25.0}}},"bundleIdentifier":"com.example.notes",)"
            R"("requestId":"r1","windowID":4294967295})");
}

TEST(AppshotStdioServer, IdsAreEchoedAsGiven) {
  AppshotServerHarness harness;
  harness.runtime().script(cancelType, {"{}"});
  for (const std::string id : {"5", "-1", "1.5", "\"a\"", "{\"k\":[1,null]}", "[1,\"x\"]", "null", "true",
                               "18446744073709551615", "\"\""}) {
    EXPECT_EQ(answerTo(harness, R"({"method":"cancelAppshotCapture","params":{"requestId":"r"},"id":)" + id + "}"),
              R"({"id":)" + id + R"(,"result":{}})");
  }
  EXPECT_EQ(answerTo(harness, R"({"method":"cancelAppshotCapture","params":{"requestId":"r"}})"),
            R"({"id":null,"result":{}})");
}

TEST(AppshotStdioServer, RuntimeFailuresAreRequestFailedWithTheirText) {
  AppshotServerHarness harness;
  const struct {
    ScriptedRequestTransport::Reply reply;
    std::string_view message;
  } cases[] = {
      {tl::unexpected(ClientFailure(ServerError{7, "No capture r1"})), "Server error 7: No capture r1"},
      {tl::unexpected(ClientFailure(ServerError{-128, std::nullopt})), "Server error -128"},
      {tl::unexpected(ClientFailure(CancellationError{})), "The request was cancelled."},
      {tl::unexpected(ClientFailure(ClientError::runtimeNotRunning())), ""},
      // A reply that is not the response record.
      {std::string(R"({"requestId":"r1"})"), ""},
  };
  for (const auto &c : cases) {
    harness.runtime().script(nextType, {c.reply});
    const auto answer = json::parse(answerTo(harness, R"({"id":2,"method":"nextAppshotCaptureUpdate","params":{"requestId":"r1"}})"));
    EXPECT_EQ(answer["id"], 2);
    EXPECT_EQ(answer["error"]["code"], "request_failed");
    EXPECT_FALSE(answer.contains("result"));
    if (!c.message.empty())
      EXPECT_EQ(answer["error"]["message"], c.message);
    else if (c.reply)
      EXPECT_EQ(answer["error"]["message"],
                describe(ClientFailure(ComputerUseClientError::decodingFailed(nextType, "Missing required key \"update\""))));
    else
      EXPECT_EQ(answer["error"]["message"], describe(c.reply.error()));
  }
}

TEST(AppshotStdioServer, AnAnswerThatCannotBeEncodedIsTheFixedLine) {
  AppshotServerHarness harness;
  harness.server().writeResponse(1, json("\xff"), {}, {});
  harness.server().writeResponse("\xfe", std::nullopt, "request_failed", "x");
  for (int i = 0; i < 2; ++i)
    EXPECT_EQ(harness.readLine(1s),
              R"({"id":null,"error":{"code":"encoding_failed","message":"Failed to encode response"}})");
}

TEST(AppshotStdioServer, BlankLinesAreSkippedAndLinesTrimmed) {
  AppshotServerHarness harness;
  harness.runtime().script(cancelType, {"{}"});
  harness.start();
  harness.send("\n \t\r\n\xC2\xA0\n\r\n");
  harness.send("\t {\"id\":1,\"method\":\"cancelAppshotCapture\",\"params\":{\"requestId\":\"r\"}} \xE2\x80\xA8\r\n\n");
  harness.endInput();
  harness.waitUntilReturned();
  EXPECT_EQ(harness.unread(), "{\"id\":1,\"result\":{}}\n");
}

TEST(AppshotStdioServer, AWaitingUpdateDoesNotHoldBackALaterCancel) {
  AppshotServerHarness harness;
  harness.runtime().holdType(nextType);
  harness.runtime().script(nextType, {R"({"requestId":"r1","update":{"type":"cancelled"}})"});
  harness.runtime().script(cancelType, {"{}"});
  harness.start();
  harness.send(R"({"id":1,"method":"nextAppshotCaptureUpdate","params":{"requestId":"r1","timeoutMs":60000}})" "\n");
  harness.runtime().waitForSent(1);
  harness.send(R"({"id":2,"method":"cancelAppshotCapture","params":{"requestId":"r1"}})" "\n");
  EXPECT_EQ(harness.readLine(), R"({"id":2,"result":{}})");
  harness.runtime().release();
  EXPECT_EQ(harness.readLine(), R"({"id":1,"result":{"requestId":"r1","update":{"type":"cancelled"}}})");
  harness.endInput();
  harness.waitUntilReturned();
  // Each line runs under its own request id, which the runtime sees as the correlation id.
  const auto sent = harness.runtime().sent();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_NE(sent[0].correlationID, sent[1].correlationID);
  EXPECT_EQ(sent[0].correlationID.size(), 36u);
}

TEST(AppshotStdioServer, ConcurrentAnswersAreWrittenWholeOneLineEach) {
  AppshotServerHarness harness;
  // Each answer is larger than a pipe holds, so that writers would interleave if they could.
  const std::string picture(200 * 1024, 'A');
  harness.runtime().script(
      nextType, {R"({"requestId":"r","update":{"type":"frame","screenshotDataURL":"data:image/png;base64,)" + picture + "\"}}"});
  harness.start();
  constexpr int lines = 48;
  std::string input;
  for (int i = 0; i < lines; ++i)
    input += R"({"id":)" + std::to_string(i) + R"(,"method":"nextAppshotCaptureUpdate","params":{"requestId":"r"}})" "\n";
  harness.send(input);
  std::set<int> ids;
  for (int i = 0; i < lines; ++i) {
    const auto line = harness.readLine();
    ASSERT_TRUE(line.has_value());
    const auto answer = parseJSON(*line);
    ASSERT_TRUE(answer.has_value()) << line->substr(0, 80);
    EXPECT_EQ((*answer)["result"]["update"]["screenshotDataURL"].get<std::string>().size(), 22 + picture.size());
    ids.insert((*answer)["id"].get<int>());
  }
  EXPECT_EQ(ids.size(), size_t(lines));
  harness.endInput();
  harness.waitUntilReturned();
  EXPECT_EQ(harness.unread(), "");
}

TEST(AppshotStdioServer, TheEndOfInputWaitsForLinesThatFinishInTime) {
  AppshotServerHarness harness(AppshotStdioServer::Options{.endOfInputGrace = 60s});
  harness.runtime().holdType(nextType);
  harness.runtime().script(nextType, {R"({"requestId":"r1","update":{"type":"timeout"}})"});
  harness.start();
  harness.send(R"({"id":1,"method":"nextAppshotCaptureUpdate","params":{"requestId":"r1"}})" "\n");
  harness.runtime().waitForSent(1);
  harness.endInput();
  harness.runtime().release();
  harness.waitUntilReturned();
  EXPECT_EQ(harness.unread(), R"({"id":1,"result":{"requestId":"r1","update":{"type":"timeout"}}})" "\n");
}

TEST(AppshotStdioServer, TheEndOfInputCancelsWhatOutlastsTheGrace) {
  // One line thread: the start waits behind the held update and is cancelled before it
  // runs, so it never reaches the runtime.
  constexpr auto grace = 200ms;
  AppshotServerHarness harness(AppshotStdioServer::Options{.endOfInputGrace = grace, .lineThreads = 1});
  harness.runtime().holdType(nextType);
  harness.start();
  harness.send(R"({"id":1,"method":"nextAppshotCaptureUpdate","params":{"requestId":"r1"}})" "\n");
  harness.runtime().waitForSent(1);
  harness.send(R"({"id":2,"method":"startFrontmostAppshotCapture","params":{"requestId":"r2"}})" "\n"
               R"({"id":3,"method":"nope"})" "\n");
  const auto ended = std::chrono::steady_clock::now();
  harness.endInput();
  harness.waitUntilReturned();
  EXPECT_GE(std::chrono::steady_clock::now() - ended, grace);
  const std::string cancelled = R"({"error":{"code":"request_failed","message":"The request was cancelled."},"id":)";
  EXPECT_EQ(harness.unread(), cancelled + "1}\n" + cancelled + "2}\n" +
                                  R"({"error":{"code":"unknown_method","message":"Unknown method: nope"},"id":3})" "\n");
  EXPECT_EQ(harness.runtime().sentTypes(), std::vector<std::string>{nextType});
}

TEST(AppshotStdioServer, AFailedReadIsAnsweredAndEndsTheInput) {
  const int directory = ::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_GE(directory, 0);
  Pipe output;
  auto client = std::make_shared<const ComputerUseClient>(std::make_unique<ScriptedRequestTransport>());
  {
    AppshotStdioServer server(client, {.input = directory, .output = output.writeEnd()});
    server.run();
  }
  EXPECT_EQ(output.readAvailable(), R"({"error":{"code":"stdin_failed","message":"Is a directory"},"id":null})" "\n");
  ::close(directory);
}

TEST(AppshotStdioServer, ALineTooLongIsRefusedAndTheNextStillServed) {
  AppshotServerHarness harness;
  harness.runtime().script(cancelType, {"{}"});
  harness.start();
  std::thread writer([&] {
    harness.send(std::string(1024 * 1024 + 1, ' ') + "\n");
    harness.send(R"({"id":1,"method":"cancelAppshotCapture","params":{"requestId":"r"}})" "\n");
    harness.endInput();
  });
  EXPECT_EQ(harness.readLine(),
            R"({"error":{"code":"invalid_json","message":"Request line is longer than 1048576 bytes"},"id":null})");
  EXPECT_EQ(harness.readLine(), R"({"id":1,"result":{}})");
  writer.join();
  harness.waitUntilReturned();
}

} // namespace
} // namespace tavix::test

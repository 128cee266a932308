// The descriptors of a connection: framed messages read from one, responses written whole
// to the other, and the bounded line of responses waiting to be written.

#include "mcp/MCPStdioOutputQueue.h"
#include "mcp/MessageTransport.h"
#include "mcp/StdioMessageReader.h"
#include "mcp/StdioMessageWriter.h"

#include "fakes/ReleaseGate.h"
#include "mcp/LogLines.h"
#include "testing/Pipe.h"

#include <gtest/gtest.h>

#include <atomic>
#include <fcntl.h>
#include <future>
#include <thread>

namespace tavix::test {
namespace {

using namespace std::chrono_literals;
using Strings = std::vector<std::string>;
const auto never = [] { return false; };

std::string framed(const std::string &body) { return "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body; }

TEST(StdioMessageReader, ReadsEitherFramingHoweverTheBytesArrive) {
  constexpr auto newline = FramingMode::newlineDelimited, contentLength = FramingMode::contentLength;
  const auto header = [](size_t bytes) { // a header block of `bytes`, its blank line included
    const std::string start = "Content-Length: 2\r\nX-Pad: ";
    return start + std::string(bytes - start.size() - 4, 'p') + "\r\n\r\n{}";
  };
  Strings bytewise;
  for (char c : std::string("{\"id\":1}\nContent-Length: 3\n"))
    bytewise.emplace_back(1, c);
  const std::string large(4 * 1024 * 1024 + 17, 'x');
  struct Case { Strings pieces, messages; FramingMode framing; }; // each piece but the last is read before the next is written
  std::vector<Case> cases = {
      {{"{\"a\":1}\n{\"b\":2}\r\n\n{\"c\":3}"}, {"{\"a\":1}", "{\"b\":2}\r", "", "{\"c\":3}"}, newline},
      {bytewise, {"{\"id\":1}", "Content-Length: 3"}, newline}, // once chosen, the framing stays
      // Any first byte but "{" chooses content-length framing. Header names in any case,
      // values trimmed, a plus sign allowed; the last length counts.
      {{" {\"id\":1}\n"}, {}, contentLength},
      {{framed("{}") + "content-LENGTH:\t 7 \r\nX-Other: y\r\n\r\n{\"a\":1}Content-Length: 1\r\n  CONTENT-length  : +3 \r\n\r\nabc"},
       {"{}", "{\"a\":1}", "abc"}, contentLength},
      {{"Content-Le", "ngth: 5\r\n\r", "\n{\"a\"", ":"}, {"{\"a\":"}, contentLength},
      {{framed(large)}, {large}, contentLength},
      {{header(16384)}, {"{}"}, contentLength},
      {{header(16385)}, {}, contentLength},
      {{"Content-Length: 10\r\n\r\n12345"}, {}, contentLength}, // input that ends inside a body
  };
  // A header without a valid length ends the connection.
  for (const char *header : {"X-Length: 2", "Content-Length: -2", "Content-Length: 2x", "Content-Length:", "Content-Length: 1.0",
                             "Content-Length 2", "Content-Length: 99999999999999999999999",
                             "X: 1\nContent-Length: 2", // a bare line feed ends no line
                             "Content-Length: 2\r\nBad: \xC3\x28"})
    cases.push_back({{header + std::string("\r\n\r\n{}")}, {}, contentLength});
  // Messages that end on either side of a read's edge.
  for (size_t length : {1u, 65535u, 65536u, 65537u, 131071u, 131072u, 300000u}) {
    const std::string body = "{" + std::string(length - 1, 'x');
    cases.insert(cases.end(), {{{framed(body)}, {body}, contentLength}, {{body + "\n"}, {body}, newline}, {{body}, {body}, newline}});
  }
  for (const auto &c : cases) {
    SCOPED_TRACE(c.pieces.front().substr(0, 60));
    Pipe pipe;
    StdioMessageReader reader(pipe.readEnd(), never);
    auto reading = std::async(std::launch::async, [&] {
      Strings messages;
      while (auto message = reader.readMessage()) {
        // The bytes after a message may be read ahead by the parser; under
        // AddressSanitizer a message at the edge of the buffer fails here.
        [[maybe_unused]] volatile char last = message->data()[message->size() + MessageTransport::messagePadding - 1];
        messages.emplace_back(*message);
      }
      return messages;
    });
    for (size_t i = 0; i + 1 < c.pieces.size(); ++i)
      pipe.writeAndDrain(c.pieces[i]);
    pipe.write(c.pieces.back());
    pipe.closeWrite();
    EXPECT_EQ(reading.get(), c.messages);
    EXPECT_EQ(reader.framing(), c.framing);
  }
}

// Content-length framing is checked where a connection answers in the framing its host chose.
TEST(StdioMessageWriter, WritesAMessageWholeThoughTheReaderLagsAndRestoresTheDescriptor) {
  const nlohmann::json large = {{"data", std::string(1 << 20, 'z')}, {"a", 1}}; // more than the pipe holds
  Pipe pipe;
  const int flags = fcntl(pipe.writeEnd(), F_GETFL);
  auto reading = std::async(std::launch::async, [&] {
    std::string all;
    char chunk[65536];
    for (ssize_t n; (n = ::read(pipe.readEnd(), chunk, sizeof chunk)) > 0;)
      all.append(chunk, static_cast<size_t>(n));
    return all;
  });
  EXPECT_TRUE(writeMessage(large, pipe.writeEnd(), FramingMode::newlineDelimited, never));
  EXPECT_EQ(fcntl(pipe.writeEnd(), F_GETFL), flags);
  pipe.closeWrite();
  EXPECT_TRUE(reading.get() == R"({"a":1,"data":")" + std::string(1 << 20, 'z') + "\"}\n"); // sorted keys, then a line feed
}

TEST(StdioMessageWriter, FailuresAreLoggedByKind) {
  CapturedLog log;
  const nlohmann::json response = {{"data", std::string(200000, 'z')}}; // more than a pipe holds
  Pipe closedPeer, nobodyReads, stopped;
  closedPeer.closeRead();
  std::atomic<int> checks = 0;
  EXPECT_FALSE(writeMessage(response, closedPeer.writeEnd(), FramingMode::newlineDelimited, never));
  EXPECT_FALSE(writeMessage(response, nobodyReads.writeEnd(), FramingMode::newlineDelimited, never, {5ms, 1ms}));
  EXPECT_FALSE(writeMessage(response, stopped.writeEnd(), FramingMode::contentLength, [&] { return ++checks > 3; }, {10s, 1ms}));
  EXPECT_EQ(logLines(log), (Strings{"level=warning category=transport event=transport_closed errno=32 transport=stdio",
                                    "level=error category=transport event=response_write_failed errno=110 transport=stdio",
                                    "level=warning category=transport event=transport_closed errno=125 transport=stdio"}));
}

// Write jobs that pass through the gate under names that say what became of them and on
// which thread: a try on the producing thread ends at once, as `tried` says; a write on
// the writer thread ends when the test releases it.
struct Jobs : ReleaseGate {
  MCPStdioOutputQueue::WriteJob make(int i, WriteOutcome tried = WriteOutcome::incomplete, bool writes = true) {
    return [this, i, tried, writes](bool tryOnly) {
      record(std::to_string(i) + (tryOnly ? " tried" : " written"), tryOnly);
      return tryOnly ? tried : writes ? WriteOutcome::written : WriteOutcome::failed;
    };
  }
  void record(std::string what, bool atOnce) {
    what += std::this_thread::get_id() == test ? " here" : " on the writer";
    if (atOnce)
      release(what);
    pass(what, "", {});
  }
  const std::thread::id test = std::this_thread::get_id();
  const std::function<void()> failed = [this] { record("failed", true); };
};

TEST(MCPStdioOutputQueue, ASeventeenthPendingResponseStopsTheConnection) {
  Jobs jobs;
  std::optional<MCPStdioOutputQueue> queue(std::in_place);
  queue->enqueue(jobs.make(0), jobs.failed);
  jobs.started(2); // the writer is in the first write
  for (int i = 1; i < 16; ++i)
    queue->enqueue(jobs.make(i), jobs.failed);
  EXPECT_FALSE(queue->isClosed());
  queue->enqueue(jobs.make(16), jobs.failed);
  EXPECT_TRUE(queue->isClosed());
  queue->enqueue(jobs.make(17), jobs.failed); // still refused
  jobs.release("0 written on the writer");
  queue.reset(); // joins the writer: the fifteen behind the write under way were skipped
  EXPECT_EQ(jobs.started(4), (Strings{"0 tried here", "0 written on the writer", "failed here", "failed here"}));
}

TEST(MCPStdioOutputQueue, WritesInOrderTheFirstTriedHereUntilAWriteFailsThenSkipsTheRest) {
  Jobs jobs;
  MCPStdioOutputQueue queue;
  queue.enqueue(jobs.make(0, WriteOutcome::written), jobs.failed); // the line is empty: written at once
  for (int i = 1; i < 5; ++i)
    queue.enqueue(jobs.make(i, WriteOutcome::incomplete, i < 3), jobs.failed); // the third write fails
  for (const char *write : {"1 written on the writer", "2 written on the writer", "3 written on the writer"})
    jobs.release(write);
  EXPECT_EQ(jobs.started(6), (Strings{"0 tried here", "1 tried here", "1 written on the writer", "2 written on the writer",
                                      "3 written on the writer", "failed on the writer"}));
  EXPECT_TRUE(queue.isClosed());
  queue.shutdown();
  EXPECT_EQ(jobs.started(6).size(), 6u);
}

} // namespace
} // namespace tavix::test

#include "mcp/StdioMessageReader.h"

#include "testing/Pipe.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>

namespace tavix::test {
namespace {

using namespace std::chrono_literals;

struct ReaderOnPipe {
  Pipe pipe;
  std::atomic<bool> stop = false;
  StdioMessageReader reader{pipe.readEnd(), [this] { return stop.load(); }};
};

std::vector<std::string> readAll(StdioMessageReader &reader) {
  std::vector<std::string> messages;
  while (auto message = reader.readMessage())
    messages.emplace_back(*message);
  return messages;
}

TEST(StdioMessageReader, NewlineFramingSplitsLinesAndKeepsTheLastOneWithoutLineFeed) {
  ReaderOnPipe r;
  r.pipe.write("{\"a\":1}\n{\"b\":2}\r\n\n{\"c\":3}");
  r.pipe.closeWrite();
  EXPECT_EQ(readAll(r.reader),
            (std::vector<std::string>{"{\"a\":1}", "{\"b\":2}\r", "", "{\"c\":3}"}));
  EXPECT_EQ(r.reader.framing(), FramingMode::newlineDelimited);
}

TEST(StdioMessageReader, MessagesSplitAcrossManyWritesArriveWhole) {
  ReaderOnPipe r;
  const std::string line = "{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"ping\"}";
  auto reading = std::async(std::launch::async, [&] { return readAll(r.reader); });
  for (char c : line + "\n")
    r.pipe.writeAndDrain(std::string(1, c));
  // The framing is fixed now, so content-length text is just another line.
  for (char c : std::string("Content-Length: 3\n"))
    r.pipe.writeAndDrain(std::string(1, c));
  r.pipe.closeWrite();
  EXPECT_EQ(reading.get(), (std::vector<std::string>{line, "Content-Length: 3"}));
}

TEST(StdioMessageReader, ContentLengthFramingReadsExactlyTheAnnouncedBody) {
  ReaderOnPipe r;
  const std::string first = R"({"id":1})", second = R"({"id":2})";
  r.pipe.write("Content-Length: " + std::to_string(first.size()) + "\r\n\r\n" + first +
               "content-LENGTH:\t " + std::to_string(second.size()) +
               " \r\nX-Other: y\r\n\r\n" + second);
  r.pipe.closeWrite();
  EXPECT_EQ(readAll(r.reader), (std::vector<std::string>{first, second}));
  EXPECT_EQ(r.reader.framing(), FramingMode::contentLength);
}

TEST(StdioMessageReader, ContentLengthBodySplitAcrossWritesAndLargeBodies) {
  ReaderOnPipe r;
  const std::string large(4 * 1024 * 1024 + 17, 'x');
  auto reading = std::async(std::launch::async, [&] { return readAll(r.reader); });
  r.pipe.writeAndDrain("Content-Le");
  r.pipe.writeAndDrain("ngth: 5\r\n\r");
  r.pipe.writeAndDrain("\n{\"a\"");
  r.pipe.writeAndDrain(":");
  r.pipe.write("Content-Length: " + std::to_string(large.size()) + "\r\n\r\n" + large);
  r.pipe.closeWrite();
  const auto messages = reading.get();
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_EQ(messages[0], "{\"a\":");
  EXPECT_EQ(messages[1] == large, true) << "large body differs, size " << messages[1].size();
}

TEST(StdioMessageReader, AnyFirstByteButABraceSelectsContentLength) {
  ReaderOnPipe r;
  r.pipe.write(" {\"id\":1}\n");
  r.pipe.closeWrite();
  EXPECT_EQ(r.reader.readMessage(), std::nullopt); // no header terminator before the end
  EXPECT_EQ(r.reader.framing(), FramingMode::contentLength);
}

TEST(StdioMessageReader, HeaderLimitIsSixteenKiBIncludingItsBlankLine) {
  const std::string prefix = "Content-Length: 2\r\nX-Pad: ";
  const auto headerOfSize = [&](size_t total) {
    return prefix + std::string(total - prefix.size() - 4, 'p') + "\r\n\r\n";
  };
  for (const auto &[size, accepted] : std::vector<std::pair<size_t, bool>>{
           {16384, true},
           {16385, false}}) {
    SCOPED_TRACE(size);
    ReaderOnPipe r;
    auto reading = std::async(std::launch::async, [&] { return r.reader.readMessage(); });
    r.pipe.write(headerOfSize(size) + "{}");
    EXPECT_EQ(reading.get(), accepted ? std::optional<std::string>("{}") : std::nullopt);
  }
}

TEST(StdioMessageReader, HeadersWithoutAValidLengthEndTheConnection) {
  for (const std::string header :
       {"X-Length: 2\r\n\r\n", "Content-Length: -2\r\n\r\n", "Content-Length: 2x\r\n\r\n",
        "Content-Length:\r\n\r\n", "Content-Length: 1.0\r\n\r\n",
        "Content-Length 2\r\n\r\n", "Content-Length: 2\r\nBad: \xC3\x28\r\n\r\n"}) {
    SCOPED_TRACE(header);
    ReaderOnPipe r;
    r.pipe.write(header + "{}{}{}");
    EXPECT_EQ(r.reader.readMessage(), std::nullopt);
  }
}

TEST(StdioMessageReader, ParsesContentLengthLines) {
  EXPECT_EQ(parseContentLengthHeader("Content-Length: 12\r\n\r\n"), 12u);
  EXPECT_EQ(parseContentLengthHeader("a: b\r\n  CONTENT-length  :  +7 \r\n\r\n"), 7u);
  EXPECT_EQ(parseContentLengthHeader("Content-Length: 1\r\nContent-Length: 3\r\n\r\n"), 3u);
  // A bare line feed does not separate lines.
  EXPECT_EQ(parseContentLengthHeader("X: 1\nContent-Length: 4\r\n\r\n"), std::nullopt);
  EXPECT_EQ(parseContentLengthHeader("Content-Length: 99999999999999999999999\r\n\r\n"),
            std::nullopt);
}

TEST(StdioMessageReader, EndOfInputBeforeTheBodyIsCompleteYieldsNothing) {
  ReaderOnPipe r;
  r.pipe.write("Content-Length: 10\r\n\r\n12345");
  r.pipe.closeWrite();
  EXPECT_EQ(r.reader.readMessage(), std::nullopt);
}

TEST(StdioMessageReader, AStopRequestEndsAWaitingRead) {
  ReaderOnPipe r;
  auto reading = std::async(std::launch::async, [&] { return r.reader.readMessage(); });
  r.stop = true; // noticed at the next poll time-out, with the write end still open
  EXPECT_EQ(reading.wait_for(5s), std::future_status::ready);
  EXPECT_EQ(reading.get(), std::nullopt);
}

TEST(StdioMessageReader, AWakeDescriptorEndsAWaitingReadAtOnce) {
  Pipe input, wake;
  std::atomic<bool> stop = false;
  StdioMessageReader reader(input.readEnd(), [&] { return stop.load(); }, wake.readEnd());
  auto reading = std::async(std::launch::async, [&] { return reader.readMessage(); });
  stop = true;
  wake.write("x");
  EXPECT_EQ(reading.wait_for(5s), std::future_status::ready);
  EXPECT_EQ(reading.get(), std::nullopt);
}

} // namespace
} // namespace tavix::test

namespace tavix::test {
namespace {

// Every message is followed by 64 readable bytes, so that it can be parsed where it lies.
// Under AddressSanitizer a message that ended at the edge of the buffer fails here.
TEST(StdioMessageReader, EveryMessageIsFollowedBySixtyFourReadableBytes) {
  EXPECT_EQ(StdioMessageReader::trailingBytes, 64u);
  for (size_t length : {1u, 65535u, 65536u, 65537u, 131071u, 131072u, 300000u}) {
    for (bool contentLength : {false, true}) {
      for (bool lineFeed : {true, false}) {
        SCOPED_TRACE(testing::Message() << length << (contentLength ? " content-length" : " newline")
                                        << (lineFeed ? "" : " at end of input"));
        ReaderOnPipe r;
        const std::string body = "{" + std::string(length - 1, 'x');
        auto reading = std::async(std::launch::async, [&] {
          const auto message = r.reader.readMessage();
          if (!message)
            return std::string();
          const char *end = message->data() + message->size();
          volatile char last = end[StdioMessageReader::trailingBytes - 1];
          static_cast<void>(last);
          return std::string(*message);
        });
        std::string bytes = contentLength
                                ? "Content-Length: " + std::to_string(length) + "\r\n\r\n" + body
                                : body + (lineFeed ? "\n" : "");
        r.pipe.write(bytes);
        if (!lineFeed || contentLength)
          r.pipe.closeWrite();
        EXPECT_EQ(reading.get(), body);
      }
    }
  }
}

} // namespace
} // namespace tavix::test

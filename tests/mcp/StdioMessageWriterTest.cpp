#include "mcp/StdioMessageWriter.h"

#include "fakes/CapturedLog.h"
#include "testing/Pipe.h"

#include <gtest/gtest.h>

#include <atomic>
#include <fcntl.h>
#include <future>

namespace tavix::test {
namespace {

using namespace std::chrono_literals;
const auto never = [] { return false; };

TEST(StdioMessageWriter, WritesBothFramingsByteForByteWithSortedKeys) {
  const nlohmann::json response = {{"result", {{"b", 1}, {"a", "é"}}}, {"jsonrpc", "2.0"}, {"id", 3}};
  const std::string body = "{\"id\":3,\"jsonrpc\":\"2.0\",\"result\":{\"a\":\"é\",\"b\":1}}";
  Pipe pipe;
  ASSERT_TRUE(writeMessage(response, pipe.writeEnd(), FramingMode::newlineDelimited, never));
  EXPECT_EQ(pipe.readAvailable(), body + "\n");
  ASSERT_TRUE(writeMessage(response, pipe.writeEnd(), FramingMode::contentLength, never));
  EXPECT_EQ(pipe.readAvailable(),
            "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
}

TEST(StdioMessageWriter, LargeMessagesAreWrittenWholeAndTheDescriptorFlagsRestored) {
  Pipe pipe;
  const int flagsBefore = fcntl(pipe.writeEnd(), F_GETFL);
  const nlohmann::json response = {{"data", std::string(3 * 1024 * 1024, 'z')}};
  auto reader = std::async(std::launch::async, [&] {
    std::string all;
    char chunk[65536];
    ssize_t n;
    while ((n = ::read(pipe.readEnd(), chunk, sizeof chunk)) > 0)
      all.append(chunk, static_cast<size_t>(n));
    return all;
  });
  EXPECT_TRUE(writeMessage(response, pipe.writeEnd(), FramingMode::newlineDelimited, never));
  EXPECT_EQ(fcntl(pipe.writeEnd(), F_GETFL), flagsBefore);
  pipe.closeWrite();
  EXPECT_EQ(reader.get(), response.dump() + "\n");
}

TEST(StdioMessageWriter, FailuresAreLoggedByKind) {
  CapturedLog log;
  const nlohmann::json response = {{"data", std::string(200000, 'z')}};
  {
    Pipe closedPeer;
    closedPeer.closeRead();
    EXPECT_FALSE(writeMessage(response, closedPeer.writeEnd(), FramingMode::newlineDelimited, never));
  }
  {
    Pipe nobodyReads; // fills up, then the deadline passes
    EXPECT_FALSE(writeMessage(response, nobodyReads.writeEnd(), FramingMode::newlineDelimited,
                              never, {std::chrono::milliseconds(30), 5ms}));
  }
  {
    Pipe stopped;
    std::atomic<int> checks = 0;
    EXPECT_FALSE(writeMessage(response, stopped.writeEnd(), FramingMode::contentLength,
                              [&] { return ++checks > 3; }));
  }
  const auto closed = log.withEvent("transport_closed");
  ASSERT_EQ(closed.size(), 2u);
  EXPECT_NE(closed[0].find(" level=warning "), std::string::npos) << closed[0];
  EXPECT_TRUE(closed[0].ends_with("category=transport event=transport_closed errno=32 transport=stdio\n"))
      << closed[0];
  EXPECT_TRUE(closed[1].ends_with("event=transport_closed errno=125 transport=stdio\n")) << closed[1];
  const auto failed = log.withEvent("response_write_failed");
  ASSERT_EQ(failed.size(), 1u);
  EXPECT_NE(failed[0].find("level=error"), std::string::npos);
  EXPECT_TRUE(failed[0].ends_with("event=response_write_failed errno=110 transport=stdio\n"))
      << failed[0];
}

TEST(StdioMessageWriter, AResponseThatCannotBeSerialisedIsReportedAndNotWritten) {
  CapturedLog log;
  Pipe pipe;
  const nlohmann::json response = {{"text", std::string("\xff\xfe")}};
  EXPECT_FALSE(writeMessage(response, pipe.writeEnd(), FramingMode::newlineDelimited, never));
  EXPECT_EQ(pipe.readAvailable(), "");
  EXPECT_EQ(log.withEvent("response_serialization_failed").size(), 1u);
}

} // namespace
} // namespace tavix::test

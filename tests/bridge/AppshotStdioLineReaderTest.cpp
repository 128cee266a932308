// The appshot mode's input: lines however the bytes arrive, the last line without its
// line feed, the longest line kept and the next refused whole, and a failing read.

#include "bridge/AppshotStdioLineReader.h"

#include "testing/Pipe.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <string>
#include <thread>
#include <vector>

namespace tavix::test {
namespace {

using Kind = AppshotStdioLineReader::Next::Kind;

struct Read {
  Kind kind;
  std::string text;
  friend bool operator==(const Read &, const Read &) = default;
};

std::ostream &operator<<(std::ostream &out, const Read &read) {
  return out << static_cast<int>(read.kind) << ":" << read.text.size() << ":" << read.text.substr(0, 20);
}

// Everything the reader gives for `pieces` written one after another (each arriving in
// reads of its own), up to and including the end.
std::vector<Read> readAll(const std::vector<std::string> &pieces) {
  Pipe pipe;
  std::thread writer([&] {
    for (const auto &piece : pieces)
      pipe.writeAndDrain(piece);
    pipe.closeWrite();
  });
  AppshotStdioLineReader reader(pipe.readEnd());
  std::vector<Read> reads;
  for (;;) {
    auto next = reader.next();
    reads.push_back({next.kind, next.text});
    if (next.kind == Kind::end || next.kind == Kind::failed || reads.size() > 16)
      break;
  }
  writer.join();
  return reads;
}

constexpr size_t longest = AppshotStdioLineReader::longestLine;

TEST(AppshotStdioLineReader, SplitsLinesHoweverTheBytesArrive) {
  const struct {
    std::vector<std::string> pieces;
    std::vector<Read> reads;
  } cases[] = {
      {{}, {{Kind::end, ""}}},
      {{"a"}, {{Kind::line, "a"}, {Kind::end, ""}}},
      {{"\n"}, {{Kind::line, ""}, {Kind::end, ""}}},
      {{"a\nb\n"}, {{Kind::line, "a"}, {Kind::line, "b"}, {Kind::end, ""}}},
      {{"a\n\nb"}, {{Kind::line, "a"}, {Kind::line, ""}, {Kind::line, "b"}, {Kind::end, ""}}},
      {{"{\"id\"", ":1}", "\n{", "}\n"}, {{Kind::line, "{\"id\":1}"}, {Kind::line, "{}"}, {Kind::end, ""}}},
      {{"a\r\n"}, {{Kind::line, "a\r"}, {Kind::end, ""}}},
  };
  for (const auto &c : cases)
    EXPECT_EQ(readAll(c.pieces), c.reads) << ::testing::PrintToString(c.pieces);
}

TEST(AppshotStdioLineReader, TheLongestLineIsKeptAndTheNextRefusedWhole) {
  const std::string atLimit(longest, 'x');
  const std::string pastLimit(longest + 1, 'y');
  const struct {
    std::vector<std::string> pieces;
    std::vector<Read> reads;
  } cases[] = {
      {{atLimit + "\n"}, {{Kind::line, atLimit}, {Kind::end, ""}}},
      {{atLimit}, {{Kind::line, atLimit}, {Kind::end, ""}}},
      {{pastLimit + "\nnext\n"}, {{Kind::tooLong, ""}, {Kind::line, "next"}, {Kind::end, ""}}},
      {{pastLimit}, {{Kind::tooLong, ""}, {Kind::end, ""}}},
      // Far past the limit, in pieces: skipped without being held, then reading goes on.
      {{"a\n", pastLimit, pastLimit, pastLimit, "\nb\n"},
       {{Kind::line, "a"}, {Kind::tooLong, ""}, {Kind::line, "b"}, {Kind::end, ""}}},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.pieces.size());
    EXPECT_EQ(readAll(c.pieces), c.reads);
  }
}

TEST(AppshotStdioLineReader, AFailedReadEndsTheInputWithItsError) {
  const int directory = ::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_GE(directory, 0);
  AppshotStdioLineReader reader(directory);
  const auto failed = reader.next();
  EXPECT_EQ(failed.kind, Kind::failed);
  EXPECT_EQ(failed.error, EISDIR);
  EXPECT_EQ(reader.next().kind, Kind::end);
  ::close(directory);
}

} // namespace
} // namespace tavix::test

// The journal sink, checked against a socket that stands in for the journal daemon at its
// well-known path (only where no journal runs and the test may create that path).

#include "platform/UnifiedLog.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <map>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace tavix::test {
namespace {

constexpr const char *journalSocket = "/run/systemd/journal/socket";

// Decodes the journal's native datagram: "NAME=value\n" fields, or "NAME\n" followed by
// a 64-bit little-endian length, the raw value and "\n" for values with line breaks.
std::map<std::string, std::string> decodeJournalFields(std::string_view datagram) {
  std::map<std::string, std::string> fields;
  while (!datagram.empty()) {
    const size_t end = datagram.find('\n');
    const std::string_view head = datagram.substr(0, end);
    if (const size_t equals = head.find('='); equals != std::string_view::npos) {
      fields[std::string(head.substr(0, equals))] = std::string(head.substr(equals + 1));
      datagram.remove_prefix(end + 1);
      continue;
    }
    uint64_t length = 0;
    std::memcpy(&length, datagram.data() + end + 1, sizeof length);
    fields[std::string(head)] = std::string(datagram.substr(end + 1 + 8, length));
    datagram.remove_prefix(end + 1 + 8 + length + 1);
  }
  return fields;
}

class FakeJournal {
public:
  FakeJournal() {
    std::error_code error;
    std::filesystem::create_directories("/run/systemd/journal", error);
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, journalSocket);
    bound_ = bind(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
    timeval timeout{5, 0};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  }
  ~FakeJournal() {
    close(fd_);
    if (bound_)
      unlink(journalSocket);
  }
  bool bound() const { return bound_; }
  std::string receive() {
    std::string buffer(1 << 16, '\0');
    const ssize_t n = recv(fd_, buffer.data(), buffer.size(), 0);
    buffer.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return buffer;
  }

private:
  int fd_ = -1;
  bool bound_ = false;
};

TEST(JournaldUnifiedLog, SendsTheLineWithItsPriorityAndIdentity) {
  if (std::filesystem::exists(journalSocket))
    GTEST_SKIP() << "a journal is running here; not replacing its socket";
  // Where no journal listens, nothing is sent.
  for (auto type : {UnifiedLogType::debug, UnifiedLogType::fault})
    EXPECT_FALSE(makeSystemUnifiedLog()->makeHandle("com.tavix.computeruse", "ipc")->isEnabled(type));
  FakeJournal journal;
  if (!journal.bound())
    GTEST_SKIP() << "cannot create " << journalSocket;
  auto handle = makeSystemUnifiedLog()->makeHandle("com.tavix.computeruse", "app-discovery");
  ASSERT_TRUE(handle->isEnabled(UnifiedLogType::info));
  const std::string line = "2026-01-01T00:00:00.000Z level=warning event=x a=\"b c\"\n";
  const std::vector<std::pair<UnifiedLogType, std::string>> priorities = {
      {UnifiedLogType::debug, "7"}, {UnifiedLogType::info, "6"},  {UnifiedLogType::defaultType, "5"},
      {UnifiedLogType::error, "3"}, {UnifiedLogType::fault, "2"}};
  for (const auto &[type, priority] : priorities) {
    handle->log(type, line);
    auto fields = decodeJournalFields(journal.receive());
    // The journal library drops a message's trailing line feed.
    EXPECT_EQ(fields["MESSAGE"], line.substr(0, line.size() - 1));
    EXPECT_EQ(fields["PRIORITY"], priority);
    EXPECT_EQ(fields["SYSLOG_IDENTIFIER"], "tavix_tests");
    EXPECT_EQ(fields["TAVIX_SUBSYSTEM"], "com.tavix.computeruse");
    EXPECT_EQ(fields["TAVIX_CATEGORY"], "app-discovery");
  }
}

} // namespace
} // namespace tavix::test

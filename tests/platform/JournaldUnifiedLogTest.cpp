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

TEST(JournaldUnifiedLog, SendsTheLineWithItsPriorityAndIdentity) {
  if (std::filesystem::exists(journalSocket))
    GTEST_SKIP() << "a journal is running here; not replacing its socket";
  // Where no journal listens, nothing is sent.
  for (auto type : {UnifiedLogType::debug, UnifiedLogType::fault})
    EXPECT_FALSE(makeSystemUnifiedLog()->makeHandle("com.tavix.computeruse", "ipc")->isEnabled(type));
  std::error_code error;
  std::filesystem::create_directories("/run/systemd/journal", error);
  const int journal = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{.sun_family = AF_UNIX};
  std::strcpy(address.sun_path, journalSocket);
  if (bind(journal, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
    close(journal);
    GTEST_SKIP() << "cannot create " << journalSocket;
  }
  const timeval timeout{5, 0};
  setsockopt(journal, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  auto handle = makeSystemUnifiedLog()->makeHandle("com.tavix.computeruse", "app-discovery");
  EXPECT_TRUE(handle->isEnabled(UnifiedLogType::info));
  const std::string line = "2026-01-01T00:00:00.000Z level=warning event=x a=\"b c\"\n";
  const std::pair<UnifiedLogType, std::string> priorities[] = {{UnifiedLogType::debug, "7"},
                                                               {UnifiedLogType::info, "6"},
                                                               {UnifiedLogType::defaultType, "5"},
                                                               {UnifiedLogType::error, "3"},
                                                               {UnifiedLogType::fault, "2"}};
  for (const auto &[type, priority] : priorities) {
    handle->log(type, line);
    std::string datagram(1 << 16, '\0');
    datagram.resize(std::max<ssize_t>(recv(journal, datagram.data(), datagram.size(), 0), 0));
    auto fields = decodeJournalFields(datagram);
    // The journal library drops a message's trailing line feed.
    EXPECT_EQ(fields["MESSAGE"], line.substr(0, line.size() - 1));
    EXPECT_EQ(fields["PRIORITY"], priority);
    EXPECT_EQ(fields["SYSLOG_IDENTIFIER"], "tavix_tests");
    EXPECT_EQ(fields["TAVIX_SUBSYSTEM"], "com.tavix.computeruse");
    EXPECT_EQ(fields["TAVIX_CATEGORY"], "app-discovery");
  }
  close(journal);
  unlink(journalSocket);
}

} // namespace
} // namespace tavix::test

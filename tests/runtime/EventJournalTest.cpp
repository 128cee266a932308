// The journal of Send calls and of the simulator's own events: what an entry holds, the
// body kept only up to 64 KiB, and counting and listing by request type or event name.

#include "runtime/EventJournal.h"
#include "support/JSON.h"

#include <gtest/gtest.h>

namespace tavix::test {
namespace {

using runtime::EventJournal;
using runtime::SendCall;

SendCall call(std::string type, std::string body, SendCall::Payload payload = SendCall::Payload::inlineBytes) {
  SendCall made;
  made.eventClass = "ZlCu";
  made.eventID = "SndR";
  made.requestType = std::move(type);
  made.requestID = "ID-1";
  made.clientVersion = "1.0";
  made.payload = payload;
  made.body = std::move(body);
  return made;
}

nlohmann::json json(std::string_view text) { return parseJSON(text).value(); }

// A JSON string value whose whole text is `size` bytes.
std::string jsonTextOfSize(size_t size) { return "\"" + std::string(size - 2, 'x') + "\""; }

TEST(EventJournal, AnEntryDescribesTheCall) {
  EventJournal journal;
  journal.record(call("ComputerUseIPCHealthRequest", R"({"refreshClientActivity":true})"));
  EXPECT_EQ(journal.entries("*"), json(R"([{"requestType":"ComputerUseIPCHealthRequest",
      "requestID":"ID-1","clientVersion":"1.0","payload":"inline","bodyBytes":30,
      "body":{"refreshClientActivity":true}}])"));
}

TEST(EventJournal, MissingPartsAreNullAndAnotherEventIsNamed) {
  EventJournal journal;
  SendCall bare;
  bare.eventClass = "aevt";
  bare.eventID = "odoc";
  journal.record(bare);
  EXPECT_EQ(journal.entries("*"), json(R"([{"requestType":null,"requestID":null,
      "clientVersion":null,"payload":"none","bodyBytes":0,"eventClass":"aevt","eventID":"odoc"}])"));
}

TEST(EventJournal, TheBodyIsKeptUpTo64KiB) {
  EventJournal journal;
  journal.record(call("T", jsonTextOfSize(65536), SendCall::Payload::memfd));
  journal.record(call("T", jsonTextOfSize(65537), SendCall::Payload::memfd));
  journal.record(call("T", "not json"));
  const auto entries = journal.entries("T");
  ASSERT_EQ(entries.size(), 3u);
  EXPECT_EQ(entries[0]["bodyBytes"], 65536);
  EXPECT_EQ(entries[0]["payload"], "memfd");
  EXPECT_EQ(entries[0]["body"].get<std::string>().size(), 65534u);
  EXPECT_EQ(entries[1]["bodyBytes"], 65537);
  EXPECT_FALSE(entries[1].contains("body"));
  EXPECT_FALSE(entries[2].contains("body"));
}

TEST(EventJournal, CountsAndListsByType) {
  EventJournal journal;
  for (const char *type : {"A", "B", "A"})
    journal.record(call(type, "{}"));
  EXPECT_EQ(journal.count("A"), 2u);
  EXPECT_EQ(journal.count("B"), 1u);
  EXPECT_EQ(journal.count("C"), 0u);
  EXPECT_EQ(journal.count("*"), 3u);
  EXPECT_EQ(journal.entries("B").size(), 1u);
  journal.clear();
  EXPECT_EQ(journal.count("*"), 0u);
  EXPECT_EQ(journal.entries("*"), nlohmann::json::array());
}

TEST(EventJournal, OwnEventsAreSelectedByTheirNameAndNeverByARequestType) {
  EventJournal journal;
  journal.record(call("ComputerUseIPCAppNextCaptureUpdateRequest", R"({"requestId":"C"})"));
  journal.recordEvent(EventJournal::captureUpdateWaiting,
                      {{"requestID", "ID-1"}, {"captureRequestId", "C"}, {"timeoutMs", 30000}});
  journal.record(call("ComputerUseIPCHealthRequest", "{}"));
  EXPECT_EQ(journal.entries("captureUpdateWaiting"),
            json(R"([{"event":"captureUpdateWaiting","requestID":"ID-1","captureRequestId":"C","timeoutMs":30000}])"));
  const std::pair<const char *, size_t> rows[] = {
      {"captureUpdateWaiting", 1},
      {"ComputerUseIPCAppNextCaptureUpdateRequest", 1},
      {"ComputerUseIPCHealthRequest", 1},
      {"*", 3},
      {"event", 0},
      {"C", 0},
  };
  for (const auto &[type, count] : rows) {
    EXPECT_EQ(journal.count(type), count) << type;
    EXPECT_EQ(journal.entries(type).size(), count) << type;
  }
  // In the order they happened.
  EXPECT_EQ(journal.entries("*")[1]["event"], "captureUpdateWaiting");
}

} // namespace
} // namespace tavix::test

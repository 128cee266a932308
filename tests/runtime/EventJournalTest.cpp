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
  return {"ZlCu", "SndR", std::move(type), "ID-1", "1.0", payload, std::move(body), {}};
}

nlohmann::json json(std::string_view text) { return parseJSON(text).value(); }

TEST(EventJournal, AnEntryDescribesTheCallAndKeepsABodyOfUpTo64KiB) {
  // JSON strings whose whole text is 64 KiB, and a byte more.
  const std::string fits = "\"" + std::string(65534, 'x') + "\"", over = "\"" + std::string(65535, 'x') + "\"";
  const std::string head = R"({"requestType":"T","requestID":"ID-1","clientVersion":"1.0",)";
  const std::pair<SendCall, std::string> rows[] = {
      {call("ComputerUseIPCHealthRequest", R"({"refreshClientActivity":true})"),
       R"({"requestType":"ComputerUseIPCHealthRequest","requestID":"ID-1","clientVersion":"1.0","payload":"inline",
           "bodyBytes":30,"body":{"refreshClientActivity":true}})"},
      // Missing parts are null, and another event than a Send is named.
      {{.eventClass = "aevt", .eventID = "odoc"},
       R"({"requestType":null,"requestID":null,"clientVersion":null,"payload":"none","bodyBytes":0,"eventClass":"aevt","eventID":"odoc"})"},
      {call("T", fits, SendCall::Payload::memfd), head + R"("payload":"memfd","bodyBytes":65536,"body":)" + fits + "}"},
      {call("T", over, SendCall::Payload::memfd), head + R"("payload":"memfd","bodyBytes":65537})"},
      {call("T", "not json"), head + R"("payload":"inline","bodyBytes":8})"},
  };
  for (const auto &[sent, entry] : rows) {
    EventJournal journal;
    journal.record(sent);
    EXPECT_EQ(journal.entries("*"), json("[" + entry + "]")) << entry.substr(0, 200);
  }
}

TEST(EventJournal, SelectsByRequestTypeOrEventNameInOrder) {
  EventJournal journal;
  journal.record(call("A", "{}"));
  journal.recordEvent(EventJournal::captureUpdateWaiting, {{"requestID", "ID-1"}, {"captureRequestId", "A"}, {"timeoutMs", 30000}});
  journal.record(call("B", "{}"));
  journal.record(call("A", "{}"));
  EXPECT_EQ(journal.entries("captureUpdateWaiting"),
            json(R"([{"event":"captureUpdateWaiting","requestID":"ID-1","captureRequestId":"A","timeoutMs":30000}])"));
  EXPECT_EQ(journal.entries("*")[1]["event"], "captureUpdateWaiting");
  // An event is never selected by a field other than its name.
  const std::pair<const char *, size_t> rows[] = {{"A", 2}, {"B", 1}, {"captureUpdateWaiting", 1}, {"*", 4},
                                                  {"event", 0}, {"ID-1", 0}, {"C", 0}};
  for (const auto &[type, count] : rows) {
    EXPECT_EQ(journal.count(type), count) << type;
    EXPECT_EQ(journal.entries(type).size(), count) << type;
  }
  journal.clear();
  EXPECT_EQ(journal.count("*"), 0u);
  EXPECT_EQ(journal.entries("*"), nlohmann::json::array());
}

} // namespace
} // namespace tavix::test

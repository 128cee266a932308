// Appshot captures through the simulator executable on a private session bus: a parked
// next-update is ended by a cancel of its capture, by a cancel of the call, by a change of
// the desktop or by its deadline; the wait is clamped; unknown captures and malformed
// bodies are runtime errors; the cancel's own reply leaves first; and eight parked
// next-updates hold back no other request. Tests learn that a call is parked from the
// journal's "captureUpdateWaiting" events, never from the clock.

#include "contracts/AppshotContracts.h"
#include "contracts/ComputerUseRequests.h"
#include "support/JSON.h"
#include "testing/PrivateSessionBus.h"
#include "testing/RuntimeSimulatorProcess.h"
#include "testing/SimulatorControl.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <vector>

namespace tavix::test {
namespace {

using namespace std::chrono_literals;

constexpr const char *busName = "com.tavix.computeruse";
constexpr std::string_view startType = ComputerUseIPCAppStartFrontmostCaptureRequest::requestType;
constexpr std::string_view nextType = ComputerUseIPCAppNextCaptureUpdateRequest::requestType;
constexpr std::string_view cancelCaptureType = ComputerUseIPCAppCancelCaptureRequest::requestType;
constexpr const char *waiting = "captureUpdateWaiting";

nlohmann::json replyJSON(const tl::expected<RuntimeReply, BusError> &reply) {
  if (!reply)
    throw std::runtime_error(reply.error().name + ": " + reply.error().message);
  if (reply->errn)
    throw std::runtime_error("errn " + std::to_string(*reply->errn) + ": " + reply->errs.value_or(""));
  return parseJSON(reply->bytes.value_or("")).value_or(nlohmann::json());
}

std::string updateType(const tl::expected<RuntimeReply, BusError> &reply) {
  const auto json = replyJSON(reply);
  return json.contains("update") ? json["update"].value("type", "") : "no update in " + json.dump();
}

std::string nextBody(const std::string &id, std::string_view timeout = "") {
  return R"({"requestId":")" + id + "\"" + std::string(timeout) + "}";
}

std::string idBody(const std::string &id) { return R"({"requestId":")" + id + R"("})"; }

class SimulatorCaptureTest : public testing::Test {
protected:
  // Starts the capture `id` and takes its first update, so that the next one waits.
  static void startCapture(SimulatorControl &client, const std::string &id) {
    const auto started = replyJSON(client.send(startType, idBody(id)));
    ASSERT_FALSE(started.contains("error")) << started.dump();
    ASSERT_EQ(updateType(client.send(nextType, nextBody(id, R"(,"timeoutMs":0)"))), "snapshot");
  }

  // Waits until `count` next-updates have started waiting in all; the last one's event.
  nlohmann::json awaitWaiting(uint32_t count) {
    const auto events = control.awaitEvents(waiting, count);
    if (!events)
      throw std::runtime_error(events.error().message);
    return events->back();
  }

  // Every test ends the simulator, which must go quietly: a sanitizer's report in it
  // would show on its standard error.
  void TearDown() override {
    EXPECT_EQ(simulator.stop(), 0);
    EXPECT_EQ(simulator.process().errorOutput(), "");
  }

  PrivateSessionBus bus;
  RuntimeSimulatorProcess simulator{bus.address()};
  SimulatorControl control{bus.address(), busName};
};

TEST_F(SimulatorCaptureTest, AParkedNextUpdateEndsByCancelsChangesOrItsDeadline) {
  struct Row {
    const char *name;
    std::string timeout;
    std::function<void(const std::string &id, const std::string &callID)> end;
    std::optional<int32_t> errn;
    std::string type; // the update's, when there is no errn
  };
  const Row rows[] = {
      {"a cancel of the capture", R"(,"timeoutMs":60000)",
       [&](const std::string &id, const std::string &) {
         EXPECT_EQ(control.send(cancelCaptureType, idBody(id)).value().bytes, "{}");
       },
       std::nullopt, "cancelled"},
      {"a cancel of the call", R"(,"timeoutMs":60000)",
       [&](const std::string &, const std::string &callID) {
         const auto cancel = control.send(ComputerUseIPCCancelRequest::requestType, R"({"requestID":")" + callID + R"("})");
         EXPECT_EQ(cancel.value().bytes, "{}");
       },
       -128, ""},
      {"an action on the desktop", R"(,"timeoutMs":60000)",
       [&](const std::string &, const std::string &) {
         const auto clicked = control.send(ComputerUseIPCAppPerformActionRequest::requestType,
                                           R"({"app":"Calculator","action":{"click":{"_0":{"elementIndex":2,"clickCount":1,"mouseButton":0}}}})");
         EXPECT_FALSE(replyJSON(clicked).value("isError", true));
       },
       std::nullopt, "frame"},
      // Long enough for the first look to find nothing due before it passes, on a busy machine.
      {"its deadline", R"(,"timeoutMs":1500)", [](const std::string &, const std::string &) {}, std::nullopt, "timeout"},
  };
  uint32_t parked = 0;
  for (const auto &row : rows) {
    SCOPED_TRACE(row.name);
    const std::string id = "capture-" + std::to_string(parked + 1), callID = "NEXT-" + std::to_string(parked + 1);
    SimulatorControl waiter(bus.address(), busName);
    startCapture(waiter, id);
    ASSERT_TRUE(waiter.sendWithoutWaiting(nextType, nextBody(id, row.timeout), callID));
    const auto event = awaitWaiting(++parked);
    EXPECT_EQ(event["requestID"], callID);
    EXPECT_EQ(event["captureRequestId"], id);
    row.end(id, callID);
    const auto replies = waiter.awaitReplies();
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_EQ(replies[0].requestID, callID);
    const auto &reply = replies[0].reply;
    ASSERT_TRUE(reply.has_value()) << reply.error().name << ": " << reply.error().message;
    if (row.errn) {
      EXPECT_EQ(reply->errn, row.errn);
      EXPECT_EQ(reply->errs, "Request cancelled");
      continue;
    }
    const auto json = replyJSON(reply);
    EXPECT_EQ(json["requestId"], id);
    EXPECT_EQ(json["update"]["type"], row.type);
    EXPECT_EQ(json["update"].contains("screenshotDataURL"), row.type == "frame");
  }
}

TEST_F(SimulatorCaptureTest, TheWaitIsClampedAndNoneAnswersAtOnce) {
  struct Row {
    const char *name;
    std::string timeout;
    std::optional<int64_t> waitsMs; // the journalled wait, or nothing when it answers at once
  };
  const Row rows[] = {
      {"0", R"(,"timeoutMs":0)", std::nullopt},
      {"-1", R"(,"timeoutMs":-1)", std::nullopt},
      {"the most negative", R"(,"timeoutMs":-9223372036854775808)", std::nullopt},
      {"absent: the default", "", 30000},
      {"the longest", R"(,"timeoutMs":60000)", 60000},
      {"one past the longest", R"(,"timeoutMs":60001)", 60000},
      {"the largest", R"(,"timeoutMs":9223372036854775807)", 60000},
  };
  uint32_t parked = 0;
  int number = 0;
  for (const auto &row : rows) {
    SCOPED_TRACE(row.name);
    const std::string id = "clamped-" + std::to_string(++number);
    SimulatorControl waiter(bus.address(), busName);
    startCapture(waiter, id);
    if (!row.waitsMs) {
      EXPECT_EQ(updateType(waiter.send(nextType, nextBody(id, row.timeout))), "timeout");
      // Answered without waiting: nothing was journalled for it.
      EXPECT_EQ(control.events().back()["requestType"], std::string(nextType));
      continue;
    }
    ASSERT_TRUE(waiter.sendWithoutWaiting(nextType, nextBody(id, row.timeout), "CLAMPED-" + std::to_string(number)));
    EXPECT_EQ(awaitWaiting(++parked)["timeoutMs"], *row.waitsMs);
    ASSERT_TRUE(control.send(cancelCaptureType, idBody(id)));
    const auto replies = waiter.awaitReplies();
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_EQ(updateType(replies[0].reply), "cancelled");
  }
}

TEST_F(SimulatorCaptureTest, UnknownCapturesAndMalformedBodiesAreRuntimeErrorsAndCancelsAlwaysSucceed) {
  SimulatorControl client(bus.address(), busName);
  startCapture(client, "ended");
  ASSERT_EQ(client.send(cancelCaptureType, idBody("ended")).value().bytes, "{}");
  struct Row {
    const char *name;
    std::string_view type;
    std::string body;
    std::optional<int32_t> errn;
    std::string text; // errs, or the reply's bytes
  };
  const Row rows[] = {
      {"a next-update of a capture never started", nextType, nextBody("ghost"), -1728,
       "No capture is running with requestId \"ghost\""},
      {"a next-update of a cancelled capture", nextType, nextBody("ended", R"(,"timeoutMs":60000)"), -1728,
       "No capture is running with requestId \"ended\""},
      {"a cancel of a cancelled capture", cancelCaptureType, idBody("ended"), std::nullopt, "{}"},
      {"a cancel of a capture never started", cancelCaptureType, idBody("never"), std::nullopt, "{}"},
      {"a next-update that is not JSON", nextType, "{", -50,
       "Invalid ComputerUseIPCAppNextCaptureUpdateRequest: the body is not JSON"},
      {"a next-update with a fractional wait", nextType, R"({"requestId":"ended","timeoutMs":1.5})", -50,
       "Invalid ComputerUseIPCAppNextCaptureUpdateRequest: Expected an integer in range for \"timeoutMs\""},
      {"a start with a window id past 32 bits", startType, R"({"requestId":"w","windowID":4294967296})", -50,
       "Invalid ComputerUseIPCAppStartFrontmostCaptureRequest: Expected an integer in range for \"windowID\""},
      {"a start whose app is not running: the capture's own error", startType,
       R"({"requestId":"w","bundleIdentifier":"com.example.none"})", std::nullopt,
       R"({"error":{"code":"app_not_found","message":"No running app has the bundle identifier \"com.example.none\""}})"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.name);
    const auto reply = client.send(row.type, row.body);
    ASSERT_TRUE(reply.has_value()) << reply.error().name;
    EXPECT_EQ(reply->errn, row.errn);
    if (row.errn) {
      EXPECT_EQ(reply->errs, row.text);
      EXPECT_EQ(reply->bytes, std::nullopt);
    } else {
      EXPECT_EQ(reply->bytes, row.text);
    }
  }
}

TEST_F(SimulatorCaptureTest, TheCancelsReplyLeavesBeforeTheUpdateItEnds) {
  SimulatorControl client(bus.address(), busName);
  startCapture(client, "ordered");
  // Both calls on one connection, so that the order the simulator sent them in is the
  // order they arrive in.
  ASSERT_TRUE(client.sendWithoutWaiting(nextType, nextBody("ordered"), "NEXT-ORDERED"));
  awaitWaiting(1);
  ASSERT_TRUE(client.sendWithoutWaiting(cancelCaptureType, idBody("ordered"), "CANCEL-ORDERED"));
  const auto replies = client.awaitReplies();
  ASSERT_EQ(replies.size(), 2u);
  EXPECT_EQ(replies[0].requestID, "CANCEL-ORDERED");
  EXPECT_EQ(replies[0].reply.value().bytes, "{}");
  EXPECT_EQ(replies[1].requestID, "NEXT-ORDERED");
  EXPECT_EQ(updateType(replies[1].reply), "cancelled");
}

// As many parked next-updates as the simulator has workers, from as many clients: other
// requests are served meanwhile, one change answers them all, and cancels end them.
TEST_F(SimulatorCaptureTest, EightParkedNextUpdatesHoldBackNothing) {
  constexpr size_t clients = 8;
  std::vector<std::unique_ptr<SimulatorControl>> waiters;
  const auto parkAll = [&](size_t round) {
    for (size_t client = 0; client < clients; ++client) {
      const std::string number = std::to_string(client);
      ASSERT_TRUE(waiters[client]->sendWithoutWaiting(nextType, nextBody("many-" + number, R"(,"timeoutMs":60000)"),
                                                      "MANY-" + std::to_string(round) + "-" + number));
    }
    awaitWaiting(static_cast<uint32_t>(clients * round));
  };
  for (size_t client = 0; client < clients; ++client) {
    waiters.push_back(std::make_unique<SimulatorControl>(bus.address(), busName));
    startCapture(*waiters.back(), "many-" + std::to_string(client));
  }
  parkAll(1);
  // Were the waits holding workers, these would queue behind them for a minute.
  const auto health = control.send(ComputerUseIPCHealthRequest::requestType, "{}", "HEALTH", 10s);
  ASSERT_TRUE(health.has_value()) << health.error().name;
  EXPECT_EQ(health->errn, std::nullopt);
  EXPECT_TRUE(replyJSON(control.send(ComputerUseIPCAppGetStateRequest::requestType, R"({"app":"Files"})", "STATE", 10s))
                  .contains("content"));
  EXPECT_FALSE(replyJSON(control.send(startType, idBody("ninth"), "NINTH", 10s)).contains("error"));
  // One change is due to every capture.
  ASSERT_TRUE(control.send(ComputerUseIPCAppPerformActionRequest::requestType,
                           R"({"app":"Notes","action":{"click":{"_0":{"elementIndex":1,"clickCount":1,"mouseButton":0}}}})",
                           "CHANGE", 10s));
  for (auto &waiter : waiters) {
    const auto replies = waiter->awaitReplies();
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_EQ(updateType(replies[0].reply), "frame");
  }
  // Parked again, and ended by cancels: of the capture, but for the last, of the call.
  parkAll(2);
  for (size_t client = 0; client < clients; ++client) {
    const std::string number = std::to_string(client);
    const auto cancel = client + 1 < clients
                            ? control.send(cancelCaptureType, idBody("many-" + number), "", 10s)
                            : control.send(ComputerUseIPCCancelRequest::requestType,
                                           R"({"requestID":"MANY-2-)" + number + R"("})", "", 10s);
    ASSERT_TRUE(cancel.has_value());
    EXPECT_EQ(cancel->bytes, "{}");
    const auto replies = waiters[client]->awaitReplies();
    ASSERT_EQ(replies.size(), 1u);
    if (client + 1 < clients)
      EXPECT_EQ(updateType(replies[0].reply), "cancelled");
    else
      EXPECT_EQ(replies[0].reply.value().errn, -128);
  }
}

TEST_F(SimulatorCaptureTest, ParkedNextUpdatesEndWithTheProcess) {
  SimulatorControl waiter(bus.address(), busName);
  startCapture(waiter, "left");
  for (const char *callID : {"LEFT-1", "LEFT-2"})
    ASSERT_TRUE(waiter.sendWithoutWaiting(nextType, nextBody("left", R"(,"timeoutMs":60000)"), callID));
  awaitWaiting(2);
  EXPECT_EQ(simulator.stop(), 0);
  // Unanswered: the callers see the simulator leave the bus.
  const auto replies = waiter.awaitReplies();
  ASSERT_EQ(replies.size(), 2u);
  for (const auto &reply : replies)
    EXPECT_FALSE(reply.reply.has_value()) << reply.requestID;
}

} // namespace
} // namespace tavix::test

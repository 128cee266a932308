#pragma once
// The simulator on the session bus: it serves the runtime's Send method from a desktop,
// with the scripted faults of its options, and a control interface for tests.
//
// One thread owns the bus connection and never blocks on a request: each Send is read,
// journalled and handed to a worker, which applies the call's fault (its delay runs
// there), routes the request (a state request of an unchanged desktop from the
// ReplyCache) and queues the reply; the bus thread picks finished replies
// up through an eventfd it polls beside the bus and sends them. A cancel request ends the
// request it names at once with errn -128, while that request's worker may still wait.
//
// A capture's next-update waits without a worker. A worker looks at the capture once
// (CaptureUpdates::look); when nothing is due, the call is parked on the bus thread with
// its deadline, and the journal records that it waits. The desktop's change listener
// raises a second eventfd, and each change sends every parked call's look to a worker
// again; the deadline answers "timeout" from the bus thread; a cancel-capture answers its
// own {} and then "cancelled" to the calls waiting on that capture; a cancel request naming
// the call's RqID ends it with errn -128, like any other call. A generation counted up by
// every change and every cancel-capture tells a look that comes back with nothing due
// whether it missed one while it ran, in which case it looks again instead of parking.
//
// The control interface com.tavix.computeruse.Simulator1, on the runtime's object:
//   SetFaults(s rulesJSON)                     replaces the fault script (InvalidArgs when bad)
//   Events() -> s                              every Send received so far, as a JSON array
//   ClearEvents()                              forgets them
//   AwaitEvents(s type, u count, u timeoutMs) -> s
//       the events of `type` (a request type or one of the simulator's own event names,
//       see EventJournal.h; "*": all) once there are at least `count` of them, or the
//       error com.tavix.computeruse.Simulator1.Error.TimedOut after `timeoutMs`
//
// On start the service prints "ready <unique bus name>" on standard output once it has
// asked for its name; with a late handler it prints "installed" when the object appears.

#include "runtime/Cancellation.h"
#include "runtime/CaptureUpdates.h"
#include "runtime/EventJournal.h"
#include "runtime/EventfdQueue.h"
#include "runtime/EventfdSignal.h"
#include "runtime/FaultScript.h"
#include "runtime/ReplyCache.h"
#include "runtime/RequestRouter.h"
#include "runtime/SendReply.h"
#include "runtime/SimulatorOptions.h"
#include "runtime/UniqueFd.h"
#include "support/WorkerPool.h"

#include <systemd/sd-bus.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tavix::runtime {

class SimulatorService {
public:
  static constexpr const char *controlInterface = "com.tavix.computeruse.Simulator1";
  static constexpr const char *timedOutError = "com.tavix.computeruse.Simulator1.Error.TimedOut";
  static constexpr size_t workerThreads = 8;

  SimulatorService(SimulatorOptions options, RuntimeDesktop &desktop);
  ~SimulatorService();
  SimulatorService(const SimulatorService &) = delete;
  SimulatorService &operator=(const SimulatorService &) = delete;

  // Serves until SIGTERM or SIGINT (status 0) or until the bus connection is lost or
  // cannot be made (status 1).
  int run();

private:
  using Clock = std::chrono::steady_clock;

  // A next-update that waits for its capture's next update.
  struct CaptureWait {
    std::string captureID; // the capture's requestId
    Clock::time_point deadline;
    std::chrono::milliseconds wait{0}; // what the request asked for, as clamped
    bool parked = false;               // false while a worker looks at the capture
    bool announced = false;            // its waiting event is in the journal
  };
  struct PendingCall {
    sd_bus_message *message = nullptr; // referenced until answered
    std::string requestID;
    std::shared_ptr<Cancellation> cancellation;
    std::optional<CaptureWait> capture; // set once a look found the capture running
  };
  // What a worker made of a call: a reply, a D-Bus error, a wait, or (never answer) none.
  struct Completion {
    uint64_t callID = 0;
    ReplyCache::Reply reply; // shared with the cache

    std::optional<std::string> busErrorName;
    std::string busErrorMessage;

    // A next-update's look found nothing due; `generation` is the one it began at.
    std::optional<CaptureWait> wait;
    uint64_t generation = 0;
    // A cancel-capture ended this capture: its waiting calls are answered after the reply.
    std::optional<std::string> endedCapture;
  };
  struct Awaiter {
    sd_bus_message *message = nullptr;
    std::string requestType;
    uint32_t count = 0;
    Clock::time_point deadline;
  };

  int connect();
  int installHandlers();
  int serve();
  int processBus();
  int pollTimeoutMs() const;
  void finish();

  int onSend(sd_bus_message *message);
  void cancelRequest(const std::string &body);
  void dispatch(sd_bus_message *message, SendCall &call, std::optional<Fault> fault);
  Completion work(uint64_t callID, const std::string &requestType, const std::string &body,
                  const RuntimeCaller &caller, const std::optional<Fault> &fault, Clock::time_point received);
  ReplyCache::Reply answer(const std::string &requestType, const std::string &body, const RuntimeCaller &caller);
  void deliverCompletions();
  void sendReply(std::map<uint64_t, PendingCall>::iterator entry, const SendReply &reply);

  // ---- next-updates ----
  Completion firstLook(uint64_t callID, const std::string &body, Clock::time_point received);
  Completion lookCompletion(uint64_t callID, CaptureLook look, CaptureWait wait);
  SendReply updateReply(const ComputerUseIPCAppshotUpdateEnvelope &envelope) const;
  void lookAgain(uint64_t callID, const CaptureWait &wait);
  void keepWaiting(uint64_t callID, PendingCall &call, CaptureWait wait, uint64_t generation);
  void onDesktopChanged();
  void endCaptureWaits(const std::string &captureID);
  void expireCaptureWaits();

  int onSetFaults(sd_bus_message *message, sd_bus_error *error);
  int onEvents(sd_bus_message *message);
  int onClearEvents(sd_bus_message *message);
  int onAwaitEvents(sd_bus_message *message);
  void answerAwaiters();
  void expireAwaiters();

  static int sendTrampoline(sd_bus_message *message, void *self, sd_bus_error *error);
  static int setFaultsTrampoline(sd_bus_message *message, void *self, sd_bus_error *error);
  static int eventsTrampoline(sd_bus_message *message, void *self, sd_bus_error *error);
  static int clearEventsTrampoline(sd_bus_message *message, void *self, sd_bus_error *error);
  static int awaitEventsTrampoline(sd_bus_message *message, void *self, sd_bus_error *error);
  static const sd_bus_vtable sendVtable[];
  static const sd_bus_vtable controlVtable[];

  SimulatorOptions options_;
  RuntimeDesktop &desktop_;
  RequestRouter router_;
  ReplyCache replies_;
  FaultScript faults_;
  sd_bus *bus_ = nullptr;
  sd_bus_slot *sendSlot_ = nullptr;
  sd_bus_slot *controlSlot_ = nullptr;
  bool canPassDescriptors_ = false;
  UniqueFd signals_;
  EventfdQueue<Completion> completions_;
  EventfdSignal desktopChanges_;
  // Counts desktop changes and ended captures (see above); the bus thread's alone.
  uint64_t generation_ = 0;
  std::unique_ptr<WorkerPool> workers_;
  std::map<uint64_t, PendingCall> pending_;
  uint64_t nextCallID_ = 1;
  EventJournal journal_;
  std::vector<Awaiter> awaiters_;
  std::optional<Clock::time_point> handlerDeadline_;
};

} // namespace tavix::runtime

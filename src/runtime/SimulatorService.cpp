#include "runtime/SimulatorService.h"

#include "platform/linux/RuntimeBusNames.h"
#include "support/JSON.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <poll.h>
#include <pthread.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace tavix::runtime {
namespace {

namespace bus = runtimebus;

// The session bus as the bridge finds it: the environment's address, else the user's
// runtime directory, else the standard place for the user's bus.
std::string sessionBusAddress() {
  if (const char *address = std::getenv("DBUS_SESSION_BUS_ADDRESS"); address != nullptr && *address != '\0')
    return address;
  if (const char *runtimeDir = std::getenv("XDG_RUNTIME_DIR"); runtimeDir != nullptr && *runtimeDir != '\0')
    return std::string("unix:path=") + runtimeDir + "/bus";
  return "unix:path=/run/user/" + std::to_string(::getuid()) + "/bus";
}

void report(const std::string &text) { std::fprintf(stderr, "TavixComputerUseRuntimeSimulator: %s\n", text.c_str()); }

void printLine(const std::string &line) {
  std::fputs((line + "\n").c_str(), stdout);
  std::fflush(stdout);
}

int msUntil(std::chrono::steady_clock::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  return static_cast<int>(std::clamp<int64_t>(left.count(), 0, INT_MAX));
}

SimulatorService &service(void *self) { return *static_cast<SimulatorService *>(self); }

} // namespace

const sd_bus_vtable SimulatorService::sendVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Send", "ssa{sv}", "a{sv}", &SimulatorService::sendTrampoline, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END};

const sd_bus_vtable SimulatorService::controlVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("SetFaults", "s", "", &SimulatorService::setFaultsTrampoline, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Events", "", "s", &SimulatorService::eventsTrampoline, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("ClearEvents", "", "", &SimulatorService::clearEventsTrampoline, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("AwaitEvents", "suu", "s", &SimulatorService::awaitEventsTrampoline, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END};

SimulatorService::SimulatorService(SimulatorOptions options, RuntimeDesktop &desktop)
    : options_(std::move(options)), desktop_(desktop), router_(desktop), faults_(options_.faults) {}

SimulatorService::~SimulatorService() { finish(); }

int SimulatorService::run() {
  // Blocked before the workers start, so that every thread inherits the mask and the
  // signals arrive only through the descriptor the bus thread polls.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGTERM);
  sigaddset(&stopSignals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
  signals_ = UniqueFd(::signalfd(-1, &stopSignals, SFD_CLOEXEC | SFD_NONBLOCK));
  if (!signals_) {
    report(std::string("signalfd failed: ") + std::strerror(errno));
    return 1;
  }
  if (const int r = connect(); r < 0) {
    report("cannot connect to the session bus at " + sessionBusAddress() + ": " + std::strerror(-r));
    return 1;
  }
  canPassDescriptors_ = sd_bus_can_send(bus_, SD_BUS_TYPE_UNIX_FD) > 0;
  desktop_.setChangeListener([this] { desktopChanges_.raise(); });
  workers_ = std::make_unique<WorkerPool>(workerThreads);
  // A client may send the moment the name appears, so the object comes first, unless a
  // test asked to see the window in which it is missing.
  if (options_.lateHandlerMs == 0 && installHandlers() < 0)
    return 1;
  if (const int r = sd_bus_request_name(bus_, options_.busName.c_str(), SD_BUS_NAME_QUEUE); r < 0) {
    report("cannot request the name " + options_.busName + ": " + std::strerror(-r));
    return 1;
  }
  const char *unique = nullptr;
  sd_bus_get_unique_name(bus_, &unique);
  printLine(std::string("ready ") + (unique != nullptr ? unique : ""));
  if (options_.lateHandlerMs > 0)
    handlerDeadline_ = Clock::now() + std::chrono::milliseconds(options_.lateHandlerMs);
  const int status = serve();
  finish();
  return status;
}

int SimulatorService::connect() {
  int r = sd_bus_new(&bus_);
  if (r < 0)
    return r;
  const std::string address = sessionBusAddress();
  if ((r = sd_bus_set_address(bus_, address.c_str())) < 0 || (r = sd_bus_set_bus_client(bus_, 1)) < 0 ||
      (r = sd_bus_negotiate_fds(bus_, 1)) < 0 || (r = sd_bus_start(bus_)) < 0)
    return r;
  return 0;
}

int SimulatorService::installHandlers() {
  int r = sd_bus_add_object_vtable(bus_, &sendSlot_, bus::objectPath, bus::interfaceName, sendVtable, this);
  if (r >= 0)
    r = sd_bus_add_object_vtable(bus_, &controlSlot_, bus::objectPath, controlInterface, controlVtable, this);
  if (r < 0)
    report(std::string("cannot register the object: ") + std::strerror(-r));
  return r;
}

// The bus thread's loop: the bus, finished replies, desktop changes, the stop signals and
// the timers.
int SimulatorService::serve() {
  for (;;) {
    if (processBus() < 0) {
      report("the bus connection was lost");
      return 1;
    }
    pollfd fds[4] = {{sd_bus_get_fd(bus_), static_cast<short>(sd_bus_get_events(bus_)), 0},
                     {completions_.fd(), POLLIN, 0},
                     {signals_.get(), POLLIN, 0},
                     {desktopChanges_.fd(), POLLIN, 0}};
    if (::poll(fds, 4, pollTimeoutMs()) < 0 && errno != EINTR) {
      report(std::string("poll failed: ") + std::strerror(errno));
      return 1;
    }
    if (fds[2].revents & POLLIN)
      return 0;
    if (fds[1].revents & POLLIN)
      deliverCompletions();
    if (fds[3].revents & POLLIN)
      onDesktopChanged();
    expireCaptureWaits();
    if (handlerDeadline_ && Clock::now() >= *handlerDeadline_) {
      handlerDeadline_.reset();
      if (installHandlers() < 0)
        return 1;
      printLine("installed");
    }
    expireAwaiters();
  }
}

int SimulatorService::processBus() {
  int r;
  while ((r = sd_bus_process(bus_, nullptr)) > 0) {
  }
  if (r < 0 || sd_bus_is_open(bus_) <= 0)
    return r < 0 ? r : -ENOTCONN;
  return 0;
}

int SimulatorService::pollTimeoutMs() const {
  int timeout = -1;
  const auto sooner = [&](int ms) { timeout = timeout < 0 ? ms : std::min(timeout, ms); };
  uint64_t busDeadline = 0;
  if (sd_bus_get_timeout(bus_, &busDeadline) >= 0 && busDeadline != UINT64_MAX) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const uint64_t nowUs = static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
    sooner(busDeadline <= nowUs ? 0 : static_cast<int>(std::min<uint64_t>((busDeadline - nowUs + 999) / 1000, INT_MAX)));
  }
  if (handlerDeadline_)
    sooner(msUntil(*handlerDeadline_));
  for (const auto &awaiter : awaiters_)
    sooner(msUntil(awaiter.deadline));
  for (const auto &entry : pending_)
    if (entry.second.capture && entry.second.capture->parked)
      sooner(msUntil(entry.second.capture->deadline));
  return timeout;
}

// Ends what is under way: waiting workers are woken and joined, unanswered calls are
// dropped (their callers see the connection close), and the connection is flushed.
void SimulatorService::finish() {
  for (auto &entry : pending_)
    entry.second.cancellation->cancel();
  workers_.reset();
  desktop_.setChangeListener({});
  completions_.drain();
  for (auto &entry : pending_)
    sd_bus_message_unref(entry.second.message);
  pending_.clear();
  for (auto &awaiter : awaiters_)
    sd_bus_message_unref(awaiter.message);
  awaiters_.clear();
  sendSlot_ = sd_bus_slot_unref(sendSlot_);
  controlSlot_ = sd_bus_slot_unref(controlSlot_);
  if (bus_ != nullptr)
    bus_ = sd_bus_flush_close_unref(bus_);
}

// ---- Send ----

int SimulatorService::onSend(sd_bus_message *message) {
  SendCall call;
  if (const int r = SendCall::read(message, call); r < 0)
    return r;
  journal_.record(call);
  answerAwaiters();
  if (const auto refusal = call.refusal()) {
    if (const int r = SendReply::failure(*refusal).send(message); r < 0)
      return r;
    return 1;
  }
  const bool isCancel = *call.requestType == ComputerUseIPCCancelRequest::requestType;
  if (isCancel)
    cancelRequest(*call.body);
  auto fault = faults_.take(*call.requestType);
  if (isCancel && !fault) {
    // Nothing to wait for: the cancel's answer comes straight from the bus thread.
    auto reply = router_.route(*call.requestType, *call.body, RuntimeCaller{});
    const int r = (reply ? SendReply::response(std::move(*reply), false) : SendReply::failure(reply.error())).send(message);
    return r < 0 ? r : 1;
  }
  dispatch(message, call, std::move(fault));
  return 1;
}

void SimulatorService::cancelRequest(const std::string &body) {
  const auto json = parseJSON(body);
  if (!json)
    return;
  const auto request = ComputerUseIPCCancelRequest::fromJSON(*json);
  if (!request || request->requestID.empty())
    return;
  for (auto entry = pending_.begin(); entry != pending_.end();) {
    if (entry->second.requestID != request->requestID) {
      ++entry;
      continue;
    }
    entry->second.cancellation->cancel();
    if (const int r = SendReply::failure({errn::cancelled, "Request cancelled"}).send(entry->second.message); r < 0)
      report(std::string("cannot answer a cancelled request: ") + std::strerror(-r));
    sd_bus_message_unref(entry->second.message);
    entry = pending_.erase(entry);
  }
}

void SimulatorService::dispatch(sd_bus_message *message, SendCall &call, std::optional<Fault> fault) {
  const uint64_t callID = nextCallID_++;
  auto cancellation = std::make_shared<Cancellation>();
  pending_[callID] = PendingCall{.message = sd_bus_message_ref(message),
                                 .requestID = call.requestID.value_or(""),
                                 .cancellation = cancellation,
                                 .capture = std::nullopt};
  const char *sender = sd_bus_message_get_sender(message);
  workers_->post([this, callID, cancellation, fault = std::move(fault), type = std::move(*call.requestType),
                  body = std::move(*call.body), caller = RuntimeCaller{sender != nullptr ? sender : ""},
                  received = Clock::now(), generation = generation_] {
    if (fault && fault->delayMs > 0 && !cancellation->waitFor(std::chrono::milliseconds(fault->delayMs)))
      return; // cancelled: the bus thread has answered already
    if (fault && fault->effect == Fault::Effect::crash)
      ::_exit(FaultScript::crashStatus);
    Completion completion = work(callID, type, body, caller, fault, received);
    completion.generation = generation;
    completions_.push(std::move(completion));
  });
}

// Runs on a worker: the fault's effect, or the request itself.
SimulatorService::Completion SimulatorService::work(uint64_t callID, const std::string &requestType,
                                                    const std::string &body, const RuntimeCaller &caller,
                                                    const std::optional<Fault> &fault, Clock::time_point received) {
  Completion completion;
  completion.callID = callID;
  switch (fault ? fault->effect : Fault::Effect::none) {
  case Fault::Effect::error:
    completion.reply = std::make_shared<const SendReply>(SendReply::failure({fault->errn, fault->text}));
    return completion;
  case Fault::Effect::noDirectObject:
    completion.reply = std::make_shared<const SendReply>(SendReply::withoutDirectObject());
    return completion;
  case Fault::Effect::dbusError:
    completion.busErrorName = fault->busError;
    completion.busErrorMessage = fault->text;
    return completion;
  case Fault::Effect::neverAnswer:
    return completion;
  case Fault::Effect::crash: // handled before; never reached
  case Fault::Effect::none:
    break;
  }
  if (requestType == ComputerUseIPCAppNextCaptureUpdateRequest::requestType)
    return firstLook(callID, body, received);
  completion.reply = answer(requestType, body, caller);
  if (requestType == ComputerUseIPCAppCancelCaptureRequest::requestType && !completion.reply->error)
    if (const auto request = RequestRouter::decode<ComputerUseIPCAppCancelCaptureRequest>(body))
      completion.endedCapture = request->requestId;
  return completion;
}

ReplyCache::Reply SimulatorService::answer(const std::string &requestType, const std::string &body,
                                           const RuntimeCaller &caller) {
  const auto make = [&] {
    auto reply = router_.route(requestType, body, caller);
    return std::make_shared<const SendReply>(reply ? SendReply::response(std::move(*reply), canPassDescriptors_)
                                                   : SendReply::failure(reply.error()));
  };
  if (!ReplyCache::keeps(requestType))
    return make();
  return replies_.answer(body, canPassDescriptors_, [this] { return desktop_.stateVersion(); }, make);
}

void SimulatorService::deliverCompletions() {
  for (auto &completion : completions_.drain()) {
    // A call cancelled while the worker ran is gone already; one never answered stays
    // pending until a cancel or the end.
    if (const auto entry = pending_.find(completion.callID); entry != pending_.end()) {
      if (completion.wait) {
        keepWaiting(entry->first, entry->second, std::move(*completion.wait), completion.generation);
      } else if (completion.busErrorName) {
        if (const int r = sd_bus_reply_method_errorf(entry->second.message, completion.busErrorName->c_str(), "%s",
                                                     completion.busErrorMessage.c_str());
            r < 0)
          report(std::string("cannot send a reply: ") + std::strerror(-r));
        sd_bus_message_unref(entry->second.message);
        pending_.erase(entry);
      } else if (completion.reply) {
        sendReply(entry, *completion.reply);
      }
    }
    // Even when the cancel-capture itself was cancelled, its capture has ended.
    if (completion.endedCapture)
      endCaptureWaits(*completion.endedCapture);
  }
}

// Answers a pending call and forgets it.
void SimulatorService::sendReply(std::map<uint64_t, PendingCall>::iterator entry, const SendReply &reply) {
  sd_bus_message *message = entry->second.message;
  if (const int r = reply.send(message); r < 0) {
    report(std::string("cannot send a reply: ") + std::strerror(-r));
    sd_bus_reply_method_errno(message, r, nullptr);
  }
  sd_bus_message_unref(message);
  pending_.erase(entry);
}

// ---- next-updates ----

// On a worker: the request read, and its capture looked at for the first time.
SimulatorService::Completion SimulatorService::firstLook(uint64_t callID, const std::string &body,
                                                         Clock::time_point received) {
  const auto request = RequestRouter::decode<ComputerUseIPCAppNextCaptureUpdateRequest>(body);
  if (!request) {
    Completion completion;
    completion.callID = callID;
    completion.reply = std::make_shared<const SendReply>(SendReply::failure(request.error()));
    return completion;
  }
  const auto wait = CaptureUpdates::waitFor(request->timeoutMs);
  CaptureWait waiting{
      .captureID = request->requestId, .deadline = received + wait, .wait = wait, .parked = false, .announced = false};
  auto look = CaptureUpdates::look(desktop_, waiting.captureID, waiting.deadline, Clock::now(), false);
  return lookCompletion(callID, std::move(look), std::move(waiting));
}

SimulatorService::Completion SimulatorService::lookCompletion(uint64_t callID, CaptureLook look, CaptureWait wait) {
  Completion completion;
  completion.callID = callID;
  if (look.error) {
    completion.reply = std::make_shared<const SendReply>(SendReply::failure(std::move(*look.error)));
  } else if (look.reply) {
    completion.reply = std::make_shared<const SendReply>(updateReply(*look.reply));
  } else {
    completion.wait = std::move(wait);
  }
  return completion;
}

SendReply SimulatorService::updateReply(const ComputerUseIPCAppshotUpdateEnvelope &envelope) const {
  auto bytes = serializeJSON(envelope.toJSON());
  if (!bytes)
    return SendReply::failure({errn::unknownFailure, "The capture update could not be written as JSON"});
  return SendReply::response(std::move(*bytes), canPassDescriptors_);
}

// Sends a waiting call's look to a worker.
void SimulatorService::lookAgain(uint64_t callID, const CaptureWait &wait) {
  workers_->post([this, callID, wait, generation = generation_] {
    auto look = CaptureUpdates::look(desktop_, wait.captureID, wait.deadline, Clock::now(), true);
    Completion completion = lookCompletion(callID, std::move(look), wait);
    completion.generation = generation;
    completions_.push(std::move(completion));
  });
}

// A look found nothing due: the call waits, unless a change or a cancel-capture came while
// the look ran, which it may have missed.
void SimulatorService::keepWaiting(uint64_t callID, PendingCall &call, CaptureWait wait, uint64_t generation) {
  wait.announced = call.capture && call.capture->announced;
  wait.parked = false;
  call.capture = std::move(wait);
  if (generation != generation_) {
    lookAgain(callID, *call.capture);
    return;
  }
  call.capture->parked = true;
  if (call.capture->announced)
    return;
  call.capture->announced = true;
  journal_.recordEvent(EventJournal::captureUpdateWaiting, {{"requestID", call.requestID},
                                                            {"captureRequestId", call.capture->captureID},
                                                            {"timeoutMs", call.capture->wait.count()}});
  answerAwaiters();
}

void SimulatorService::onDesktopChanged() {
  desktopChanges_.clear();
  ++generation_;
  for (auto &entry : pending_) {
    auto &capture = entry.second.capture;
    if (capture && capture->parked) {
      capture->parked = false;
      lookAgain(entry.first, *capture);
    }
  }
}

// After a cancel-capture's reply: every call known to wait on the capture, parked or being
// looked at, answers "cancelled" at once.
void SimulatorService::endCaptureWaits(const std::string &captureID) {
  ++generation_; // a look under way may have found the capture before it ended
  for (auto entry = pending_.begin(); entry != pending_.end();) {
    const auto &capture = entry->second.capture;
    if (!capture || capture->captureID != captureID) {
      ++entry;
      continue;
    }
    const auto next = std::next(entry);
    sendReply(entry, updateReply(CaptureUpdates::envelope(captureID, CaptureUpdates::cancelled)));
    entry = next;
  }
}

void SimulatorService::expireCaptureWaits() {
  const auto now = Clock::now();
  for (auto entry = pending_.begin(); entry != pending_.end();) {
    const auto &capture = entry->second.capture;
    if (!capture || !capture->parked || now < capture->deadline) {
      ++entry;
      continue;
    }
    const auto next = std::next(entry);
    sendReply(entry, updateReply(CaptureUpdates::envelope(capture->captureID, CaptureUpdates::timedOut)));
    entry = next;
  }
}

// ---- control interface ----

int SimulatorService::onSetFaults(sd_bus_message *message, sd_bus_error *error) {
  const char *rules = nullptr;
  if (const int r = sd_bus_message_read(message, "s", &rules); r < 0)
    return r;
  auto script = FaultScript::parse(rules);
  if (!script)
    return sd_bus_error_set(error, SD_BUS_ERROR_INVALID_ARGS, script.error().c_str());
  faults_ = std::move(*script);
  return sd_bus_reply_method_return(message, "");
}

int SimulatorService::onEvents(sd_bus_message *message) {
  const auto text = serializeJSON(journal_.entries(EventJournal::anyType));
  return sd_bus_reply_method_return(message, "s", text.value_or("[]").c_str());
}

int SimulatorService::onClearEvents(sd_bus_message *message) {
  journal_.clear();
  return sd_bus_reply_method_return(message, "");
}

int SimulatorService::onAwaitEvents(sd_bus_message *message) {
  const char *type = nullptr;
  uint32_t count = 0, timeoutMs = 0;
  if (const int r = sd_bus_message_read(message, "suu", &type, &count, &timeoutMs); r < 0)
    return r;
  awaiters_.push_back({sd_bus_message_ref(message), type, count,
                       Clock::now() + std::chrono::milliseconds(timeoutMs)});
  answerAwaiters();
  return 1;
}

void SimulatorService::answerAwaiters() {
  for (auto awaiter = awaiters_.begin(); awaiter != awaiters_.end();) {
    if (journal_.count(awaiter->requestType) < awaiter->count) {
      ++awaiter;
      continue;
    }
    const auto text = serializeJSON(journal_.entries(awaiter->requestType));
    sd_bus_reply_method_return(awaiter->message, "s", text.value_or("[]").c_str());
    sd_bus_message_unref(awaiter->message);
    awaiter = awaiters_.erase(awaiter);
  }
}

void SimulatorService::expireAwaiters() {
  const auto now = Clock::now();
  for (auto awaiter = awaiters_.begin(); awaiter != awaiters_.end();) {
    if (now < awaiter->deadline) {
      ++awaiter;
      continue;
    }
    sd_bus_reply_method_errorf(awaiter->message, timedOutError, "%zu of %u %s events arrived in time",
                               journal_.count(awaiter->requestType), awaiter->count, awaiter->requestType.c_str());
    sd_bus_message_unref(awaiter->message);
    awaiter = awaiters_.erase(awaiter);
  }
}

// ---- trampolines from sd-bus ----

int SimulatorService::sendTrampoline(sd_bus_message *message, void *self, sd_bus_error *) {
  return service(self).onSend(message);
}

int SimulatorService::setFaultsTrampoline(sd_bus_message *message, void *self, sd_bus_error *error) {
  return service(self).onSetFaults(message, error);
}

int SimulatorService::eventsTrampoline(sd_bus_message *message, void *self, sd_bus_error *) {
  return service(self).onEvents(message);
}

int SimulatorService::clearEventsTrampoline(sd_bus_message *message, void *self, sd_bus_error *) {
  return service(self).onClearEvents(message);
}

int SimulatorService::awaitEventsTrampoline(sd_bus_message *message, void *self, sd_bus_error *) {
  return service(self).onAwaitEvents(message);
}

} // namespace tavix::runtime

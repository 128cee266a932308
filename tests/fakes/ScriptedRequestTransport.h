#pragma once
// A transport to the runtime app that the test scripts: it records every request (type,
// JSON body, time-out, and the request context it was sent in) and answers each request
// type with the replies or errors given for it, in order, the last one repeating. Sends
// can be held until the test releases them or the call is cancelled.

#include "client/ComputerUseRequestTransport.h"
#include "support/RequestContext.h"

#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace tavix::test {

class ScriptedRequestTransport final : public ComputerUseRequestTransport {
  template <typename Change> auto locked(Change change) const {
    std::lock_guard guard(lock_);
    return change();
  }

public:
  using Reply = ClientResult<std::string>;

  struct Sent {
    std::string requestType, body;
    std::optional<double> timeoutSeconds;
    std::string correlationID;
    std::optional<std::string> sessionID;
    std::thread::id thread;
  };

  // Answers requests of `requestType` with `replies` in order; the last one repeats.
  void script(const std::string &type, std::vector<Reply> replies) { locked([&] { scripts_[type].assign(replies.begin(), replies.end()); }); }
  // Answers every unscripted type.
  void scriptDefault(Reply reply) { locked([&] { defaultReply_ = std::move(reply); }); }
  // A connection counts as established as set here, or, once asked to, after the first
  // answered send, as a real transport's does when it selects a runtime app.
  void setEstablished(bool established) { locked([&] { established_ = established; }); }
  void establishOnReply(bool establish) { locked([&] { establishOnReply_ = establish; }); }
  // While held, sends wait (after being recorded) until released or cancelled; `holdType`
  // holds only the sends of one request type.
  void hold() { locked([&] { held_ = true; }); }
  void holdType(std::string type) { locked([&] { heldTypes_.insert(std::move(type)); }); }
  void release() { locked([&] { held_ = false; heldTypes_.clear(); changed_.notify_all(); }); }

  std::string_view transportName() const override { return "scripted"; }
  bool hasEstablishedConnection() const override { return locked([&] { return established_; }); }

  ClientResult<std::string> send(std::string_view requestType, std::string requestData, std::optional<double> timeoutSeconds) override {
    const auto context = RequestContext::current();
    const std::string type(requestType);
    std::unique_lock guard(lock_);
    sent_.push_back({type, std::move(requestData), timeoutSeconds, context->correlationID(), context->sessionID(), std::this_thread::get_id()});
    changed_.notify_all();
    changed_.wait(guard, context->cancellation(), [&] { return !held_ && !heldTypes_.contains(type); });
    if (context->isCancelled())
      return tl::unexpected(ClientFailure(CancellationError{}));
    auto &script = scripts_[type];
    const Reply reply = script.empty() ? defaultReply_ : script.front();
    if (script.size() > 1)
      script.pop_front();
    established_ = established_ || (establishOnReply_ && reply);
    return reply;
  }

  std::vector<Sent> sent() const { return locked([&] { return sent_; }); }
  std::vector<std::string> sentTypes() const {
    std::vector<std::string> types;
    for (const auto &request : sent())
      types.push_back(request.requestType);
    return types;
  }
  // Waits until `count` requests have been sent, and returns them all.
  std::vector<Sent> waitForSent(size_t count) const {
    std::unique_lock guard(lock_);
    changed_.wait(guard, [&] { return sent_.size() >= count; });
    return sent_;
  }

private:
  mutable std::mutex lock_;
  mutable std::condition_variable_any changed_;
  std::map<std::string, std::deque<Reply>> scripts_;
  Reply defaultReply_ = tl::unexpected(ClientFailure(ClientError::runtimeNotRunning()));
  std::vector<Sent> sent_;
  bool established_ = false, establishOnReply_ = false, held_ = false;
  std::set<std::string> heldTypes_;
};

} // namespace tavix::test

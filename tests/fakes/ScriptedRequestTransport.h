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
public:
  using Reply = ClientResult<std::string>;

  struct Sent {
    std::string requestType;
    std::string body;
    std::optional<double> timeoutSeconds;
    std::string correlationID;
    std::optional<std::string> sessionID;
    std::thread::id thread;
  };

  // Answers requests of `requestType` with `replies` in order; the last one repeats.
  void script(const std::string &requestType, std::vector<Reply> replies) {
    std::lock_guard guard(lock_);
    scripts_[requestType] = std::deque<Reply>(replies.begin(), replies.end());
  }
  // Answers every unscripted type.
  void scriptDefault(Reply reply) {
    std::lock_guard guard(lock_);
    defaultReply_ = std::move(reply);
  }
  // A connection counts as established as set here, or, once asked to, after the first
  // answered send, as a real transport's does when it selects a runtime app.
  void setEstablished(bool established) {
    std::lock_guard guard(lock_);
    established_ = established;
  }
  void establishOnReply(bool establish) {
    std::lock_guard guard(lock_);
    establishOnReply_ = establish;
  }
  // While held, sends wait (after being recorded) until released or cancelled.
  void hold() {
    std::lock_guard guard(lock_);
    held_ = true;
  }
  // Holds only the sends of one request type.
  void holdType(std::string requestType) {
    std::lock_guard guard(lock_);
    heldTypes_.insert(std::move(requestType));
  }
  void release() {
    std::lock_guard guard(lock_);
    held_ = false;
    heldTypes_.clear();
    changed_.notify_all();
  }

  std::string_view transportName() const override { return "scripted"; }
  bool hasEstablishedConnection() const override {
    std::lock_guard guard(lock_);
    return established_;
  }

  ClientResult<std::string> send(std::string_view requestType, std::string requestData,
                                 std::optional<double> timeoutSeconds) override {
    const auto context = RequestContext::current();
    std::unique_lock guard(lock_);
    sent_.push_back({std::string(requestType), std::move(requestData), timeoutSeconds, context->correlationID(),
                     context->sessionID(), std::this_thread::get_id()});
    changed_.notify_all();
    changed_.wait(guard, context->cancellation(),
                  [&] { return !held_ && !heldTypes_.contains(std::string(requestType)); });
    if (context->isCancelled())
      return tl::unexpected(ClientFailure(CancellationError{}));
    Reply reply = nextReply(std::string(requestType));
    if (reply && establishOnReply_)
      established_ = true;
    return reply;
  }

  std::vector<Sent> sent() const {
    std::lock_guard guard(lock_);
    return sent_;
  }
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
  Reply nextReply(const std::string &requestType) {
    const auto found = scripts_.find(requestType);
    if (found == scripts_.end() || found->second.empty())
      return defaultReply_;
    Reply reply = found->second.front();
    if (found->second.size() > 1)
      found->second.pop_front();
    return reply;
  }

  mutable std::mutex lock_;
  mutable std::condition_variable_any changed_;
  std::map<std::string, std::deque<Reply>> scripts_;
  Reply defaultReply_ = tl::unexpected(ClientFailure(ClientError::runtimeNotRunning()));
  std::vector<Sent> sent_;
  bool established_ = false;
  bool establishOnReply_ = false;
  bool held_ = false;
  std::set<std::string> heldTypes_;
};

} // namespace tavix::test

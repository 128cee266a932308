#pragma once
// A runtime event channel that records every event and answers from a script: per request
// type, a queue of outcomes, then a default reply. A send of a held type blocks until it
// is released, like a runtime app that has not answered yet.

#include "platform/RuntimeEventChannel.h"

#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace tavix::test {

class ScriptedEventChannel final : public RuntimeEventChannel {
public:
  struct Event {
    int32_t pid = 0;
    std::string eventClass, eventID, requestType, requestData, requestID, clientVersion;
    double timeoutSeconds = 0;
    std::thread::id thread;
  };

  static RuntimeEventOutcome reply(std::string directObject) {
    RuntimeEventOutcome outcome;
    outcome.reply.directObject = std::move(directObject);
    return outcome;
  }
  static RuntimeEventOutcome errorReply(int32_t number, std::optional<std::string> text = std::nullopt) {
    RuntimeEventOutcome outcome;
    outcome.reply.errorNumber = number;
    outcome.reply.errorText = std::move(text);
    return outcome;
  }
  static RuntimeEventOutcome emptyReply() { return {}; }
  static RuntimeEventOutcome status(int32_t status, std::string detail = {}) {
    RuntimeEventOutcome outcome;
    outcome.status = status;
    outcome.detail = std::move(detail);
    return outcome;
  }

  // The next sends of `requestType` get these outcomes, in order.
  void script(const std::string &requestType, std::vector<RuntimeEventOutcome> outcomes) {
    std::lock_guard lock(mutex_);
    for (auto &outcome : outcomes)
      scripts_[requestType].push_back(std::move(outcome));
  }
  void setDefault(RuntimeEventOutcome outcome) {
    std::lock_guard lock(mutex_);
    default_ = std::move(outcome);
  }
  void hold(const std::string &requestType) {
    std::lock_guard lock(mutex_);
    held_.insert(requestType);
  }
  void release(const std::string &requestType) {
    std::lock_guard lock(mutex_);
    held_.erase(requestType);
    changed_.notify_all();
  }

  RuntimeEventOutcome send(int32_t pid, const RuntimeEvent &event, double timeoutSeconds) override {
    std::unique_lock lock(mutex_);
    const std::string type(event.requestType);
    events_.push_back({pid, std::string(event.eventClass), std::string(event.eventID), type,
                       std::string(event.requestData), std::string(event.requestID), std::string(event.clientVersion),
                       timeoutSeconds, std::this_thread::get_id()});
    changed_.notify_all();
    changed_.wait(lock, [&] { return !held_.contains(type); });
    auto &queue = scripts_[type];
    if (queue.empty())
      return default_;
    RuntimeEventOutcome outcome = std::move(queue.front());
    queue.pop_front();
    return outcome;
  }

  std::vector<Event> events() const {
    std::lock_guard lock(mutex_);
    return events_;
  }
  std::vector<Event> eventsOfType(const std::string &requestType) const {
    std::vector<Event> matching;
    for (auto &event : events())
      if (event.requestType == requestType)
        matching.push_back(event);
    return matching;
  }
  // Waits until `count` events of `requestType` have arrived.
  void waitForEvents(const std::string &requestType, size_t count) const {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] {
      size_t seen = 0;
      for (const auto &event : events_)
        seen += event.requestType == requestType;
      return seen >= count;
    });
  }

private:
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::map<std::string, std::deque<RuntimeEventOutcome>> scripts_;
  RuntimeEventOutcome default_ = reply("{}");
  std::set<std::string> held_;
  std::vector<Event> events_;
};

} // namespace tavix::test

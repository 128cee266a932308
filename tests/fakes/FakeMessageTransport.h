#pragma once
// A transport without descriptors or framing: the test hands it messages as if they had
// been read, and it records every message sent.

#include "mcp/MessageTransport.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <stop_token>
#include <string>
#include <utility>
#include <vector>

namespace tavix::test {

class FakeMessageTransport final : public MessageTransport {
public:
  // Queues a message for `run` to hand over.
  void deliver(std::string message) {
    std::lock_guard guard(lock_);
    incoming_.push_back(std::move(message));
    changed_.notify_all();
  }
  // `run` returns once the messages delivered before have been handed over.
  void endInput() {
    std::lock_guard guard(lock_);
    inputEnded_ = true;
    changed_.notify_all();
  }

  void run(MessageHandler &handler) override {
    std::unique_lock guard(lock_);
    for (;;) {
      changed_.wait(guard, [&] { return closed_ || inputEnded_ || !incoming_.empty(); });
      if (closed_ || incoming_.empty())
        return;
      // Followed by readable bytes, as a real transport's messages are.
      std::string message = std::move(incoming_.front());
      const size_t length = message.size();
      message.append(messagePadding, '\0');
      incoming_.pop_front();
      guard.unlock();
      handler.onMessage(std::string_view(message).substr(0, length));
      guard.lock();
    }
  }
  void send(std::string message) override {
    if (failSends_) {
      close();
      return;
    }
    std::lock_guard guard(lock_);
    sent_.push_back(std::move(message));
    changed_.notify_all();
  }
  void close() override {
    {
      std::lock_guard guard(lock_);
      closed_ = true;
      changed_.notify_all();
    }
    closing_.request_stop();
  }
  std::stop_token closing() const override { return closing_.get_token(); }
  // From now on a send fails as a broken output does: the message is lost and the
  // transport closes.
  void failSends() { failSends_ = true; }

  bool isClosed() const {
    std::lock_guard guard(lock_);
    return closed_;
  }
  // Every message sent so far, once at least `count` have been (or 10 s have passed).
  std::vector<std::string> sent(size_t count = 0) const {
    std::unique_lock guard(lock_);
    changed_.wait_for(guard, std::chrono::seconds(10), [&] { return sent_.size() >= count; });
    return sent_;
  }
  // Every message sent so far, once `message` is among them (or 10 s have passed).
  std::vector<std::string> sentThrough(const std::string &message) const {
    std::unique_lock guard(lock_);
    changed_.wait_for(guard, std::chrono::seconds(10), [&] {
      return std::find(sent_.begin(), sent_.end(), message) != sent_.end();
    });
    return sent_;
  }
  // Takes the messages sent so far.
  std::vector<std::string> takeSent() {
    std::lock_guard guard(lock_);
    return std::exchange(sent_, {});
  }

private:
  mutable std::mutex lock_;
  mutable std::condition_variable changed_;
  std::deque<std::string> incoming_;
  std::vector<std::string> sent_;
  bool inputEnded_ = false;
  bool closed_ = false;
  std::atomic<bool> failSends_ = false;
  std::stop_source closing_;
};

} // namespace tavix::test

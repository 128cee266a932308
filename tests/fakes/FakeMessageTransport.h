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
  void deliver(std::string message) { change([&] { incoming_.push_back(std::move(message)); }); }
  // `run` returns once the messages delivered before have been handed over.
  void endInput() { change([&] { inputEnded_ = true; }); }

  void run(MessageHandler &handler) override {
    std::unique_lock guard(lock_);
    for (;;) {
      changed_.wait(guard, [&] { return closed_ || inputEnded_ || !incoming_.empty(); });
      if (closed_ || incoming_.empty())
        return;
      // Followed by readable bytes, as a real transport's messages are.
      std::string message = std::exchange(incoming_.front(), {});
      incoming_.pop_front();
      const size_t length = message.size();
      message.append(messagePadding, '\0');
      guard.unlock();
      handler.onMessage(std::string_view(message).substr(0, length));
      guard.lock();
    }
  }
  void send(std::string message) override {
    if (failSends_)
      return close();
    change([&] { sent_.push_back(std::move(message)); });
  }
  void close() override { change([&] { closed_ = true; }); closing_.request_stop(); }
  std::stop_token closing() const override { return closing_.get_token(); }
  // From now on a send fails as a broken output does: the message is lost and the
  // transport closes.
  void failSends() { failSends_ = true; }

  // Every message sent so far, once `message` is among them (or 10 s have passed).
  std::vector<std::string> sentThrough(const std::string &message) const {
    std::unique_lock guard(lock_);
    changed_.wait_for(guard, std::chrono::seconds(10), [&] { return std::ranges::find(sent_, message) != sent_.end(); });
    return sent_;
  }
  // Takes the messages sent so far.
  std::vector<std::string> takeSent() { std::lock_guard guard(lock_); return std::exchange(sent_, {}); }

private:
  template <typename Change> void change(Change apply) { std::lock_guard guard(lock_); apply(); changed_.notify_all(); }

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

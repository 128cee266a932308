#pragma once
// The last few state replies, encoded and ready to send again. A state request answers
// with a screenshot of megabytes; while the desktop stays as it was, the same request
// gets the very reply it got before: the same bytes, or the same sealed memfd, which
// cannot change once sealed. Each entry carries the desktop's state version from before
// its reply was made and is only kept when the version was still the same afterwards,
// so an action that ran meanwhile never leaves a stale reply behind; an entry of another
// version is never served and is dropped as soon as a newer one is kept.
//
// Only what decides the reply is the key: the request's body bytes and whether the reply
// may travel as a descriptor. The service calls it from several worker threads at once.

#include "runtime/SendReply.h"

#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

namespace tavix::runtime {

class ReplyCache {
public:
  using Reply = std::shared_ptr<const SendReply>;
  // State requests for all three apps, each in its three observations, fit in 9; a client
  // rarely asks for more than one or two between actions.
  static constexpr size_t capacity = 4;

  // Whether replies to requests of this type are kept.
  static bool keeps(std::string_view requestType);

  // The reply to the request `body`: the kept one when the desktop's version, read by
  // `version()`, is the one it was made at; else the one `make()` gives, kept when it is
  // no failure and the version was the same before and after making it.
  template <typename Version, typename Make>
  Reply answer(std::string_view body, bool canPassDescriptors, Version &&version, Make &&make) {
    const uint64_t before = version();
    if (auto kept = find(body, canPassDescriptors, before))
      return kept;
    Reply made = make();
    if (made && !made->error && version() == before)
      keep(std::string(body), canPassDescriptors, before, made);
    return made;
  }

  // How many replies were answered from memory, and how many were made.
  uint64_t hits() const;
  uint64_t misses() const;
  size_t size() const;

private:
  struct Entry {
    std::string body;
    bool canPassDescriptors = false;
    uint64_t version = 0;
    Reply reply;
  };

  Reply find(std::string_view body, bool canPassDescriptors, uint64_t version);
  void keep(std::string body, bool canPassDescriptors, uint64_t version, Reply reply);

  mutable std::mutex mutex_;
  std::deque<Entry> entries_; // the most recently used first
  uint64_t hits_ = 0;
  uint64_t misses_ = 0;
};

} // namespace tavix::runtime

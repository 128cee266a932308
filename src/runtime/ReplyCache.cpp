#include "runtime/ReplyCache.h"

#include "contracts/ComputerUseRequests.h"

#include <algorithm>

namespace tavix::runtime {

bool ReplyCache::keeps(std::string_view requestType) {
  return requestType == ComputerUseIPCAppGetStateRequest::requestType;
}

ReplyCache::Reply ReplyCache::find(std::string_view body, bool canPassDescriptors, uint64_t version) {
  std::lock_guard lock(mutex_);
  const auto found = std::find_if(entries_.begin(), entries_.end(), [&](const Entry &entry) {
    return entry.version == version && entry.canPassDescriptors == canPassDescriptors && entry.body == body;
  });
  if (found == entries_.end()) {
    ++misses_;
    return nullptr;
  }
  ++hits_;
  Reply reply = found->reply;
  std::rotate(entries_.begin(), found, std::next(found));
  return reply;
}

void ReplyCache::keep(std::string body, bool canPassDescriptors, uint64_t version, Reply reply) {
  std::lock_guard lock(mutex_);
  // Versions only grow: an entry of an older one can never be served again, and one of a
  // newer one (kept by a worker that read the version later) makes this one the stale one.
  if (std::any_of(entries_.begin(), entries_.end(), [&](const Entry &entry) { return entry.version > version; }))
    return;
  std::erase_if(entries_, [&](const Entry &entry) {
    return entry.version != version || (entry.canPassDescriptors == canPassDescriptors && entry.body == body);
  });
  entries_.push_front({std::move(body), canPassDescriptors, version, std::move(reply)});
  if (entries_.size() > capacity)
    entries_.pop_back();
}

uint64_t ReplyCache::hits() const {
  std::lock_guard lock(mutex_);
  return hits_;
}

uint64_t ReplyCache::misses() const {
  std::lock_guard lock(mutex_);
  return misses_;
}

size_t ReplyCache::size() const {
  std::lock_guard lock(mutex_);
  return entries_.size();
}

} // namespace tavix::runtime

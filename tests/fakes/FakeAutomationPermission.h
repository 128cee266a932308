#pragma once
// An automation permission that answers from a script: a status per (process id, whether
// the user may be asked), the default for anything unscripted, and a record of every probe
// in order. A hook, when set, runs inside each probe (outside the fake's lock) so that a
// test can hold a probe while another thread works. Safe to use from several threads.

#include "platform/AutomationPermission.h"

#include <functional>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

namespace tavix::test {

class FakeAutomationPermission final : public AutomationPermission {
public:
  struct Probe {
    int32_t pid = 0;
    bool askUserIfNeeded = false;
    friend bool operator==(const Probe &, const Probe &) = default;
  };
  using Hook = std::function<void(const Probe &)>;

  explicit FakeAutomationPermission(int32_t defaultStatus = 0) : defaultStatus_(defaultStatus) {}

  // The status every probe of `pid` with this `askUserIfNeeded` returns from now on.
  void script(int32_t pid, bool askUserIfNeeded, int32_t status) {
    std::lock_guard guard(lock_);
    statuses_[{pid, askUserIfNeeded}] = status;
  }
  void setHook(Hook hook) {
    std::lock_guard guard(lock_);
    hook_ = std::move(hook);
  }
  std::vector<Probe> probes() const {
    std::lock_guard guard(lock_);
    return probes_;
  }

  int32_t probe(int32_t pid, bool askUserIfNeeded) override {
    std::unique_lock guard(lock_);
    probes_.push_back({pid, askUserIfNeeded});
    const Hook hook = hook_;
    const auto found = statuses_.find({pid, askUserIfNeeded});
    const int32_t status = found != statuses_.end() ? found->second : defaultStatus_;
    guard.unlock();
    if (hook)
      hook({pid, askUserIfNeeded});
    return status;
  }

private:
  mutable std::mutex lock_;
  const int32_t defaultStatus_;
  std::map<std::pair<int32_t, bool>, int32_t> statuses_;
  std::vector<Probe> probes_;
  Hook hook_;
};

} // namespace tavix::test

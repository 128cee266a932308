#pragma once
// A tool dispatcher whose calls block until the test releases them or the call is
// cancelled, so that tests can hold requests in flight.

#include "mcp/MCPToolDispatcher.h"
#include "support/Logger.h"
#include "support/RequestContext.h"

#include <condition_variable>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace tavix::test {

class BlockingToolDispatcher final : public MCPToolDispatcher {
public:
  nlohmann::json dispatch(const std::string &toolName, const nlohmann::json &arguments,
                          const nlohmann::json &) override {
    const auto context = RequestContext::current();
    Log::info(LogCategory::tools, "test_tool_dispatched", {{"tool", toolName}});
    std::unique_lock guard(lock_);
    started_.push_back(toolName);
    correlationIDs_.push_back(context->correlationID());
    changed_.notify_all();
    changed_.wait(guard, context->cancellation(), [&] { return released_.contains(toolName); });
    const bool cancelled = context->isCancelled();
    if (cancelled)
      cancelled_.push_back(toolName);
    return {{"content", nlohmann::json::array({{{"type", "text"}, {"text", toolName}}})},
            {"arguments", arguments},
            {"cancelled", cancelled}};
  }

  void release(const std::string &toolName) {
    std::lock_guard guard(lock_);
    released_.insert(toolName);
    changed_.notify_all();
  }
  // Waits until `count` calls have started, and returns their tool names.
  std::vector<std::string> started(size_t count) {
    std::unique_lock guard(lock_);
    changed_.wait(guard, [&] { return started_.size() >= count; });
    return started_;
  }
  std::vector<std::string> correlationIDs() {
    std::lock_guard guard(lock_);
    return correlationIDs_;
  }
  std::vector<std::string> cancelled() {
    std::lock_guard guard(lock_);
    return cancelled_;
  }

private:
  std::mutex lock_;
  std::condition_variable_any changed_;
  std::set<std::string> released_;
  std::vector<std::string> started_, correlationIDs_, cancelled_;
};

} // namespace tavix::test

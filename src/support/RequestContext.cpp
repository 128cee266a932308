#include "support/RequestContext.h"

#include <utility>

namespace tavix {
namespace {

std::shared_ptr<const RequestContext> &threadContext() {
  thread_local std::shared_ptr<const RequestContext> context;
  return context;
}

} // namespace

std::shared_ptr<const RequestContext> RequestContext::current() {
  static const auto empty = std::make_shared<const RequestContext>();
  const auto &context = threadContext();
  return context ? context : empty;
}

WithRequestContext::WithRequestContext(std::shared_ptr<const RequestContext> context)
    : previous_(std::exchange(threadContext(), std::move(context))) {}

WithRequestContext::~WithRequestContext() { threadContext() = std::move(previous_); }

} // namespace tavix

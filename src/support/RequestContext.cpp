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
  // Never destroyed: threads may still log while the process exits.
  static const auto *empty =
      new std::shared_ptr<const RequestContext>(std::make_shared<const RequestContext>());
  const auto &context = threadContext();
  return context ? context : *empty;
}

std::shared_ptr<const RequestContext>
RequestContext::withCorrelationID(std::string correlationID) const {
  auto derived = std::make_shared<RequestContext>(*this);
  derived->correlationID_ = std::move(correlationID);
  return derived;
}

std::shared_ptr<const RequestContext>
RequestContext::withSessionID(std::optional<std::string> sessionID) const {
  auto derived = std::make_shared<RequestContext>(*this);
  derived->sessionID_ = std::move(sessionID);
  return derived;
}

WithRequestContext::WithRequestContext(std::shared_ptr<const RequestContext> context)
    : previous_(std::exchange(threadContext(), std::move(context))) {}

WithRequestContext::~WithRequestContext() { threadContext() = std::move(previous_); }

} // namespace tavix

#pragma once
// A runtime that answers every request at once with one fixed reply and keeps nothing
// of what it was sent, for fuzzers and benchmarks that send without end.

#include "client/ComputerUseRequestTransport.h"

#include <string>

namespace tavix::test {

class CannedRequestTransport final : public ComputerUseRequestTransport {
public:
  explicit CannedRequestTransport(std::string reply) : reply_(std::move(reply)) {}
  std::string_view transportName() const override { return "canned"; }
  ClientResult<std::string> send(std::string_view, std::string, std::optional<double>) override { return reply_; }

private:
  const std::string reply_;
};

} // namespace tavix::test

#pragma once
// Faults the simulator injects into its answers, so that tests can drive a client
// through slow, failing, silent and vanishing runtimes. A script is a JSON array of
// rules; the first live rule that matches a call's request type decides what happens to
// it:
//
//   {"requestType": "ComputerUseIPCHealthRequest" or "*" (the default),
//    "times": N (the rule applies to the next N matching calls, then expires; absent: always),
//    "delayMs": n (wait before answering; a cancel ends the wait),
//    and at most one effect:
//    "errn": n, "errs": "..."       answer that error number and text,
//    "noDirectObject": true         answer success without the response's bytes,
//    "dbusError": "org.x.Error.Y"   answer that D-Bus error ("errs" is its message),
//    "neverAnswer": true            keep the call waiting until it is cancelled,
//    "crash": true                  end the process with status 70 when the call arrives}
//
// A rule without an effect only delays (or, with "times", lets calls through untouched).
// "*" matches every request type but the cancel, so that a cancel always reaches the
// request it ends; a rule that names the cancel's type applies to the cancel's answer.

#include <tl/expected.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavix::runtime {

// What happens to one call.
struct Fault {
  enum class Effect { none, error, noDirectObject, dbusError, neverAnswer, crash };
  uint32_t delayMs = 0;
  Effect effect = Effect::none;
  int32_t errn = 0;
  std::string text;     // errs, or the D-Bus error's message
  std::string busError; // the D-Bus error's name
  friend bool operator==(const Fault &, const Fault &) = default;
};

class FaultScript {
public:
  static constexpr uint32_t longestDelayMs = 600000;
  static constexpr int64_t mostTimes = 1000000;
  // The process's exit status for "crash".
  static constexpr int crashStatus = 70;

  // The rules of a script, or why it is not one.
  static tl::expected<FaultScript, std::string> parse(std::string_view json);

  // The fault for a call of `requestType`, using up one of its rule's times; nothing when
  // no live rule matches.
  std::optional<Fault> take(std::string_view requestType);

  size_t ruleCount() const { return rules_.size(); }

private:
  struct Rule {
    std::string requestType = "*";
    std::optional<int64_t> timesLeft;
    Fault fault;
    bool matches(std::string_view type) const;
  };
  std::vector<Rule> rules_;
};

// Whether `name` is a well-formed D-Bus error name: two or more dot-separated elements of
// letters, digits and underscores, none starting with a digit, 255 bytes at most.
bool isBusErrorName(std::string_view name);

} // namespace tavix::runtime

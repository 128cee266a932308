#include "runtime/FaultScript.h"

#include "contracts/ComputerUseRequests.h"
#include "support/JSON.h"

#include <algorithm>
#include <array>
#include <limits>

namespace tavix::runtime {
namespace {


constexpr std::array<std::string_view, 9> knownKeys = {"requestType", "times",     "delayMs",   "errn", "errs",
                                                        "noDirectObject", "dbusError", "neverAnswer", "crash"};

// An integer within [lowest, highest], or nothing.
std::optional<int64_t> integerIn(const nlohmann::json &value, int64_t lowest, int64_t highest) {
  if (value.is_number_unsigned() && value.get<uint64_t>() <= static_cast<uint64_t>(highest) &&
      static_cast<int64_t>(value.get<uint64_t>()) >= lowest)
    return static_cast<int64_t>(value.get<uint64_t>());
  if (value.is_number_integer() && !value.is_number_unsigned() && value.get<int64_t>() >= lowest &&
      value.get<int64_t>() <= highest)
    return value.get<int64_t>();
  return std::nullopt;
}

struct RuleReader {
  const nlohmann::json &object;
  std::string where;
  std::optional<std::string> problem;

  void fail(std::string text) {
    if (!problem)
      problem = where + text;
  }
  bool flag(const char *key) {
    const auto found = object.find(key);
    if (found == object.end())
      return false;
    if (!found->is_boolean())
      fail(std::string("\"") + key + "\" must be true or false");
    return found->is_boolean() && found->get<bool>();
  }
  std::optional<std::string> text(const char *key) {
    const auto found = object.find(key);
    if (found == object.end())
      return std::nullopt;
    if (!found->is_string()) {
      fail(std::string("\"") + key + "\" must be a string");
      return std::nullopt;
    }
    return found->get<std::string>();
  }
  std::optional<int64_t> integer(const char *key, int64_t lowest, int64_t highest) {
    const auto found = object.find(key);
    if (found == object.end())
      return std::nullopt;
    const auto value = integerIn(*found, lowest, highest);
    if (!value)
      fail(std::string("\"") + key + "\" must be an integer from " + std::to_string(lowest) + " to " +
           std::to_string(highest));
    return value;
  }
};

} // namespace

bool isBusErrorName(std::string_view name) {
  if (name.empty() || name.size() > 255 || name.find('.') == std::string_view::npos)
    return false;
  bool elementStart = true;
  for (char c : name) {
    if (c == '.') {
      if (elementStart)
        return false; // an empty element
      elementStart = true;
      continue;
    }
    const bool letter = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_';
    const bool digit = c >= '0' && c <= '9';
    if (!letter && !(digit && !elementStart))
      return false;
    elementStart = false;
  }
  return !elementStart;
}

tl::expected<FaultScript, std::string> FaultScript::parse(std::string_view json) {
  const auto value = parseJSON(json);
  if (!value || !value->is_array())
    return tl::unexpected(std::string("Fault rules must be a JSON array of objects"));
  FaultScript script;
  for (size_t at = 0; at < value->size(); ++at) {
    const nlohmann::json &object = (*value)[at];
    const std::string where = "Fault rule " + std::to_string(at + 1) + ": ";
    if (!object.is_object())
      return tl::unexpected(where + "must be an object");
    for (const auto &item : object.items())
      if (std::find(knownKeys.begin(), knownKeys.end(), item.key()) == knownKeys.end())
        return tl::unexpected(where + "unknown key \"" + item.key() + "\"");
    RuleReader read{object, where, std::nullopt};
    Rule rule;
    rule.requestType = read.text("requestType").value_or("*");
    rule.timesLeft = read.integer("times", 1, mostTimes);
    rule.fault.delayMs = static_cast<uint32_t>(read.integer("delayMs", 0, longestDelayMs).value_or(0));
    const auto errn = read.integer("errn", std::numeric_limits<int32_t>::min(), std::numeric_limits<int32_t>::max());
    const auto errs = read.text("errs");
    const auto busError = read.text("dbusError");
    const bool noDirectObject = read.flag("noDirectObject"), neverAnswer = read.flag("neverAnswer"),
               crash = read.flag("crash");
    if (read.problem)
      return tl::unexpected(*read.problem);
    const int effects = int(errn.has_value()) + int(busError.has_value()) + int(noDirectObject) +
                        int(neverAnswer) + int(crash);
    if (effects > 1)
      return tl::unexpected(where + "choose one of errn, dbusError, noDirectObject, neverAnswer and crash");
    if (rule.requestType.empty())
      return tl::unexpected(where + "\"requestType\" must name a request type or be \"*\"");
    if (errn == 0)
      return tl::unexpected(where + "\"errn\" must not be 0, which means success");
    if (busError && !isBusErrorName(*busError))
      return tl::unexpected(where + "\"dbusError\" is not a D-Bus error name: \"" + *busError + "\"");
    if (errs && !errn && !busError)
      return tl::unexpected(where + "\"errs\" needs \"errn\" or \"dbusError\"");
    Fault &fault = rule.fault;
    if (errn) {
      fault.effect = Fault::Effect::error;
      fault.errn = static_cast<int32_t>(*errn);
      fault.text = errs.value_or("Simulated error " + std::to_string(*errn));
    } else if (busError) {
      fault.effect = Fault::Effect::dbusError;
      fault.busError = *busError;
      fault.text = errs.value_or("Simulated " + *busError);
    } else if (noDirectObject) {
      fault.effect = Fault::Effect::noDirectObject;
    } else if (neverAnswer) {
      fault.effect = Fault::Effect::neverAnswer;
    } else if (crash) {
      fault.effect = Fault::Effect::crash;
    }
    script.rules_.push_back(std::move(rule));
  }
  return script;
}

bool FaultScript::Rule::matches(std::string_view type) const {
  if (timesLeft && *timesLeft <= 0)
    return false;
  if (requestType == "*")
    return type != ComputerUseIPCCancelRequest::requestType;
  return requestType == type;
}

std::optional<Fault> FaultScript::take(std::string_view requestType) {
  for (auto &rule : rules_) {
    if (!rule.matches(requestType))
      continue;
    if (rule.timesLeft)
      --*rule.timesLeft;
    return rule.fault;
  }
  return std::nullopt;
}

} // namespace tavix::runtime

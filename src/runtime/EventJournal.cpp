#include "runtime/EventJournal.h"

#include "platform/linux/RuntimeBusNames.h"
#include "support/JSON.h"

namespace tavix::runtime {
namespace {

nlohmann::json textOrNull(const std::optional<std::string> &text) {
  return text ? nlohmann::json(*text) : nlohmann::json(nullptr);
}

} // namespace

void EventJournal::record(const SendCall &call) {
  nlohmann::json entry = {
      {"requestType", textOrNull(call.requestType)},
      {"requestID", textOrNull(call.requestID)},
      {"clientVersion", textOrNull(call.clientVersion)},
      {"payload", std::string(payloadName(call.payload))},
      {"bodyBytes", call.body ? call.body->size() : 0},
  };
  if (!call.isRequestEvent()) {
    entry["eventClass"] = call.eventClass;
    entry["eventID"] = call.eventID;
  }
  if (call.body && call.body->size() <= runtimebus::inlinePayloadLimit)
    if (auto body = parseJSON(*call.body))
      entry["body"] = std::move(*body);
  entries_.push_back(std::move(entry));
}

void EventJournal::recordEvent(std::string_view name, nlohmann::json fields) {
  fields["event"] = std::string(name);
  entries_.push_back(std::move(fields));
}

bool EventJournal::matches(const nlohmann::json &entry, std::string_view requestType) {
  if (requestType == anyType)
    return true;
  const auto named = [&](const char *key) {
    const auto found = entry.find(key);
    return found != entry.end() && found->is_string() && found->get_ref<const std::string &>() == requestType;
  };
  return named("requestType") || named("event");
}

size_t EventJournal::count(std::string_view requestType) const {
  size_t count = 0;
  for (const auto &entry : entries_)
    if (matches(entry, requestType))
      ++count;
  return count;
}

nlohmann::json EventJournal::entries(std::string_view requestType) const {
  nlohmann::json array = nlohmann::json::array();
  for (const auto &entry : entries_)
    if (matches(entry, requestType))
      array.push_back(entry);
  return array;
}

} // namespace tavix::runtime

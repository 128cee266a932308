#pragma once
// The values a log call can carry in its fields.

#include <concepts>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <system_error>
#include <variant>

namespace tavix {

// An error as the log shows it: which type it is and its domain and code, never its
// message (messages may quote user data).
struct LogError {
  std::string typeName;
  std::string domain;
  int64_t code = 0;

  static LogError fromErrorCode(const std::error_code &error) {
    return {"std::error_code", error.category().name(), error.value()};
  }
};

// A field value: absent, boolean, integer, floating-point number, text or error.
class LogValue {
public:
  struct Absent {};
  using Storage = std::variant<Absent, bool, int64_t, double, std::string, LogError>;

  LogValue() = default;
  LogValue(std::nullopt_t) {}
  LogValue(bool value) : storage_(value) {}
  template <std::integral Integer>
    requires(!std::same_as<Integer, bool>)
  LogValue(Integer value) : storage_(static_cast<int64_t>(value)) {}
  LogValue(double value) : storage_(value) {}
  LogValue(std::string value) : storage_(std::move(value)) {}
  LogValue(std::string_view value) : storage_(std::string(value)) {}
  LogValue(const char *value) : storage_(std::string(value)) {}
  LogValue(LogError value) : storage_(std::move(value)) {}

  const Storage &storage() const { return storage_; }

private:
  Storage storage_;
};

// Sorted by key, which is the order fields appear in a line.
using LogFields = std::map<std::string, LogValue, std::less<>>;

} // namespace tavix

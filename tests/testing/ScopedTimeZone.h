#pragma once
// Sets TZ (a POSIX rule such as "CST-8", which needs no zone database) for the
// length of a test, so that local times are known.

#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>

namespace tavix::test {

class ScopedTimeZone {
public:
  explicit ScopedTimeZone(const char *zone) {
    setenv("TZ", zone, 1);
    tzset();
  }
  ~ScopedTimeZone() {
    previous_ ? setenv("TZ", previous_->c_str(), 1) : unsetenv("TZ");
    tzset();
  }
  ScopedTimeZone(const ScopedTimeZone &) = delete;
  ScopedTimeZone &operator=(const ScopedTimeZone &) = delete;

private:
  std::optional<std::string> previous_ =
      std::getenv("TZ") ? std::optional<std::string>(std::getenv("TZ")) : std::nullopt;
};

} // namespace tavix::test

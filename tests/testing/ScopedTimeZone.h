#pragma once
// Sets TZ for the length of a test, so that local times are known.

#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>

namespace tavix::test {

class ScopedTimeZone {
public:
  explicit ScopedTimeZone(const char *zone) {
    if (const char *old = std::getenv("TZ"))
      previous_ = old;
    setenv("TZ", zone, 1);
    tzset();
  }
  ~ScopedTimeZone() {
    if (previous_)
      setenv("TZ", previous_->c_str(), 1);
    else
      unsetenv("TZ");
    tzset();
  }
  ScopedTimeZone(const ScopedTimeZone &) = delete;
  ScopedTimeZone &operator=(const ScopedTimeZone &) = delete;

private:
  std::optional<std::string> previous_;
};

} // namespace tavix::test

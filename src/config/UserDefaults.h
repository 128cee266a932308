#pragma once
// A user-defaults store: per-user settings kept as a dictionary, read afresh at every
// access.

#include "config/PropertyListSource.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace tavix {

class UserDefaults {
public:
  explicit UserDefaults(std::shared_ptr<const PropertyListSource> store)
      : store_(std::move(store)) {}
  // The process's standard store.
  static std::shared_ptr<const UserDefaults> standard();

  std::optional<PropertyListValue> object(std::string_view key) const;
  // True for a true boolean, a non-zero number and the texts "true", "yes" and "1" in any
  // case; false otherwise, including when the key is unset.
  bool boolValue(std::string_view key) const;
  static bool truthValue(const PropertyListValue &value);
  // The text for the key; a number is given as its decimal text.
  std::optional<std::string> stringValue(std::string_view key) const;

private:
  std::shared_ptr<const PropertyListSource> store_;
};

} // namespace tavix

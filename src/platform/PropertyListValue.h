#pragma once
// A value read from a property list, reduced to what configuration needs: scalars and
// arrays. Nested dictionaries, dates, data and other kinds are kept only as "other", so
// that a reader can tell a value of the wrong kind from a missing one.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace tavix {

class PropertyListValue;
using PropertyListArray = std::vector<PropertyListValue>;
using PropertyListDictionary = std::map<std::string, PropertyListValue, std::less<>>;

class PropertyListValue {
public:
  struct Other {
    bool operator==(const Other &) const = default;
  };
  using Storage = std::variant<Other, bool, int64_t, double, std::string, PropertyListArray>;

  PropertyListValue() = default;
  PropertyListValue(bool value) : storage_(value) {}
  PropertyListValue(int64_t value) : storage_(value) {}
  PropertyListValue(int value) : storage_(int64_t{value}) {}
  PropertyListValue(double value) : storage_(value) {}
  PropertyListValue(std::string value) : storage_(std::move(value)) {}
  PropertyListValue(const char *value) : storage_(std::string(value)) {}
  PropertyListValue(PropertyListArray value) : storage_(std::move(value)) {}
  PropertyListValue(Other value) : storage_(value) {}

  const Storage &storage() const { return storage_; }
  template <typename T> const T *get() const { return std::get_if<T>(&storage_); }

private:
  Storage storage_;
};

} // namespace tavix

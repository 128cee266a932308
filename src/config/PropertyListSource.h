#pragma once
// Where a configuration dictionary comes from. Every read goes back to the source, so a
// changed file takes effect at the next read.

#include "platform/PropertyListValue.h"

#include <string>

namespace tavix {

class PropertyListSource {
public:
  virtual ~PropertyListSource() = default;
  // The dictionary as it stands now; empty when there is none.
  virtual PropertyListDictionary read() const = 0;
};

// A property-list file; a missing, unreadable or malformed file reads as empty.
class PropertyListFileSource final : public PropertyListSource {
public:
  explicit PropertyListFileSource(std::string path) : path_(std::move(path)) {}
  PropertyListDictionary read() const override;
  const std::string &path() const { return path_; }

private:
  std::string path_;
};

// A dictionary fixed when made: for a check that reads several keys and must see one
// version of them.
class PropertyListSnapshot final : public PropertyListSource {
public:
  explicit PropertyListSnapshot(PropertyListDictionary entries) : entries_(std::move(entries)) {}
  PropertyListDictionary read() const override { return entries_; }

private:
  PropertyListDictionary entries_;
};

} // namespace tavix

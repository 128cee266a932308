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

} // namespace tavix

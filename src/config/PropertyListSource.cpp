#include "config/PropertyListSource.h"

#include "platform/PropertyListFile.h"

namespace tavix {

PropertyListDictionary PropertyListFileSource::read() const {
  if (path_.empty())
    return {};
  return readPropertyListFile(path_).value_or(PropertyListDictionary{});
}

} // namespace tavix

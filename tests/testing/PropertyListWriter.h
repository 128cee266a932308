#pragma once
// Writes property-list files for tests, in either of the formats a reader must
// accept.

#include "platform/PropertyListValue.h"

#include <string>

namespace tavix::test {

enum class PropertyListFormat { xml, binary };

void writePropertyList(const std::string &path, const PropertyListDictionary &entries,
                       PropertyListFormat format);

} // namespace tavix::test

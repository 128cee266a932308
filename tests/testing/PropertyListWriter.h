#pragma once
// Writes property-list files for tests, in either of the formats a reader must
// accept.

#include "platform/PropertyListValue.h"

#include <ostream>
#include <string>

namespace tavix::test {

enum class PropertyListFormat { xml, binary };

inline void PrintTo(PropertyListFormat format, std::ostream *out) {
  *out << (format == PropertyListFormat::xml ? "XML" : "binary");
}

void writePropertyList(const std::string &path, const PropertyListDictionary &entries,
                       PropertyListFormat format);

} // namespace tavix::test

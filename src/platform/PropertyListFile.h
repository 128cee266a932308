#pragma once
// Reading property-list files (XML or binary), the format of the information dictionary
// and of user defaults.

#include "platform/PropertyListValue.h"

#include <optional>
#include <string>

namespace tavix {

// The top-level dictionary of the file at `path`; nothing when the file is missing,
// unreadable, malformed or not a dictionary. Reads the file afresh on every call.
std::optional<PropertyListDictionary> readPropertyListFile(const std::string &path);

} // namespace tavix

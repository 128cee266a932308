#include "platform/PropertyListFile.h"

#include <plist/plist.h>

#include <cstdlib>
#include <fstream>
#include <limits>
#include <memory>
#include <sstream>

namespace tavix {
namespace {

struct PlistDeleter {
  void operator()(void *node) const { plist_free(static_cast<plist_t>(node)); }
};
using PlistPointer = std::unique_ptr<void, PlistDeleter>;

// Strings and keys handed out by the library are the caller's to free.
std::string takeString(char *text) {
  std::string result = text != nullptr ? text : "";
  std::free(text);
  return result;
}

PropertyListValue convert(plist_t node);

PropertyListArray convertArray(plist_t node) {
  PropertyListArray items;
  const uint32_t count = plist_array_get_size(node);
  items.reserve(count);
  for (uint32_t i = 0; i < count; ++i)
    items.push_back(convert(plist_array_get_item(node, i)));
  return items;
}

PropertyListValue convert(plist_t node) {
  switch (plist_get_node_type(node)) {
  case PLIST_BOOLEAN: {
    uint8_t value = 0;
    plist_get_bool_val(node, &value);
    return value != 0;
  }
  case PLIST_UINT: {
    // Older releases call every integer unsigned; negative ones come back as their
    // two's complement, which the cast restores.
    uint64_t value = 0;
    plist_get_uint_val(node, &value);
    return static_cast<int64_t>(value);
  }
  case PLIST_REAL: {
    double value = 0;
    plist_get_real_val(node, &value);
    return value;
  }
  case PLIST_STRING: {
    char *text = nullptr;
    plist_get_string_val(node, &text);
    return takeString(text);
  }
  case PLIST_ARRAY:
    return convertArray(node);
  default:
    return PropertyListValue::Other{};
  }
}

PropertyListDictionary convertDictionary(plist_t node) {
  PropertyListDictionary entries;
  plist_dict_iter iterator = nullptr;
  plist_dict_new_iter(node, &iterator);
  if (iterator == nullptr)
    return entries;
  for (;;) {
    char *key = nullptr;
    plist_t value = nullptr;
    plist_dict_next_item(node, iterator, &key, &value);
    if (key == nullptr)
      break;
    entries.insert_or_assign(takeString(key), convert(value));
  }
  std::free(iterator);
  return entries;
}

std::optional<std::string> readWholeFile(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  if (!file)
    return std::nullopt;
  std::ostringstream contents;
  contents << file.rdbuf();
  if (file.bad())
    return std::nullopt;
  return std::move(contents).str();
}

} // namespace

std::optional<PropertyListDictionary> readPropertyListFile(const std::string &path) {
  const auto contents = readWholeFile(path);
  if (!contents || contents->empty() || contents->size() > std::numeric_limits<uint32_t>::max())
    return std::nullopt;
  const auto length = static_cast<uint32_t>(contents->size());
  plist_t root = nullptr;
  if (plist_is_binary(contents->data(), length))
    plist_from_bin(contents->data(), length, &root);
  else
    plist_from_xml(contents->data(), length, &root);
  const PlistPointer owner(root);
  if (root == nullptr || plist_get_node_type(root) != PLIST_DICT)
    return std::nullopt;
  return convertDictionary(root);
}

} // namespace tavix

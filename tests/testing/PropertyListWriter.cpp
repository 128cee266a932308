#include "testing/PropertyListWriter.h"

#include "testing/TemporaryDirectory.h"

#include <plist/plist.h>

#include <cstdlib>

namespace tavix::test {
namespace {

struct NodeMaker {
  plist_t operator()(PropertyListValue::Other) const { return plist_new_data("\x01\x02", 2); }
  plist_t operator()(bool flag) const { return plist_new_bool(flag ? 1 : 0); }
  plist_t operator()(int64_t number) const { return plist_new_uint(static_cast<uint64_t>(number)); }
  plist_t operator()(double number) const { return plist_new_real(number); }
  plist_t operator()(const std::string &text) const { return plist_new_string(text.c_str()); }
  plist_t operator()(const PropertyListArray &items) const {
    plist_t array = plist_new_array();
    for (const auto &item : items)
      plist_array_append_item(array, std::visit(*this, item.storage()));
    return array;
  }
};

} // namespace

void writePropertyList(const std::string &path, const PropertyListDictionary &entries,
                       PropertyListFormat format) {
  plist_t root = plist_new_dict();
  for (const auto &[key, value] : entries)
    plist_dict_set_item(root, key.c_str(), std::visit(NodeMaker{}, value.storage()));
  char *bytes = nullptr;
  uint32_t length = 0;
  (format == PropertyListFormat::xml ? plist_to_xml : plist_to_bin)(root, &bytes, &length);
  plist_free(root);
  writeFile(path, std::string_view(bytes, length));
  std::free(bytes);
}

} // namespace tavix::test

// link/plist_library_macos.cpp: libplist linked as usual.
#include "link/plist_library.h"

namespace nurel {

std::shared_ptr<const PlistLibrary> plistLibrary() {
  static const auto library = std::make_shared<const PlistLibrary>(PlistLibrary{
      &::plist_from_memory,    &::plist_free,           &::plist_get_node_type,
      &::plist_get_bool_val,   &::plist_get_uint_val,   &::plist_get_real_val,
      &::plist_get_string_val, &::plist_array_get_size, &::plist_array_get_item,
      &::plist_dict_new_iter,  &::plist_dict_next_item});
  return library;
}

}  // namespace nurel

// link/plist_library_linux.cpp: libplist loaded by its soname when first needed.
#include <dlfcn.h>

#include <cstring>

#include "link/plist_library.h"

namespace nurel {

namespace {

// Fills `entry` with the address of `name`; false when the library has no such symbol.
template <typename Function>
bool bind(void* handle, Function& entry, const char* name) {
  void* symbol = dlsym(handle, name);
  static_assert(sizeof entry == sizeof symbol);
  std::memcpy(&entry, &symbol, sizeof entry);
  return symbol != nullptr;
}

const PlistLibrary* load() {
  // The library stays loaded for the rest of the process, as a linked one would.
  void* handle = dlopen(NUREL_PLIST_SONAME, RTLD_NOW | RTLD_LOCAL);
  if (!handle) return nullptr;
  static PlistLibrary library;
  bool complete = bind(handle, library.fromMemory, "plist_from_memory") &&
                  bind(handle, library.free, "plist_free") &&
                  bind(handle, library.nodeType, "plist_get_node_type") &&
                  bind(handle, library.boolValue, "plist_get_bool_val") &&
                  bind(handle, library.uintValue, "plist_get_uint_val") &&
                  bind(handle, library.realValue, "plist_get_real_val") &&
                  bind(handle, library.stringValue, "plist_get_string_val") &&
                  bind(handle, library.arraySize, "plist_array_get_size") &&
                  bind(handle, library.arrayItem, "plist_array_get_item") &&
                  bind(handle, library.dictIterator, "plist_dict_new_iter") &&
                  bind(handle, library.dictNext, "plist_dict_next_item");
  return complete ? &library : nullptr;
}

}  // namespace

const PlistLibrary* plistLibrary() {
  static const PlistLibrary* library = load();
  return library;
}

}  // namespace nurel

// link/plist_library_linux.cpp: libplist loaded by its soname for each read, and let go after.
#include <dlfcn.h>

#include "link/bound_symbol.h"
#include "link/plist_library.h"

namespace nurel {

std::shared_ptr<const PlistLibrary> plistLibrary() {
  void* handle = dlopen(NUREL_PLIST_SONAME, RTLD_NOW | RTLD_LOCAL);
  if (!handle) return nullptr;
  std::shared_ptr<PlistLibrary> library(new PlistLibrary, [handle](PlistLibrary* done) {
    delete done;
    dlclose(handle);
  });
  bool complete = bindSymbol(handle, library->fromMemory, "plist_from_memory") &&
                  bindSymbol(handle, library->free, "plist_free") &&
                  bindSymbol(handle, library->nodeType, "plist_get_node_type") &&
                  bindSymbol(handle, library->boolValue, "plist_get_bool_val") &&
                  bindSymbol(handle, library->uintValue, "plist_get_uint_val") &&
                  bindSymbol(handle, library->realValue, "plist_get_real_val") &&
                  bindSymbol(handle, library->stringValue, "plist_get_string_val") &&
                  bindSymbol(handle, library->arraySize, "plist_array_get_size") &&
                  bindSymbol(handle, library->arrayItem, "plist_array_get_item") &&
                  bindSymbol(handle, library->dictIterator, "plist_dict_new_iter") &&
                  bindSymbol(handle, library->dictNext, "plist_dict_next_item");
  if (!complete) return nullptr;
  return library;
}

}  // namespace nurel

// link/bound_symbol.h: a function of a library opened with dlopen, found by name.
#pragma once

#include <dlfcn.h>

#include <cstring>

namespace nurel {

/// Fills `entry` with the address of `name` in `handle`; false when the library has no such
/// symbol.
template <typename Function>
bool bindSymbol(void* handle, Function& entry, const char* name) {
  void* symbol = dlsym(handle, name);
  static_assert(sizeof entry == sizeof symbol);
  std::memcpy(&entry, &symbol, sizeof entry);
  return symbol != nullptr;
}

}  // namespace nurel

// link/plist_library.h: the entry points of libplist that reading an Info.plist needs.
//
// Most commands never read a property list: a binary installed outside an app bundle has no
// Info.plist beside it. On Linux the library is therefore loaded when one is read, not when the
// program starts: linked as usual, it and the maths library it depends on cost every command
// about a fifth of its start-up time (measured with bench/run.sh, figure 1). It is let go after
// the read: kept, the two stay resident, 0.4 MiB of each process that lives on (the MCP server,
// nurel-browser). On macOS it is linked as usual.
#pragma once

#include <plist/plist.h>

#include <memory>

namespace nurel {

struct PlistLibrary {
  decltype(&::plist_from_memory) fromMemory;
  decltype(&::plist_free) free;
  decltype(&::plist_get_node_type) nodeType;
  decltype(&::plist_get_bool_val) boolValue;
  decltype(&::plist_get_uint_val) uintValue;
  decltype(&::plist_get_real_val) realValue;
  decltype(&::plist_get_string_val) stringValue;
  decltype(&::plist_array_get_size) arraySize;
  decltype(&::plist_array_get_item) arrayItem;
  decltype(&::plist_dict_new_iter) dictIterator;
  decltype(&::plist_dict_next_item) dictNext;
};

/// The library's entry points, valid while the pointer is held, or null when it cannot be
/// loaded (then no property list reads, as if it were not there).
std::shared_ptr<const PlistLibrary> plistLibrary();

}  // namespace nurel

// cli/usage.h: the usage text.
#pragma once

#include <string>

namespace nurel {

/// The usage text (4,652 bytes of UTF-8, no final line feed). Printed by `guide` on standard
/// output and by every usage error on standard error. `hello` is deliberately not in it.
const std::string& usage();

}  // namespace nurel

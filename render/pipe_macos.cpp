// render/pipe_macos.cpp: a pipe on macOS grows by itself while it is written (to 64 KiB) and
// has no call to grow it further.
#include "render/pipe.h"

namespace nurel {

void roomForLargeOutput(int, size_t) {}

}  // namespace nurel

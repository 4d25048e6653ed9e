// render/pipe.h: room in a pipe for a large output.
//
// A pipe holds 64 KiB by default, so a screenshot of hundreds of MiB written to a host's pipe
// wakes the reader and this process thousands of times. Where the system allows it, a large
// write first grows the pipe, to 1 MiB, which cuts those wake-ups sixteenfold (measured with
// bench/run.sh, figure 3).
#pragma once

#include <cstddef>

namespace nurel {

/// Outputs of at least this size grow the pipe they are written to.
inline constexpr size_t largeOutput = size_t(1) << 20;

/// When `fd` is a pipe smaller than `largeOutput` and `size` is at least that, grows the pipe to
/// `largeOutput`. Never shrinks a pipe; anything that fails is left as it was.
void roomForLargeOutput(int fd, size_t size);

}  // namespace nurel

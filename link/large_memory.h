// link/large_memory.h: asking the kernel to back large blocks with huge pages.
//
// A reply of hundreds of MiB passes through a few fresh blocks (the read buffer, the decoded
// string, the answer written out), and on Linux taking their 4 KiB pages one fault at a time
// costs more than copying the bytes into them. Advising huge pages, and filling the page
// tables in one call when the whole block will be written, saves most of that. Elsewhere, and
// for small blocks, this does nothing.
#pragma once

#include <cstddef>
#include <cstdint>

#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace nurel {

/// Blocks smaller than this are left to the usual 4 KiB pages.
inline constexpr size_t largeBlock = size_t(4) << 20;

/// Advises huge pages for the pages that hold [start, start + size); with `filling`, also maps
/// them all at once, for a block that is about to be written from end to end. Failures are
/// ignored: this only changes speed.
inline void adviseLarge([[maybe_unused]] void* start, [[maybe_unused]] size_t size,
                        [[maybe_unused]] bool filling) {
#if defined(__linux__) && defined(MADV_HUGEPAGE)
  if (size < largeBlock) return;
  // Whole pages around the block: advising only its inside would split the mapping of a large
  // malloc() block, and realloc() could then no longer move it by remapping.
  constexpr uintptr_t page = 4096;
  uintptr_t first = reinterpret_cast<uintptr_t>(start) & ~(page - 1);
  uintptr_t last = (reinterpret_cast<uintptr_t>(start) + size + page - 1) & ~(page - 1);
  madvise(reinterpret_cast<void*>(first), last - first, MADV_HUGEPAGE);
#if defined(MADV_POPULATE_WRITE)
  if (filling) madvise(reinterpret_cast<void*>(first), last - first, MADV_POPULATE_WRITE);
#endif
#endif
}

}  // namespace nurel

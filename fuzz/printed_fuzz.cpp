// fuzz/printed_fuzz.cpp: libFuzzer target: printed() of any JSON value.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "fuzz/checks.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string problem = nurel::fuzz::checkPrinted(data, size);
  if (!problem.empty()) {
    std::fprintf(stderr, "printed: %s\n", problem.c_str());
    std::abort();
  }
  return 0;
}

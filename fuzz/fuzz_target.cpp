// fuzz/fuzz_target.cpp: the libFuzzer entry point of every target. The build names the check
// (NUREL_FUZZ_CHECK, one of fuzz/checks.h) and the target (NUREL_FUZZ_NAME); a check that
// reports a problem ends the run, so the fuzzer keeps the input.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "fuzz/checks.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string problem = nurel::fuzz::NUREL_FUZZ_CHECK(data, size);
  if (!problem.empty()) {
    std::fprintf(stderr, NUREL_FUZZ_NAME ": %s\n", problem.c_str());
    std::abort();
  }
  return 0;
}

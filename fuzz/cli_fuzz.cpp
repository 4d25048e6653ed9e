// fuzz/cli_fuzz.cpp: libFuzzer target: any argument vector through scanning and rules.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "fuzz/checks.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string problem = nurel::fuzz::checkCommandLine(data, size);
  if (!problem.empty()) {
    std::fprintf(stderr, "cli: %s\n", problem.c_str());
    std::abort();
  }
  return 0;
}

// fuzz/reply_fuzz.cpp: libFuzzer target: any byte stream from the browser to a call.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "fuzz/checks.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string problem = nurel::fuzz::checkReplyStream(data, size);
  if (!problem.empty()) {
    std::fprintf(stderr, "reply: %s\n", problem.c_str());
    std::abort();
  }
  return 0;
}

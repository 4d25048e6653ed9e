// fuzz/mcp_line_fuzz.cpp: libFuzzer target: any lines from the host to the MCP server.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "fuzz/checks.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string problem = nurel::fuzz::checkMcpLines(data, size);
  if (!problem.empty()) {
    std::fprintf(stderr, "mcp_line: %s\n", problem.c_str());
    std::abort();
  }
  return 0;
}

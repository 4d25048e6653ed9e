// cli/fail.cpp: writing to standard output and standard error, and the error exit.
#include "cli/fail.h"

#include <unistd.h>

#include <cstdlib>

#include "render/render.h"

namespace nurel {

void fail(const std::string& message) {
  std::string line = message + "\n";
  writeAll(2, line);
  std::exit(1);
}

void print(const std::string& text) {
  std::string line;
  line.reserve(text.size() + 1);
  line += text;
  line += '\n';
  writeAll(1, line);
}

}  // namespace nurel

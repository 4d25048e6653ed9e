// cli/fail.h: the command line's only error exit.
#pragma once

#include <string>

namespace nurel {

/// Writes `message` and a line feed to standard error in one write, then exits with status 1.
/// Nothing is written to standard output.
[[noreturn]] void fail(const std::string& message);

/// Writes `text` and a line feed to standard output; write errors are ignored (a reader that
/// went away does not change the outcome).
void print(const std::string& text);

}  // namespace nurel

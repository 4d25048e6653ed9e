// cli/run.h: the whole run of the program, from start-up to exit status.
#pragma once

namespace nurel {

/// Runs the program for `argv` and returns its exit status (0). Every failure ends the
/// process through fail() with status 1.
int run(int argc, char** argv);

}  // namespace nurel

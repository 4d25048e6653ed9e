// cli/run.h: the whole run of the program, from start-up to exit status.
#pragma once

#include <span>
#include <string>

#include "catalogue/commands.h"
#include "link/nurel.h"
#include "render/outcome.h"

namespace nurel {

/// One browser command: its words read into a request (UsageError for a mistake, before any
/// connection), sent once `nurel` is connected, and the reply taken in: printed, saved to
/// --file, or for a PDF or a screenshot written to a file named after the tab in the current
/// folder when no --file is given. Throws what Nurel and perform() throw.
Outcome runCommand(Nurel& nurel, const Command& command, std::span<const std::string> arguments);

/// Runs the program for `argv` and returns its exit status (0). Every failure ends the
/// process through fail() with status 1.
int run(int argc, char** argv);

}  // namespace nurel

// cli/rules.cpp: the rules particular to some commands and options.
#include "cli/rules.h"

namespace nurel {

void applyRules(std::string_view, Scanned&) {}

}  // namespace nurel

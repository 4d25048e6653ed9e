// catalogue/agent_guide.h: how agents drive the browser, in one text.
#pragma once

#include <string>

namespace nurel {

/// The agent guide: UTF-8, no final line feed (tests/guide.txt keeps a copy of what `nurel guide`
/// prints).
const std::string& agentGuide();

}  // namespace nurel

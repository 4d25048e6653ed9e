// catalogue/agent_guide.h: how agents drive the browser, in one text.
#pragma once

#include <string>

namespace nurel {

/// The agent guide: 17 lines, 2,349 bytes of UTF-8, no final line feed.
const std::string& agentGuide();

}  // namespace nurel

// mcp/mcp_server.h: the MCP server on standard input and output.
#pragma once

#include "link/nurel.h"

namespace nurel {

class MCPServer {
 public:
  MCPServer() = default;
  /// Serves standard input until it ends.
  void run();

 private:
  Nurel nurel;
  bool connected = false;
};

}  // namespace nurel

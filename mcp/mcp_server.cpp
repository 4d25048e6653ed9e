// mcp/mcp_server.cpp: the MCP server's loop.
#include "mcp/mcp_server.h"

namespace nurel {

void MCPServer::run() {}

}  // namespace nurel

// mcp/mcp_server.cpp: the MCP server's loop (to be written).
#include "mcp/mcp_server.h"

namespace nurel {

void MCPServer::run() {}

std::optional<std::string> MCPServer::handle(std::string_view) { return std::nullopt; }

}  // namespace nurel

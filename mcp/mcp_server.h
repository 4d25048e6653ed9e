// mcp/mcp_server.h: the MCP server: JSON-RPC 2.0 on standard input and output.
//
// The protocol core never touches stdio: handle() takes one input line and gives the answer
// line, if any; run() is the loop around it. The tools it lists are the catalogue's
// (catalogue/catalogue.h); the tool calls are in mcp/tool_calls.cpp.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "link/json.h"
#include "link/launch.h"
#include "link/nurel.h"

namespace nurel {

class MCPServer {
 public:
  /// A server with an unconnected link to the browser at `place`; `launch` is the link's seam.
  explicit MCPServer(Place place, Launch& launch = systemLaunch())
      : nurel(std::move(place), launch) {}

  /// Serves standard input, one line at a time, until it ends. Throws nothing and writes
  /// nothing to standard error.
  void run();

  /// The answer line (without its line feed) to one input line, or nothing for lines that get
  /// no answer (notifications, unreadable input).
  std::optional<std::string> handle(std::string_view line);

 private:
  // Tool calls (mcp/tool_calls.cpp).

  /// Runs one tool call and returns its tool result; never fails outward.
  Json call(const std::string& name, const Json& arguments);

  Nurel nurel;
  bool connected = false;
};

}  // namespace nurel

// mcp/mcp_server.h: the MCP server: JSON-RPC 2.0 on standard input and output.
//
// The protocol core never touches stdio: handle() takes one input line and gives the answer
// line, if any; run() is the loop around it. The tool catalogue (tools, the shared schemas,
// the builder and the read-only set) is defined in catalogue/, the tool calls in
// mcp/tool_calls.cpp.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "link/json.h"
#include "link/launch.h"
#include "link/nurel.h"

namespace nurel {

/// JSON whose objects keep their members in the order they were added: the catalogue's
/// property schemas are listed in the order a person reading them expects.
using OrderedJson = nlohmann::ordered_json;

class MCPServer {
 public:
  /// A server with an unconnected link to the browser; `launch` is the link's seam.
  explicit MCPServer(Launch& launch = systemLaunch()) : nurel(launch) {}

  /// Serves standard input, one line at a time, until it ends. Throws nothing and writes
  /// nothing to standard error.
  void run();

  /// The answer line (without its line feed) to one input line, or nothing for lines that get
  /// no answer (notifications, unreadable input).
  std::optional<std::string> handle(std::string_view line);

  // The catalogue, built once on first use (catalogue/).

  /// The 36 tools, in order, as "tools/list" lists them.
  static const OrderedJson& tools();
  /// `tools()` serialised once, compactly, "/" unescaped.
  static const std::string& toolsText();
  /// The shared property schemas of "tab", "ref" and "intent".
  static const OrderedJson& tab();
  static const OrderedJson& ref();
  static const OrderedJson& intent();
  /// A tool dictionary: name, description, inputSchema {type, properties, required} and
  /// annotations {readOnlyHint, openWorldHint}, the hints following from the name alone.
  static OrderedJson tool(const std::string& name, const std::string& description,
                          OrderedJson properties, const std::vector<std::string>& required);

 private:
  // Tool calls (mcp/tool_calls.cpp).

  /// Runs one tool call and returns its tool result; never fails outward.
  Json call(const std::string& name, const Json& arguments);
  /// The text of a browser reply, or the line saying where it was saved.
  std::string answer(const std::string& method, const Json& arguments);
  /// {"content": [{"type": "text", "text": text}], "isError": true}
  static Json failure(const std::string& text);

  Nurel nurel;
  bool connected = false;
};

}  // namespace nurel

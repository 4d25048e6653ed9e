// mcp/tool_calls.cpp: a tool call becomes one browser request, and its outcome a tool result.
//
// Every outcome is a tool result: failures carry "isError" and one text item, so the agent
// reads what went wrong and the JSON-RPC answer is still a success.
#include <new>

#include "catalogue/commands.h"
#include "mcp/mcp_server.h"
#include "render/outcome.h"

namespace nurel {

namespace {

Json textResult(std::string text) {
  return {{"content", Json::array({{{"type", "text"}, {"text", std::move(text)}}})}};
}

Json failure(std::string text) {
  Json result = textResult(std::move(text));
  result["isError"] = true;
  return result;
}

// The arguments' "file" when it is a string that is not empty: an empty one goes to the
// browser as it stands.
std::optional<std::string> fileOf(const Json& arguments) {
  auto file = arguments.find("file");
  if (file == arguments.end() || !file->is_string() || file->get_ref<const std::string&>().empty())
    return std::nullopt;
  return file->get<std::string>();
}

Json presented(Outcome outcome) {
  if (outcome.title) return textResult("saved " + *outcome.title + " to " + outcome.path);
  if (!outcome.image) return textResult(std::move(outcome.text));
  Json content = Json::array(
      {{{"type", "image"}, {"data", std::move(*outcome.image)}, {"mimeType", "image/png"}}});
  if (!outcome.refs.empty()) content.push_back({{"type", "text"}, {"text", outcome.refs}});
  return {{"content", std::move(content)}};
}

}  // namespace

Json MCPServer::call(const std::string& name, const Json& arguments) {
  const Command* command = findTool(name);
  if (!command) return failure("unknown tool " + name);
  std::string method(command->name);
  try {
    // Connecting comes first, so even a call that lacks an argument finds the browser up.
    if (!connected) {
      nurel.connect();
      connected = true;
    }
    Json params = arguments;
    // Where an agent's screenshot goes is no business of the browser's.
    if (method == "screenshot") params.erase("file");
    return presented(perform(nurel, method, std::move(params), fileOf(arguments)));
  } catch (const NurelError& error) {
    // After a lost connection the next tool call connects again.
    if (error.isLost()) connected = false;
    return failure(error.text());
  } catch (const TextError& error) {
    // A reply that could not be read, a file that could not be written: the text whole.
    return failure(error.text());
  } catch (const std::bad_alloc&) {
    return failure("out of memory");
  } catch (const std::exception& error) {
    return failure(error.what());
  }
}

}  // namespace nurel

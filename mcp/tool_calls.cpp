// mcp/tool_calls.cpp: a tool call becomes one browser request, and its reply a tool result.
//
// Every outcome is a tool result: failures carry "isError" and one text item, so the agent
// reads what went wrong and the JSON-RPC answer is still a success.
#include <new>

#include "catalogue/commands.h"
#include "mcp/mcp_server.h"
#include "render/base64.h"
#include "render/render.h"

namespace nurel {

namespace {

Json textResult(std::string text) {
  return {{"content", Json::array({{{"type", "text"}, {"text", std::move(text)}}})}};
}

// The reply as a dictionary; anything else counts as an empty one.
const std::string* memberString(const Json& reply, const char* key) {
  if (!reply.is_object()) return nullptr;
  auto it = reply.find(key);
  return it != reply.end() && it->is_string() ? &it->get_ref<const std::string&>() : nullptr;
}

Json failed(std::string text) {
  Json result = textResult(std::move(text));
  result["isError"] = true;
  return result;
}

// Arguments' "file" when it is a string, else the empty string.
std::string fileOf(const Json& arguments) {
  const std::string* file = memberString(arguments, "file");
  return file ? *file : std::string();
}

Json savePdf(Nurel& nurel, const Json& arguments) {
  std::string file = fileOf(arguments);
  if (file.empty()) return failed("file is missing: where to save the PDF");
  // Only the tab goes to the browser: the intent and the file stay here.
  auto tab = arguments.find("tab");
  Json reply = nurel.call("pdf", {{"tab", tab != arguments.end() ? *tab : Json("")}});
  auto bytes = takeDecoded(reply, "pdf");
  if (!bytes) return failed("no PDF");
  std::string path = writeFile(file, *bytes);
  auto title = reply.find("title");
  std::string named = title == reply.end() ? "the page" : printed(*title);
  return textResult("saved " + named + " to " + path);
}

Json screenshot(Nurel& nurel, const Json& arguments) {
  Json params = arguments;
  params.erase("file");
  std::string file = fileOf(arguments);
  Json reply = nurel.call("screenshot", params);
  const std::string* png = memberString(reply, "png");
  const std::string* refs = memberString(reply, "refs");
  bool hasRefs = refs && !refs->empty();
  if (!file.empty()) {
    auto bytes = takeDecoded(reply, "png");
    if (!bytes) return failed("no screenshot");
    std::string path = writeFile(file, *bytes);
    return textResult((hasRefs ? *refs + "\n" : "") + "saved to " + path);
  }
  // Inline, a reply without an image is not an error: the agent sees an empty image. The image
  // is moved, not copied, from the reply: it may be hundreds of MiB.
  Json image = {{"type", "image"}, {"data", ""}, {"mimeType", "image/png"}};
  if (png) image["data"] = std::move(reply["png"]);
  Json content = Json::array({std::move(image)});
  if (hasRefs) content.push_back({{"type", "text"}, {"text", *refs}});
  return {{"content", std::move(content)}};
}

}  // namespace

Json MCPServer::failure(const std::string& text) { return failed(text); }

std::string MCPServer::answer(const std::string& method, const Json& arguments) {
  std::string file = fileOf(arguments);
  if (file.empty()) return printed(nurel.call(method, arguments));
  Json params = arguments;
  params.erase("file");
  // The whole text goes into the file, not a shortened one, whatever limit the agent gave.
  params["limit"] = 0;
  return save(printed(nurel.call(method, params)), file);
}

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
    if (method == "pdf") return savePdf(nurel, arguments);
    if (method == "screenshot") return screenshot(nurel, arguments);
    return textResult(answer(method, arguments));
  } catch (const NurelError& error) {
    // After a lost connection the next tool call connects again.
    if (error.isLost()) connected = false;
    return failure(error.text());
  } catch (const std::bad_alloc&) {
    return failure("out of memory");
  } catch (const std::exception& error) {
    return failure(error.what());
  }
}

}  // namespace nurel

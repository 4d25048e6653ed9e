// cli/run.cpp: start-up in its fixed order, dispatch, the file-writing commands and the one
// place where every failure of a command is caught.
#include "cli/run.h"

#include <csignal>
#include <new>
#include <string>
#include <vector>

#include "catalogue/agent_guide.h"
#include "cli/executable_path.h"
#include "cli/fail.h"
#include "cli/scan.h"
#include "cli/usage.h"
#include "link/nurel.h"
#include "link/places.h"
#include "mcp/mcp_server.h"
#include "render/base64.h"
#include "render/render.h"

namespace nurel {

namespace {

// The reply as a dictionary; anything else counts as an empty one.
const std::string* memberString(const Json& reply, const char* key) {
  if (!reply.is_object()) return nullptr;
  auto it = reply.find(key);
  return it != reply.end() && it->is_string() ? &it->get_ref<const std::string&>() : nullptr;
}

std::string tabText(const Json& params) {
  auto tab = params.find("tab");
  if (tab == params.end()) return "tab";
  return tab->is_string() ? tab->get<std::string>() : printed(*tab);
}

std::string targetFile(const Json& params, const char* extension) {
  auto file = params.find("file");
  if (file != params.end() && file->is_string()) return file->get<std::string>();
  return tabText(params) + extension;
}

void savePdf(Nurel& nurel, const Json& params) {
  auto tab = params.find("tab");
  // Only the tab goes to the browser: --intent, --file and the rest stay here.
  Json reply = nurel.call("pdf", {{"tab", tab != params.end() ? *tab : Json("")}});
  auto bytes = takeDecoded(reply, "pdf");
  if (!bytes) fail("no PDF");
  std::string path = writeFile(targetFile(params, ".pdf"), *bytes);
  print("saved to " + path);
}

void saveScreenshot(Nurel& nurel, const Json& params) {
  Json reply = nurel.call("screenshot", params);
  auto bytes = takeDecoded(reply, "png");
  if (!bytes) fail("no screenshot");
  std::string path = writeFile(targetFile(params, ".png"), *bytes);
  // Nothing is printed before the file is written.
  const std::string* refs = memberString(reply, "refs");
  std::string out = refs && !refs->empty() ? *refs + "\n" : "";
  print(out + "saved to " + path);
}

void answer(Nurel& nurel, const Command& command, Json params) {
  auto file = params.find("file");
  if (file == params.end()) {
    print(printed(nurel.call(std::string(command.name), params)));
    return;
  }
  Json path = std::move(*file);
  params.erase(file);
  if (!path.is_string()) {
    print(printed(nurel.call(std::string(command.name), params)));
    return;
  }
  // The whole text, not a shortened one, goes into the file, whatever --limit said.
  params["limit"] = 0;
  Json reply = nurel.call(std::string(command.name), params);
  print(save(printed(reply), path.get<std::string>()));
}

void request(const Command& command, std::span<const std::string> arguments) {
  Json params;
  try {
    params = requestParams(command, arguments);
  } catch (const UsageError& error) {
    fail(*error.what() ? error.what() : usage());
  }
  try {
    Nurel nurel;
    nurel.connect();
    if (command.name == "pdf")
      savePdf(nurel, params);
    else if (command.name == "screenshot")
      saveScreenshot(nurel, params);
    else
      answer(nurel, command, std::move(params));
  } catch (const NurelError& error) {
    fail(error.text());
  } catch (const std::bad_alloc&) {
    fail("out of memory");
  } catch (const std::exception& error) {
    fail(error.what());
  }
}

}  // namespace

int run(int argc, char** argv) {
  const std::string& text = usage();
  std::signal(SIGPIPE, SIG_IGN);
  settle(executablePath(argc > 0 ? argv[0] : nullptr));

  std::vector<std::string> arguments(argv + (argc > 0 ? 1 : 0), argv + argc);
  if (arguments.empty()) fail(text);
  std::string name = arguments.front();
  arguments.erase(arguments.begin());

  if (name == "mcp") {
    MCPServer server;
    server.run();
    return 0;
  }
  if (name == "guide") {
    print(agentGuide() + "\n\n" + text);
    return 0;
  }
  const Command* command = findCommand(name);
  if (!command) fail(text);
  request(*command, arguments);
  return 0;
}

}  // namespace nurel

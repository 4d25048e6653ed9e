// cli/run.cpp: start-up in its fixed order, dispatch, where answers go, and the one place
// where every failure of a command is caught.
#include "cli/run.h"

#include <csignal>
#include <new>
#include <optional>
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
#include "render/outcome.h"
#include "render/render.h"

namespace nurel {

namespace {

std::string tabText(const Json& params) {
  auto tab = params.find("tab");
  if (tab == params.end()) return "tab";
  return tab->is_string() ? tab->get<std::string>() : printed(*tab);
}

// Where the answer goes: --file, or for a PDF or a screenshot a file named after the tab in the
// current folder ("t1.pdf").
std::optional<std::string> targetFile(const Command& command, const Json& params) {
  auto file = params.find("file");
  if (file != params.end()) return file->get<std::string>();  // valued options are strings
  if (command.name == "pdf") return tabText(params) + ".pdf";
  if (command.name == "screenshot") return tabText(params) + ".png";
  return std::nullopt;
}

void request(const Place& place, const Command& command, std::span<const std::string> arguments) {
  try {
    Nurel nurel(place);
    print(runCommand(nurel, command, arguments).text);
  } catch (const UsageError& error) {
    fail(*error.what() ? error.what() : usage());
  } catch (const TextError& error) {
    // The link's, the reader's and the file writer's errors: their texts whole, NUL bytes and all.
    fail(error.text());
  } catch (const std::bad_alloc&) {
    fail("out of memory");
  } catch (const std::exception& error) {
    fail(error.what());
  }
}

}  // namespace

Outcome runCommand(Nurel& nurel, const Command& command, std::span<const std::string> arguments) {
  Json params = requestParams(command, arguments);
  nurel.connect();
  std::optional<std::string> file = targetFile(command, params);
  return perform(nurel, std::string(command.name), std::move(params), file);
}

int run(int argc, char** argv) {
  const std::string& text = usage();
  std::signal(SIGPIPE, SIG_IGN);
  Place place = locate(executablePath(argc > 0 ? argv[0] : nullptr));

  std::vector<std::string> arguments(argv + (argc > 0 ? 1 : 0), argv + argc);
  if (arguments.empty()) fail(text);
  std::string name = arguments.front();
  arguments.erase(arguments.begin());

  if (name == "mcp") {
    MCPServer server(std::move(place));
    server.run();
    return 0;
  }
  if (name == "guide") {
    print(agentGuide() + "\n\n" + text);
    return 0;
  }
  const Command* command = findCommand(name);
  if (!command) fail(text);
  request(place, *command, arguments);
  return 0;
}

}  // namespace nurel

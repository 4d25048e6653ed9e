// browser/main.cpp: nurel-browser, the browser nurel drives on Linux: Chromium behind the socket.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <optional>
#include <string>
#include <thread>

#include "browser/browser.h"
#include "browser/server.h"
#include "cli/executable_path.h"
#include "link/home.h"
#include "link/places.h"

namespace {

const char* help = R"(Usage: nurel-browser [--cdp <url>]

The browser that nurel drives on Linux: it answers nurel's socket by driving Chromium over
the DevTools protocol. nurel starts it by itself when nothing answers; run it by hand only
to watch it, or with a window (NUREL_HEADED=1).

It listens where nurel looks: $NUREL_SOCKET when set, else
~/Library/Application Support/<data name>/agent.sock (the data name is NurelDataName in the
Info.plist of the bundle this program is in, else Nurel). The socket's folder is made 0700
and the socket 0600; connections from other users are closed. A second nurel-browser for the
same socket says so and exits.

Chromium starts with this program (again on the next request if it could not, or if it
died), with its profile (the Agent Space) in the data folder,
${XDG_DATA_HOME:-~/.local/share}/<data name>, and never outlives this program. The data
folder also holds actions.jsonl, one line for each request that changed something (what,
why, and how it went; no typed text or secrets), and scenarios/*.json, the steps that run
does. Downloads go to XDG_DOWNLOAD_DIR (user-dirs.dirs), else ~/Downloads.

With --cdp <url> (or NUREL_CDP_URL) it starts no Chromium: it drives a browser that runs
elsewhere, through its DevTools WebSocket (ws://, wss://) or the http:// address whose
/json/version names it. If the connection breaks, the requests under way say so and the next
one connects again, pausing 0.5 s, then twice as long each time up to 8 s, while it can't. On
exit it closes the tabs it opened there, never that browser. file: pages are refused there.

Environment:
  NUREL_SOCKET         the socket to listen on
  NUREL_CHROMIUM       the Chromium to run (else chromium, chromium-headless-shell,
                       google-chrome-stable or google-chrome on PATH)
  NUREL_HEADED=1       real windows, when there is a display
  NUREL_ALLOW_FILES    folders, separated by colons, whose files may be opened (file:
                       addresses) or given to pages (upload); none by default
  NUREL_TIMEOUT        seconds a page may take to load and a script to run (30)
  NUREL_IDLE_MINUTES   exit after this long with no connection and no request (30)
  NUREL_CDP_URL        a remote browser's DevTools address, as --cdp
  NUREL_CDP_HEADERS    headers for it (a pool's token), one "Name: value" a line; never shown

It exits after the idle time, and on SIGTERM or SIGINT, closing Chromium and removing the
socket.
)";

}  // namespace

int main(int argc, char** argv) {
  using namespace nurel;
  std::optional<std::string> cdpURL;
  for (int i = 1; i < argc; ++i) {
    std::string word = argv[i];
    if (word == "--help" || word == "-h") {
      std::fputs(help, stdout);
      return 0;
    }
    if (word == "--cdp" || word.rfind("--cdp=", 0) == 0) {
      if (word == "--cdp" && i + 1 == argc) {
        std::fprintf(stderr, "nurel-browser: --cdp needs a browser's DevTools address\n");
        return 1;
      }
      cdpURL = word == "--cdp" ? argv[++i] : word.substr(6);
      continue;
    }
    std::fprintf(stderr, "nurel-browser: unknown argument %s (see nurel-browser --help)\n", argv[i]);
    return 1;
  }
  std::string program = executablePath(argv[0]);
  Place place = locate(program);
  std::string dataHome;
  if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg && *xdg == '/') {
    dataHome = xdg;
  } else {
    dataHome = homeDirectory();
    if (dataHome.empty() || dataHome.back() != '/') dataHome += '/';
    dataHome += ".local/share";
  }
  double idleMinutes = 30;
  if (const char* idle = std::getenv("NUREL_IDLE_MINUTES")) {
    char* end = nullptr;
    double minutes = std::strtod(idle, &end);
    if (end != idle && *end == '\0' && minutes > 0) idleMinutes = minutes;
  }

  browser::Server::blockSignals();
  browser::Settings settings = browser::Settings::fromEnvironment(dataHome + "/" + place.dataName);
  if (cdpURL) settings.cdpURL = *cdpURL;
  // Agents that each set a socket of their own each get a Chromium of their own: one profile
  // can't be used by two at once.
  if (place.socketPath != socketPathOf(nullptr, homeDirectory(), place.dataName))
    settings.profile = browser::profileFor(place.socketPath);
  // The bundle keeps the WebSocket module in its PlugIns, beside the folder of this program.
  settings.websocketModule =
      (std::filesystem::path(program).parent_path().parent_path() / "PlugIns/nurel-websocket.so")
          .string();
  browser::Browser agentBrowser(std::move(settings));
  browser::Server server(
      [&agentBrowser](const std::string& method, const Json& params) {
        return agentBrowser.handle(method, params);
      },
      place.socketPath, std::chrono::milliseconds(int64_t(idleMinutes * 60000)));
  try {
    server.listen();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "nurel-browser: %s\n", error.what());
    return 1;
  }
  // Chromium starts now, while the nurel that started us waits to connect, rather than on the
  // first request; if it can't, that request tries again and says why.
  std::thread([&agentBrowser] { agentBrowser.warmUp(); }).detach();
  server.run();
  // Connections may still be inside a request: close Chromium (or our tabs in a remote
  // browser) under them, take the socket
  // away, and leave without unwinding what they use.
  agentBrowser.shutdown();
  server.close();
  std::fflush(nullptr);
  std::_Exit(0);
}

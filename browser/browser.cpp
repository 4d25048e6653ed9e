// browser/browser.cpp: Chromium's lifetime, the tabs and the routing of its events.
#include "browser/browser.h"
#include "catalogue/commands.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include "browser/remote.h"
#include "browser/server.h"

namespace nurel::browser {

namespace {

std::string lastLine(const std::string& path) {
  std::ifstream file(path);
  std::string line, last;
  while (std::getline(file, line))
    if (line.find_first_not_of(" \t\r") != std::string::npos && line.find("[:") == std::string::npos)
      last = line;
  if (last.size() > 300) last.resize(300);
  return last;
}

// A line without the spaces, tabs and carriage returns around it.
std::string trimmed(const std::string& line) {
  size_t start = line.find_first_not_of(" \t\r");
  if (start == std::string::npos) return {};
  return line.substr(start, line.find_last_not_of(" \t\r") - start + 1);
}

}  // namespace

Settings Settings::fromEnvironment(const std::string& dataFolder) {
  Settings settings;
  settings.dataFolder = dataFolder;
  const char* headed = std::getenv("NUREL_HEADED");
  const char* display = std::getenv("DISPLAY");
  const char* wayland = std::getenv("WAYLAND_DISPLAY");
  settings.headed = headed && std::string(headed) == "1" &&
                    ((display && *display) || (wayland && *wayland));
  if (const char* limit = std::getenv("NUREL_TIMEOUT")) {
    char* end = nullptr;
    long seconds = std::strtol(limit, &end, 10);
    if (end != limit && *end == '\0' && seconds > 0 && seconds <= 3600)
      settings.loadTime = settings.scriptTime = std::chrono::seconds(seconds);
  }
  if (const char* allowed = std::getenv("NUREL_ALLOW_FILES")) {
    std::stringstream folders(allowed);
    std::string folder;
    while (std::getline(folders, folder, ':'))
      if (!folder.empty()) settings.allowedFolders.push_back(folder);
  }
  if (const char* flags = std::getenv("NUREL_CHROMIUM_FLAGS")) {
    // One a line, as a switch may hold spaces ("--host-resolver-rules=MAP * 127.0.0.1").
    std::stringstream lines(flags);
    for (std::string line; std::getline(lines, line);)
      if (std::string flag = trimmed(line); !flag.empty()) settings.chromiumFlags.push_back(flag);
  }
  if (const char* url = std::getenv("NUREL_CDP_URL")) settings.cdpURL = url;
  if (const char* headers = std::getenv("NUREL_CDP_HEADERS")) settings.readHeaders(headers);
  return settings;
}

void Settings::readHeaders(const std::string& lines) {
  cdpHeaders.clear();
  cdpProblem.clear();
  std::stringstream text(lines);
  std::string line;
  for (int number = 1; std::getline(text, line); ++number) {
    if (trimmed(line).empty()) continue;
    size_t colon = line.find(':');
    std::string name = colon == std::string::npos ? "" : trimmed(line.substr(0, colon));
    bool token = !name.empty() && std::all_of(name.begin(), name.end(), [](unsigned char c) {
      return std::isalnum(c) || std::strchr("!#$%&'*+-.^_`|~", c);
    });
    std::string value = colon == std::string::npos ? "" : trimmed(line.substr(colon + 1));
    bool clean = std::none_of(value.begin(), value.end(), [](unsigned char c) {
      return c < 0x20 && c != '\t';
    });
    if (!token || !clean) {
      // The line itself is never shown: it may hold a token.
      cdpProblem = "NUREL_CDP_HEADERS: line " + std::to_string(number) +
                   " isn't a header (Name: value, one a line)";
      cdpHeaders.clear();
      return;
    }
    cdpHeaders.emplace_back(name, value);
  }
}

Browser::Browser(Settings settings)
    : settings(std::move(settings)),
      actions(this->settings.dataFolder + "/actions.jsonl"),
      downloadFolder(downloadsFolder()) {}

Browser::~Browser() {
  std::shared_ptr<Engine> engine;
  {
    std::lock_guard<std::mutex> guard(engineLock);
    engine.swap(current);
  }
}

void Browser::shutdown() {
  std::shared_ptr<Engine> engine = requestEngine();
  if (!engine) return;
  if (!engine->chromium) {
    // Someone else's browser: close the tabs we opened in it, then the connection.
    std::vector<std::string> targets;
    {
      std::lock_guard<std::mutex> guard(tabsLock);
      for (auto& [id, tab] : tabsByID) targets.push_back(tab->targetId);
    }
    for (const std::string& target : targets)
      engine->cdp->post("Target.closeTarget", {{"targetId", target}});
    try {
      // Answered after the closings before it.
      engine->cdp->call("Browser.getVersion", Json::object(), {}, std::chrono::seconds(3));
    } catch (const std::exception&) {
    }
    engine->cdp->end();
    return;
  }
  try {
    engine->cdp->call("Browser.close", Json::object(), {}, std::chrono::seconds(3));
  } catch (const std::exception&) {
  }
  engine->chromium->stop();
}

bool Browser::running() {
  std::lock_guard<std::mutex> guard(engineLock);
  return current && current->cdp->alive();
}

void Browser::warmUp() {
  try {
    engine();
  } catch (const std::exception&) {
    // The first request starts it again and answers with the reason.
  }
}

thread_local Browser::Pinned Browser::pinned;

std::shared_ptr<Browser::Engine> Browser::requestEngine() {
  if (pinned.engine) return pinned.engine;
  std::lock_guard<std::mutex> guard(engineLock);
  return current;
}

std::shared_ptr<Browser::Engine> Browser::engine() {
  if (pinned.engine) return pinned.engine;
  std::lock_guard<std::mutex> guard(engineLock);
  if (current && current->cdp->alive()) {
    if (pinned.active) pinned.engine = current;
    return current;
  }
  if (current) {
    // It died, or the connection did: its tabs went with it.
    std::lock_guard<std::mutex> tabsGuard(tabsLock);
    if (!current->chromium)
      for (auto& [id, tab] : tabsByID) leftBehind.push_back(tab->targetId);
    tabsByID.clear();
    tabsBySession.clear();
  }
  current.reset();
  auto fresh = std::make_shared<Engine>();
  fresh->generation = ++generations;
  if (settings.remote())
    connectRemote(*fresh);
  else
    startChromium(*fresh);
  current = fresh;
  if (pinned.active) pinned.engine = current;
  return current;
}

void Browser::startChromium(Engine& fresh) {
  std::string program;
  try {
    program = findChromium();
  } catch (const StartError& error) {
    throw Failure(error.what());
  }
  std::string profile = settings.dataFolder + "/" + settings.profile;
  makeFolders(profile);
  // The default profile's log keeps its old place; another's lies beside its folder.
  std::string log = settings.dataFolder + "/" +
                    (settings.profile == "profile" ? std::string("chromium") : settings.profile) + ".log";
  std::vector<std::string> switches = chromiumSwitches(profile, settings.headed);
  switches.insert(switches.end(), settings.chromiumFlags.begin(), settings.chromiumFlags.end());
  try {
    fresh.chromium = std::make_unique<Chromium>(program, switches, log);
  } catch (const StartError& error) {
    throw Failure(error.what());
  }
  uint64_t generation = fresh.generation;
  fresh.cdp = std::make_unique<Cdp>(
      fresh.chromium->takeTransport(),
      [this, generation](const std::string& method, const Json& params,
                         const std::string& session) {
        onEvent(generation, method, params, session);
      },
      [this, generation](const std::string& reason) { onClosed(generation, reason); });
  try {
    fresh.cdp->call("Browser.getVersion", Json::object(), {}, std::chrono::seconds(30));
    // Tabs that pages open are told of, to become the agent's.
    fresh.cdp->call("Target.setDiscoverTargets", {{"discover", true}});
    // Downloads go under a name of Chromium's, and take theirs when whole (files.cpp).
    try {
      makeFolders(downloadFolder);
    } catch (const Failure&) {
      // Said by the first download, which can't be kept.
    }
    fresh.cdp->call("Browser.setDownloadBehavior", {{"behavior", "allowAndName"},
                                                     {"downloadPath", downloadFolder},
                                                     {"eventsEnabled", true}});
  } catch (const std::exception& error) {
    std::string why = lastLine(log);
    throw Failure("Chromium (" + program + ") didn't start" + (why.empty() ? "" : ": " + why));
  }
}

void Browser::connectRemote(Engine& fresh) {
  using namespace std::chrono;
  if (!settings.cdpProblem.empty()) throw Failure(settings.cdpProblem);
  // The action log and the scenarios stay here, whoever's the browser.
  makeFolders(settings.dataFolder);
  auto now = steady_clock::now();
  auto inWords = [](milliseconds wait) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", double(std::max<int64_t>(wait.count(), 100)) / 1000);
    std::string shown = text;
    if (shown.size() > 2 && shown.compare(shown.size() - 2, 2, ".0") == 0) shown.resize(shown.size() - 2);
    return shown + " s";
  };
  // While a pause runs, requests are answered at once with why the last try failed.
  if (now < retryAt)
    throw Failure(unreachable + "; trying again in " +
                  inWords(duration_cast<milliseconds>(retryAt - now)));
  Remote remote;
  try {
    remote = openRemote(settings.cdpURL, settings.cdpHeaders, seconds(10),
                        settings.websocketModule);
  } catch (const BadAddress& error) {
    throw Failure(error.what());
  } catch (const ConnectError& error) {
    pause = pause.count() == 0 ? milliseconds(500) : std::min<milliseconds>(pause * 2, seconds(8));
    retryAt = steady_clock::now() + pause;
    unreachable = error.what();
    std::string line = unreachable + "; trying again in " + inWords(pause);
    std::fprintf(stderr, "nurel-browser: %s\n", line.c_str());
    throw Failure(line);
  }
  pause = milliseconds(0);
  fresh.address = remote.address;
  uint64_t generation = fresh.generation;
  fresh.cdp = std::make_unique<Cdp>(
      std::move(remote.transport),
      [this, generation](const std::string& method, const Json& params,
                         const std::string& session) {
        onEvent(generation, method, params, session);
      },
      [this, generation](const std::string& reason) { onClosed(generation, reason); });
  try {
    fresh.cdp->call("Browser.getVersion", Json::object(), {}, seconds(30));
    fresh.cdp->call("Target.setDiscoverTargets", {{"discover", true}});
  } catch (const std::exception& error) {
    throw Failure("the browser at " + fresh.address + " didn't answer: " + error.what());
  }
  // The tabs we had in it before the connection broke are no one's now.
  for (const std::string& target : leftBehind)
    fresh.cdp->post("Target.closeTarget", {{"targetId", target}});
  leftBehind.clear();
}

template <typename Send>
auto Browser::sent(const std::string& session, Send send) {
  if (!session.empty()) {
    // A tab's call belongs to the Chromium the tab was in: when that one has gone, a request
    // still running on the tab says so, and leaves starting a fresh one to the next request.
    std::shared_ptr<Engine> was = requestEngine();
    if (was && !was->cdp->alive())
      if (auto line = lost(was)) throw Failure(*line);
  }
  std::shared_ptr<Engine> running = engine();
  try {
    return send(*running->cdp);
  } catch (const NoAnswer&) {
    throw;  // only slow
  } catch (const BrowserLost&) {
    if (auto line = lost(running)) throw Failure(*line);
    throw;
  }
}

Json Browser::call(const std::string& method, const Json& params, const std::string& session,
                   std::chrono::milliseconds timeout) {
  return sent(session, [&](Cdp& cdp) { return cdp.call(method, params, session, timeout); });
}

std::vector<Json> Browser::callAll(const std::vector<Cdp::Command>& commands,
                                   const std::string& session, std::chrono::milliseconds timeout) {
  return sent(session, [&](Cdp& cdp) { return cdp.callAll(commands, session, timeout); });
}

std::optional<std::string> Browser::lost(const std::shared_ptr<Engine>& running) {
  using namespace std::chrono_literals;
  for (int wait = 0; wait < 50 && running->cdp->alive(); ++wait) std::this_thread::sleep_for(20ms);
  if (running->cdp->alive()) return std::nullopt;
  if (!running->chromium)
    return "lost the browser at " + running->address + ": " + running->cdp->ending() +
           "; its tabs are gone, and the next request connects again";
  std::string ending = running->chromium->ending();
  for (int wait = 0; wait < 50 && ending.empty(); ++wait) {
    std::this_thread::sleep_for(20ms);
    ending = running->chromium->ending();
  }
  return "lost the browser: Chromium " + (ending.empty() ? "stopped" : ending) +
         ", and its tabs with it; the next request starts it again";
}

void Browser::onEvent(uint64_t generation, const std::string& method, const Json& params,
                      const std::string& session) {
  if (session.empty()) {
    if (method == "Target.targetCreated") {
      const Json& info = params.contains("targetInfo") ? params["targetInfo"] : params;
      std::string opener = info.value("openerId", "");
      if (info.value("type", "") != "page" || opener.empty()) return;
      std::lock_guard<std::mutex> guard(tabsLock);
      for (auto& [id, tab] : tabsByID) {
        if (tab->targetId != opener) continue;
        std::lock_guard<std::mutex> tabGuard(tab->lock);
        tab->opened.push_back(info.value("targetId", ""));
        tab->changed.notify_all();
      }
      return;
    }
    if (method == "Target.targetCrashed") {
      std::string crashed = params.value("targetId", "");
      std::lock_guard<std::mutex> guard(tabsLock);
      for (auto& [id, tab] : tabsByID) {
        if (tab->targetId != crashed) continue;
        std::lock_guard<std::mutex> tabGuard(tab->lock);
        tab->crashed = true;
        tab->changed.notify_all();
      }
      return;
    }
    if (method == "Browser.downloadWillBegin" || method == "Browser.downloadProgress") {
      std::string guid = params.value("guid", "");
      bool plain = !guid.empty() && guid.find_first_not_of("0123456789abcdefABCDEF-") == std::string::npos;
      if (plain && generation == generations) onDownload(method, params);
      return;
    }
    if (method == "Target.detachedFromTarget") {
      std::string detached = params.value("sessionId", "");
      std::lock_guard<std::mutex> guard(tabsLock);
      auto found = tabsBySession.find(detached);
      if (found != tabsBySession.end()) {
        std::lock_guard<std::mutex> tabGuard(found->second->lock);
        found->second->gone = true;
        found->second->changed.notify_all();
      }
    }
    return;
  }
  std::shared_ptr<Tab> tab;
  {
    std::lock_guard<std::mutex> guard(tabsLock);
    if (generation != generations) return;
    auto found = tabsBySession.find(session);
    if (found == tabsBySession.end()) {
      // A frame of another process, attached to as the tab's: only its own frames matter.
      if (method != "Target.attachedToTarget" && method != "Target.detachedFromTarget") return;
      for (auto& [id, open] : tabsByID) {
        std::lock_guard<std::mutex> tabGuard(open->lock);
        for (auto& [frame, frameSession] : open->frameSessions)
          if (frameSession == session) tab = open;
      }
      if (!tab) return;
    } else {
      tab = found->second;
    }
  }
  std::lock_guard<std::mutex> guard(tab->lock);
  if (applyEvent(*tab, method, params, std::chrono::steady_clock::now())) tab->changed.notify_all();
}

void Browser::onClosed(uint64_t generation, const std::string&) {
  std::lock_guard<std::mutex> guard(tabsLock);
  if (generation != generations) return;
  for (auto& [id, tab] : tabsByID) {
    std::lock_guard<std::mutex> tabGuard(tab->lock);
    tab->gone = true;
    tab->changed.notify_all();
  }
}

std::shared_ptr<Tab> Browser::tabFor(const Json& params, bool duringDialog) {
  std::string id = stringParam(params, "tab");
  if (id.empty()) throw Failure("no tab given: pass the id that open answered (t1)");
  std::shared_ptr<Tab> tab;
  {
    std::lock_guard<std::mutex> guard(tabsLock);
    auto found = tabsByID.find(id);
    if (found == tabsByID.end()) throw Failure("no tab " + id);
    tab = found->second;
  }
  bool gone;
  {
    std::lock_guard<std::mutex> guard(tab->lock);
    gone = tab->gone;
  }
  if (gone) {
    // The registry's lock is never taken under a tab's (the reader thread takes them the other
    // way round).
    std::lock_guard<std::mutex> tabsGuard(tabsLock);
    tabsByID.erase(tab->id);
    tabsBySession.erase(tab->session);
    throw Failure("no tab " + id + ": it was closed");
  }
  std::lock_guard<std::mutex> guard(tab->lock);
  if (tab->crashed) throw Failure("the page in " + id + " crashed: reload it");
  if (tab->dialog && !duringDialog)
    throw Failure(id + " is showing a dialog (" + dialogNamed(*tab->dialog) +
                  "): answer it with dialog (accept or dismiss) first");
  return tab;
}

std::shared_ptr<Tab> Browser::attach(const std::string& targetId) {
  Json attached = call("Target.attachToTarget", {{"targetId", targetId}, {"flatten", true}});
  auto tab = std::make_shared<Tab>();
  tab->targetId = targetId;
  tab->session = attached.value("sessionId", "");
  {
    std::lock_guard<std::mutex> guard(tabsLock);
    tab->id = "t" + std::to_string(nextTab++);
    tabsByID[tab->id] = tab;
    tabsBySession[tab->session] = tab;
  }
  {
    std::lock_guard<std::mutex> guard(tab->lock);
    tab->attaching.insert(tab->session);
  }
  // Sent together: they are taken in order, and answered after the new page's first document
  // is there (Page.enable 100 to 150 ms after attaching, the rest a few ms each after it).
  std::vector<Json> answers = callAll(
      {{"Page.enable", Json::object()},
       {"Page.setLifecycleEventsEnabled", {{"enabled", true}}},
       {"Network.enable", Json::object()},
       // Our own world in every document the tab loads, out of the page scripts' reach.
       {"Page.addScriptToEvaluateOnNewDocument", {{"source", ""}, {"worldName", worldName}}},
       {"Runtime.enable", Json::object()},
       {"Log.enable", Json::object()},
       // A file chooser comes to us (upload answers it), never as a window of the system's.
       {"Page.setInterceptFileChooserDialog", {{"enabled", true}}},
       // Frames of other processes (another site's) come as targets of their own.
       frameAutoAttach(),
       {"Page.getFrameTree", Json::object()}},
      tab->session);
  const Json& tree = answers.back();
  {
    std::lock_guard<std::mutex> guard(tab->lock);
    if (tab->loader.empty())
      tab->loader = tree.value(Json::json_pointer("/frameTree/frame/loaderId"), "");
  }
  return tab;
}

void Browser::forget(const std::shared_ptr<Tab>& tab) {
  std::lock_guard<std::mutex> guard(tabsLock);
  tabsByID.erase(tab->id);
  tabsBySession.erase(tab->session);
}

std::string Browser::describeTab(const std::shared_ptr<Tab>& tab, const std::string& note) {
  Json info = call("Target.getTargetInfo", {{"targetId", tab->targetId}});
  const Json& target = info.contains("targetInfo") ? info["targetInfo"] : info;
  std::string url = target.value("url", "");
  std::string title = target.value("title", "");
  // Chromium names an untitled page by its address; the agent sees that there is no title.
  if (title == url) title.clear();
  std::string line = tab->id + " " + url + " " + quote(title);
  if (!note.empty()) line += " (" + note + ")";
  return line;
}

std::string profileFor(const std::string& socket) {
  uint32_t hash = 2166136261u;  // FNV-1a
  for (unsigned char c : socket) hash = (hash ^ c) * 16777619u;
  std::string name;
  for (char c : socket) {
    bool plain = std::isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '_';
    if (plain) name += c;
    else if (!name.empty() && name.back() != '-') name += '-';
  }
  if (name.size() > 40) name.erase(0, name.size() - 40);
  while (!name.empty() && (name.front() == '-' || name.front() == '.')) name.erase(0, 1);
  char hex[9];
  std::snprintf(hex, sizeof hex, "%08x", hash);
  return "profiles/" + name + (name.empty() || name.back() == '-' ? "" : "-") + hex;
}

std::string checkedAddress(const std::string& given,
                           const std::vector<std::string>& allowedFolders, bool remote) {
  std::string url = given;
  while (!url.empty() && std::isspace(static_cast<unsigned char>(url.back()))) url.pop_back();
  url.erase(0, std::min(url.size(), url.find_first_not_of(" \t\r\n")));
  if (url.empty()) throw Failure("no address given");
  // A scheme is letters, digits, "+", "-" and "." after a letter, then ":". A bare host
  // ("example.com/a", "localhost:3000") has none, or what looks like one is a port.
  size_t colon = url.find(':');
  bool scheme = colon != std::string::npos && colon > 0 && std::isalpha(static_cast<unsigned char>(url[0]));
  for (size_t i = 0; scheme && i < colon; ++i) {
    char c = url[i];
    scheme = std::isalnum(static_cast<unsigned char>(c)) || c == '+' || c == '-' || c == '.';
  }
  if (scheme && colon + 1 < url.size() && std::isdigit(static_cast<unsigned char>(url[colon + 1])))
    scheme = url.compare(colon + 1, 2, "//") == 0;  // host:port
  if (!scheme) {
    std::string host = url.substr(0, url.find_first_of(":/?#"));
    bool local = host == "localhost" || host.rfind("127.", 0) == 0 || url.rfind("[::1]", 0) == 0 ||
                 (host.size() > 10 && host.compare(host.size() - 10, 10, ".localhost") == 0);
    return (local ? "http://" : "https://") + url;
  }
  std::string lower = url.substr(0, colon);
  std::transform(lower.begin(), lower.end(), lower.begin(), ::tolower);
  if (lower == "view-source" && url.size() > colon + 1) {
    checkedAddress(url.substr(colon + 1), allowedFolders, remote);
    return url;
  }
  if (lower != "file") return url;
  if (remote)
    throw Failure("won't open " + url +
                  ": the browser runs on another machine (NUREL_CDP_URL), whose files nurel "
                  "can't check against NUREL_ALLOW_FILES");
  // file: only from the folders the person allows, compared after resolving links and "..".
  std::string path = url.substr(colon + 1);
  if (path.rfind("//", 0) == 0) {
    size_t slash = path.find('/', 2);
    std::string host = path.substr(2, slash == std::string::npos ? std::string::npos : slash - 2);
    if (!host.empty() && host != "localhost")
      throw Failure(url + " is on another machine: nurel opens only files of this one");
    path = slash == std::string::npos ? "/" : path.substr(slash);
  }
  path = path.substr(0, path.find_first_of("?#"));
  std::string decoded;
  for (size_t i = 0; i < path.size(); ++i) {
    if (path[i] == '%' && i + 2 < path.size() && std::isxdigit(static_cast<unsigned char>(path[i + 1])) &&
        std::isxdigit(static_cast<unsigned char>(path[i + 2]))) {
      decoded.push_back(static_cast<char>(std::stoi(path.substr(i + 1, 2), nullptr, 16)));
      i += 2;
    } else {
      decoded.push_back(path[i]);
    }
  }
  if (allowedFolders.empty())
    throw Failure("won't open " + url +
                  ": local files are off until you allow a folder with NUREL_ALLOW_FILES "
                  "(folders separated by colons) in the environment nurel starts from");
  struct stat status {};
  if (stat(decoded.c_str(), &status) != 0) throw Failure("couldn't load " + url + ": no such file");
  if (underAllowedFolder(decoded, allowedFolders)) return url;
  throw Failure("won't open " + url + ": it isn't under a folder of NUREL_ALLOW_FILES");
}

bool underAllowedFolder(const std::string& path, const std::vector<std::string>& folders) {
  char* resolved = realpath(path.c_str(), nullptr);
  if (!resolved) return false;
  std::string real = resolved;
  free(resolved);
  for (const std::string& folder : folders) {
    char* base = realpath(folder.c_str(), nullptr);
    if (!base) continue;
    std::string root = base;
    free(base);
    if (root.back() != '/') root += '/';
    if (real.rfind(root, 0) == 0 || real + "/" == root) return true;
  }
  return false;
}

std::vector<std::string> Browser::methods() {
  std::vector<std::string> names;
  for (auto& [name, handler] : handlers()) names.push_back(name);
  std::sort(names.begin(), names.end());
  return names;
}

const std::map<std::string, Browser::Handler>& Browser::handlers() {
  static const std::map<std::string, Handler> table = {
      {"hello", &Browser::hello},     {"tabs", &Browser::tabs},
      {"open", &Browser::open},       {"navigate", &Browser::navigate},
      {"back", &Browser::back},       {"forward", &Browser::forward},
      {"reload", &Browser::reload},   {"close", &Browser::close},
      {"eval", &Browser::eval},       {"text", &Browser::text},
      {"describe", &Browser::describe}, {"wait", &Browser::wait},
      {"screenshot", &Browser::screenshot}, {"pdf", &Browser::pdf},
      {"signin", &Browser::signin},
      {"snapshot", &Browser::snapshot}, {"click", &Browser::click},
      {"hover", &Browser::hover},     {"drag", &Browser::drag},
      {"type", &Browser::type},       {"choose", &Browser::choose},
      {"key", &Browser::key},         {"scroll", &Browser::scroll},
      {"find", &Browser::find},       {"inspect", &Browser::inspect},
      {"dialog", &Browser::dialog},   {"batch", &Browser::batch},
      {"console", &Browser::console}, {"emulate", &Browser::emulate},
      {"storage", &Browser::storage}, {"ask", &Browser::ask},
      {"network", &Browser::network}, {"downloads", &Browser::downloads},
      {"upload", &Browser::upload},   {"media", &Browser::media},
      {"scenarios", &Browser::scenarios}, {"run", &Browser::run},
  };
  return table;
}

namespace {

// Whether a request may change something, and so goes into the action log.
bool changes(const std::string& method, const Json& params) {
  const Command* command = findCommand(method);
  if (method == "hello" || (command && command->readOnly)) return false;
  if (method == "storage") return flagParam(params, "clear");
  if (method == "media") return !stringParam(params, "action").empty() && stringParam(params, "action") != "state";
  return true;
}

}  // namespace

Json Browser::handle(const std::string& method, const Json& params) {
  auto found = handlers().find(method);
  if (found == handlers().end()) {
    throw Failure("unknown method " + method);
  }
  // The engine running now is this request's; one that has gone is started again by its
  // first call. Requests within a request (batch, run) keep the outer one's.
  struct Pin {
    bool outer = !pinned.active;
    explicit Pin(Browser& browser) {
      if (!outer) return;
      std::lock_guard<std::mutex> guard(browser.engineLock);
      pinned.active = true;
      if (browser.current && browser.current->cdp->alive()) pinned.engine = browser.current;
    }
    ~Pin() {
      if (outer) pinned = Pinned{};
    }
  } pin(*this);
  const Json& given = params.is_object() ? params : Json::object();
  if (!changes(method, given)) return perform(found->second, method, given);
  std::string tabID = stringParam(given, "tab"), address;
  std::string ref = stringParam(given, "ref"), intent = stringParam(given, "intent");
  std::shared_ptr<Tab> tab;
  {
    std::lock_guard<std::mutex> guard(tabsLock);
    if (auto found = tabsByID.find(tabID); found != tabsByID.end()) tab = found->second;
  }
  if (tab) {
    std::lock_guard<std::mutex> guard(tab->lock);
    address = tab->url;
    // The person has the tab while they are asked; the agent may look, not act.
    if (tab->asking)
      throw Failure(tab->id + " is the person's until they answer what ask showed them: wait for it");
  }
  if (tab && settings.headed && !intent.empty() && method != "close") showIntent(tab, intent);
  try {
    Json result = perform(found->second, method, given);
    // A script's value may be anything the page holds: the log says only that one ran.
    std::string said = method == "eval" ? "ran a script"
                       : result.is_string() ? result.get<std::string>()
                                            : compactRepaired(result);
    if (method == "open" && tabID.empty()) tabID = said.substr(0, said.find(' '));
    actions.record(tabID, address, method, ref, intent, said, false);
    return result;
  } catch (const Failure& failure) {
    actions.record(tabID, address, method, ref, intent, failure.what(), true);
    throw;
  }
}

Json Browser::perform(Handler handler, const std::string& method, const Json& params) {
  try {
    return (this->*handler)(params);
  } catch (const Failure& failure) {
    // A tab that went because Chromium did (a request waiting on it, or the next one): the
    // agent hears that the browser went, not that someone closed the tab.
    std::shared_ptr<Engine> gone = requestEngine();
    if (gone && !gone->cdp->alive() &&
        std::string_view(failure.what()).find(": it was closed") != std::string_view::npos)
      if (auto line = lost(gone)) throw Failure(*line);
    throw;
  } catch (const CdpError& error) {
    throw Failure(method + " failed: " + error.what());
  } catch (const NoAnswer& error) {
    throw Failure(error.what());
  } catch (const BrowserLost& error) {
    // Input, say, found the pipe broken before its reader saw Chromium go.
    std::shared_ptr<Engine> gone = requestEngine();
    if (gone)
      if (auto line = lost(gone)) throw Failure(*line);
    throw Failure(error.what());
  }
}

Json Browser::hello(const Json&) {
  return {{"name", "nurel-browser"}, {"version", "1"}};
}

Json Browser::signin(const Json& params) {
  tabFor(params);
  throw Failure("sign-in with saved logins needs the macOS browser: here, type the login into "
                "the page, or ask the person");
}

std::string stringParam(const Json& params, const char* name) {
  auto found = params.find(name);
  if (found == params.end() || !found->is_string()) return {};
  return found->get<std::string>();
}

bool flagParam(const Json& params, const char* name) {
  auto found = params.find(name);
  if (found == params.end()) return false;
  if (found->is_boolean()) return found->get<bool>();
  if (found->is_string()) return *found == "true" || *found == "1";
  return false;
}

double numberParam(const Json& params, const char* name, double fallback) {
  auto found = params.find(name);
  if (found == params.end() || found->is_null()) return fallback;
  if (found->is_number()) {
    double value = found->get<double>();
    if (std::isfinite(value)) return value;
  } else if (found->is_string()) {
    const std::string& text = found->get_ref<const std::string&>();
    char* end = nullptr;
    double value = std::strtod(text.c_str(), &end);
    if (!text.empty() && end == text.c_str() + text.size() && std::isfinite(value)) return value;
  }
  throw Failure(std::string(name) + " takes a number");
}

std::string quote(const std::string& text) { return compactRepaired(Json(text)); }

std::string dialogNamed(const Json& dialog) {
  return dialog.value("type", "alert") + " " + quote(dialog.value("message", ""));
}

std::string firstCharacters(const std::string& text, size_t limit, bool& cut, size_t& total) {
  size_t characters = 0, end = text.size();
  for (size_t i = 0; i < text.size(); ++i) {
    if ((static_cast<unsigned char>(text[i]) & 0xC0) == 0x80) continue;
    if (characters == limit) end = i;
    ++characters;
  }
  total = characters;
  cut = characters > limit;
  return cut ? text.substr(0, end) : text;
}

}  // namespace nurel::browser

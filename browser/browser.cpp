// browser/browser.cpp: Chromium's lifetime, the tabs and the routing of its events.
#include "browser/browser.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

namespace nurel::browser {

namespace {

// The method names of later work, answered with a line that says so until they are built.
const std::set<std::string>& notYet() {
  static const std::set<std::string> names = {
      "upload", "downloads", "scenarios", "run", "media"};
  return names;
}

void makeFolders(const std::string& path) {
  for (size_t slash = 1; slash != std::string::npos;) {
    slash = path.find('/', slash + 1);
    std::string part = path.substr(0, slash);
    if (mkdir(part.c_str(), 0700) != 0 && errno != EEXIST)
      throw Failure("couldn't make the folder " + part + ": " + std::strerror(errno));
  }
}

// One console line: its level ("error", "warn", "info", "log", "debug") and its text with where
// it came from.
std::pair<std::string, std::string> consoleEntry(const std::string& method, const Json& params) {
  std::string level, text, url;
  int line = -1;
  auto place = [&](const Json& frames) {
    if (frames.is_array() && !frames.empty()) {
      url = frames[0].value("url", "");
      line = frames[0].value("lineNumber", -1);
    }
  };
  if (method == "Runtime.consoleAPICalled") {
    std::string type = params.value("type", "log");
    level = type == "error" || type == "assert" ? "error"
            : type == "warning"                  ? "warn"
            : type == "info" || type == "debug"  ? type
                                                 : "log";
    for (const Json& argument : params.value("args", Json::array())) {
      std::string piece;
      if (argument.contains("value")) {
        const Json& value = argument["value"];
        piece = value.is_string() ? value.get<std::string>() : compactRepaired(value);
      } else {
        piece = argument.value("unserializableValue", argument.value("description", argument.value("type", "")));
      }
      text += (text.empty() ? "" : " ") + piece;
    }
    if (params.contains("stackTrace")) place(params["stackTrace"].value("callFrames", Json::array()));
  } else if (method == "Runtime.exceptionThrown") {
    const Json& details = params.contains("exceptionDetails") ? params["exceptionDetails"] : params;
    level = "error";
    text = details.contains("exception") ? details["exception"].value("description", details.value("text", ""))
                                         : details.value("text", "");
    text = text.substr(0, text.find('\n'));
    if (text.rfind("Uncaught", 0) != 0) text = "Uncaught " + text;
    url = details.value("url", "");
    line = details.value("lineNumber", -1);
  } else {
    const Json& entry = params.contains("entry") ? params["entry"] : params;
    std::string given = entry.value("level", "info");
    level = given == "error" ? "error" : given == "warning" ? "warn" : given == "verbose" ? "debug" : "info";
    text = entry.value("text", "");
    url = entry.value("url", "");
    line = entry.value("lineNumber", -1);
  }
  if (text.size() > 2000) text = text.substr(0, 2000) + "…";
  std::string where;
  if (!url.empty()) {
    // The file's name and line are what a developer looks for; the address is long.
    std::string name = url.substr(0, url.find_first_of("?#"));
    name = name.substr(name.rfind('/') + 1);
    if (name.empty() || url.rfind("data:", 0) == 0) name = url.rfind("data:", 0) == 0 ? "the page" : url;
    where = " (" + name + (line >= 0 ? ":" + std::to_string(line + 1) : "") + ")";
  }
  return {level, level + ": " + text + where};
}

std::string lastLine(const std::string& path) {
  std::ifstream file(path);
  std::string line, last;
  while (std::getline(file, line))
    if (line.find_first_not_of(" \t\r") != std::string::npos && line.find("[:") == std::string::npos)
      last = line;
  if (last.size() > 300) last.resize(300);
  return last;
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
  return settings;
}

Browser::Browser(Settings settings) : settings(std::move(settings)) {}

Browser::~Browser() {
  std::shared_ptr<Engine> engine;
  {
    std::lock_guard<std::mutex> guard(engineLock);
    engine.swap(current);
  }
}

void Browser::shutdown() {
  std::shared_ptr<Engine> engine;
  {
    std::lock_guard<std::mutex> guard(engineLock);
    engine = current;
  }
  if (!engine) return;
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

std::shared_ptr<Browser::Engine> Browser::engine() {
  std::lock_guard<std::mutex> guard(engineLock);
  if (current && current->cdp->alive()) return current;
  if (current) {
    // It died: its tabs went with it.
    std::lock_guard<std::mutex> tabsGuard(tabsLock);
    tabsByID.clear();
    tabsBySession.clear();
  }
  current.reset();
  std::string program;
  try {
    program = findChromium();
  } catch (const StartError& error) {
    throw Failure(error.what());
  }
  makeFolders(settings.dataFolder + "/profile");
  std::string log = settings.dataFolder + "/chromium.log";
  auto fresh = std::make_shared<Engine>();
  fresh->generation = ++generations;
  try {
    fresh->chromium = std::make_unique<Chromium>(
        program, chromiumSwitches(settings.dataFolder + "/profile", settings.headed), log);
  } catch (const StartError& error) {
    throw Failure(error.what());
  }
  uint64_t generation = fresh->generation;
  fresh->cdp = std::make_unique<Cdp>(
      fresh->chromium->takeTransport(),
      [this, generation](const std::string& method, const Json& params,
                         const std::string& session) {
        onEvent(generation, method, params, session);
      },
      [this, generation](const std::string& reason) { onClosed(generation, reason); });
  try {
    fresh->cdp->call("Browser.getVersion", Json::object(), {}, std::chrono::seconds(30));
    // Tabs that pages open are told of, to become the agent's.
    fresh->cdp->call("Target.setDiscoverTargets", {{"discover", true}});
  } catch (const std::exception& error) {
    std::string why = lastLine(log);
    throw Failure("Chromium (" + program + ") didn't start" + (why.empty() ? "" : ": " + why));
  }
  current = fresh;
  return current;
}

Json Browser::call(const std::string& method, const Json& params, const std::string& session,
                   std::chrono::milliseconds timeout) {
  if (!session.empty()) {
    // A tab's call belongs to the Chromium the tab was in: when that one has gone, a request
    // still running on the tab says so, and leaves starting a fresh one to the next request.
    std::shared_ptr<Engine> was;
    {
      std::lock_guard<std::mutex> guard(engineLock);
      was = current;
    }
    if (was && !was->cdp->alive())
      if (auto line = lost(was)) throw Failure(*line);
  }
  std::shared_ptr<Engine> running = engine();
  try {
    return running->cdp->call(method, params, session, timeout);
  } catch (const NoAnswer&) {
    throw;  // only slow
  } catch (const BrowserLost&) {
    if (auto line = lost(running)) throw Failure(*line);
    throw;
  }
}

std::optional<std::string> Browser::lost(const std::shared_ptr<Engine>& running) {
  using namespace std::chrono_literals;
  for (int wait = 0; wait < 50 && running->cdp->alive(); ++wait) std::this_thread::sleep_for(20ms);
  if (running->cdp->alive()) return std::nullopt;
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
    if (found == tabsBySession.end()) return;
    tab = found->second;
  }
  std::lock_guard<std::mutex> guard(tab->lock);
  auto now = std::chrono::steady_clock::now();
  if (method == "Page.lifecycleEvent") {
    if (params.value("name", "") == "load" && params.value("frameId", "") == tab->targetId) {
      tab->loaded.push_back(params.value("loaderId", ""));
      if (tab->loaded.size() > 16) tab->loaded.pop_front();
    }
  } else if (method == "Page.frameNavigated") {
    const Json& frame = params.contains("frame") ? params["frame"] : params;
    if (!frame.contains("parentId")) {
      tab->loader = frame.value("loaderId", "");
      tab->console.clear();
      tab->consoleDropped = 0;
    }
  } else if (method == "Runtime.consoleAPICalled" || method == "Runtime.exceptionThrown" ||
             method == "Log.entryAdded") {
    std::pair<std::string, std::string> entry = consoleEntry(method, params);
    if (entry.first.empty()) return;
    tab->console.push_back(std::move(entry));
    // Kept per tab, and bounded: a page that logs without end costs a few thousand lines.
    if (tab->console.size() > 2000) {
      tab->console.pop_front();
      ++tab->consoleDropped;
    }
  } else if (method == "Page.frameStartedLoading") {
    if (params.value("frameId", "") == tab->targetId) ++tab->startedLoading;
  } else if (method == "Page.javascriptDialogOpening") {
    tab->dialog = params;
    ++tab->dialogsOpened;
  } else if (method == "Page.javascriptDialogClosed") {
    tab->dialog.reset();
  } else if (method == "Page.loadEventFired") {
    ++tab->loads;
  } else if (method == "Page.navigatedWithinDocument") {
    if (params.value("frameId", "") == tab->targetId) ++tab->sameDocument;
  } else if (method == "Network.requestWillBeSent") {
    std::string type = params.value("type", "");
    if (type != "EventSource" && type != "WebSocket" && !params.contains("redirectResponse"))
      tab->requests.insert(params.value("requestId", ""));
    tab->lastNetwork = now;
    Tab::Request request;
    request.number = tab->nextRequest++;
    request.id = params.value("requestId", "");
    const Json& sent = params.contains("request") ? params["request"] : params;
    request.method = sent.value("method", "GET");
    request.url = sent.value("url", "");
    request.type = type;
    request.started = params.value("timestamp", 0.0);
    request.requestHeaders = sent.value("headers", Json::object());
    tab->requestLog.push_back(std::move(request));
    if (tab->requestLog.size() > 2000) {
      tab->requestLog.pop_front();
      ++tab->requestsDropped;
    }
  } else if (method == "Network.loadingFinished" || method == "Network.loadingFailed") {
    tab->requests.erase(params.value("requestId", ""));
    tab->lastNetwork = now;
    std::string id = params.value("requestId", "");
    for (auto request = tab->requestLog.rbegin(); request != tab->requestLog.rend(); ++request) {
      if (request->id != id || request->ended != 0) continue;
      request->ended = params.value("timestamp", 0.0);
      if (method == "Network.loadingFinished") request->bytes = params.value("encodedDataLength", 0.0);
      else request->error = params.value("errorText", "failed");
      break;
    }
  } else if (method == "Network.responseReceived") {
    std::string id = params.value("requestId", "");
    for (auto request = tab->requestLog.rbegin(); request != tab->requestLog.rend(); ++request) {
      if (request->id != id) continue;
      const Json& response = params.contains("response") ? params["response"] : params;
      request->status = response.value("status", 0);
      request->responseHeaders = response.value("headers", Json::object());
      break;
    }
    if (params.value("type", "") == "Document" && params.value("frameId", "") == tab->targetId) {
      auto response = params.find("response");
      if (response != params.end() && response->is_object()) {
        tab->status[params.value("loaderId", "")] = response->value("status", 0);
        if (tab->status.size() > 16) tab->status.erase(tab->status.begin());
      }
    }
  } else if (method == "Runtime.executionContextCreated") {
    const Json& context = params.contains("context") ? params["context"] : params;
    auto aux = context.find("auxData");
    if (context.value("name", "") == worldName && aux != context.end() && aux->is_object() &&
        aux->value("frameId", "") == tab->targetId)
      tab->world = context.value("id", 0);
  } else if (method == "Runtime.executionContextDestroyed") {
    if (params.value("executionContextId", -1) == tab->world) tab->world = 0;
  } else if (method == "Runtime.executionContextsCleared") {
    tab->world = 0;
  } else if (method == "Inspector.targetCrashed") {
    tab->crashed = true;
  } else if (method == "Inspector.detached") {
    tab->gone = true;
  } else {
    return;
  }
  tab->changed.notify_all();
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
  std::lock_guard<std::mutex> guard(tab->lock);
  if (tab->gone) {
    std::lock_guard<std::mutex> tabsGuard(tabsLock);
    tabsByID.erase(tab->id);
    tabsBySession.erase(tab->session);
    throw Failure("no tab " + id + ": it was closed");
  }
  if (tab->crashed) throw Failure("the page in " + id + " crashed: reload it");
  if (tab->dialog && !duringDialog)
    throw Failure(id + " is showing a dialog (" + tab->dialog->value("type", "alert") + " " +
                  quote(tab->dialog->value("message", "")) +
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
  call("Page.enable", Json::object(), tab->session);
  call("Page.setLifecycleEventsEnabled", {{"enabled", true}}, tab->session);
  call("Network.enable", Json::object(), tab->session);
  // Our own world in every document the tab loads, out of the page scripts' reach.
  call("Page.addScriptToEvaluateOnNewDocument", {{"source", ""}, {"worldName", worldName}},
       tab->session);
  call("Runtime.enable", Json::object(), tab->session);
  call("Log.enable", Json::object(), tab->session);
  Json tree = call("Page.getFrameTree", Json::object(), tab->session);
  {
    std::lock_guard<std::mutex> guard(tab->lock);
    if (tab->loader.empty()) tab->loader = tree["frameTree"]["frame"].value("loaderId", "");
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

std::string checkedAddress(const std::string& given,
                           const std::vector<std::string>& allowedFolders) {
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
    checkedAddress(url.substr(colon + 1), allowedFolders);
    return url;
  }
  if (lower != "file") return url;
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
  char* resolved = realpath(decoded.c_str(), nullptr);
  if (!resolved) throw Failure("couldn't load " + url + ": no such file");
  std::string real = resolved;
  free(resolved);
  for (const std::string& folder : allowedFolders) {
    char* base = realpath(folder.c_str(), nullptr);
    if (!base) continue;
    std::string root = base;
    free(base);
    if (root.back() != '/') root += '/';
    if (real.rfind(root, 0) == 0 || real + "/" == root) return url;
  }
  throw Failure("won't open " + url + ": it isn't under a folder of NUREL_ALLOW_FILES");
}

std::vector<std::string> Browser::methods() {
  std::vector<std::string> names;
  for (auto& [name, handler] : handlers()) names.push_back(name);
  for (auto& name : notYet()) names.push_back(name);
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
      {"network", &Browser::network},
  };
  return table;
}

Json Browser::handle(const std::string& method, const Json& params) {
  auto found = handlers().find(method);
  if (found == handlers().end()) {
    if (notYet().count(method)) throw Failure(method + " isn't available in this browser yet");
    throw Failure("unknown method " + method);
  }
  try {
    return (this->*(found->second))(params.is_object() ? params : Json::object());
  } catch (const Failure& failure) {
    // A tab that went because Chromium did (a request waiting on it, or the next one): the
    // agent hears that the browser went, not that someone closed the tab.
    std::shared_ptr<Engine> gone;
    {
      std::lock_guard<std::mutex> guard(engineLock);
      gone = current;
    }
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
    std::shared_ptr<Engine> gone;
    {
      std::lock_guard<std::mutex> guard(engineLock);
      gone = current;
    }
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

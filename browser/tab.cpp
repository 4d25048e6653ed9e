// browser/tab.cpp: what Chromium's events tell of a tab's page.
#include "browser/tab.h"

#include <iterator>

namespace nurel::browser {

namespace {

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

}  // namespace

bool applyEvent(Tab& tab, const std::string& method, const Json& params,
                std::chrono::steady_clock::time_point now) {
  if (method == "Target.attachedToTarget") {
    const Json& info = params.contains("targetInfo") ? params["targetInfo"] : params;
    if (info.value("type", "") == "iframe")
      tab.frameSessions[info.value("targetId", "")] = params.value("sessionId", "");
  } else if (method == "Target.detachedFromTarget") {
    std::string detached = params.value("sessionId", "");
    for (auto frame = tab.frameSessions.begin(); frame != tab.frameSessions.end();)
      frame = frame->second == detached ? tab.frameSessions.erase(frame) : std::next(frame);
    tab.attaching.erase(detached);
  } else if (method == "Page.lifecycleEvent") {
    if (params.value("name", "") == "load" && params.value("frameId", "") == tab.targetId) {
      tab.loaded.push_back(params.value("loaderId", ""));
      if (tab.loaded.size() > 16) tab.loaded.pop_front();
    }
  } else if (method == "Page.frameNavigated") {
    const Json& frame = params.contains("frame") ? params["frame"] : params;
    if (!frame.contains("parentId")) {
      ++tab.documents;
      tab.loader = frame.value("loaderId", "");
      tab.url = frame.value("url", "");
      tab.frames.clear();
      tab.frameParents.clear();
      tab.readFrames.clear();
      tab.console.clear();
      tab.consoleDropped = 0;
    }
  } else if (method == "Runtime.consoleAPICalled" || method == "Runtime.exceptionThrown" ||
             method == "Log.entryAdded") {
    std::pair<std::string, std::string> entry = consoleEntry(method, params);
    if (entry.first.empty()) return false;
    tab.console.push_back(std::move(entry));
    // Kept per tab, and bounded: a page that logs without end costs a few thousand lines.
    if (tab.console.size() > 2000) {
      tab.console.pop_front();
      ++tab.consoleDropped;
    }
  } else if (method == "Page.frameStartedLoading") {
    if (params.value("frameId", "") == tab.targetId) {
      ++tab.startedLoading;
      tab.loading = true;
    }
  } else if (method == "Page.frameStoppedLoading") {
    if (params.value("frameId", "") == tab.targetId) tab.loading = false;
  } else if (method == "Page.frameAttached") {
    tab.frames.insert(params.value("frameId", ""));
  } else if (method == "Page.fileChooserOpened") {
    tab.chooser = params;
  } else if (method == "Page.javascriptDialogOpening") {
    tab.dialog = params;
    ++tab.dialogsOpened;
  } else if (method == "Input.dragIntercepted") {
    tab.dragged = params.value("data", Json::object());
  } else if (method == "Page.javascriptDialogClosed") {
    tab.dialog.reset();
  } else if (method == "Page.loadEventFired") {
    ++tab.loads;
  } else if (method == "Page.navigatedWithinDocument") {
    if (params.value("frameId", "") == tab.targetId) {
      ++tab.sameDocument;
      tab.url = params.value("url", tab.url);
    }
  } else if (method == "Network.requestWillBeSent") {
    std::string type = params.value("type", "");
    // Streams that stay open, and beacons no one waits for, are never "still loading".
    if (type != "EventSource" && type != "WebSocket" && type != "Ping" &&
        !params.contains("redirectResponse"))
      tab.requests.insert(params.value("requestId", ""));
    tab.lastNetwork = now;
    Tab::Request request;
    request.number = tab.nextRequest++;
    request.id = params.value("requestId", "");
    const Json& sent = params.contains("request") ? params["request"] : params;
    request.method = sent.value("method", "GET");
    request.url = sent.value("url", "");
    request.type = type;
    request.started = params.value("timestamp", 0.0);
    request.requestHeaders = sent.value("headers", Json::object());
    tab.requestLog.push_back(std::move(request));
    if (tab.requestLog.size() > 2000) {
      tab.requestLog.pop_front();
      ++tab.requestsDropped;
    }
  } else if (method == "Network.loadingFinished" || method == "Network.loadingFailed") {
    tab.requests.erase(params.value("requestId", ""));
    tab.lastNetwork = now;
    std::string id = params.value("requestId", "");
    for (auto request = tab.requestLog.rbegin(); request != tab.requestLog.rend(); ++request) {
      if (request->id != id || request->ended != 0) continue;
      request->ended = params.value("timestamp", 0.0);
      if (method == "Network.loadingFinished") request->bytes = params.value("encodedDataLength", 0.0);
      else request->error = params.value("errorText", "failed");
      break;
    }
  } else if (method == "Network.responseReceived") {
    std::string id = params.value("requestId", "");
    for (auto request = tab.requestLog.rbegin(); request != tab.requestLog.rend(); ++request) {
      if (request->id != id) continue;
      const Json& response = params.contains("response") ? params["response"] : params;
      request->status = response.value("status", 0);
      request->responseHeaders = response.value("headers", Json::object());
      break;
    }
    if (params.value("type", "") == "Document" && params.value("frameId", "") == tab.targetId) {
      auto response = params.find("response");
      if (response != params.end() && response->is_object()) {
        tab.status[params.value("loaderId", "")] = response->value("status", 0);
        if (tab.status.size() > 16) tab.status.erase(tab.status.begin());
      }
    }
  } else if (method == "Runtime.executionContextCreated") {
    const Json& context = params.contains("context") ? params["context"] : params;
    auto aux = context.find("auxData");
    if (context.value("name", "") == worldName && aux != context.end() && aux->is_object() &&
        aux->value("frameId", "") == tab.targetId)
      tab.world = context.value("id", 0), tab.libraries = 0;
  } else if (method == "Runtime.executionContextDestroyed") {
    if (params.value("executionContextId", -1) == tab.world) tab.world = 0, tab.libraries = 0;
  } else if (method == "Runtime.executionContextsCleared") {
    tab.world = 0, tab.libraries = 0;
  } else if (method == "Inspector.targetCrashed") {
    tab.crashed = true;
    tab.world = 0, tab.libraries = 0;
  } else if (method == "Inspector.detached") {
    tab.gone = true;
  } else {
    return false;
  }
  return true;
}

}  // namespace nurel::browser

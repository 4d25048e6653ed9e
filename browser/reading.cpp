// browser/reading.cpp: reading a page: scripts, its text, an outline, waiting for something,
// screenshots and PDFs.
#include <algorithm>
#include <ctime>
#include <cmath>
#include <thread>

#include <sstream>

#include "browser/browser.h"
#include "browser/scripts.h"
#include "browser/secrets.h"

namespace nurel::browser {

namespace {

using Clock = std::chrono::steady_clock;

// The characters get_text answers when no limit is given.
constexpr size_t textLimit = 20000;

// Lines of a log, oldest first: the latest `limit` of them when there are more (all for a
// limit under 1), after notes of what was left out; `none` when there is nothing to show.
std::string listing(std::vector<std::string> lines, size_t dropped, double limit,
                    const std::string& things, const std::string& none) {
  size_t skipped = 0;
  if (limit >= 1 && lines.size() > size_t(limit)) {
    skipped = lines.size() - size_t(limit);
    lines.erase(lines.begin(), lines.begin() + long(skipped));
  }
  std::string answer;
  if (dropped) answer += "(" + std::to_string(dropped) + " older " + things + " were dropped)\n";
  if (skipped)
    answer += "(" + std::to_string(skipped) + " earlier " + things + " left out by the limit)\n";
  for (auto& line : lines) answer += line + "\n";
  if (lines.empty()) answer += none + "\n";
  answer.pop_back();
  return answer;
}

// The first line of an exception's description ("Error: boom"), for the agent.
std::string thrown(const Json& details) {
  std::string text;
  auto exception = details.find("exception");
  if (exception != details.end() && exception->is_object())
    text = exception->value("description", exception->contains("value") && (*exception)["value"].is_string()
                                               ? (*exception)["value"].get<std::string>()
                                               : std::string());
  if (text.empty()) text = details.value("text", "an exception");
  return text.substr(0, text.find('\n'));
}

std::string withSeconds(double seconds) {
  char text[32];
  std::snprintf(text, sizeof text, seconds < 10 ? "%.1f s" : "%.0f s", seconds);
  return text;
}

}  // namespace

Json Browser::inWorld(const std::shared_ptr<Tab>& tab, const std::string& expression,
                      Library library) {
  auto timeout = std::chrono::duration_cast<std::chrono::milliseconds>(settings.scriptTime);
  auto started = Clock::now();
  for (int attempt = 0;; ++attempt) {
    int context;
    unsigned loaded;
    {
      std::lock_guard<std::mutex> guard(tab->lock);
      context = tab->world;
      loaded = tab->libraries;
    }
    try {
      if (context == 0) {
        Json made = call("Page.createIsolatedWorld",
                         {{"frameId", tab->targetId}, {"worldName", worldName}}, tab->session,
                         timeout);
        context = made.value("executionContextId", 0);
        std::lock_guard<std::mutex> guard(tab->lock);
        tab->world = context, tab->libraries = loaded = 0;
      }
      // A library is evaluated once in each world: the world's events tell when it goes (and
      // a call in one gone meanwhile fails, and is made again in the new one). Asking first
      // whether it is there cost each call a round trip.
      for (Library one : {Library::page, Library::readability}) {
        unsigned bit = 1u << unsigned(one);
        if ((library != one && library != Library::article) || (loaded & bit)) continue;
        bool page = one == Library::page;
        Json there = call("Runtime.evaluate",
                          {{"expression", page ? "typeof __nurel === 'object'"
                                               : "typeof Readability === 'function'"},
                           {"contextId", context}, {"returnByValue", true}},
                          tab->session, timeout);
        if (!there["result"].value("value", false))
          call("Runtime.evaluate",
               {{"expression", std::string(page ? scripts::page : scripts::readability)},
                {"contextId", context}},
               tab->session, timeout);
        std::lock_guard<std::mutex> guard(tab->lock);
        if (tab->world == context) tab->libraries |= bit;
      }
      // A dialog the page opens meanwhile stops it, and Chromium's answer with it: say so at
      // once rather than wait out the time.
      std::shared_ptr<Engine> running = engine();
      auto reply = running->cdp->start("Runtime.evaluate", {{"expression", expression},
                                                            {"contextId", context},
                                                            {"returnByValue", true},
                                                            {"awaitPromise", true},
                                                            {"timeout", timeout.count()}},
                                       tab->session);
      auto deadline = Clock::now() + timeout + std::chrono::seconds(5);
      while (!running->cdp->wait(reply, std::chrono::milliseconds(20))) {
        std::lock_guard<std::mutex> guard(tab->lock);
        if (tab->dialog) {
          running->cdp->forget(reply);
          throw Failure(tab->id + " is showing a dialog (" + dialogNamed(*tab->dialog) +
                        "): answer it with dialog (accept or dismiss) first");
        }
        if (tab->gone || Clock::now() > deadline) {
          running->cdp->forget(reply);
          if (tab->gone) throw Failure("no tab " + tab->id + ": it was closed");
          throw NoAnswer("no answer in time");
        }
      }
      Json answer = reply->result;
      if (auto details = answer.find("exceptionDetails"); details != answer.end())
        throw Failure("couldn't read the page: " + thrown(*details));
      return answer["result"].value("value", Json());
    } catch (const NoAnswer&) {
      // A script of the page's own holds its one thread (an endless loop): stop it, as eval
      // stops one of the agent's, so that the tab answers again.
      std::shared_ptr<Engine> running = requestEngine();
      if (running) running->cdp->post("Runtime.terminateExecution", Json::object(), tab->session);
      throw Failure("the page in " + tab->id + " didn't answer in " +
                    std::to_string(settings.scriptTime.count()) +
                    " s: a script of its own kept it busy, and was stopped");
    } catch (const CdpError& error) {
      // Chromium ends a script stopped at its time limit with an internal error.
      if (Clock::now() - started >= settings.scriptTime)
        throw Failure("reading the page in " + tab->id + " took more than " +
                      std::to_string(settings.scriptTime.count()) + " s, and was stopped");
      // The document changed under us and took the world with it: once more in the new one.
      std::string text = error.what();
      if (attempt > 0 || text.find("context") == std::string::npos) throw;
      std::lock_guard<std::mutex> guard(tab->lock);
      tab->world = 0, tab->libraries = 0;
    }
  }
}

Json Browser::eval(const Json& params) {
  auto tab = tabFor(params);
  std::string script = stringParam(params, "script");
  auto timeout = std::chrono::duration_cast<std::chrono::milliseconds>(settings.scriptTime);
  // A function body: "return" and "await" work, and its locals stay its own.
  std::string expression = "(async () => {\n" + script + "\n})()";
  Json answer;
  auto started = Clock::now();
  std::shared_ptr<Engine> running = engine();
  try {
    auto reply = running->cdp->start("Runtime.evaluate",
                                     {{"expression", expression},
                                      {"returnByValue", true},
                                      {"awaitPromise", true},
                                      {"userGesture", true},
                                      {"timeout", timeout.count()}},
                                     tab->session);
    // Waits for the value, unless the page crashes or shows a dialog, which stops it until
    // answered: then the agent hears of that at once.
    auto deadline = started + timeout + std::chrono::seconds(2);
    while (!running->cdp->wait(reply, std::chrono::milliseconds(20))) {
      std::lock_guard<std::mutex> guard(tab->lock);
      if (tab->crashed || tab->gone || tab->dialog || Clock::now() > deadline) {
        running->cdp->forget(reply);
        if (tab->crashed) throw Failure("the page in " + tab->id + " crashed: reload it");
        if (tab->gone) throw Failure("no tab " + tab->id + ": it was closed");
        if (tab->dialog)
          throw Failure("the script is waiting on a dialog (" + dialogNamed(*tab->dialog) +
                        "): answer it with dialog (accept or dismiss)");
        // Waiting on something that never comes: stop what still runs, and the tab goes on.
        running->cdp->post("Runtime.terminateExecution", Json::object(), tab->session);
        throw Failure("the script didn't finish in " +
                      std::to_string(settings.scriptTime.count()) + " s, and was stopped");
      }
    }
    answer = std::move(reply->result);
  } catch (const NoAnswer& error) {
    throw Failure(error.what());
  } catch (const BrowserLost& error) {
    if (auto line = lost(running)) throw Failure(*line);
    throw Failure(error.what());
  } catch (const CdpError& error) {
    // Chromium ends a script stopped at its time limit with an internal error.
    if (Clock::now() - started >= settings.scriptTime)
      throw Failure("the script didn't finish in " + std::to_string(settings.scriptTime.count()) +
                    " s, and was stopped");
    std::string text = error.what();
    if (text.find("reference chain") != std::string::npos ||
        text.find("serialize") != std::string::npos || text.find("by value") != std::string::npos)
      throw Failure("the script's value can't be sent as JSON: " + text);
    throw;
  }
  if (auto details = answer.find("exceptionDetails"); details != answer.end()) {
    std::string what = thrown(*details);
    if (what.find("Execution was terminated") != std::string::npos)
      throw Failure("the script didn't finish in " +
                    std::to_string(settings.scriptTime.count()) + " s, and was stopped");
    throw Failure("the script threw " + what);
  }
  const Json& result = answer["result"];
  if (auto value = result.find("value"); value != result.end()) return *value;
  // NaN, Infinity, -0 and big integers have no JSON form: their text instead.
  if (auto text = result.find("unserializableValue"); text != result.end()) return *text;
  return nullptr;  // undefined
}

std::string leftOut(int hidden) {
  if (hidden <= 0) return "";
  return "\n(" + std::to_string(hidden) + (hidden == 1 ? " hidden text" : " hidden texts") +
         " left out)";
}

Json Browser::text(const Json& params) {
  auto tab = tabFor(params);
  bool all = flagParam(params, "all");
  double limit = numberParam(params, "limit", double(textLimit));
  Json value = inWorld(tab, "(" + std::string(scripts::text) + ")(" + (all ? "true" : "false") + ")",
                       all ? Library::page : Library::article);
  std::string text = value.is_object() ? value.value("text", "") : std::string();
  std::string hidden = value.is_object() ? leftOut(value.value("hidden", 0)) : std::string();
  if (text.empty()) return "the page has no text" + hidden;
  if (limit <= 0) return text + hidden;  // 0: the whole text (as when it goes to a file)
  bool cut = false;
  size_t total = 0;
  std::string shown = firstCharacters(text, size_t(std::min(limit, 1e12)), cut, total);
  if (!cut) return text + hidden;
  return shown + "\n\n[cut at " + std::to_string(size_t(limit)) + " of " +
         std::to_string(total) + " characters: save it to a file for the whole text]" + hidden;
}

Json Browser::describe(const Json& params) {
  auto tab = tabFor(params);
  Json value = inWorld(tab, std::string(scripts::describe), Library::page);
  std::string text = value.is_object() ? value.value("text", "") : std::string();
  if (text.empty()) return "the page has nothing to describe";
  return text + leftOut(value.value("hidden", 0));
}

Json Browser::wait(const Json& params) {
  auto tab = tabFor(params);
  std::string text = stringParam(params, "text"), gone = stringParam(params, "gone"),
              url = stringParam(params, "url");
  bool idle = flagParam(params, "idle");
  double seconds = numberParam(params, "seconds", 0);
  double timeout = numberParam(params, "timeout", 10);
  if (timeout <= 0 || timeout > 60) timeout = std::clamp(timeout <= 0 ? 10.0 : timeout, 0.0, 60.0);
  if (seconds < 0) seconds = 0;
  seconds = std::min(seconds, 60.0);
  bool loaded = text.empty() && gone.empty() && url.empty() && !idle && seconds == 0;

  auto start = Clock::now();
  auto deadline = start + std::chrono::milliseconds(int64_t(std::max(timeout, seconds) * 1000));
  auto atLeast = start + std::chrono::milliseconds(int64_t(seconds * 1000));
  constexpr auto quiet = std::chrono::milliseconds(500);
  std::string address;
  size_t inFlight = 0;
  auto check = [&](std::string& missing) {
    missing.clear();
    if (!text.empty() || !gone.empty() || loaded) {
      Json found = inWorld(tab, "(() => { const t = document.body ? document.body.innerText : '';"
                                " return [t.includes(" + quote(text) + "), t.includes(" +
                                    quote(gone) + "), document.readyState]; })()");
      if (!text.empty() && !(found.is_array() && found[0] == true))
        missing = "the text " + quote(text) + " didn't show";
      else if (!gone.empty() && found.is_array() && found[1] == true)
        missing = "the text " + quote(gone) + " didn't go away";
      else if (loaded && !(found.is_array() && found[2] == "complete"))
        missing = "the page didn't finish loading";
      if (!missing.empty()) return false;
    }
    if (!url.empty()) {
      Json info = call("Target.getTargetInfo", {{"targetId", tab->targetId}});
      address = info["targetInfo"].value("url", "");
      if (address.find(url) == std::string::npos) {
        missing = "the address didn't contain " + quote(url) + " (it's " + address + ")";
        return false;
      }
    }
    if (idle) {
      std::lock_guard<std::mutex> guard(tab->lock);
      inFlight = tab->requests.size();
      if (inFlight > 0 || Clock::now() - tab->lastNetwork < quiet) {
        missing = inFlight ? "the network didn't go quiet (" + std::to_string(inFlight) +
                                 " requests still loading)"
                           : "the network didn't go quiet";
        return false;
      }
    }
    return Clock::now() >= atLeast;
  };
  std::string missing;
  for (;;) {
    if (check(missing)) break;
    if (Clock::now() >= deadline) {
      throw Failure("waited " + withSeconds(timeout) + " and " + missing);
    }
    std::unique_lock<std::mutex> guard(tab->lock);
    if (tab->gone) throw Failure("no tab " + tab->id + ": it was closed");
    tab->changed.wait_until(guard, std::min(deadline, Clock::now() + std::chrono::milliseconds(100)));
  }
  double took = std::chrono::duration<double>(Clock::now() - start).count();
  std::vector<std::string> met;
  if (!text.empty()) met.push_back("the text " + quote(text) + " showed");
  if (!gone.empty()) met.push_back("the text " + quote(gone) + " went away");
  if (!url.empty()) met.push_back("the address is " + address);
  if (idle) met.push_back("the network is quiet");
  if (loaded) met.push_back("the page has loaded");
  std::string answer;
  for (auto& part : met) answer += (answer.empty() ? "" : ", ") + part;
  // Only a time to wait: it was waited, whatever the clock adds for a busy machine.
  if (answer.empty()) return "waited " + withSeconds(seconds);
  return answer + " (after " + withSeconds(took) + ")";
}

Json Browser::inTopPage(const std::shared_ptr<Tab>& tab, const RefPlace& place, Json box) {
  if (place.frame.empty()) return box;
  // Its centre through the frames to the top page's viewport, then the top page's scroll.
  double width = box.value("width", 0.0), height = box.value("height", 0.0);
  Json scrolled = inFrame(place.session, place.frame, "[scrollX, scrollY]");
  auto [x, y] = toTop(tab, place.frame, box.value("x", 0.0) - scrolled[0].get<double>() + width / 2,
                      box.value("y", 0.0) - scrolled[1].get<double>() + height / 2, "");
  Json top = inWorld(tab, "[scrollX, scrollY]");
  box["x"] = x - width / 2 + top[0].get<double>();
  box["y"] = y - height / 2 + top[1].get<double>();
  return box;
}

Json Browser::screenshot(const Json& params) {
  auto tab = tabFor(params);
  Json shot = {{"format", "png"}};
  std::string ref = stringParam(params, "ref");
  bool full = flagParam(params, "full");
  // Labels unless asked not to; never on a whole page or one element.
  bool labels = !(params.contains("labels") && !flagParam(params, "labels")) && !full && ref.empty();
  if (!ref.empty()) {
    RefPlace place = refPlace(tab, ref);
    Json box = inPlace(tab, place, pageCall("pictureBox", place.number));
    if (box.value("gone", false)) throw Failure("ref " + ref + " is no longer on the page");
    double width = box.value("width", 0.0), height = box.value("height", 0.0);
    if (width < 1 || height < 1) throw Failure("ref " + ref + " isn't visible");
    box = inTopPage(tab, place, box);
    shot["clip"] = {{"x", box.value("x", 0.0)}, {"y", box.value("y", 0.0)},
                    {"width", width}, {"height", std::min(height, 16000.0)}, {"scale", 1}};
    shot["captureBeyondViewport"] = true;
  } else if (full) {
    Json metrics = call("Page.getLayoutMetrics", Json::object(), tab->session);
    const Json& size = metrics["cssContentSize"];
    // Past about 16,000 px Chromium's images come out blank: a very long page stops there.
    double width = std::ceil(std::max(1.0, size.value("width", 1.0)));
    double height = std::ceil(std::clamp(size.value("height", 1.0), 1.0, 16000.0));
    shot["captureBeyondViewport"] = true;
    shot["clip"] = {{"x", 0}, {"y", 0}, {"width", width}, {"height", height}, {"scale", 1}};
  }
  if (!labels) {
    Json taken = call("Page.captureScreenshot", shot, tab->session, std::chrono::seconds(60));
    return {{"png", taken.value("data", "")}};
  }
  std::string refs = snapshotText(tab, "viewport");
  // Each frame of another origin draws its own, inside it.
  inWorld(tab, pageCall("drawLabels"), Library::page);
  inFrames(tab, pageCall("drawLabels"));
  Json taken;
  try {
    taken = call("Page.captureScreenshot", shot, tab->session, std::chrono::seconds(60));
  } catch (...) {
    inWorld(tab, pageCall("removeLabels"), Library::page);
    inFrames(tab, pageCall("removeLabels"));
    throw;
  }
  inWorld(tab, pageCall("removeLabels"), Library::page);
  inFrames(tab, pageCall("removeLabels"));
  return {{"png", taken.value("data", "")}, {"refs", refs}};
}

Json Browser::console(const Json& params) {
  auto tab = tabFor(params);
  std::string level = stringParam(params, "level");
  double limit = numberParam(params, "limit", 0);
  std::vector<std::string> lines;
  size_t dropped;
  {
    std::lock_guard<std::mutex> guard(tab->lock);
    dropped = tab->consoleDropped;
    for (auto& [kind, line] : tab->console) {
      if (level == "error" && kind != "error") continue;
      if (level == "warn" && kind != "error" && kind != "warn") continue;
      lines.push_back(line);
    }
    if (flagParam(params, "clear")) {
      tab->console.clear();
      tab->consoleDropped = 0;
    }
  }
  return listing(std::move(lines), dropped, limit, "lines",
                 level == "error"  ? "no errors since the page loaded"
                 : level == "warn" ? "no errors or warnings since the page loaded"
                                   : "nothing logged since the page loaded");
}

Json Browser::emulate(const Json& params) {
  auto tab = tabFor(params);
  std::string scheme = stringParam(params, "color_scheme"), media = stringParam(params, "media");
  if (!scheme.empty() && scheme != "dark" && scheme != "light" && scheme != "system")
    throw Failure("color_scheme takes dark, light or system");
  if (!media.empty() && media != "print" && media != "screen")
    throw Failure("media takes print or screen");
  bool sized = params.contains("width") || params.contains("height");
  double width = numberParam(params, "width", 0), height = numberParam(params, "height", 0);
  if (sized && (width < 1 || height < 1 || width > 10000 || height > 10000))
    throw Failure("width and height take CSS px from 1 to 10000");
  std::string inForceScheme, inForceMedia;
  int inForceWidth, inForceHeight;
  {
    // Never held across a call: the reader thread takes this lock for the tab's events.
    std::lock_guard<std::mutex> guard(tab->lock);
    if (!scheme.empty()) tab->colorScheme = scheme == "system" ? "" : scheme;
    if (!media.empty()) tab->media = media == "screen" ? "" : media;
    if (sized) {
      tab->width = int(width);
      tab->height = int(height);
    }
    inForceScheme = tab->colorScheme;
    inForceMedia = tab->media;
    inForceWidth = tab->width;
    inForceHeight = tab->height;
  }
  call("Emulation.setEmulatedMedia",
       {{"media", inForceMedia},
        {"features", Json::array({{{"name", "prefers-color-scheme"}, {"value", inForceScheme}}})}},
       tab->session);
  if (sized)
    call("Emulation.setDeviceMetricsOverride",
         {{"width", inForceWidth}, {"height", inForceHeight}, {"deviceScaleFactor", 0}, {"mobile", false}},
         tab->session);
  return "in force: color scheme " + (inForceScheme.empty() ? "system" : inForceScheme) +
         ", media " + (inForceMedia.empty() ? "screen" : inForceMedia) + ", screen " +
         (inForceWidth ? std::to_string(inForceWidth) + "x" + std::to_string(inForceHeight) + " px"
                       : std::string("the window's"));
}

Json Browser::storage(const Json& params) {
  auto tab = tabFor(params);
  Json info = call("Target.getTargetInfo", {{"targetId", tab->targetId}});
  std::string address = info["targetInfo"].value("url", "");
  Json cookies = call("Network.getCookies", {{"urls", Json::array({address})}}, tab->session)
                     .value("cookies", Json::array());
  // Keys and sizes only: values are the site's secrets as often as not.
  Json stored = inWorld(tab, "(() => { const read = (s) => { try { return Object.keys(s).map((k) => "
                             "[k, String(s.getItem(k)).length]); } catch (e) { return null; } }; "
                             "return [location.origin, read(localStorage), read(sessionStorage)]; })()");
  std::string origin = stored.is_array() ? stored[0].get<std::string>() : address;
  auto keys = [](const Json& list) {
    std::string out;
    if (!list.is_array()) return std::string("not available to this page");
    for (const Json& pair : list)
      out += (out.empty() ? "" : ", ") + pair[0].get<std::string>() + " (" +
             std::to_string(pair[1].get<long>()) + " characters)";
    return out.empty() ? std::string("none") : out;
  };
  if (flagParam(params, "clear")) {
    for (const Json& cookie : cookies)
      call("Network.deleteCookies", {{"name", cookie.value("name", "")}, {"domain", cookie.value("domain", "")},
                                     {"path", cookie.value("path", "/")}},
           tab->session);
    inWorld(tab, "(() => { try { localStorage.clear(); sessionStorage.clear(); } catch (e) {} return true; })()");
    size_t local = stored.is_array() && stored[1].is_array() ? stored[1].size() : 0;
    size_t session = stored.is_array() && stored[2].is_array() ? stored[2].size() : 0;
    return "removed " + std::to_string(cookies.size()) + " cookies, " + std::to_string(local) +
           " localStorage keys and " + std::to_string(session) + " sessionStorage keys of " + origin;
  }
  std::string answer = "cookies for " + address + ":";
  if (cookies.empty()) answer += " none";
  for (const Json& cookie : cookies) {
    answer += "\n  " + cookie.value("name", "") + ": domain " + cookie.value("domain", "") + ", path " +
              cookie.value("path", "/");
    if (cookie.value("secure", false)) answer += ", secure";
    if (cookie.value("httpOnly", false)) answer += ", httpOnly";
    if (cookie.contains("sameSite")) answer += ", sameSite " + cookie.value("sameSite", "");
    if (cookie.value("session", false)) {
      answer += ", until the browser closes";
    } else {
      time_t expires = time_t(cookie.value("expires", 0.0));
      char day[32];
      std::strftime(day, sizeof day, "%Y-%m-%d", std::gmtime(&expires));
      answer += std::string(", expires ") + day;
    }
  }
  answer += "\nlocalStorage of " + origin + ": " + keys(stored.is_array() ? stored[1] : Json());
  answer += "\nsessionStorage: " + keys(stored.is_array() ? stored[2] : Json());
  return answer;
}

Json Browser::ask(const Json& params) {
  auto tab = tabFor(params);
  std::string message = stringParam(params, "message");
  if (message.empty()) throw Failure("ask takes the message to show the person");
  // Whether anyone watches a browser that runs elsewhere is the pool's to know, not ours.
  if (settings.remote())
    throw Failure("asking the person isn't available when the browser runs elsewhere "
                  "(NUREL_CDP_URL)");
  if (!settings.headed)
    throw Failure("no one is watching this browser: it runs without a window. Start it with one "
                  "(NUREL_HEADED=1, with a display) for a person to answer");
  double minutes = numberParam(params, "timeout", 10);
  if (minutes <= 0) minutes = 10;
  minutes = std::min(minutes, 30.0);
  {
    std::lock_guard<std::mutex> guard(tab->lock);
    if (tab->asking) throw Failure(tab->id + " is already waiting for the person");
    tab->asking = true;
  }
  struct Done {
    Browser* browser;
    std::shared_ptr<Tab> tab;
    ~Done() {
      {
        std::lock_guard<std::mutex> guard(tab->lock);
        tab->asking = false;
      }
      try {
        browser->inWorld(tab, "globalThis.__nurelBanner && globalThis.__nurelBanner.hide('ask')");
      } catch (const std::exception&) {
        // The tab went, and the banner with it.
      }
    }
  } done{this, tab};
  call("Page.bringToFront", Json::object(), tab->session);
  inWorld(tab, "globalThis.__nurelBanner && (globalThis.__nurelBanner.answered = '')");
  // Shown again whenever it is gone: the person may go to another page to do what was asked.
  std::string poll = "(() => { const own = globalThis.__nurelBanner; if (own && own.answer()) return own.answer(); "
                     "if (!own || !own.showing('ask')) (" + std::string(scripts::banner) + ")('ask', " +
                     quote(message) + ", 0); return ''; })()";
  auto deadline = Clock::now() + std::chrono::milliseconds(int64_t(minutes * 60000));
  while (true) {
    Json answer;
    try {
      answer = inWorld(tab, poll);
    } catch (const Failure&) {
      // Between two documents: the next look finds the new one.
    }
    if (answer == "done") return "the person says it's done";
    if (answer == "cant") return "the person says they can't do it";
    {
      std::unique_lock<std::mutex> guard(tab->lock);
      if (tab->gone) throw Failure("the tab " + tab->id + " closed while the person was asked");
      if (Clock::now() >= deadline) break;
      tab->changed.wait_for(guard, std::chrono::milliseconds(300));
    }
  }
  std::ostringstream said;
  said << "the person didn't answer in " << minutes << (minutes == 1 ? " minute" : " minutes");
  return said.str();
}

void Browser::showIntent(const std::shared_ptr<Tab>& tab, const std::string& intent) {
  try {
    inWorld(tab, "(" + std::string(scripts::banner) + ")('intent', " + quote(intent) + ", 4)");
  } catch (const std::exception&) {
    // Shown or not, the action goes on.
  }
}

Json Browser::network(const Json& params) {
  auto tab = tabFor(params);
  std::string filter = stringParam(params, "filter");
  bool failed = flagParam(params, "failed");
  double limit = numberParam(params, "limit", 0);
  std::vector<Tab::Request> shown;
  size_t dropped;
  {
    std::lock_guard<std::mutex> guard(tab->lock);
    dropped = tab->requestsDropped;
    if (params.contains("request")) {
      int wanted = int(numberParam(params, "request", 0));
      for (auto& request : tab->requestLog) {
        if (request.number != wanted) continue;
        Json detail = {{"number", request.number}, {"method", request.method},
                       {"url", maskedAddress(request.url)}, {"status", request.status},
                       {"request headers", maskedHeaders(request.requestHeaders)},
                       {"response headers", maskedHeaders(request.responseHeaders)}};
        if (!request.error.empty()) detail["error"] = request.error;
        return detail;
      }
      throw Failure("no request " + std::to_string(wanted) + " in " + tab->id);
    }
    for (auto& request : tab->requestLog) {
      if (!filter.empty() && request.url.find(filter) == std::string::npos) continue;
      if (failed && request.error.empty() && request.status < 400) continue;
      shown.push_back(request);
    }
    if (flagParam(params, "clear")) {
      tab->requestLog.clear();
      tab->requestsDropped = 0;
    }
  }
  std::vector<std::string> lines;
  for (auto& request : shown) {
    std::string line = "#" + std::to_string(request.number) + " " + request.method + " ";
    line += !request.error.empty() ? request.error
            : request.status      ? std::to_string(request.status)
                                  : std::string("pending");
    std::string type = request.type;
    std::transform(type.begin(), type.end(), type.begin(), ::tolower);
    if (!type.empty()) line += " " + type;
    if (request.ended > 0 && request.bytes > 0) line += " " + std::to_string(long(request.bytes)) + " B";
    if (request.ended > 0 && request.started > 0)
      line += " " + std::to_string(long((request.ended - request.started) * 1000)) + " ms";
    lines.push_back(line + " " + maskedAddress(request.url));
  }
  return listing(std::move(lines), dropped, limit, "requests",
                 failed ? "no failed requests" : "no requests");
}

Json Browser::pdf(const Json& params) {
  auto tab = tabFor(params);
  Json metrics = call("Page.getLayoutMetrics", Json::object(), tab->session);
  const Json& size = metrics["cssContentSize"];
  const Json& view = metrics["cssLayoutViewport"];
  // One page as wide as the screen and as long as the page (a PDF page ends at 200 inches).
  double width = std::max(1.0, view.value("clientWidth", 1280.0)) / 96.0;
  double height = std::clamp(size.value("height", 800.0) / 96.0, 1.0, 200.0);
  std::string restore;  // the tab's own emulated media, put back afterwards
  {
    std::lock_guard<std::mutex> guard(tab->lock);
    restore = tab->media;
  }
  call("Emulation.setEmulatedMedia", {{"media", "screen"}}, tab->session);
  Json printed;
  try {
    printed = call("Page.printToPDF",
                   {{"printBackground", true}, {"paperWidth", width}, {"paperHeight", height},
                    {"marginTop", 0}, {"marginBottom", 0}, {"marginLeft", 0}, {"marginRight", 0},
                    {"preferCSSPageSize", false}},
                   tab->session, std::chrono::seconds(60));
  } catch (...) {
    call("Emulation.setEmulatedMedia", {{"media", restore}}, tab->session);
    throw;
  }
  call("Emulation.setEmulatedMedia", {{"media", restore}}, tab->session);
  Json info = call("Target.getTargetInfo", {{"targetId", tab->targetId}});
  return {{"pdf", printed.value("data", "")}, {"title", info["targetInfo"].value("title", "")}};
}

}  // namespace nurel::browser

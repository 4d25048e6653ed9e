// browser/acting.cpp: snapshots with refs, and acting on them with real input events.
//
// A ref is a number the page's own world keeps for one element of one document; the back end
// knows which document each number was given in, so that a ref from an earlier page is refused
// rather than matched to whatever now stands there.
#include <algorithm>
#include <cmath>
#include <sstream>
#include <thread>

#include "browser/browser.h"
#include "catalogue/catalogue.h"
#include "catalogue/commands.h"
#include "browser/scripts.h"

namespace nurel::browser {

namespace {

// The nearest whole number, halves away from zero, as std::round gives (0 for NaN). Written
// out because round and lround were all nurel-browser took from the maths library, which costs
// each back end 0.3 MiB resident.
double nearest(double x) {
  if (std::isnan(x)) return 0;
  double within = std::clamp(x, -4.5e15, 4.5e15);
  return static_cast<double>(static_cast<int64_t>(within < 0 ? within - 0.5 : within + 0.5));
}

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

// Snapshots longer than this are cut, with a line that says how to get less or all of it.
constexpr size_t snapshotLimit = 40000;

// An action's answer waits for its effects: until the requests it started have ended and the
// page has been still for `stillFor` since its last change, input or response. A page that never
// stops changing is answered `settleMost` after its input (and `stillFor` after a response). The
// requests are followed by their events and the rest is counted in the page's own time, so a
// busy machine gives the same answer, only later. A click that changes the page at once is answered in about
// `stillFor`; a fixed wait of 150 ms made each click about 200 ms (bench/README.md, figure 3).
constexpr int settleMost = 150;  // ms
constexpr int stillFor = 50;     // ms

struct KeyInfo {
  std::string key, code;
  int keyCode = 0;
  std::string text;
};

// A key by the name the tools use ("enter", "f5", "a", "é").
std::optional<KeyInfo> keyNamed(const std::string& name) {
  static const std::map<std::string, KeyInfo> named = {
      {"enter", {"Enter", "Enter", 13, "\r"}},      {"return", {"Enter", "Enter", 13, "\r"}},
      {"tab", {"Tab", "Tab", 9, ""}},               {"space", {" ", "Space", 32, " "}},
      {"escape", {"Escape", "Escape", 27, ""}},     {"esc", {"Escape", "Escape", 27, ""}},
      {"backspace", {"Backspace", "Backspace", 8, ""}}, {"delete", {"Delete", "Delete", 46, ""}},
      {"up", {"ArrowUp", "ArrowUp", 38, ""}},       {"down", {"ArrowDown", "ArrowDown", 40, ""}},
      {"left", {"ArrowLeft", "ArrowLeft", 37, ""}}, {"right", {"ArrowRight", "ArrowRight", 39, ""}},
      {"home", {"Home", "Home", 36, ""}},           {"end", {"End", "End", 35, ""}},
      {"pageup", {"PageUp", "PageUp", 33, ""}},     {"pagedown", {"PageDown", "PageDown", 34, ""}},
  };
  std::string lower = name;
  std::transform(lower.begin(), lower.end(), lower.begin(), ::tolower);
  if (auto found = named.find(lower); found != named.end()) return found->second;
  if (lower.size() >= 2 && lower.size() <= 3 && lower[0] == 'f' &&
      std::all_of(lower.begin() + 1, lower.end(), ::isdigit)) {
    int number = std::stoi(lower.substr(1));
    if (number >= 1 && number <= 12)
      return KeyInfo{"F" + std::to_string(number), "F" + std::to_string(number), 111 + number, ""};
  }
  // One character: its own key.
  size_t length = name.empty() ? 0 : (static_cast<unsigned char>(name[0]) < 0x80 ? 1
                                      : (static_cast<unsigned char>(name[0]) >> 5) == 6 ? 2
                                      : (static_cast<unsigned char>(name[0]) >> 4) == 14 ? 3 : 4);
  if (length == 0 || length != name.size()) return std::nullopt;
  KeyInfo info{name, "", 0, name};
  if (length == 1) {
    char c = name[0];
    if (std::isalpha(static_cast<unsigned char>(c))) {
      info.code = std::string("Key") + char(std::toupper(c));
      info.keyCode = std::toupper(c);
    } else if (std::isdigit(static_cast<unsigned char>(c))) {
      info.code = std::string("Digit") + c;
      info.keyCode = c;
    }
  }
  return info;
}

// What an action's answer adds when the page opened a dialog meanwhile.
std::string dialogOpened(const Json& dialog) {
  return "; a dialog opened: " + dialogNamed(dialog) + ": answer it with dialog (accept or dismiss)";
}

std::string seconds(std::chrono::seconds limit) { return std::to_string(limit.count()) + " s"; }

// The lines of `now` against those of `before`: what was added (+), removed (-) and kept.
std::string difference(const std::string& before, const std::string& now) {
  auto split = [](const std::string& text) {
    std::vector<std::string> lines;
    std::stringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  };
  std::vector<std::string> a = split(before), b = split(now);
  // Longest common subsequence of lines, on the part that differs; pages of tens of thousands
  // of lines change mostly in one place, so the common ends are taken off first.
  size_t head = 0;
  while (head < a.size() && head < b.size() && a[head] == b[head]) ++head;
  size_t tail = 0;
  while (tail < a.size() - head && tail < b.size() - head &&
         a[a.size() - 1 - tail] == b[b.size() - 1 - tail])
    ++tail;
  std::vector<std::string> x(a.begin() + long(head), a.end() - long(tail));
  std::vector<std::string> y(b.begin() + long(head), b.end() - long(tail));
  std::string out;
  size_t added = 0, removed = 0;
  if (x.size() * y.size() > 25'000'000) {
    // Too much changed to pair lines up: all of it, as removed and added.
    for (auto& line : x) out += "-" + line + "\n", ++removed;
    for (auto& line : y) out += "+" + line + "\n", ++added;
  } else {
    std::vector<std::vector<uint32_t>> common(x.size() + 1, std::vector<uint32_t>(y.size() + 1));
    for (size_t i = x.size(); i-- > 0;)
      for (size_t j = y.size(); j-- > 0;)
        common[i][j] = x[i] == y[j] ? common[i + 1][j + 1] + 1
                                    : std::max(common[i + 1][j], common[i][j + 1]);
    size_t i = 0, j = 0;
    while (i < x.size() || j < y.size()) {
      if (i < x.size() && j < y.size() && x[i] == y[j]) {
        ++i, ++j;
      } else if (j < y.size() && (i == x.size() || common[i][j + 1] >= common[i + 1][j])) {
        out += "+" + y[j++] + "\n", ++added;
      } else {
        out += "-" + x[i++] + "\n", ++removed;
      }
    }
  }
  if (added == 0 && removed == 0) return "nothing changed since the last snapshot";
  return std::to_string(added) + " lines added (+), " + std::to_string(removed) +
         " removed (-) since the last snapshot:\n" + out.substr(0, out.size() - 1);
}

}  // namespace

void Browser::recordRefs(const std::shared_ptr<Tab>& tab, int used, const std::string& frame,
                         const std::string& frameLoader) {
  if (used <= 0) return;
  std::lock_guard<std::mutex> guard(tab->lock);
  tab->refDocuments[tab->nextRef] = {tab->loader, frame, frameLoader};
  tab->nextRef += used;
}

std::string Browser::snapshotText(const std::shared_ptr<Tab>& tab, const std::string& mode, int* hidden) {
  Json taken = snapshotOf(tab, tab->session, tab->targetId, {}, mode);
  std::string text = taken.value("text", "");
  int left = taken.value("hidden", 0);
  if (int frames = taken.value("frames", 0); frames > 0)
    text = withFrames(tab, tab->session, tab->targetId, text, frames, mode, 1, left);
  if (hidden) *hidden = left;
  return text.empty() ? "the page is empty" : text;
}

namespace {

// The frame `id` in a tree of Page.getFrameTree, or null.
const Json* frameIn(const Json& tree, const std::string& id) {
  if (!tree.is_object()) return nullptr;
  auto frame = tree.find("frame");
  if (frame != tree.end() && frame->is_object() && frame->value("id", "") == id) return &*frame;
  auto children = tree.find("childFrames");
  if (children == tree.end() || !children->is_array()) return nullptr;
  for (const Json& child : *children)
    if (const Json* found = frameIn(child, id)) return found;
  return nullptr;
}

// Sends the commands at once and waits for each answer: the answers in order, null for a
// command that failed or took longer than `most` (a node gone meanwhile).
std::vector<Json> eachAnswer(Cdp& cdp, const std::vector<Cdp::Command>& commands,
                             const std::string& session, std::chrono::milliseconds most) {
  std::vector<std::shared_ptr<Cdp::Pending>> asked;
  for (auto& [method, params] : commands) asked.push_back(cdp.start(method, params, session));
  std::vector<Json> answers;
  for (auto& reply : asked) {
    try {
      if (cdp.wait(reply, most)) {
        answers.push_back(reply->result);
        continue;
      }
      cdp.forget(reply);
    } catch (const CdpError&) {
    }
    answers.push_back(nullptr);
  }
  return answers;
}

// The frames of other origins that snapshots read: (session, frame id).
std::set<std::pair<std::string, std::string>> framesRead(Tab& tab) {
  std::lock_guard<std::mutex> guard(tab.lock);
  return tab.readFrames;
}

}  // namespace

void Browser::inFrames(const std::shared_ptr<Tab>& tab, const std::string& expression,
                       const std::function<bool(const Json&)>& each) {
  auto frames = framesRead(*tab);
  for (auto& [session, frame] : frames) {
    try {
      // A frame busy with a script of its own doesn't hold the action up.
      Json value = inFrame(session, frame, expression, 2s);
      if (each && !each(value)) return;
    } catch (const CdpError&) {
      std::lock_guard<std::mutex> guard(tab->lock);
      tab->readFrames.erase({session, frame});
    } catch (const NoAnswer&) {
      std::lock_guard<std::mutex> guard(tab->lock);
      tab->readFrames.erase({session, frame});
    } catch (const Failure&) {
    }
  }
}

std::string Browser::frameSession(const std::shared_ptr<Tab>& tab, const std::string& frame) {
  std::lock_guard<std::mutex> guard(tab->lock);
  std::string at = frame;
  // A frame of this process is in the session of the nearest frame above it that has one.
  for (int depth = 0; depth < 32 && at != tab->targetId; ++depth) {
    if (auto found = tab->frameSessions.find(at); found != tab->frameSessions.end())
      return found->second;
    auto parent = tab->frameParents.find(at);
    if (parent == tab->frameParents.end()) break;
    at = parent->second;
  }
  return tab->session;
}

int Browser::frameWorld(const std::string& session, const std::string& frame,
                        std::chrono::milliseconds most) {
  if (most.count() == 0) most = std::chrono::duration_cast<std::chrono::milliseconds>(settings.scriptTime);
  // Chromium keeps one world of a name in each document: asking again finds the same.
  Json made = call("Page.createIsolatedWorld", {{"frameId", frame}, {"worldName", worldName}},
                   session, most);
  int context = made.value("executionContextId", 0);
  Json there = call("Runtime.evaluate",
                    {{"expression", "typeof __nurel === 'object'"}, {"contextId", context},
                     {"returnByValue", true}},
                    session, most);
  if (!there["result"].value("value", false))
    call("Runtime.evaluate", {{"expression", std::string(scripts::page)}, {"contextId", context}},
         session, most);
  return context;
}

Json Browser::inFrame(const std::string& session, const std::string& frame,
                      const std::string& expression, std::chrono::milliseconds most) {
  auto timeout = most.count() ? most : std::chrono::duration_cast<std::chrono::milliseconds>(settings.scriptTime);
  Json answer = call("Runtime.evaluate",
                     {{"expression", expression},
                      {"contextId", frameWorld(session, frame, most)},
                      {"returnByValue", true},
                      {"awaitPromise", true},
                      {"timeout", timeout.count()}},
                     session, most.count() ? most : timeout + 5s);
  if (auto details = answer.find("exceptionDetails"); details != answer.end())
    throw Failure("couldn't read the page: " +
                  (*details).value("text", std::string("an exception")));
  return answer["result"].value("value", Json());
}

// Closed shadow roots: no element of the page gives them, but DevTools does. Asking it for the
// whole tree (DOM.getDocument with depth -1 and pierce) took 180-300 ms on the saved real pages
// (2,000 to 4,000 elements) where page.js walks them in 10-40 ms; so the walk names the
// elements that may hold one as it goes (5 to 110 on those pages, each named once in its
// document's life), only those are asked about, all at once (about 10 ms, once), and the closed
// roots they hold are handed to the world, which walks them from then on. A hook on
// attachShadow can't do it: our world doesn't see the page's calls, and a hook in the page's
// own world would be the page's to see and undo.
bool Browser::askClosedRoots(const std::string& session, const std::string& frame) {
  std::shared_ptr<Engine> running = engine();
  int context = frameWorld(session, frame);
  Json list = call("Runtime.evaluate",
                   {{"expression", pageCall("hostsToAsk")}, {"contextId", context},
                    {"objectGroup", "nurel-roots"}},
                   session);
  Json items = call("Runtime.getProperties",
                    {{"objectId", list["result"].value("objectId", "")}, {"ownProperties", true}},
                    session);
  std::vector<Cdp::Command> asked;
  for (const Json& item : items.value("result", Json::array())) {
    auto value = item.find("value");
    if (value == item.end() || value->value("subtype", "") != "node") continue;
    asked.push_back({"DOM.describeNode", {{"objectId", value->value("objectId", "")}}});
  }
  std::vector<int> roots;
  for (const Json& described : eachAnswer(*running->cdp, asked, session, 10s)) {
    if (described.is_null()) continue;  // gone meanwhile
    const Json& node = described["node"];
    for (const Json& root : node.value("shadowRoots", Json::array()))
      if (root.value("shadowRootType", "") == "closed") roots.push_back(root.value("backendNodeId", 0));
  }
  bool handed = false;
  for (int root : roots) {
    try {
      Json object = call("DOM.resolveNode",
                         {{"backendNodeId", root}, {"executionContextId", context},
                          {"objectGroup", "nurel-roots"}},
                         session);
      call("Runtime.callFunctionOn",
           {{"functionDeclaration", "function () { return __nurel.keepClosedRoot(this); }"},
            {"objectId", object["object"].value("objectId", "")}},
           session);
      handed = true;
    } catch (const CdpError&) {
    }
  }
  call("Runtime.releaseObjectGroup", {{"objectGroup", "nurel-roots"}}, session);
  return handed;
}

// What reacts to a double click (a label that becomes a field): the page's listeners are out of
// our world's sight, but DevTools lists them for the whole document in one call (2 ms on a
// to-do app, 16 ms on the largest saved page), and the elements that have one are handed to
// the world, which gives them refs.
void Browser::askDoubleClicks(const std::string& session, int context) {
  std::shared_ptr<Engine> running = engine();
  Json document = call("Runtime.evaluate",
                       {{"expression", "document"}, {"contextId", context}, {"objectGroup", "nurel-clicks"}},
                       session);
  Json listeners = call("DOMDebugger.getEventListeners",
                        {{"objectId", document["result"].value("objectId", "")}, {"depth", -1}, {"pierce", true}},
                        session);
  std::set<int> nodes;
  for (const Json& listener : listeners.value("listeners", Json::array()))
    if (listener.value("type", "") == "dblclick" && listener.value("backendNodeId", 0) > 0 && nodes.size() < 500)
      nodes.insert(listener.value("backendNodeId", 0));
  std::vector<Cdp::Command> asked;
  for (int node : nodes)
    asked.push_back({"DOM.resolveNode",
                     {{"backendNodeId", node}, {"executionContextId", context}, {"objectGroup", "nurel-clicks"}}});
  Json elements = Json::array();
  for (const Json& resolved : eachAnswer(*running->cdp, asked, session, 10s)) {
    std::string object = resolved.is_null() ? "" : resolved["object"].value("objectId", "");
    if (!object.empty()) elements.push_back({{"objectId", object}});
  }
  if (!elements.empty())
    call("Runtime.callFunctionOn",
         {{"functionDeclaration", "function (...found) { return __nurel.keepDoubleClicks(found); }"},
          {"objectId", document["result"].value("objectId", "")},
          {"arguments", elements}},
         session);
  call("Runtime.releaseObjectGroup", {{"objectGroup", "nurel-clicks"}}, session);
}

Json Browser::snapshotOf(const std::shared_ptr<Tab>& tab, const std::string& session,
                         const std::string& frame, const std::string& frameLoader,
                         const std::string& mode, std::chrono::milliseconds most) {
  bool top = frame == tab->targetId;
  try {
    askDoubleClicks(session, top ? worldOf(tab, Library::page) : frameWorld(session, frame, most));
  } catch (const CdpError&) {
    // A document going as we ask: the snapshot says what is there.
  }
  for (int round = 0;; ++round) {
    int base;
    {
      std::lock_guard<std::mutex> guard(tab->lock);
      base = tab->nextRef;
    }
    std::string expression = pageCall("snapshot", mode, base);
    Json taken = top ? inWorld(tab, expression, Library::page) : inFrame(session, frame, expression, most);
    recordRefs(tab, taken.value("used", 0), top ? "" : frame, frameLoader);
    // Closed roots found on the way: once more with what is in them (and roots within those).
    if (taken.value("hosts", 0) <= 0 || round == 3 || !askClosedRoots(session, frame)) return taken;
  }
}

void Browser::attachFrames(const std::shared_ptr<Tab>& tab, const std::string& session) {
  {
    std::lock_guard<std::mutex> guard(tab->lock);
    if (!tab->attaching.insert(session).second) return;
  }
  // Chromium answers after telling of the frames already there.
  auto [method, params] = frameAutoAttach();
  call(method, params, session);
}

Cdp::Command Browser::frameAutoAttach() {
  return {"Target.setAutoAttach",
          {{"autoAttach", true}, {"waitForDebuggerOnStart", false}, {"flatten", true},
           {"filter", Json::array({{{"type", "iframe"}}})}}};
}

std::string Browser::withFrames(const std::shared_ptr<Tab>& tab, const std::string& session,
                                const std::string& frame, const std::string& text, int count,
                                const std::string& mode, int depth, int& hidden) {
  std::vector<std::string> inner(size_t(std::min(count, 200)));
  int context = frameWorld(session, frame);
  for (size_t i = 0; i < inner.size(); ++i) {
    try {
      Json owner = call("Runtime.evaluate",
                        {{"expression", pageCall("frameOwner", i)},
                         {"contextId", context}, {"objectGroup", "nurel-frames"}},
                        session);
      std::string object = owner["result"].value("objectId", "");
      if (object.empty()) continue;
      std::string child = call("DOM.describeNode", {{"objectId", object}}, session)["node"]
                              .value("frameId", "");
      if (child.empty()) continue;
      std::string childSession = frameSession(tab, child);
      {
        std::lock_guard<std::mutex> guard(tab->lock);
        tab->frameParents[child] = frame;
        if (tab->frameSessions.count(child) == 0) childSession = session;
      }
      // A frame whose address didn't load shows Chromium's error page: not the page's. One busy
      // with a script of its own is left out after a moment.
      Json tree = call("Page.getFrameTree", Json::object(), childSession, 5s);
      const Json* found = frameIn(tree["frameTree"], child);
      if (!found || found->contains("unreachableUrl") ||
          found->value("url", "").rfind("chrome-error:", 0) == 0)
        continue;
      std::string loader = found->value("loaderId", "");
      if (childSession != session) attachFrames(tab, childSession);
      {
        std::lock_guard<std::mutex> guard(tab->lock);
        tab->readFrames.emplace(childSession, child);
      }
      Json taken = snapshotOf(tab, childSession, child, loader, mode, 5s);
      std::string said = taken.value("text", "");
      hidden += taken.value("hidden", 0);
      if (int frames = taken.value("frames", 0); frames > 0 && depth < 8)
        said = withFrames(tab, childSession, child, said, frames, mode, depth + 1, hidden);
      inner[i] = said;
    } catch (const CdpError&) {
      // The frame went, or has no document yet: it shows nothing.
    } catch (const NoAnswer&) {
      // A frame whose page is busy: the rest of the page is still worth having.
      inner[i] = "- text: (the frame didn't answer: busy with a script of its own)";
    } catch (const Failure&) {
    }
  }
  try {
    call("Runtime.releaseObjectGroup", {{"objectGroup", "nurel-frames"}}, session);
  } catch (const CdpError&) {
  }
  // Each frame's lines go in place of its mark, indented as deep as the mark.
  std::string out;
  std::stringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    size_t start = line.find_first_not_of(' ');
    if (start == std::string::npos || line[start] != '\x01') {
      out += line + "\n";
      continue;
    }
    size_t index = size_t(std::atoi(line.c_str() + start + 1));
    if (index >= inner.size()) continue;
    std::stringstream said(inner[index]);
    for (std::string part; std::getline(said, part);) out += line.substr(0, start) + part + "\n";
  }
  if (!out.empty()) out.pop_back();
  return out;
}

std::pair<double, double> Browser::toTop(const std::shared_ptr<Tab>& tab, const std::string& frame,
                                         double x, double y, const std::string& label) {
  std::string inner = frame;
  for (int depth = 0; depth < 32 && inner != tab->targetId; ++depth) {
    std::string outer;
    {
      std::lock_guard<std::mutex> guard(tab->lock);
      auto parent = tab->frameParents.find(inner);
      if (parent == tab->frameParents.end()) break;
      outer = parent->second;
    }
    std::string session = frameSession(tab, outer);
    int context = frameWorld(session, outer);
    Json owner = call("DOM.getFrameOwner", {{"frameId", inner}}, session);
    Json object = call("DOM.resolveNode",
                       {{"backendNodeId", owner.value("backendNodeId", 0)},
                        {"executionContextId", context}, {"objectGroup", "nurel-frames"}},
                       session);
    Json at = call("Runtime.callFunctionOn",
                   {{"functionDeclaration", "function (x, y) { return __nurel.inFrame(this, x, y); }"},
                    {"objectId", object["object"].value("objectId", "")},
                    {"arguments", Json::array({{{"value", x}}, {{"value", y}}})},
                    {"returnByValue", true}},
                   session);
    call("Runtime.releaseObjectGroup", {{"objectGroup", "nurel-frames"}}, session);
    const Json& point = at["result"]["value"];
    if (!point.is_object()) throw Failure(label + " is no longer on the page");
    if (point.contains("covered") && !label.empty())
      throw Failure(label + " is covered by " + point.value("covered", "something"));
    x = point.value("x", 0.0);
    y = point.value("y", 0.0);
    inner = outer;
  }
  return {x, y};
}

std::string snapshotAnswer(const std::string& text, const std::string* last, double limit) {
  std::string answer = last ? difference(*last, text) : text;
  if (limit > 0) {
    bool cut = false;
    size_t total = 0;
    std::string shown = firstCharacters(answer, size_t(std::min(limit, 1e12)), cut, total);
    if (cut) {
      shown.erase(shown.rfind('\n') == std::string::npos ? shown.size() : shown.rfind('\n'));
      answer = shown + "\n[cut at " + std::to_string(size_t(limit)) + " of " +
               std::to_string(total) +
               " characters: take it interactive or viewport for less, or save it to a file for "
               "all of it]";
    }
  }
  return answer;
}

Json Browser::snapshot(const Json& params) {
  auto tab = tabFor(params);
  std::string mode = flagParam(params, "interactive") ? "interactive"
                     : flagParam(params, "viewport")  ? "viewport"
                                                      : "full";
  int hidden = 0;
  std::string text = snapshotText(tab, mode, &hidden);
  std::optional<std::string> last;
  {
    std::lock_guard<std::mutex> guard(tab->lock);
    auto found = tab->lastSnapshot.find(mode);
    if (flagParam(params, "diff") && found != tab->lastSnapshot.end()) last = found->second;
    tab->lastSnapshot[mode] = text;
  }
  double limit = numberParam(params, "limit", double(snapshotLimit));
  // What the page drew where no one sees it is said after all the rest, diff or not.
  return snapshotAnswer(text, last ? &*last : nullptr, limit) + leftOut(hidden);
}

int Browser::refNumber(const std::shared_ptr<Tab>& tab, const std::string& ref) {
  return refPlace(tab, ref).number;
}

Browser::RefPlace Browser::refPlace(const std::shared_ptr<Tab>& tab, const std::string& ref) {
  if (ref.size() < 2 || ref[0] != 'e' || ref.size() > 10 ||
      !std::all_of(ref.begin() + 1, ref.end(), ::isdigit))
    throw Failure(quote(ref) + " isn't a ref: refs look like e12 and come from a snapshot");
  RefPlace place;
  place.ref = ref;
  place.number = std::stoi(ref.substr(1));
  std::string frameLoader;
  {
    std::lock_guard<std::mutex> guard(tab->lock);
    auto run = tab->refDocuments.upper_bound(place.number);
    if (place.number < 1 || place.number >= tab->nextRef || run == tab->refDocuments.begin())
      throw Failure("there is no ref " + ref + " in " + tab->id + ": take a snapshot for refs");
    --run;
    if (run->second.loader != tab->loader)
      throw Failure("ref " + ref + " is from an earlier page: take a new snapshot");
    place.frame = run->second.frame;
    frameLoader = run->second.frameLoader;
  }
  if (place.frame.empty()) return place;
  // The frame's own document must be the one the ref was given in.
  place.session = frameSession(tab, place.frame);
  Json tree = call("Page.getFrameTree", Json::object(), place.session);
  const Json* found = frameIn(tree["frameTree"], place.frame);
  if (!found) throw Failure("ref " + ref + " is no longer on the page");
  if (found->value("loaderId", "") != frameLoader)
    throw Failure("ref " + ref + " is from an earlier page: take a new snapshot");
  return place;
}

Json Browser::inPlace(const std::shared_ptr<Tab>& tab, const RefPlace& place,
                      const std::string& expression) {
  if (place.frame.empty()) return inWorld(tab, expression, Library::page);
  try {
    return inFrame(place.session, place.frame, expression);
  } catch (const CdpError&) {
    // The frame went between the two.
    throw Failure("ref " + place.ref + " is no longer on the page");
  }
}

std::pair<double, double> Browser::targetOf(const std::shared_ptr<Tab>& tab, const std::string& ref,
                                            std::string& label, bool enabled, RefPlace* where) {
  RefPlace place = refPlace(tab, ref);
  Json target = inPlace(tab, place, pageCall("target", place.number));
  if (target.value("gone", false)) throw Failure("ref " + ref + " is no longer on the page");
  label = target.value("label", ref);
  if (target.value("hidden", false)) throw Failure(label + " isn't visible");
  if (enabled && target.value("disabled", false)) throw Failure(label + " is disabled");
  if (target.contains("covered"))
    throw Failure(label + " is covered by " + target.value("covered", "something"));
  if (where) *where = place;
  if (!place.frame.empty())
    return toTop(tab, place.frame, target.value("x", 0.0), target.value("y", 0.0), label);
  return {target.value("x", 0.0), target.value("y", 0.0)};
}

std::pair<double, double> Browser::pointOf(const std::shared_ptr<Tab>& tab, const Json& params,
                                           const char* refName, const char* xName,
                                           const char* yName, std::string& label,
                                           RefPlace* where) {
  std::string ref = stringParam(params, refName);
  if (!ref.empty()) return targetOf(tab, ref, label, true, where);
  if (!params.contains(xName) || !params.contains(yName))
    throw Failure(std::string("give a ref, or ") + xName + " and " + yName);
  double x = numberParam(params, xName, 0), y = numberParam(params, yName, 0);
  // A point is from the page's top left: scroll there first, then act in the screen's terms.
  Json at = inWorld(tab, "(() => { const x = " + std::to_string(x) + ", y = " + std::to_string(y) +
                             "; if (y < scrollY || y >= scrollY + innerHeight || x < scrollX || x >= "
                             "scrollX + innerWidth) scrollTo({left: x - innerWidth / 2, top: y - "
                             "innerHeight / 2, behavior: 'instant'}); return [x - scrollX, y - "
                             "scrollY]; })()");
  std::ostringstream place;
  place << "the point " << x << "," << y;
  label = place.str();
  return {at[0].get<double>(), at[1].get<double>()};
}

Browser::Before Browser::watch(const std::shared_ptr<Tab>& tab, const RefPlace* acted) {
  // The element acted on, when it is in the page's own world.
  int number = acted && acted->frame.empty() ? acted->number : 0;
  inWorld(tab, pageCall("watch", number), Library::page);
  inFrames(tab, pageCall("watch"));
  Before before;
  std::lock_guard<std::mutex> guard(tab->lock);
  before.started = tab->startedLoading;
  before.loads = tab->loads;
  before.same = tab->sameDocument;
  before.documents = tab->documents;
  before.downloads = tab->downloadsStarted;
  before.requests = tab->requests;
  tab->chooser.reset();
  return before;
}

void Browser::input(const std::shared_ptr<Tab>& tab, const std::string& method, const Json& params) {
  std::shared_ptr<Engine> running = engine();
  auto reply = running->cdp->start(method, params, tab->session);
  auto deadline = Clock::now() + 10s;
  while (!running->cdp->wait(reply, 20ms)) {
    std::lock_guard<std::mutex> guard(tab->lock);
    // The page stops at an alert until it is answered, and so does Chromium's reply.
    if (tab->dialog || tab->gone || tab->crashed || Clock::now() > deadline) {
      running->cdp->forget(reply);
      if (tab->dialog || tab->gone || tab->crashed) return;
      throw Failure("Chromium didn't take the input in 10 s");
    }
  }
}

void Browser::mouse(const std::shared_ptr<Tab>& tab, const std::string& type, double x, double y,
                    const std::string& button, int clicks, int buttons) {
  input(tab, "Input.dispatchMouseEvent",
        {{"type", type}, {"x", x}, {"y", y}, {"button", button}, {"buttons", buttons},
         {"clickCount", clicks}});
}

void Browser::settle(const std::shared_ptr<Tab>& tab, const Before& before) {
  // Only a page that doesn't answer at all (the time a script may take) ends the wait early.
  auto deadline = Clock::now() + settings.loadTime;
  auto happened = [&] {
    return tab->dialog || tab->gone || tab->crashed || tab->startedLoading != before.started ||
           tab->sameDocument != before.same || !tab->opened.empty() ||
           tab->downloadsStarted != before.downloads || tab->chooser;
  };
  auto failing = Clock::time_point::max();  // since when the page can't be asked
  // Whether requests the action started are running.
  auto fetching = [&] {
    for (const std::string& request : tab->requests)
      if (!before.requests.count(request)) return true;
    return false;
  };
  for (;;) {
    {
      std::unique_lock<std::mutex> guard(tab->lock);
      bool running = fetching();
      if (tab->changed.wait_until(guard, std::min(deadline, Clock::now() + 10ms), happened) ||
          Clock::now() >= deadline)
        break;
      if (running) continue;
    }
    try {
      Json still = inWorld(tab, pageCall("still"), Library::page);
      auto number = [&](size_t i) {
        bool given = still.is_array() && i < still.size() && still[i].is_number();
        return given ? still[i].get<int>() : settleMost;
      };
      int quietFor = number(0), sinceInput = number(1), sinceResponse = number(2);
      // The page answers after telling of the requests its handlers started before.
      {
        std::lock_guard<std::mutex> guard(tab->lock);
        if (fetching()) continue;
      }
      if (quietFor >= stillFor) break;
      if (sinceInput >= settleMost && sinceResponse >= stillFor) break;
      failing = Clock::time_point::max();
    } catch (const std::exception&) {
      // A document going or a dialog opening: the wait above sees which. A page that can't be
      // asked (an error page, a viewer) has nothing to wait for.
      failing = std::min(failing, Clock::now());
      if (Clock::now() - failing >= std::chrono::milliseconds(settleMost)) break;
    }
  }
}

bool Browser::awaitCommit(const std::shared_ptr<Tab>& tab, const Before& before) {
  // A navigation within the document (a fragment, the history API, the Navigation API) starts
  // and stops loading the frame with no new document in between.
  std::unique_lock<std::mutex> guard(tab->lock);
  tab->changed.wait_until(guard, Clock::now() + settings.loadTime, [&] {
    return tab->documents != before.documents || tab->loads != before.loads || !tab->loading ||
           tab->gone || tab->crashed || tab->dialog || tab->downloadsStarted != before.downloads;
  });
  return tab->documents != before.documents || tab->loads != before.loads || tab->loading;
}

std::string Browser::outcome(const std::shared_ptr<Tab>& tab, const Before& before,
                             const std::string& did, bool intoField) {
  std::vector<std::string> opened;
  bool navigating = false, opening = false;
  settle(tab, before);
  auto stopped = [&]() -> std::optional<std::string> {
    std::lock_guard<std::mutex> guard(tab->lock);
    if (tab->gone) return did + "; the tab closed";
    if (tab->dialog) return did + dialogOpened(*tab->dialog);
    return std::nullopt;
  };
  if (auto line = stopped()) return *line;
  {
    std::lock_guard<std::mutex> guard(tab->lock);
    navigating = tab->startedLoading != before.started;
    opening = !tab->opened.empty();
  }
  if (navigating && !awaitCommit(tab, before)) {
    // It stayed in the document: what the page draws for its new address is waited for as
    // for any change.
    navigating = false;
    Before moved = before;
    {
      std::lock_guard<std::mutex> guard(tab->lock);
      moved.started = tab->startedLoading;
      moved.same = tab->sameDocument;
      opening = !tab->opened.empty();
    }
    settle(tab, moved);
    if (auto line = stopped()) return *line;
  }
  // A tab the page opened becomes the agent's, with an id of its own; others it opens at once
  // are given a moment to show.
  if (opening && !navigating) std::this_thread::sleep_for(50ms);
  {
    std::lock_guard<std::mutex> guard(tab->lock);
    opened.swap(tab->opened);
  }
  std::string answer = did;
  for (const std::string& targetId : opened) {
    try {
      auto fresh = attach(targetId);
      answer += "; a tab opened: " + fresh->id;
    } catch (const std::exception&) {
      // Closed again before we got to it.
    }
  }
  if (navigating) {
    bool loaded;
    {
      // A link to a file starts as a navigation and ends as a download, with no load.
      std::unique_lock<std::mutex> guard(tab->lock);
      loaded = tab->changed.wait_until(guard, Clock::now() + settings.loadTime, [&] {
        return tab->loads != before.loads || tab->gone || tab->crashed || tab->dialog ||
               tab->downloadsStarted != before.downloads;
      });
    }
    if (std::string downloads = downloadsSince(tab, before.downloads); !downloads.empty())
      return answer + downloads;
    {
      std::lock_guard<std::mutex> guard(tab->lock);
      if (tab->dialog) return answer + dialogOpened(*tab->dialog);
    }
    std::string line = describeTab(tab, loaded ? "" : "still loading after " + seconds(settings.loadTime));
    return answer + "; the page went to " + line.substr(line.find(' ') + 1);
  }
  answer += downloadsSince(tab, before.downloads);
  {
    std::lock_guard<std::mutex> guard(tab->lock);
    if (tab->chooser)
      return answer + "; a file chooser opened: give it files with upload " + tab->id + " <ref> <file>";
  }
  if (!opened.empty() || answer.find("; a download started") != std::string::npos) return answer;
  bool same;
  {
    std::lock_guard<std::mutex> guard(tab->lock);
    same = tab->sameDocument != before.same;
  }
  if (same) {
    std::string line = describeTab(tab, "same page");
    return answer + "; the page went to " + line.substr(line.find(' ') + 1);
  }
  Json changes = inWorld(tab, pageCall("changes"), Library::page);
  // Frames of other origins change apart from the page.
  if (!(changes.is_number() && changes.get<int>() > 0))
    inFrames(tab, pageCall("changes"), [&](const Json& value) {
      changes = value;
      return !(value.is_number() && value.get<int>() > 0);
    });
  if (changes.is_number() && changes.get<int>() > 0) return answer + "; the page changed";
  // What goes into a field shows there: only what else changed is worth saying.
  return intoField ? answer : answer + "; nothing visible changed";
}

Json Browser::click(const Json& params) {
  auto tab = tabFor(params);
  std::string label;
  RefPlace place;
  auto [x, y] = pointOf(tab, params, "ref", "x", "y", label, &place);
  Before before = watch(tab, place.ref.empty() ? nullptr : &place);
  bool right = stringParam(params, "button") == "right";
  bool twice = flagParam(params, "double");
  std::string button = right ? "right" : "left";
  int held = right ? 2 : 1;
  mouse(tab, "mouseMoved", x, y);
  // A frame of another origin may take input in a process of its own: the button must not go
  // down there before the frame has seen the pointer come in, or the press is lost. It has
  // once it has drawn again.
  if (!place.frame.empty()) inPlace(tab, place, pageCall("drawn"));
  for (int click = 1; click <= (twice ? 2 : 1); ++click) {
    mouse(tab, "mousePressed", x, y, button, click, held);
    mouse(tab, "mouseReleased", x, y, button, click, 0);
  }
  return outcome(tab, before, std::string(twice ? "double-clicked " : right ? "right-clicked " : "clicked ") + label);
}

Json Browser::hover(const Json& params) {
  auto tab = tabFor(params);
  std::string label;
  auto [x, y] = pointOf(tab, params, "ref", "x", "y", label);
  Before before = watch(tab);
  mouse(tab, "mouseMoved", x, y);
  return outcome(tab, before, "the pointer is over " + label);
}

Json Browser::drag(const Json& params) {
  auto tab = tabFor(params);
  std::string from, to;
  RefPlace place;
  auto [startX, startY] = pointOf(tab, params, "ref", "from_x", "from_y", from, &place);
  double x0 = startX, y0 = startY;
  Before before = watch(tab);
  // What the browser drags itself (draggable elements, links, pictures) is caught as it starts
  // and carried on with drag events, as the browser would; the rest gets the pointer's events.
  {
    std::lock_guard<std::mutex> guard(tab->lock);
    tab->dragged.reset();
  }
  call("Input.setInterceptDrags", {{"enabled", true}}, tab->session);
  struct Intercepting {
    Browser* browser;
    const std::shared_ptr<Tab>& tab;
    ~Intercepting() {
      try {
        browser->call("Input.setInterceptDrags", {{"enabled", false}}, tab->session);
      } catch (const std::exception&) {
      }
    }
  } intercepting{this, tab};
  auto dragged = [&] {
    std::lock_guard<std::mutex> guard(tab->lock);
    return tab->dragged;
  };
  mouse(tab, "mouseMoved", x0, y0);
  // As for a click: a frame in a process of its own must have seen the pointer come in.
  if (!place.frame.empty()) inPlace(tab, place, pageCall("drawn"));
  mouse(tab, "mousePressed", x0, y0, "left", 1, 1);
  // The target is found once the drag has begun: pages move things when it starts.
  auto [endX, endY] = pointOf(tab, params, "to_ref", "to_x", "to_y", to);
  double x1 = endX, y1 = endY;
  auto x = [&](int step) { return x0 + (x1 - x0) * step / 10; };
  auto y = [&](int step) { return y0 + (y1 - y0) * step / 10; };
  std::optional<Json> data;
  int step = 1;
  for (; step <= 10 && !(data = dragged()); ++step)
    mouse(tab, "mouseMoved", x(step), y(step), "left", 0, 1);
  if (!data) {
    // The browser says so a moment after the move that began it.
    std::unique_lock<std::mutex> guard(tab->lock);
    tab->changed.wait_for(guard, 50ms, [&] { return tab->dragged || tab->dialog || tab->gone; });
    data = tab->dragged;
  }
  if (data) {
    // Into the page where it began, over it on the way, and dropped at the target.
    auto event = [&](const char* type, int at) {
      input(tab, "Input.dispatchDragEvent",
            {{"type", type}, {"x", x(at)}, {"y", y(at)}, {"data", *data}});
    };
    event("dragEnter", step - 1);
    for (; step <= 10; ++step) event("dragOver", step);
    event("dragOver", 10);
    event("drop", 10);
  }
  mouse(tab, "mouseReleased", x1, y1, "left", 1, 0);
  return outcome(tab, before, "dragged " + from + " to " + to);
}

Json Browser::type(const Json& params) {
  auto tab = tabFor(params);
  std::string text = stringParam(params, "text");
  std::string ref = stringParam(params, "ref");
  std::string label = "what has focus";
  if (!ref.empty()) {
    auto [x, y] = targetOf(tab, ref, label);
    mouse(tab, "mouseMoved", x, y);
    mouse(tab, "mousePressed", x, y, "left", 1, 1);
    mouse(tab, "mouseReleased", x, y, "left", 1, 0);
    RefPlace place = refPlace(tab, ref);
    Json focused = inPlace(tab, place, pageCall("focusForTyping", place.number, flagParam(params, "replace")));
    if (focused.value("gone", false)) throw Failure("ref " + ref + " is no longer on the page");
  } else if (flagParam(params, "replace")) {
    // What has focus, wherever it is (a frame, a shadow root): all of its text selected, as
    // the keyboard's select-all does, to be typed over.
    for (const char* kind : {"rawKeyDown", "keyUp"}) {
      Json event = {{"type", kind}, {"key", "a"}, {"code", "KeyA"}, {"windowsVirtualKeyCode", 65},
                    {"modifiers", 2}};
      if (std::string(kind) == "rawKeyDown") event["commands"] = Json::array({"selectAll"});
      input(tab, "Input.dispatchKeyEvent", event);
    }
  }
  Before before = watch(tab);
  // Text goes in as text, whatever the language and the keyboard: line breaks as Enter, so
  // that fields and pages see them as a person's.
  size_t start = 0;
  while (start <= text.size()) {
    size_t line = text.find('\n', start);
    std::string piece = text.substr(start, line == std::string::npos ? std::string::npos : line - start);
    if (!piece.empty()) input(tab, "Input.insertText", {{"text", piece}});
    if (line == std::string::npos) break;
    for (const char* kind : {"keyDown", "keyUp"})
      input(tab, "Input.dispatchKeyEvent",
            {{"type", kind}, {"key", "Enter"}, {"code", "Enter"}, {"windowsVirtualKeyCode", 13},
             {"text", std::string(kind) == "keyDown" ? "\r" : ""}});
    start = line + 1;
  }
  bool cut = false;
  size_t characters = 0;
  firstCharacters(text, 0, cut, characters);
  return outcome(tab, before, "typed " + std::to_string(characters) + " characters into " + label, true);
}

Json Browser::choose(const Json& params) {
  auto tab = tabFor(params);
  std::string ref = stringParam(params, "ref");
  std::string label;
  targetOf(tab, ref, label);
  Before before = watch(tab);
  RefPlace place = refPlace(tab, ref);
  Json chosen = inPlace(tab, place, pageCall("choose", place.number, stringParam(params, "option")));
  if (chosen.value("gone", false)) throw Failure("ref " + ref + " is no longer on the page");
  if (chosen.contains("error")) throw Failure(chosen.value("error", ""));
  return outcome(tab, before, "chose " + quote(chosen.value("chosen", "")) + " in " + label, true);
}

Json Browser::key(const Json& params) {
  auto tab = tabFor(params);
  std::string name = stringParam(params, "key");
  if (name.empty()) throw Failure("no key given");
  // Modifiers before the key, joined by "+": "shift+tab", "cmd+a" (cmd is ctrl here).
  int modifiers = 0;
  std::string rest = name;
  for (;;) {
    size_t plus = rest.find('+');
    if (plus == std::string::npos || plus + 1 == rest.size()) break;
    std::string modifier = rest.substr(0, plus);
    std::transform(modifier.begin(), modifier.end(), modifier.begin(), ::tolower);
    if (modifier == "alt" || modifier == "option") modifiers |= 1;
    else if (modifier == "ctrl" || modifier == "control" || modifier == "cmd" || modifier == "meta" ||
             modifier == "command")
      modifiers |= 2;
    else if (modifier == "shift") modifiers |= 8;
    else throw Failure("unknown modifier " + quote(modifier) + ": use cmd, ctrl, alt or shift");
    rest = rest.substr(plus + 1);
  }
  std::optional<KeyInfo> info = keyNamed(rest);
  if (!info)
    throw Failure("unknown key " + quote(rest) +
                  ": enter, tab, space, escape, backspace, delete, arrows, home, end, pageup, "
                  "pagedown, f1-f12 or one character");
  Before before = watch(tab);
  std::string text = (modifiers & ~8) ? "" : info->text;
  if ((modifiers & 8) && text.size() == 1 && std::isalpha(static_cast<unsigned char>(text[0])))
    text = std::string(1, char(std::toupper(text[0])));
  Json down = {{"type", text.empty() ? "rawKeyDown" : "keyDown"}, {"key", info->key},
               {"code", info->code}, {"windowsVirtualKeyCode", info->keyCode},
               {"modifiers", modifiers}};
  if (!text.empty()) down["text"] = text;
  // Select all and undo are editing commands of the browser, not of the page.
  std::string lower = rest;
  std::transform(lower.begin(), lower.end(), lower.begin(), ::tolower);
  if (modifiers == 2 && lower == "a") down["commands"] = Json::array({"selectAll"});
  if (modifiers == 2 && lower == "z") down["commands"] = Json::array({"undo"});
  input(tab, "Input.dispatchKeyEvent", down);
  input(tab, "Input.dispatchKeyEvent",
        {{"type", "keyUp"}, {"key", info->key}, {"code", info->code},
         {"windowsVirtualKeyCode", info->keyCode}, {"modifiers", modifiers}});
  return outcome(tab, before, "pressed " + name);
}

Json Browser::scroll(const Json& params) {
  auto tab = tabFor(params);
  std::string label = "the page";
  double x, y;
  if (!stringParam(params, "ref").empty()) {
    std::tie(x, y) = targetOf(tab, stringParam(params, "ref"), label, false);
  } else {
    Json size = inWorld(tab, "[innerWidth, innerHeight]");
    x = params.contains("x") ? numberParam(params, "x", 0) : size[0].get<double>() / 2;
    y = params.contains("y") ? numberParam(params, "y", 0) : size[1].get<double>() / 2;
  }
  Json start = inWorld(tab, pageCall("scrolled"), Library::page);
  double screen = inWorld(tab, "innerHeight").get<double>();
  double dy = numberParam(params, "dy", nearest(screen * 0.9));
  double dx = numberParam(params, "dx", 0);
  mouse(tab, "mouseMoved", x, y);
  input(tab, "Input.dispatchMouseEvent",
        {{"type", "mouseWheel"}, {"x", x}, {"y", y}, {"deltaX", dx}, {"deltaY", dy}});
  // The wheel scrolls in frames: wait until it rests.
  Json now = start;
  for (int i = 0; i < 20; ++i) {
    std::this_thread::sleep_for(50ms);
    Json next = inWorld(tab, pageCall("scrolled"), Library::page);
    if (next == now && i > 1) break;
    now = next;
  }
  std::string answer = "turned the wheel " + std::to_string(long(dy)) + " px over " + label +
                       ": the page is at " + std::to_string(now.value("y", 0)) + " of " +
                       std::to_string(now.value("most", 0)) + " px";
  if (now == start) answer += " (it didn't move: the page may move itself; a screenshot shows it)";
  return answer;
}

Json Browser::find(const Json& params) {
  auto tab = tabFor(params);
  int base;
  {
    std::lock_guard<std::mutex> guard(tab->lock);
    base = tab->nextRef;
  }
  for (int round = 0; round < 4; ++round) {
    Json hosts = inWorld(tab, pageCall("closedRootHosts"), Library::page);
    if (!hosts.is_number() || hosts.get<int>() <= 0 || !askClosedRoots(tab->session, tab->targetId))
      break;
  }
  Json found = inWorld(tab, pageCall("find", stringParam(params, "text"), base),
                       Library::page);
  recordRefs(tab, found.value("used", 0));
  int hidden = found.value("hidden", 0);
  // And in the frames of other origins that snapshots read, each with refs of its own document.
  std::string text = found.value("found", 0) > 0 ? found.value("text", "") : "";
  auto frames = framesRead(*tab);
  for (auto& [session, frame] : frames) {
    try {
      Json tree = call("Page.getFrameTree", Json::object(), session, 2s);
      const Json* document = frameIn(tree["frameTree"], frame);
      if (!document) continue;
      std::string loader = document->value("loaderId", "");
      {
        std::lock_guard<std::mutex> guard(tab->lock);
        base = tab->nextRef;
      }
      Json said = inFrame(session, frame,
                          pageCall("find", stringParam(params, "text"), base),
                          2s);
      recordRefs(tab, said.value("used", 0), frame, loader);
      hidden += said.value("hidden", 0);
      if (said.value("found", 0) > 0) text += (text.empty() ? "" : "\n") + said.value("text", "");
    } catch (const CdpError&) {
    } catch (const NoAnswer&) {
    } catch (const Failure&) {
    }
  }
  return (text.empty() ? found.value("text", "") : text) + leftOut(hidden);
}

Json Browser::inspect(const Json& params) {
  auto tab = tabFor(params);
  std::string ref = stringParam(params, "ref");
  RefPlace place = refPlace(tab, ref);
  Json seen = inPlace(tab, place, pageCall("inspect", place.number, stringParam(params, "styles")));
  if (seen.value("gone", false)) throw Failure("ref " + ref + " is no longer on the page");
  Json element = seen["element"];
  if (!place.frame.empty()) {
    Json box = inTopPage(tab, place, element["box"]);
    for (const char* side : {"x", "y"}) box[side] = static_cast<int64_t>(nearest(box.value(side, 0.0)));
    element["box"] = box;
  }
  return element;
}

Json Browser::dialog(const Json& params) {
  auto tab = tabFor(params, true);
  std::optional<Json> showing;
  uint64_t opened;
  {
    // A page's next dialog opens a moment after the last is answered, and one an action sets
    // off may come just after the action's answer: give it half a second to show.
    std::unique_lock<std::mutex> guard(tab->lock);
    tab->changed.wait_for(guard, 500ms, [&] { return tab->dialog || tab->gone; });
    showing = tab->dialog;
    opened = tab->dialogsOpened;
  }
  if (!showing) throw Failure(tab->id + " shows no dialog");
  bool accept = flagParam(params, "accept");
  Json answer = {{"accept", accept}};
  std::string text = stringParam(params, "text");
  if (params.contains("text")) answer["promptText"] = text;
  call("Page.handleJavaScriptDialog", answer, tab->session);
  {
    // The page may have opened its next dialog before Chromium's answer came.
    std::lock_guard<std::mutex> guard(tab->lock);
    if (tab->dialogsOpened == opened) tab->dialog.reset();
  }
  std::string what = dialogNamed(*showing);
  return std::string(accept ? "accepted " : "dismissed ") + what +
         (accept && params.contains("text") ? " with " + quote(text) : "");
}

std::string stepMethod(const std::string& tool) {
  const std::vector<std::string>& allowed = batchTools();
  if (std::find(allowed.begin(), allowed.end(), tool) == allowed.end()) return {};
  for (const Command& command : commands())
    if (command.tool == tool) return std::string(command.name);
  return {};
}

Json Browser::batch(const Json& params) {
  std::string tab = stringParam(params, "tab");
  const Json& actions = params.contains("actions") ? params["actions"] : Json();
  if (!actions.is_array() || actions.empty()) throw Failure("batch takes a list of actions");
  if (actions.size() > 25) throw Failure("a batch holds at most 25 actions");
  std::string lines;
  size_t number = 0;
  for (const Json& action : actions) {
    ++number;
    std::string prefix = std::to_string(number) + ". ";
    // A step that names what isn't there is told, in one line, what is.
    auto names = [](const std::vector<std::string>& words) {
      std::string said;
      for (const std::string& word : words) said += (said.empty() ? "" : ", ") + word;
      return said;
    };
    if (!action.is_object() || !action.contains("do") || !action["do"].is_string())
      throw Failure(lines + prefix + "failed: an action needs \"do\": one of " + names(batchTools()));
    std::string tool = action["do"];
    std::string method = stepMethod(tool);
    if (method.empty())
      throw Failure(lines + prefix + tool + " failed: not an action a batch can do: do is one of " +
                    names(batchTools()));
    std::vector<std::string> fields = batchFields(tool);
    for (auto& [field, value] : action.items())
      if (field != "do" && field != "tab" && std::find(fields.begin(), fields.end(), field) == fields.end())
        throw Failure(lines + prefix + tool + " failed: " + tool + " has no field " + quote(field) +
                      (fields.empty() ? ": it takes none" : ": its fields are " + names(fields)));
    Json arguments = action;
    arguments.erase("do");
    if (!arguments.contains("tab")) arguments["tab"] = tab;
    try {
      Json result = handle(method, arguments);
      std::string text = result.is_string() ? result.get<std::string>() : indented(result);
      // The step's own ref, which the agent just gave, isn't said again.
      if (std::string ref = stringParam(arguments, "ref"); !ref.empty())
        if (size_t at = text.find(" [ref=" + ref + "]"); at != std::string::npos) text.erase(at, ref.size() + 7);
      lines += prefix + tool + ": " + text + "\n";
    } catch (const Failure& failure) {
      std::string rest = number < actions.size()
                             ? " (the " + std::to_string(actions.size() - number) + " after it not done)"
                             : "";
      throw Failure(lines + prefix + tool + " failed: " + failure.what() + rest);
    }
  }
  lines.pop_back();
  return lines;
}

}  // namespace nurel::browser

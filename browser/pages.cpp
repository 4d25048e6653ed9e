// browser/pages.cpp: opening, moving through and closing pages. Every method that loads a page
// waits for it to load (or for the time allowed) and answers the tab's line: its id, address
// and title, with a note when something is worth knowing (an HTTP error, a page still loading).
#include <algorithm>

#include "browser/browser.h"

namespace nurel::browser {

namespace {

using Clock = std::chrono::steady_clock;

std::string statusNote(Tab& tab, const std::string& loaderId) {
  std::lock_guard<std::mutex> guard(tab.lock);
  auto found = tab.status.find(loaderId);
  if (found == tab.status.end() || found->second < 400) return {};
  return "HTTP " + std::to_string(found->second);
}

}  // namespace

bool Browser::awaitLoad(const std::shared_ptr<Tab>& tab, const std::string& loaderId,
                        Clock::time_point deadline) {
  std::unique_lock<std::mutex> guard(tab->lock);
  return tab->changed.wait_until(guard, deadline, [&] {
    return tab->gone || tab->crashed ||
           std::find(tab->loaded.begin(), tab->loaded.end(), loaderId) != tab->loaded.end();
  });
}

bool Browser::awaitChange(const std::shared_ptr<Tab>& tab, uint64_t loadsBefore,
                          uint64_t sameBefore, Clock::time_point deadline) {
  std::unique_lock<std::mutex> guard(tab->lock);
  return tab->changed.wait_until(guard, deadline, [&] {
    return tab->gone || tab->crashed || tab->loads != loadsBefore ||
           tab->sameDocument != sameBefore;
  });
}

// A page that takes its renderer down aborts its own load, and Chromium may tell of the crash
// before or after the navigation's answer. A renderer that still answers a script is alive;
// one that doesn't is waited on until the crash is told (or the time allowed ends).
bool Browser::rendererCrashed(const std::shared_ptr<Tab>& tab, Clock::time_point deadline) {
  using namespace std::chrono_literals;
  std::shared_ptr<Engine> running = engine();
  std::shared_ptr<Cdp::Pending> reply;
  try {
    reply = running->cdp->start("Runtime.evaluate", {{"expression", "0"}}, tab->session);
  } catch (const BrowserLost&) {
    return false;
  }
  for (;;) {
    bool answered = false;
    try {
      answered = running->cdp->wait(reply, 20ms);
    } catch (const CdpError&) {
      // Refused: no page to run it in, as after a crash, which is then on its way.
      std::unique_lock<std::mutex> guard(tab->lock);
      tab->changed.wait_until(guard, deadline, [&] { return tab->crashed || tab->gone; });
      return tab->crashed;
    } catch (const BrowserLost&) {
      return false;
    }
    std::lock_guard<std::mutex> guard(tab->lock);
    if (tab->crashed || tab->gone || answered || Clock::now() > deadline) {
      if (!answered) running->cdp->forget(reply);
      return tab->crashed;
    }
  }
}

// Loads `url` in the tab and answers its line; throws Failure when the navigation failed.
std::string Browser::go(const std::shared_ptr<Tab>& tab, const std::string& url) {
  auto deadline = Clock::now() + settings.loadTime;
  // An address that differs from the page's only after "#" stays in the document: what the
  // page draws for it is waited for as after an action.
  std::optional<Before> before;
  {
    std::string now;
    {
      std::lock_guard<std::mutex> guard(tab->lock);
      now = tab->url;
    }
    if (!now.empty() && url.find('#') != std::string::npos &&
        now.substr(0, now.find('#')) == url.substr(0, url.find('#')))
      before = watch(tab);
  }
  Json navigated;
  try {
    navigated = call("Page.navigate", {{"url", url}}, tab->session, settings.loadTime);
  } catch (const NoAnswer&) {
    // No answer from the server yet: the tab keeps trying, and the agent can look or wait.
    return describeTab(tab, "still loading " + url + " after " +
                                std::to_string(settings.loadTime.count()) + " s");
  }
  std::string error = navigated.value("errorText", "");
  if (!error.empty()) {
    if (rendererCrashed(tab, deadline)) throw Failure("the page in " + tab->id + " crashed: reload it");
    throw Failure("couldn't load " + url + ": " + error);
  }
  std::string loaderId = navigated.value("loaderId", "");
  if (loaderId.empty()) return sameDocument(tab, before);
  if (!awaitLoad(tab, loaderId, deadline))
    return describeTab(tab, "still loading after " + std::to_string(settings.loadTime.count()) +
                                " s");
  if (tab->crashed) throw Failure("the page in " + tab->id + " crashed: reload it");
  return describeTab(tab, statusNote(*tab, loaderId));
}

std::string Browser::checkedURL(const std::string& url) {
  return checkedAddress(url, settings.allowedFolders, settings.remote());
}

Json Browser::tabs(const Json&) {
  std::vector<std::shared_ptr<Tab>> open;
  {
    std::lock_guard<std::mutex> guard(tabsLock);
    for (auto& [id, tab] : tabsByID) open.push_back(tab);
  }
  // Numeric order: t2 before t10.
  std::sort(open.begin(), open.end(), [](auto& a, auto& b) {
    return a->id.size() != b->id.size() ? a->id.size() < b->id.size() : a->id < b->id;
  });
  std::string lines;
  for (auto& tab : open) {
    {
      std::lock_guard<std::mutex> guard(tab->lock);
      if (tab->gone) continue;
    }
    if (!running()) break;
    try {
      lines += describeTab(tab) + "\n";
    } catch (const Failure&) {
      continue;
    } catch (const CdpError&) {
      continue;  // closed while we listed
    }
  }
  if (lines.empty()) return "no tabs";
  lines.pop_back();
  return lines;
}

Json Browser::open(const Json& params) {
  std::string url = checkedURL(stringParam(params, "url"));
  Json created = call("Target.createTarget", {{"url", "about:blank"}});
  std::string targetId = created.value("targetId", "");
  std::shared_ptr<Tab> tab;
  try {
    tab = attach(targetId);
    return go(tab, url);
  } catch (const Failure&) {
    // A tab whose page failed is no use to the agent, which never learnt its id.
    if (tab) forget(tab);
    try {
      call("Target.closeTarget", {{"targetId", targetId}});
    } catch (const std::exception&) {
    }
    throw;
  }
}

Json Browser::navigate(const Json& params) {
  auto tab = tabFor(params);
  return go(tab, checkedURL(stringParam(params, "url")));
}

std::string Browser::goInHistory(const Json& params, int step) {
  auto tab = tabFor(params);
  Json history = call("Page.getNavigationHistory", Json::object(), tab->session);
  int index = history.value("currentIndex", 0) + step;
  const Json& entries = history["entries"];
  // The blank page every tab starts on is not a page of the agent's.
  bool blank = index == 0 && entries.is_array() && !entries.empty() &&
               entries[0].value("url", "") == "about:blank";
  if (!entries.is_array() || index < 0 || index >= int(entries.size()) || blank)
    throw Failure(tab->id + " has no " + (step < 0 ? "earlier" : "later") + " page");
  // The entry may be of the same document (a fragment, the history API): then the page
  // draws it, and that is waited for as after an action.
  Before before = watch(tab);
  auto deadline = Clock::now() + settings.loadTime;
  call("Page.navigateToHistoryEntry", {{"entryId", entries[size_t(index)].value("id", 0)}},
       tab->session);
  if (!awaitChange(tab, before.loads, before.same, deadline))
    return describeTab(tab, "still loading after " + std::to_string(settings.loadTime.count()) +
                                " s");
  bool same;
  {
    std::lock_guard<std::mutex> guard(tab->lock);
    same = tab->loads == before.loads && tab->documents == before.documents;
  }
  if (same) return sameDocument(tab, before);
  return describeTab(tab);
}

std::string Browser::sameDocument(const std::shared_ptr<Tab>& tab, const std::optional<Before>& before) {
  if (before) {
    Before moved = *before;
    {
      std::lock_guard<std::mutex> guard(tab->lock);
      moved.started = tab->startedLoading;
      moved.same = tab->sameDocument;
    }
    settle(tab, moved);
  }
  return describeTab(tab, "same page");
}

Json Browser::back(const Json& params) { return goInHistory(params, -1); }

Json Browser::forward(const Json& params) { return goInHistory(params, +1); }

Json Browser::reload(const Json& params) {
  std::shared_ptr<Tab> tab;
  try {
    tab = tabFor(params);
  } catch (const Failure&) {
    // A crashed page is what reload is for.
    {
      std::lock_guard<std::mutex> guard(tabsLock);
      auto found = tabsByID.find(stringParam(params, "tab"));
      if (found == tabsByID.end()) throw;
      tab = found->second;
    }
    std::lock_guard<std::mutex> guard(tab->lock);
    if (!tab->crashed) throw;
  }
  uint64_t loads, same;
  {
    std::lock_guard<std::mutex> guard(tab->lock);
    tab->crashed = false;
    loads = tab->loads;
    same = tab->sameDocument;
  }
  auto deadline = Clock::now() + settings.loadTime;
  call("Page.reload", {{"ignoreCache", flagParam(params, "hard")}}, tab->session);
  if (!awaitChange(tab, loads, same, deadline))
    return describeTab(tab, "still loading after " + std::to_string(settings.loadTime.count()) +
                                " s");
  return describeTab(tab);
}

Json Browser::close(const Json& params) {
  auto tab = tabFor(params, true);
  forget(tab);
  try {
    call("Target.closeTarget", {{"targetId", tab->targetId}});
  } catch (const CdpError&) {
    // Already gone.
  }
  return "closed " + tab->id;
}

}  // namespace nurel::browser

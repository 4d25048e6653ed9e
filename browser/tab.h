// browser/tab.h: one tab the agent opened, and what Chromium's events have told of its page.
// The events change a tab in one place, applyEvent(), which the tests feed with transcripts
// recorded from Chromium.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "link/json.h"

namespace nurel::browser {

/// The name of the back end's isolated world in pages.
inline constexpr const char* worldName = "nurel";

/// One tab the agent opened, and what its page's events have told us.
struct Tab {
  std::string id;        // "t1"
  std::string targetId;  // Chromium's, which is also the id of its main frame
  std::string session;   // the flat session attached to it

  std::mutex lock;
  std::condition_variable changed;
  uint64_t loads = 0;                 // load events of the main frame
  uint64_t sameDocument = 0;          // navigations within the document (#anchors, history API)
  std::deque<std::string> loaded;     // loader ids whose document has loaded, newest last
  std::map<std::string, int> status;  // HTTP status of recent main documents, by loader id
  std::set<std::string> requests;     // network requests in flight
  std::chrono::steady_clock::time_point lastNetwork = std::chrono::steady_clock::now();
  int world = 0;                      // our isolated world's context in the page, 0 when none
  unsigned libraries = 0;             // the libraries evaluated in that world (1 << Library)
  std::string loader;                 // the loader of the document now in the main frame
  std::string url;                    // the main frame's address, as last navigated
  uint64_t startedLoading = 0;        // loads the main frame has started
  bool loading = false;               // between the main frame's start and stop of loading
  uint64_t documents = 0;             // documents committed in the main frame
  std::vector<std::string> opened;    // targets the page opened, not yet made tabs
  std::optional<Json> dialog;         // the JavaScript dialog showing, if any
  std::optional<Json> chooser;        // the file chooser the page opened, if any
  std::set<std::string> frames;       // the ids of the frames in it, for its downloads
  uint64_t downloadsStarted = 0;
  bool asking = false;                // ask is waiting for the person: no actions meanwhile
  std::optional<Json> dragged;        // what the browser began to drag, caught for a drag
  uint64_t dialogsOpened = 0;         // so that answering one never clears the next

  // Refs: numbers go up across the tab's documents; each run of them belongs to one document:
  // the main frame's, or that of a frame whose document the main frame's world can't read
  // (another origin's), which keeps refs of its own.
  int nextRef = 1;
  struct RefRun {
    std::string loader;       // the main frame's document when the run was given
    std::string frame;        // the frame whose world gave it; empty for the main frame's
    std::string frameLoader;  // and that frame's document then
  };
  std::map<int, RefRun> refDocuments;  // first number of a run -> its document
  // Frames of other processes, each attached as a target of its own: frame id -> its session.
  std::map<std::string, std::string> frameSessions;
  std::set<std::string> attaching;     // sessions told to attach to the frames of theirs
  // Frames that snapshots of this document went into through their own worlds: frame id ->
  // the frame it is in; and each with its session, for what acting watches.
  std::map<std::string, std::string> frameParents;
  std::set<std::pair<std::string, std::string>> readFrames;
  std::map<std::string, std::string> lastSnapshot;  // by variant, for diff

  // What the page logged since it loaded, oldest first, and how many older lines were dropped.
  std::deque<std::pair<std::string, std::string>> console;  // level, line
  size_t consoleDropped = 0;
  // The tab's requests since it opened, oldest first (bounded like the console).
  struct Request {
    int number = 0;
    std::string id, method, url, type, error;
    int status = 0;
    double started = 0, ended = 0;
    double bytes = 0;
    Json requestHeaders, responseHeaders;
  };
  std::deque<Request> requestLog;
  size_t requestsDropped = 0;
  int nextRequest = 1;
  // Emulation in force: empty for the browser's own.
  std::string colorScheme, media;
  int width = 0, height = 0;
  bool crashed = false;
  bool gone = false;                  // closed by the page or by Chromium
};

/// Applies one of Chromium's events on the tab's session (or a session of one of its frames)
/// to what the tab knows; `now` is when it came. The caller holds `tab.lock`. True when the
/// event changed something a waiter on `tab.changed` may be waiting for.
bool applyEvent(Tab& tab, const std::string& method, const Json& params,
                std::chrono::steady_clock::time_point now);

}  // namespace nurel::browser

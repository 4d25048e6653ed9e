// browser/browser.h: the agent's browser: tabs in one Chromium, and the methods agents call.
//
// Any number of threads may call handle() at once (one per connection); each call blocks until
// its answer is ready. Chromium starts on the first method that needs it, and again on the
// next one after it died.
#pragma once

#include <chrono>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "browser/action_log.h"
#include "browser/cdp.h"
#include "browser/chromium.h"
#include "browser/tab.h"
#include "link/json.h"

namespace nurel::browser {

/// A method that could not do what it was asked; what() is the one line the agent reads.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Settings {
  std::string dataFolder;                  ///< the profile and Chromium's log go here
  /// The profile's folder, under dataFolder: "profile" for the default socket; for another,
  /// "profiles/<name>" (profileFor), so that back ends of several sockets each run a Chromium.
  std::string profile = "profile";
  /// A browser elsewhere to drive instead of starting Chromium: its DevTools WebSocket
  /// (ws://, wss://) or an http:// address whose /json/version names it. Empty: our own.
  std::string cdpURL;
  std::vector<std::pair<std::string, std::string>> cdpHeaders;  ///< sent when connecting
  std::string cdpProblem;                  ///< why the headers can't be used, if they can't
  std::string websocketModule;             ///< the WebSocket module, loaded for a remote browser
  std::vector<std::string> chromiumFlags;  ///< the person's switches for Chromium, after ours
  bool headed = false;                     ///< real windows instead of headless
  std::chrono::seconds loadTime{30};       ///< how long a page may take to load
  std::chrono::seconds scriptTime{30};     ///< how long a script may run
  std::vector<std::string> allowedFolders; ///< file: pages may come from under these

  /// True when the browser runs elsewhere: its files (downloads, uploads, file: pages) are on
  /// another machine, and it isn't ours to close.
  bool remote() const { return !cdpURL.empty(); }

  /// From the environment: NUREL_HEADED, NUREL_TIMEOUT, NUREL_ALLOW_FILES,
  /// NUREL_CHROMIUM_FLAGS (one switch a line), NUREL_CDP_URL, NUREL_CDP_HEADERS.
  static Settings fromEnvironment(const std::string& dataFolder);
  /// Reads NUREL_CDP_HEADERS: one "Name: value" a line. Sets cdpProblem (never quoting a
  /// line, which may hold a secret) when a line isn't one.
  void readHeaders(const std::string& lines);
};

class Browser {
 public:
  /// A file a tab downloads, to the person's downloads folder.
  struct Download {
    std::string guid, tab, url, name, path;
    std::string state = "downloading";  // or done, canceled, failed
    std::string error;
    double received = 0, total = 0;
  };

  explicit Browser(Settings settings);
  ~Browser();
  Browser(const Browser&) = delete;
  Browser& operator=(const Browser&) = delete;

  /// Does one request and returns its result. Throws Failure with the line to answer.
  Json handle(const std::string& method, const Json& params);

  /// True while a Chromium is running, or a remote browser connected.
  bool running();

  /// Starts Chromium ahead of the first request; a failure is left for that request to meet.
  void warmUp();
  /// True when the browser runs elsewhere (Settings::remote()).
  bool remote() const { return settings.remote(); }

  /// Closes Chromium (asking first, so that its profile is written, then killing what is
  /// left) before the process exits; other threads may still be calling handle(). A remote
  /// browser isn't ours: only the tabs we opened in it are closed, then the connection.
  void shutdown();

  /// Every method name, for --help and tests.
  static std::vector<std::string> methods();

 private:
  struct Engine {
    std::unique_ptr<Chromium> chromium;  // none when the browser is remote
    std::unique_ptr<Cdp> cdp;
    std::string address;  // a remote browser's WebSocket address, as shown
    uint64_t generation = 0;
  };
  using Handler = Json (Browser::*)(const Json&);
  static const std::map<std::string, Handler>& handlers();
  // Calls the handler, turning what Chromium throws into the agent's Failure.
  Json perform(Handler handler, const std::string& method, const Json& params);

  // The running engine, started when there is none; within a request, the one it began with,
  // even when that has gone. Throws Failure.
  std::shared_ptr<Engine> engine();
  // This request's engine, else the current one, without starting any; may be null.
  std::shared_ptr<Engine> requestEngine();
  // Starts our own Chromium, or connects to the remote browser, for engine().
  void startChromium(Engine& fresh);
  void connectRemote(Engine& fresh);
  Json call(const std::string& method, const Json& params = Json::object(),
            const std::string& session = {},
            std::chrono::milliseconds timeout = std::chrono::seconds(30));
  std::vector<Json> callAll(const std::vector<Cdp::Command>& commands, const std::string& session,
                            std::chrono::milliseconds timeout = std::chrono::seconds(30));
  // What `send` answers, given the Chromium of this request; a lost Chromium said as a Failure.
  template <typename Send>
  auto sent(const std::string& session, Send send);
  // When `engine`'s Chromium has gone (after a moment for the pipe to say so: a write can fail
  // before the read sees the end), the line that says so; else nothing.
  std::optional<std::string> lost(const std::shared_ptr<Engine>& engine);
  void onEvent(uint64_t generation, const std::string& method, const Json& params,
               const std::string& session);
  void onClosed(uint64_t generation, const std::string& reason);

  // Tabs. A tab showing a dialog answers only `dialog` and `close` until it is answered.
  std::shared_ptr<Tab> tabFor(const Json& params, bool duringDialog = false);
  std::shared_ptr<Tab> attach(const std::string& targetId);
  void forget(const std::shared_ptr<Tab>& tab);
  std::string describeTab(const std::shared_ptr<Tab>& tab, const std::string& note = {});
  // Navigating: waits for the document of `loaderId` to load; false when the time ran out.
  bool awaitLoad(const std::shared_ptr<Tab>& tab, const std::string& loaderId,
                 std::chrono::steady_clock::time_point deadline);
  // After a navigation Chromium refused: whether the tab's renderer crashed.
  bool rendererCrashed(const std::shared_ptr<Tab>& tab, std::chrono::steady_clock::time_point deadline);
  // Waits until the tab loads a page or moves within its document after `before`.
  bool awaitChange(const std::shared_ptr<Tab>& tab, uint64_t loadsBefore, uint64_t sameBefore,
                   std::chrono::steady_clock::time_point deadline);
  std::string go(const std::shared_ptr<Tab>& tab, const std::string& url);
  std::string goInHistory(const Json& params, int step);
  // Runs an expression in the tab's own isolated world (out of the page's reach) and returns
  // its value, with our libraries made available there first (`article`: both, for the text
  // Readability finds in what a person sees).
  enum class Library { none, readability, page, article };
  Json inWorld(const std::shared_ptr<Tab>& tab, const std::string& expression,
               Library library = Library::none);
  // The id of the tab's isolated world, made and given `library` when it needs them.
  int worldOf(const std::shared_ptr<Tab>& tab, Library library);

  // Acting.
  struct Before {
    uint64_t started = 0, loads = 0, same = 0, downloads = 0, documents = 0;
    std::string url;
    std::set<std::string> requests;  // in flight before the action: not its own
  };
  int refNumber(const std::shared_ptr<Tab>& tab, const std::string& ref);
  // A ref's number and the frame whose world holds its element (empty for the main frame's),
  // with that frame's session; throws Failure for a ref of an earlier document.
  struct RefPlace {
    int number = 0;
    std::string ref, frame, session;
  };
  RefPlace refPlace(const std::shared_ptr<Tab>& tab, const std::string& ref);
  // Runs an expression of page.js in the world of the ref's document.
  Json inPlace(const std::shared_ptr<Tab>& tab, const RefPlace& place, const std::string& expression);
  // Frames whose documents the main frame's world can't read: each has a world of its own in
  // the session that holds it, with page.js there.
  std::string frameSession(const std::shared_ptr<Tab>& tab, const std::string& frame);
  // Runs `expression` in each frame that snapshots of this document read in its own world,
  // handing on each value until `each` says to stop; frames that went are forgotten.
  void inFrames(const std::shared_ptr<Tab>& tab, const std::string& expression,
                const std::function<bool(const Json&)>& each = {});
  // Both wait `most` for each answer (0: as long as any script may take).
  int frameWorld(const std::string& session, const std::string& frame,
                 std::chrono::milliseconds most = {});
  Json inFrame(const std::string& session, const std::string& frame, const std::string& expression,
               std::chrono::milliseconds most = {});
  // Hands the closed shadow roots of the elements page.js named in `frame`'s document to its
  // world; true when there were any.
  bool askClosedRoots(const std::string& session, const std::string& frame);
  // Hands the elements of the document of `context` (a world of ours, in `session`) that the
  // page listens to for double clicks to page.js.
  void askDoubleClicks(const std::string& session, int context);
  // page.js's snapshot of `frame`'s document (the main frame's, or another origin's in its own
  // world), closed shadow roots and all, its refs recorded as that document's.
  Json snapshotOf(const std::shared_ptr<Tab>& tab, const std::string& session,
                  const std::string& frame, const std::string& frameLoader, const std::string& mode,
                  std::chrono::milliseconds most = {});
  // Attaches to the frames of other processes in `session`'s, once.
  void attachFrames(const std::shared_ptr<Tab>& tab, const std::string& session);
  // The command that does it (attach() sends it with the tab's others).
  static Cdp::Command frameAutoAttach();
  // `text`, a snapshot of `frame`, with those of the `count` frames it couldn't read put where
  // they stand; their refs recorded as their documents'. Adds the texts they left out, which a
  // person can't see, to `hidden`.
  std::string withFrames(const std::shared_ptr<Tab>& tab, const std::string& session,
                         const std::string& frame, const std::string& text, int count,
                         const std::string& mode, int depth, int& hidden);
  // A point of `frame`'s viewport as one of the top page's, scrolling frames to it; `label`
  // names what is acted on, for when something lies over it (empty: whatever lies over it).
  std::pair<double, double> toTop(const std::shared_ptr<Tab>& tab, const std::string& frame,
                                  double x, double y, const std::string& label);
  // A box ({x, y, width, height}) of the page of the frame `place` is in, as one of the top
  // page's; as it is for the main frame.
  Json inTopPage(const std::shared_ptr<Tab>& tab, const RefPlace& place, Json box);
  // Scrolled to, visible, enabled and not covered: the point to act at; `where` is told where
  // the ref's element is. Throws Failure.
  std::pair<double, double> targetOf(const std::shared_ptr<Tab>& tab, const std::string& ref,
                                     std::string& label, bool enabled = true,
                                     RefPlace* where = nullptr);
  // The element of the ref named `refName`, else the point `xName`, `yName` of the page.
  std::pair<double, double> pointOf(const std::shared_ptr<Tab>& tab, const Json& params,
                                    const char* refName, const char* xName, const char* yName,
                                    std::string& label, RefPlace* where = nullptr);
  // Before an action on `acted` (or on no element): what it may change, to say after what it did.
  Before watch(const std::shared_ptr<Tab>& tab, const RefPlace* acted = nullptr);
  // Sends input, returning early when a dialog opens (the page waits for it, and so would we).
  void input(const std::shared_ptr<Tab>& tab, const std::string& method, const Json& params);
  void mouse(const std::shared_ptr<Tab>& tab, const std::string& type, double x, double y,
             const std::string& button = "none", int clicks = 0, int buttons = 0);
  // What an action did, after it: `did` and what followed (a load, a tab, a dialog, a change).
  // `intoField`: what it did shows in the field it acted on (typing, choosing): no "nothing
  // visible changed".
  std::string outcome(const std::shared_ptr<Tab>& tab, const Before& before, const std::string& did,
                      bool intoField = false);
  // Waits until what followed `before` rests: the document still and the requests it started
  // ended, or something happened that the answer tells (a navigation, a dialog, a tab).
  void settle(const std::shared_ptr<Tab>& tab, const Before& before);
  // After a navigation began: waits until it commits a new document (true), or ends without
  // one (false: it moved within the document, or came to nothing).
  bool awaitCommit(const std::shared_ptr<Tab>& tab, const Before& before);
  // The tab's line after it moved within its document, once what the page draws for the new
  // address rests (when `before` was taken ahead of the move).
  std::string sameDocument(const std::shared_ptr<Tab>& tab, const std::optional<Before>& before);
  // The snapshot's lines; with `hidden`, how many texts a person can't see it left out.
  std::string snapshotText(const std::shared_ptr<Tab>& tab, const std::string& mode, int* hidden = nullptr);
  void recordRefs(const std::shared_ptr<Tab>& tab, int used, const std::string& frame = {},
                  const std::string& frameLoader = {});
  std::string checkedURL(const std::string& url);

  // Files.
  void onDownload(const std::string& method, const Json& params);
  // "; a download started: …" for each download the tab started since `before`, or "".
  std::string downloadsSince(const std::shared_ptr<Tab>& tab, uint64_t before);
  std::vector<std::string> allowedFiles(const Json& given);


  // The methods.
  Json hello(const Json& params);
  Json tabs(const Json& params);
  Json open(const Json& params);
  Json navigate(const Json& params);
  Json back(const Json& params);
  Json forward(const Json& params);
  Json reload(const Json& params);
  Json close(const Json& params);
  Json eval(const Json& params);
  Json text(const Json& params);
  Json describe(const Json& params);
  Json wait(const Json& params);
  Json screenshot(const Json& params);
  Json pdf(const Json& params);
  Json signin(const Json& params);
  Json snapshot(const Json& params);
  Json click(const Json& params);
  Json hover(const Json& params);
  Json drag(const Json& params);
  Json type(const Json& params);
  Json choose(const Json& params);
  Json key(const Json& params);
  Json scroll(const Json& params);
  Json find(const Json& params);
  Json inspect(const Json& params);
  Json dialog(const Json& params);
  Json batch(const Json& params);
  Json console(const Json& params);
  Json emulate(const Json& params);
  Json storage(const Json& params);
  Json ask(const Json& params);
  Json network(const Json& params);
  // Shows the agent's intent over the page for a few seconds (with a window only).
  void showIntent(const std::shared_ptr<Tab>& tab, const std::string& intent);
  Json downloads(const Json& params);
  Json upload(const Json& params);
  Json media(const Json& params);
  Json scenarios(const Json& params);
  Json run(const Json& params);
  std::string scenarioFolder() const;

  Settings settings;
  ActionLog actions;
  std::mutex engineLock;  // held while starting or replacing the engine
  std::shared_ptr<Engine> current;
  // The engine a request began with: all its calls go there, so that a request still running
  // when Chromium goes never lands in the one the next request starts (handle() sets it).
  struct Pinned {
    bool active = false;
    std::shared_ptr<Engine> engine;
  };
  static thread_local Pinned pinned;
  std::atomic<uint64_t> generations{0};
  // A remote browser that can't be reached is tried again after a pause that doubles.
  std::chrono::steady_clock::time_point retryAt;
  std::chrono::milliseconds pause{0};
  std::string unreachable;  // why the last try failed
  std::vector<std::string> leftBehind;  // targets of our tabs in a remote browser we lost

  std::mutex tabsLock;  // guards the maps below and nextTab
  std::map<std::string, std::shared_ptr<Tab>> tabsByID;
  std::map<std::string, std::shared_ptr<Tab>> tabsBySession;
  uint64_t nextTab = 1;

  std::string downloadFolder;
  std::mutex downloadsLock;  // guards downloadList
  std::condition_variable downloadsChanged;
  std::vector<Download> downloadList;
};

// Helpers shared by the method files.

/// The address to load for what an agent typed: a bare host gets https:// (http:// for
/// localhost and 127.x); a file: address must lie under one of `allowedFolders`, links
/// resolved, and is refused when the browser is `remote` (its files aren't ours to check).
/// Throws Failure saying why not.
std::string checkedAddress(const std::string& url, const std::vector<std::string>& allowedFolders,
                           bool remote = false);

/// Whether `path` (absolute) lies under one of `folders`, both compared after resolving links
/// and "..".
bool underAllowedFolder(const std::string& path, const std::vector<std::string>& folders);

/// The person's downloads folder: XDG_DOWNLOAD_DIR of user-dirs.dirs, else ~/Downloads.
std::string downloadsFolder();

/// The method a step of a batch or scenario calls for its tool ("select_option": "choose"), or
/// "" when a step may not name that tool.
std::string stepMethod(const std::string& tool);

/// What a snapshot answers for `text`: its lines against `last` (the tab's previous snapshot in
/// the same mode) when given, cut at `limit` characters (none when 0 or less) with a last line
/// that says so. Pure, for the fuzzer.
std::string snapshotAnswer(const std::string& text, const std::string* last, double limit);
/// The last line of a reading answer that left out `hidden` texts a person can't see, with
/// its line break before it: "\n(3 hidden texts left out)"; nothing when there were none.
std::string leftOut(int hidden);

/// The profile folder (under the data folder) of the back end listening on `socket`, when that
/// is not the default socket: "profiles/" and the path's last characters that can name a folder,
/// with a hash of all of it ("profiles/tmp-a-agent.sock-3f9c01d2").
std::string profileFor(const std::string& socket);

/// A string parameter, or empty.
std::string stringParam(const Json& params, const char* name);
/// A boolean parameter: true, or a string "true"/"1"; false otherwise.
bool flagParam(const Json& params, const char* name);
/// A number parameter given as a number or as its digits; `fallback` when absent. Throws
/// Failure naming the parameter when it is there but not a number.
double numberParam(const Json& params, const char* name, double fallback);
/// `text` quoted as a JSON string: what an agent reads for a name or a title.
std::string quote(const std::string& text);
/// The expression that calls one of page.js's functions with its arguments written as JSON:
/// pageCall("find", "Price", 12) is __nurel.find("Price", 12).
template <class... Args>
std::string pageCall(const std::string& function, const Args&... args) {
  std::string call = "__nurel." + function + "(";
  [[maybe_unused]] const char* comma = "";  // unused when there are no arguments
  ((call += comma + compactRepaired(Json(args)), comma = ", "), ...);
  return call + ")";
}
/// A dialog as Page.javascriptDialogOpening tells of it, in a line: alert "Saved".
std::string dialogNamed(const Json& dialog);
/// The first `limit` characters (code points) of UTF-8 `text`; `cut` tells whether any were
/// left out, `total` how many there were.
std::string firstCharacters(const std::string& text, size_t limit, bool& cut, size_t& total);

}  // namespace nurel::browser

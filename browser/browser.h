// browser/browser.h: the agent's browser: tabs in one Chromium, and the methods agents call.
//
// Any number of threads may call handle() at once (one per connection); each call blocks until
// its answer is ready. Chromium starts on the first method that needs it, and again on the
// next one after it died.
#pragma once

#include <chrono>
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

#include "browser/cdp.h"
#include "browser/chromium.h"
#include "link/json.h"

namespace nurel::browser {

/// The name of the back end's isolated world in pages.
inline constexpr const char* worldName = "nurel";

/// A method that could not do what it was asked; what() is the one line the agent reads.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Settings {
  std::string dataFolder;                  ///< the profile and Chromium's log go here
  bool headed = false;                     ///< real windows instead of headless
  std::chrono::seconds loadTime{30};       ///< how long a page may take to load
  std::chrono::seconds scriptTime{30};     ///< how long a script may run
  std::vector<std::string> allowedFolders; ///< file: pages may come from under these

  /// From the environment: NUREL_HEADED, NUREL_TIMEOUT, NUREL_ALLOW_FILES.
  static Settings fromEnvironment(const std::string& dataFolder);
};

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
  std::string loader;                 // the loader of the document now in the main frame
  uint64_t startedLoading = 0;        // loads the main frame has started
  std::vector<std::string> opened;    // targets the page opened, not yet made tabs
  std::optional<Json> dialog;         // the JavaScript dialog showing, if any
  uint64_t dialogsOpened = 0;         // so that answering one never clears the next

  // Refs: numbers go up across the tab's documents; each run of them belongs to one document.
  int nextRef = 1;
  std::map<int, std::string> refDocuments;  // first number of a run -> its document's loader
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

class Browser {
 public:
  explicit Browser(Settings settings);
  ~Browser();
  Browser(const Browser&) = delete;
  Browser& operator=(const Browser&) = delete;

  /// Does one request and returns its result. Throws Failure with the line to answer.
  Json handle(const std::string& method, const Json& params);

  /// True while a Chromium is running.
  bool running();

  /// Closes Chromium (asking first, so that its profile is written, then killing what is
  /// left) before the process exits; other threads may still be calling handle().
  void shutdown();

  /// Every method name, for --help and tests.
  static std::vector<std::string> methods();

 private:
  struct Engine {
    std::unique_ptr<Chromium> chromium;
    std::unique_ptr<Cdp> cdp;
    uint64_t generation = 0;
  };
  using Handler = Json (Browser::*)(const Json&);
  static const std::map<std::string, Handler>& handlers();

  // The running engine, started when there is none; throws Failure.
  std::shared_ptr<Engine> engine();
  Json call(const std::string& method, const Json& params = Json::object(),
            const std::string& session = {},
            std::chrono::milliseconds timeout = std::chrono::seconds(30));
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
  // Waits until the tab loads a page or moves within its document after `before`.
  bool awaitChange(const std::shared_ptr<Tab>& tab, uint64_t loadsBefore, uint64_t sameBefore,
                   std::chrono::steady_clock::time_point deadline);
  std::string go(const std::shared_ptr<Tab>& tab, const std::string& url);
  std::string goInHistory(const Json& params, int step);
  // Runs an expression in the tab's own isolated world (out of the page's reach) and returns
  // its value, with one of our libraries made available there first.
  enum class Library { none, readability, page };
  Json inWorld(const std::shared_ptr<Tab>& tab, const std::string& expression,
               Library library = Library::none);

  // Acting.
  struct Before {
    uint64_t started = 0, loads = 0, same = 0;
    std::string url;
  };
  int refNumber(const std::shared_ptr<Tab>& tab, const std::string& ref);
  // Scrolled to, visible, enabled and not covered: the point to act at. Throws Failure.
  std::pair<double, double> targetOf(const std::shared_ptr<Tab>& tab, const std::string& ref,
                                     std::string& label, bool enabled = true);
  // The element of the ref named `refName`, else the point `xName`, `yName` of the page.
  std::pair<double, double> pointOf(const std::shared_ptr<Tab>& tab, const Json& params,
                                    const char* refName, const char* xName, const char* yName,
                                    std::string& label);
  Before watch(const std::shared_ptr<Tab>& tab);
  // Sends input, returning early when a dialog opens (the page waits for it, and so would we).
  void input(const std::shared_ptr<Tab>& tab, const std::string& method, const Json& params);
  void mouse(const std::shared_ptr<Tab>& tab, const std::string& type, double x, double y,
             const std::string& button = "none", int clicks = 0, int buttons = 0);
  // What an action did, after it: `did` and what followed (a load, a tab, a dialog, a change).
  std::string outcome(const std::shared_ptr<Tab>& tab, const Before& before, const std::string& did);
  std::string snapshotText(const std::shared_ptr<Tab>& tab, const std::string& mode);
  void recordRefs(const std::shared_ptr<Tab>& tab, int used);
  std::string checkedURL(const std::string& url);


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

  Settings settings;
  std::mutex engineLock;  // held while starting or replacing the engine
  std::shared_ptr<Engine> current;
  std::string lastEnding;  // why the last Chromium stopped, for the next answer
  uint64_t generations = 0;

  std::mutex tabsLock;  // guards the maps below and nextTab
  std::map<std::string, std::shared_ptr<Tab>> tabsByID;
  std::map<std::string, std::shared_ptr<Tab>> tabsBySession;
  uint64_t nextTab = 1;
};

// Helpers shared by the method files.

/// The address to load for what an agent typed: a bare host gets https:// (http:// for
/// localhost and 127.x); a file: address must lie under one of `allowedFolders`, links
/// resolved. Throws Failure saying why not.
std::string checkedAddress(const std::string& url, const std::vector<std::string>& allowedFolders);

/// What a snapshot answers for `text`: its lines against `last` (the tab's previous snapshot in
/// the same mode) when given, cut at `limit` characters (none when 0 or less) with a last line
/// that says so. Pure, for the fuzzer.
std::string snapshotAnswer(const std::string& text, const std::string* last, double limit);

/// A string parameter, or empty.
std::string stringParam(const Json& params, const char* name);
/// A boolean parameter: true, or a string "true"/"1"; false otherwise.
bool flagParam(const Json& params, const char* name);
/// A number parameter given as a number or as its digits; `fallback` when absent. Throws
/// Failure naming the parameter when it is there but not a number.
double numberParam(const Json& params, const char* name, double fallback);
/// `text` quoted as a JSON string: what an agent reads for a name or a title.
std::string quote(const std::string& text);
/// The first `limit` characters (code points) of UTF-8 `text`; `cut` tells whether any were
/// left out, `total` how many there were.
std::string firstCharacters(const std::string& text, size_t limit, bool& cut, size_t& total);

}  // namespace nurel::browser

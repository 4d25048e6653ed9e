// tests/browser_fixture.cpp: the shared HTTP server, back end and process helpers of the tests
// against real Chromium.
#include "tests/browser_fixture.h"

#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>

#include "browser/chromium.h"
#include "link/json.h"

namespace nurel::testing {

namespace {

using namespace std::chrono_literals;

std::string repeatText(const std::string& paragraph, int times) {
  std::string out;
  for (int i = 0; i < times; ++i) out += "<p>" + paragraph + " " + std::to_string(i) + ".</p>\n";
  return out;
}

std::mutex pagesLock;
std::map<std::string, Response>& extraPages() {
  static std::map<std::string, Response> pages;
  return pages;
}

Response page(const std::string& path) {
  Response r;
  std::string bare = path.substr(0, path.find('?'));
  {
    std::lock_guard<std::mutex> guard(pagesLock);
    auto found = extraPages().find(bare);
    if (found != extraPages().end()) return found->second;
  }
  if (bare == "/") {
    r.body = "<title>Home</title><h1>Welcome home</h1><a href=/second>Second</a>";
  } else if (bare == "/second") {
    r.body = "<title>Second</title><p>The second page</p>";
  } else if (bare == "/never") {
    r.hang = true;
  } else if (bare == "/slow") {
    r.delayMilliseconds = 1500;
    r.type = "text/plain";
    r.body = "slow";
  } else if (bare == "/busy") {
    r.body = "<title>Busy</title><script>fetch('/slow').then((r) => r.text())</script><p>busy</p>";
  } else if (bare == "/long") {
    r.body = "<title>Long</title><article><h1>A long story</h1>" +
             repeatText("Once upon a time there was a page that went on and on, line after line",
                        400) +
             "</article>";
  } else if (bare == "/article") {
    r.body = "<title>News</title><nav><a href=/>Home</a> <a href=/second>Menu item</a></nav>"
             "<article><h1>The headline</h1>" +
             repeatText("A sentence of the article, long enough to count as prose for a reader", 12) +
             "<ul><li>First point</li><li>Second point</li></ul></article>"
             "<footer>Copyright footer</footer>";
  } else if (bare == "/tall") {
    r.body = "<title>Tall</title><body style='margin:0'><div style='height:3000px;"
             "background:linear-gradient(red,blue)'>top</div></body>";
  } else if (bare == "/later") {
    r.body = "<title>Later</title><p id=old>Loading…</p><script>setTimeout(() => {"
             "document.getElementById('old').remove();"
             "document.body.insertAdjacentHTML('beforeend', '<p>Ready now</p>');"
             "history.pushState({}, '', '/later?step=2'); }, 600)</script>";
  } else if (bare == "/outline") {
    r.body = "<html lang=en><title>Outline</title><header>Top</header><nav aria-label=Main>"
             "<a href=/>One</a><a href=/second>Two</a></nav><main><h1>Heading one</h1>"
             "<h2>Heading two</h2><form aria-label=Search><input name=q autofocus>"
             "<button>Go</button></form></main><footer>Bottom</footer></html>";
  } else if (bare == "/missing") {
    r.status = 404;
    r.body = "<title>Not here</title><p>Nothing here</p>";
  } else {
    r.status = 404;
    r.body = "no such page";
  }
  return r;
}

HttpServer* server = nullptr;
HttpServer* secondServer = nullptr;  // the same pages on another port: another origin
BackEnd* sharedBackEnd = nullptr;
RemoteChromium* remote = nullptr;

class Shared : public ::testing::Environment {
 public:
  void SetUp() override {
    server = new HttpServer(page);
    secondServer = new HttpServer(page);
    if (overWebSocket()) remote = new RemoteChromium();
    sharedBackEnd = new BackEnd();
  }
  void TearDown() override {
    delete sharedBackEnd;
    delete secondServer;
    delete remote;
    delete server;
  }
};

// The Chromium the tests run: the first of chromium and chromium-headless-shell, resolving no
// name but this machine's own, so that pages that name other hosts (the saved real pages do)
// get no answer and nothing leaves the machine.
// Chromium resolves no name but the machine's own: nothing a test page names is fetched.
const char* const hostRules = "--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE 127.0.0.1, EXCLUDE localhost";

const auto* environment = ::testing::AddGlobalTestEnvironment(new Shared);

}  // namespace

BackEnd& shared() { return *sharedBackEnd; }

bool overWebSocket() {
  const char* transport = std::getenv("NUREL_TEST_TRANSPORT");
  return transport && std::string(transport) == "websocket";
}

RemoteChromium& sharedRemote() { return *remote; }

RemoteChromium::RemoteChromium() { start(); }

RemoteChromium::~RemoteChromium() { kill(); }

void RemoteChromium::kill() {
  if (child <= 0) return;
  ::kill(-child, SIGKILL);
  ::kill(child, SIGKILL);
  while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
  }
  child = -1;
}

void RemoteChromium::start() {
  kill();
  std::string portFile = dir.file("profile/DevToolsActivePort");
  std::filesystem::remove(portFile);
  // The back end's own switches, with a port in place of the pipe.
  std::vector<std::string> words = {browser::findChromium(), hostRules};
  for (std::string word : browser::chromiumSwitches(dir.file("profile"), false)) {
    if (word == "--remote-debugging-pipe") {
      word = "--remote-debugging-port=" + std::to_string(port);
      words.push_back("--remote-debugging-address=127.0.0.1");
    }
    words.push_back(word);
  }
  std::vector<char*> argv;
  for (auto& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  std::string log = dir.file("chromium.log");
  size_t before = fileText(log).size();
  pid_t parent = getpid();
  child = fork();
  if (child == 0) {
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(1);
    int null = open("/dev/null", O_RDWR);
    int out = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    dup2(null, 0);
    dup2(out, 1);
    dup2(out, 2);
    for (int fd = 3; fd < 1024; ++fd) close(fd);
    execv(argv[0], argv.data());
    _exit(127);
  }
  ASSERT_GT(child, 0);
  if (port == 0) {
    // On a port of its choosing, it says which in its profile.
    ASSERT_TRUE(eventually([&] { return fileText(portFile).find('\n') != std::string::npos; }, 30s))
        << "Chromium gave no DevTools port: " << fileText(log);
    std::string active = fileText(portFile);
    port = std::stoi(active.substr(0, active.find('\n')));
    path = active.substr(active.find('\n') + 1);
    path = path.substr(0, path.find('\n'));
    return;
  }
  // On a port given, it writes no such file: the browser's new id is in what it prints.
  std::string said = "DevTools listening on ws://127.0.0.1:" + std::to_string(port);
  ASSERT_TRUE(eventually([&] {
    std::string text = fileText(log).substr(before);
    size_t at = text.find(said);
    return at != std::string::npos && text.find('\n', at) != std::string::npos;
  }, 30s)) << "Chromium didn't listen on its port again: " << fileText(log);
  std::string text = fileText(log).substr(before);
  size_t at = text.find(said) + said.size();
  path = text.substr(at, text.find('\n', at) - at);
}

std::vector<std::string> RemoteChromium::pages() const {
  // A plain GET of /json/list.
  std::vector<std::string> found;
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(uint16_t(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    close(fd);
    return found;
  }
  // HTTP/1.1, as Chromium's DevTools server hangs up on 1.0: the body is Content-Length long.
  std::string request = "GET /json/list HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
  if (write(fd, request.data(), request.size()) != ssize_t(request.size())) {
    close(fd);
    return found;
  }
  std::string answer;
  size_t body = std::string::npos, length = 0;
  char block[65536];
  while (body == std::string::npos || answer.size() < body + 4 + length) {
    ssize_t got = read(fd, block, sizeof block);
    if (got <= 0) break;
    answer.append(block, size_t(got));
    if (body == std::string::npos && (body = answer.find("\r\n\r\n")) != std::string::npos) {
      size_t field = answer.find("Content-Length:");
      if (field == std::string::npos || field > body) break;
      length = std::stoul(answer.substr(field + 15));
    }
  }
  close(fd);
  if (body == std::string::npos) return found;
  Json list = parseDocument(answer.substr(body + 4));
  for (const Json& target : list)
    if (target.value("type", "") == "page") found.push_back(target.value("url", ""));
  return found;
}

std::string url(const std::string& path) { return server->url(path); }

std::string otherOrigin(const std::string& path) { return secondServer->url(path); }

std::string otherSite(const std::string& path) {
  return "http://localhost:" + std::to_string(server->port()) + path;
}

void servePage(const std::string& path, const std::string& html) {
  Response response;
  response.body = html;
  serve(path, response);
}

void serve(const std::string& path, const Response& response) {
  std::lock_guard<std::mutex> guard(pagesLock);
  extraPages()[path] = response;
}

std::string refOn(const std::string& snapshot, const std::string& part) {
  size_t at = snapshot.find(part);
  if (at == std::string::npos) return "";
  size_t end = snapshot.find('\n', at);
  size_t ref = snapshot.find("[ref=", at);
  if (ref == std::string::npos || ref > end) return "";
  return snapshot.substr(ref + 5, snapshot.find(']', ref) - ref - 5);
}

std::pair<uint32_t, uint32_t> pngSize(const std::string& png) {
  if (png.size() < 24 || png.compare(1, 3, "PNG") != 0) return {0, 0};
  auto word = [&](size_t at) {
    return uint32_t(uint8_t(png[at])) << 24 | uint32_t(uint8_t(png[at + 1])) << 16 |
           uint32_t(uint8_t(png[at + 2])) << 8 | uint32_t(uint8_t(png[at + 3]));
  };
  return {word(16), word(20)};
}

std::string readWhole(int fd) {
  std::string out;
  char block[4096];
  for (;;) {
    ssize_t got = read(fd, block, sizeof block);
    if (got <= 0) return out;
    out.append(block, size_t(got));
  }
}

std::string fileText(const std::string& path) {
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

pid_t backEnd(const std::string& socket) {
  std::string wanted = "NUREL_SOCKET=" + socket;
  for (auto& entry : std::filesystem::directory_iterator("/proc")) {
    std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::error_code error;
    auto exe = std::filesystem::read_symlink(entry.path() / "exe", error);
    if (error || exe.filename() != "nurel-browser") continue;
    std::string environment = fileText(entry.path() / "environ");
    for (size_t start = 0; start < environment.size();) {
      size_t end = environment.find('\0', start);
      if (end == std::string::npos) end = environment.size();
      if (environment.compare(start, end - start, wanted) == 0) return std::stoi(name);
      start = end + 1;
    }
  }
  return -1;
}

pid_t chromiumOf(pid_t backEndPid) {
  for (auto& entry : std::filesystem::directory_iterator("/proc")) {
    std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::string stat = fileText(entry.path() / "stat");
    size_t close = stat.rfind(')');
    if (close == std::string::npos) continue;
    int parent = 0;
    char state;
    if (std::sscanf(stat.c_str() + close + 1, " %c %d", &state, &parent) != 2) continue;
    if (parent != backEndPid) continue;
    if (fileText(entry.path() / "cmdline").find("--remote-debugging-pipe") != std::string::npos)
      return std::stoi(name);
  }
  return -1;
}

Processes processesOf(const BackEnd& place) {
  Processes running;
  running.back = backEnd(place.socket());
  running.chromium = chromiumOf(running.back);
  return running;
}

void expectGone(const BackEnd& place, const Processes& running, std::chrono::milliseconds most) {
  EXPECT_TRUE(eventually([&] { return !alive(running.back); }, most))
      << "back end " << running.back;
  EXPECT_TRUE(eventually([&] { return !alive(running.chromium); }))
      << "Chromium " << running.chromium;
  EXPECT_FALSE(std::filesystem::exists(place.socket()));
}

bool alive(pid_t pid) { return pid > 0 && kill(pid, 0) == 0 && fileText("/proc/" + std::to_string(pid) + "/stat").find(") Z") == std::string::npos; }

int connectTo(const std::string& path) {
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

BackEnd::BackEnd(const Env& extra) {
  options.env = {{"NUREL_SOCKET", socket()},
                 {"XDG_DATA_HOME", dir.file("data")},
                 {"NUREL_TIMEOUT", "5"},
                 {"NUREL_IDLE_MINUTES", "10"},
                 {"NUREL_HEADED", std::nullopt},
                 {"NUREL_ALLOW_FILES", dir.file("allowed")},
                 {"NUREL_CHROMIUM", std::nullopt},
                 {"NUREL_CHROMIUM_FLAGS", hostRules},
                 {"NUREL_CDP_URL", std::nullopt},
                 {"NUREL_CDP_HEADERS", std::nullopt}};
  // Downloads go where the person's user-dirs.dirs says: here, a folder of the test's.
  std::filesystem::create_directories(dir.file("config"));
  writeTestFile(dir.file("config/user-dirs.dirs"),
                "# written by the test\nXDG_DOWNLOAD_DIR=\"" + dir.file("downloads") + "\"\n");
  options.env["XDG_CONFIG_HOME"] = dir.file("config");
  if (overWebSocket()) options.env["NUREL_CDP_URL"] = sharedRemote().webSocketURL();
  for (auto& [name, value] : extra) options.env[name] = value;
  options.timeoutSeconds = 90;
  std::filesystem::create_directories(dir.file("allowed"));
}
BackEnd::~BackEnd() {
  if (pid_t pid = backEnd(socket()); pid > 0) {
    kill(pid, SIGTERM);
    eventually([&] { return !alive(pid); }, 10s);
  }
}
Outcome BackEnd::nurel(const std::vector<std::string>& arguments) const {
  return runProgram(NUREL_BUNDLED, arguments, options);
}

std::string BackEnd::open(const std::string& address) const {
  Outcome opened = nurel({"open", address});
  EXPECT_EQ(opened.status, 0) << opened.err;
  return opened.out.substr(0, opened.out.find(' '));
}

}  // namespace nurel::testing

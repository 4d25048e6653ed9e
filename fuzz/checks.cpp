// fuzz/checks.cpp: the properties each fuzz target holds the program to.
#include "fuzz/checks.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "cli/scan.h"
#include "link/json.h"
#include "link/launch.h"
#include "link/nurel.h"
#include "link/places.h"
#include "mcp/mcp_server.h"
#include "render/render.h"

#if defined(__SANITIZE_ADDRESS__)
#define NUREL_FUZZ_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define NUREL_FUZZ_ASAN 1
#endif
#endif
#ifdef NUREL_FUZZ_ASAN
// The sanitizer runtime's allocator hooks; g++ ships the runtime without this header.
extern "C" {
int __sanitizer_install_malloc_and_free_hooks(void (*)(const volatile void*, size_t),
                                              void (*)(const volatile void*));
size_t __sanitizer_get_allocated_size(const volatile void*);
}
#endif

namespace nurel::fuzz {

namespace {

// Starts nothing and never sleeps, so a connection that fails gives up at once.
class NoLaunch : public Launch {
 public:
  void start(const std::string&, const Json&) override {}
  void pause(unsigned) override {}
};

// A browser's place with no bundle, listening (or not) on `socket`.
Place placeAt(std::string socket) {
  Place place;
  place.socketPath = std::move(socket);
  return place;
}

std::string describe(const std::exception& error) {
  return std::string("unexpected exception: ") + error.what();
}

// Parses like a reader of this program: a document at most `maxDepth` deep, or nothing. A NUL
// byte is in no JSON text, though nlohmann's reader stops at one as at the end.
bool readable(std::string_view text, Json& value) {
  if (text.find('\0') != std::string_view::npos) return false;
  int deepest = 0;
  auto depth = [&deepest](int level, Json::parse_event_t, Json&) {
    deepest = std::max(deepest, level);
    return true;
  };
  value = Json::parse(text.begin(), text.end(), depth, false);
  return !value.is_discarded() && deepest <= maxDepth;
}

// `value` with each large integer as nlohmann reads its characters, a double: what nlohmann
// reads back from a text that holds the value.
Json asNlohmannReadsIt(const Json& value) {
  if (auto text = largeIntegerText(value)) return Json::parse(*text);
  Json out = value;
  if (value.is_structured())
    for (auto& member : out) member = asNlohmannReadsIt(member);
  return out;
}

// Whether `text` reads back, with this program's reader, as `value` itself: large integers
// with all their digits.
bool readsBackExactly(const std::string& text, const Json& value) {
  try {
    return parseDocument(text) == value;
  } catch (const JsonError&) {
    return false;
  }
}

bool stringsValid(const Json& value) {
  if (value.is_string()) return validUtf8(value.get_ref<const std::string&>());
  if (value.is_object()) {
    for (auto& [key, member] : value.items())
      if (!validUtf8(key) || !stringsValid(member)) return false;
  } else if (value.is_array()) {
    for (auto& member : value)
      if (!stringsValid(member)) return false;
  }
  return true;
}

}  // namespace

std::vector<std::string_view> splitAtLineFeeds(std::string_view text) {
  std::vector<std::string_view> lines;
  for (size_t at = 0; at <= text.size();) {
    size_t end = text.find('\n', at);
    if (end == std::string_view::npos) end = text.size();
    lines.push_back(text.substr(at, end - at));
    at = end + 1;
  }
  return lines;
}

std::string shortened(std::string_view text) {
  return std::string(text.substr(0, 300)) + (text.size() > 300 ? "..." : "");
}

bool validUtf8(std::string_view text) {
  for (size_t i = 0; i < text.size();) {
    auto byte = [&](size_t at) { return static_cast<unsigned char>(text[at]); };
    unsigned char lead = byte(i);
    size_t length = lead < 0x80 ? 1 : lead >= 0xC2 && lead <= 0xDF ? 2
                                  : lead >= 0xE0 && lead <= 0xEF ? 3
                                  : lead >= 0xF0 && lead <= 0xF4 ? 4
                                                                 : 0;
    if (length == 0 || i + length > text.size()) return false;
    for (size_t k = 1; k < length; ++k)
      if ((byte(i + k) & 0xC0) != 0x80) return false;
    if (length == 3) {
      if (lead == 0xE0 && byte(i + 1) < 0xA0) return false;   // overlong
      if (lead == 0xED && byte(i + 1) >= 0xA0) return false;  // surrogate
    }
    if (length == 4) {
      if (lead == 0xF0 && byte(i + 1) < 0x90) return false;   // overlong
      if (lead == 0xF4 && byte(i + 1) >= 0x90) return false;  // past U+10FFFF
    }
    i += length;
  }
  return true;
}

// ---- the command line ----

std::string checkCommandLine(const uint8_t* data, size_t size) {
  if (size == 0) return "";
  static const std::vector<const Command*> table = [] {
    std::vector<const Command*> browser;
    for (const Command& command : commands())
      if (command.talksToBrowser()) browser.push_back(&command);
    return browser;
  }();
  const Command& command = *table[data[0] % table.size()];
  std::vector<std::string> arguments;
  if (size > 1) {
    std::string_view rest(reinterpret_cast<const char*>(data) + 1, size - 1);
    for (size_t at = 0;;) {
      size_t end = rest.find('\0', at);
      arguments.emplace_back(rest.substr(at, end == std::string_view::npos ? end : end - at));
      if (end == std::string_view::npos) break;
      at = end + 1;
    }
  }
  try {
    Json params = requestParams(command, arguments);
    if (!params.is_object()) return "the parameters are not an object: " + params.dump();
    std::string text;
    try {
      text = compact(params);
    } catch (const JsonError&) {
      for (auto& argument : arguments)
        if (!validUtf8(argument)) return "";
      return "parameters from valid UTF-8 arguments could not be serialised";
    }
    Json back = Json::parse(text, nullptr, false);
    if (back != asNlohmannReadsIt(params))
      return "the parameters do not read back as themselves: " + shortened(text);
    if (!readsBackExactly(text, params))
      return "the parameters do not read back exactly: " + shortened(text);
    return "";
  } catch (const UsageError&) {
    return "";
  } catch (const std::exception& error) {
    return describe(error);
  } catch (...) {
    return "an exception that is not a std::exception";
  }
}

// ---- the MCP line handler ----

namespace {

std::string checkAnswer(std::string_view line, const Json& request,
                        const std::optional<std::string>& answer) {
  bool wanted = request.is_object() && !request.empty() && request.contains("id");
  if (!wanted) return answer ? "an answer to a line that wants none: " + shortened(*answer) : "";
  if (!answer) return "no answer to a request with an id";
  if (answer->find('\n') != std::string::npos) return "an answer of more than one line";
  if (!validUtf8(*answer)) return "an answer that is not valid UTF-8";
  Json reply = Json::parse(*answer, nullptr, false);
  if (!reply.is_object()) return "an answer that is not a JSON object: " + shortened(*answer);
  if (reply.value("jsonrpc", Json()) != "2.0") return "an answer without \"jsonrpc\": \"2.0\"";
  if (!reply.contains("id") || reply["id"] != request["id"])
    return "an answer with another id: " + shortened(*answer);
  // nlohmann reads an id beyond 64 bits as a double: the answer must hold it digit for digit.
  try {
    if (parseDocument(*answer)["id"] != parseDocument(line)["id"])
      return "an answer whose id differs in its digits: " + shortened(*answer);
  } catch (const JsonError&) {
    return "an answer to a line this program cannot read: " + shortened(*answer);
  }
  bool result = reply.contains("result"), error = reply.contains("error");
  if (reply.size() != 3 || result == error)
    return "an answer without exactly one of result and error: " + shortened(*answer);
  if (result && !reply["result"].is_object()) return "a result that is not an object";
  if (error) {
    const Json& what = reply["error"];
    if (!what.is_object() || !what.value("code", Json()).is_number_integer() ||
        !what.value("message", Json()).is_string())
      return "an error without an integer code and a message";
  }
  return "";
}

}  // namespace

std::string checkMcpLines(const uint8_t* data, size_t size) {
  NoLaunch launch;
  // Nothing can ever listen under /proc, so every tool call fails to connect.
  MCPServer server(placeAt("/proc/nurel-fuzz/agent.sock"), launch);
  std::string_view input(reinterpret_cast<const char*>(data), size);
  for (std::string_view line : splitAtLineFeeds(input)) {
    // The loop takes a carriage return before the line feed off, as hosts on Windows send it.
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    Json request;
    if (!readable(line, request)) request = nullptr;
    std::optional<std::string> answer;
    try {
      answer = server.handle(line);
    } catch (const std::exception& error) {
      return describe(error);
    } catch (...) {
      return "an exception that is not a std::exception";
    }
    std::string problem = checkAnswer(line, request, answer);
    if (!problem.empty()) return problem + " (line: " + shortened(line) + ")";
  }
  return "";
}

// ---- the browser reply reader ----

namespace {

#ifdef NUREL_FUZZ_ASAN
std::atomic<bool> tracking{false};
std::atomic<long long> live{0};
std::atomic<long long> peak{0};

void onMalloc(const volatile void*, size_t bytes) {
  if (!tracking.load(std::memory_order_relaxed)) return;
  long long now = live += static_cast<long long>(bytes);
  for (long long high = peak.load(); now > high && !peak.compare_exchange_weak(high, now);) {
  }
}

void onFree(const volatile void* pointer) {
  if (!tracking.load(std::memory_order_relaxed) || !pointer) return;
  live -= static_cast<long long>(__sanitizer_get_allocated_size(pointer));
}
#endif

// A listening socket in a folder of its own, made once per process.
struct Listener {
  std::string folder;
  std::string path;
  int fd = -1;
  Listener() {
    char pattern[] = "/tmp/nurel-fuzz.XXXXXX";
    if (!mkdtemp(pattern)) std::abort();
    folder = pattern;
    path = folder + "/agent.sock";
    fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(fd, 4) != 0)
      std::abort();
#ifdef NUREL_FUZZ_ASAN
    __sanitizer_install_malloc_and_free_hooks(onMalloc, onFree);
#endif
  }
  ~Listener() {
    close(fd);
    unlink(path.c_str());
    rmdir(folder.c_str());
  }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;
};

// Sends `bytes` as the browser and hangs up its sending side.
void sendAndHangUp(int peer, std::string_view bytes) {
  for (size_t done = 0; done < bytes.size();) {
    ssize_t wrote = ::send(peer, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (wrote < 1) break;
    done += size_t(wrote);
  }
  shutdown(peer, SHUT_WR);
}

// The browser of a long stream, on a thread of its own: it also drains the requests, which
// would otherwise fill the socket and stop the link from writing.
void playBrowser(int peer, std::string_view bytes) {
  sendAndHangUp(peer, bytes);
  char block[4096];
  while (read(peer, block, sizeof block) > 0) {
  }
}

// Streams up to this size fit in the sockets' buffers both ways (with at most one request of
// about 40 bytes per input byte), so they are played without a thread: switching threads on a
// busy machine costs more than the whole check.
constexpr size_t shortStream = 4096;
constexpr int socketBuffer = 1 << 20;

}  // namespace

std::string checkReplyStream(const uint8_t* data, size_t size) {
  static Listener listener;
  NoLaunch launch;
  Nurel nurel(placeAt(listener.path), launch);
  try {
    nurel.connect();
  } catch (const std::exception& error) {
    return "cannot reach the test's own socket: " + std::string(error.what());
  }
  int peer = accept4(listener.fd, nullptr, nullptr, SOCK_CLOEXEC);
  if (peer < 0) return "the test's socket accepted nothing";
  std::string_view bytes(reinterpret_cast<const char*>(data), size);
  std::thread writer;
  if (size <= shortStream) {
    setsockopt(peer, SOL_SOCKET, SO_SNDBUF, &socketBuffer, sizeof socketBuffer);
    setsockopt(nurel.descriptor(), SOL_SOCKET, SO_SNDBUF, &socketBuffer, sizeof socketBuffer);
    sendAndHangUp(peer, bytes);
  } else {
    writer = std::thread(playBrowser, peer, bytes);
  }

  std::string problem;
#ifdef NUREL_FUZZ_ASAN
  live = 0;
  peak = 0;
  tracking = true;
#endif
  // Every call takes at least one line or meets the end of the stream, so there can be no
  // more calls than bytes before the connection is reported lost.
  for (size_t calls = 0; problem.empty(); ++calls) {
    if (calls > size + 1) {
      problem = "more calls than bytes without the connection being lost";
      break;
    }
    try {
      nurel.call("tabs");
    } catch (const NurelError& error) {
      if (error.isLost()) break;
    } catch (const JsonError&) {
    } catch (const std::exception& error) {
      problem = describe(error);
    } catch (...) {
      problem = "an exception that is not a std::exception";
    }
  }
#ifdef NUREL_FUZZ_ASAN
  tracking = false;
  long long allowed = 128 * static_cast<long long>(size) + (1 << 20);
  if (problem.empty() && peak > allowed)
    problem = "reading " + std::to_string(size) + " bytes took " + std::to_string(peak.load()) +
              " bytes of memory at its peak";
#endif
  // The link leaves its descriptor open on purpose; here it has served its turn.
  close(nurel.descriptor());
  if (writer.joinable()) writer.join();
  close(peer);
  return problem;
}

// ---- rendering ----

namespace {

// Reads a value out of bytes: a type, then what that type needs. Runs out into zeros.
class Maker {
 public:
  Maker(const uint8_t* data, size_t size) : data(data), size(size) {}

  Json value(int depth) {
    uint8_t kind = byte() % (depth >= 32 ? 6 : 8);
    switch (kind) {
      case 0: return nullptr;
      case 1: return (byte() & 1) != 0;
      case 2: return static_cast<int64_t>(word());
      case 3: return word();
      case 4: return number();
      case 5: return text();
      case 6: {
        Json array = Json::array();
        for (int n = byte() % 8; n > 0; --n) array.push_back(value(depth + 1));
        return array;
      }
      default: {
        Json object = Json::object();
        for (int n = byte() % 8; n > 0; --n) object[text()] = value(depth + 1);
        return object;
      }
    }
  }

 private:
  uint8_t byte() { return at < size ? data[at++] : 0; }
  uint64_t word() {
    uint64_t out = 0;
    for (int i = 0; i < 8; ++i) out = out << 8 | byte();
    return out;
  }
  // Replies never hold NaN or infinities: JSON has no spelling for them.
  double number() {
    uint64_t bits = word();
    double out;
    std::memcpy(&out, &bits, sizeof out);
    return std::isfinite(out) ? out : 0.0;
  }
  std::string text() {
    size_t length = byte() % 32;
    std::string out;
    for (size_t i = 0; i < length; ++i) out += static_cast<char>(byte());
    return out;
  }

  const uint8_t* data;
  size_t size;
  size_t at = 0;
};

}  // namespace

std::string checkPrinted(const uint8_t* data, size_t size) {
  Json value;
  if (size > 0 && (data[0] == '{' || data[0] == '[')) {
    // Replies reach printed() through the reader, which refuses what is too deep.
    try {
      value = parseDocument(std::string_view(reinterpret_cast<const char*>(data), size));
    } catch (const JsonError&) {
      return "";
    }
  } else {
    value = Maker(data, size).value(0);
  }
  std::string text;
  try {
    text = printed(value);
  } catch (const std::exception& error) {
    return describe(error);
  }
  if (value.is_string())
    return text == value.get_ref<const std::string&>() ? "" : "a string did not print as itself";
  if (!validUtf8(text)) return "printed text that is not valid UTF-8";
  Json back = Json::parse(text, nullptr, false);
  if (back.is_discarded()) return "printed text that does not parse: " + shortened(text);
  if (!value.is_structured())
    return back == asNlohmannReadsIt(value)
               ? ""
               : "a scalar printed as another value: " + shortened(text);
  if (stringsValid(value)) {
    if (back != asNlohmannReadsIt(value))
      return "printed text that reads back as another value: " + shortened(text);
    return readsBackExactly(text, value)
               ? ""
               : "printed text that does not read back exactly: " + shortened(text);
  }
  return back.type() == value.type() ? "" : "printed text of another type: " + shortened(text);
}

}  // namespace nurel::fuzz

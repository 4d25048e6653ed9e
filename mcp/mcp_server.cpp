// mcp/mcp_server.cpp: the MCP server's loop: lines in, answers out.
//
// Each line of standard input is one JSON-RPC message. Only objects with an "id" are answered;
// everything the server cannot read is dropped without a word, so a confused host never gets
// a stream of errors back and the next request is served as usual.
#include "mcp/mcp_server.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "catalogue/agent_guide.h"
#include "catalogue/catalogue.h"
#include "render/render.h"

namespace nurel {

namespace {

constexpr size_t readBlock = 65536;
constexpr const char* defaultVersion = "2025-06-18";

// A tool result may quote a path whose bytes are not UTF-8 (a folder named in another
// encoding); it is sent with replacement characters rather than not at all, so the host is
// never left waiting for an answer.
std::string answerText(const Json& id, Json result) {
  return compactRepaired({{"jsonrpc", "2.0"}, {"id", id}, {"result", std::move(result)}});
}

Json initialized(const Json& params) {
  auto version = params.find("protocolVersion");
  return {{"protocolVersion",
           version != params.end() && version->is_string() ? *version : Json(defaultVersion)},
          {"capabilities", {{"tools", Json::object()}}},
          {"serverInfo", {{"name", "nurel"}, {"version", "1"}}},
          {"instructions", agentGuide()}};
}

// A member of `object` when it has the wanted type, else `fallback`.
const Json& memberOr(const Json& object, const char* key, bool (Json::*wanted)() const noexcept,
                     const Json& fallback) {
  auto it = object.find(key);
  return it != object.end() && ((*it).*wanted)() ? *it : fallback;
}

// Answers lost on a closed standard output must not end the server, and while fd 1 is closed
// the next descriptor opened (the browser's socket) would take its place and receive them.
void keepOutputOpen() {
  if (fcntl(1, F_GETFD) >= 0 || errno != EBADF) return;
  int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (null > 1) {
    dup2(null, 1);
    close(null);
  }
}

}  // namespace

std::optional<std::string> MCPServer::handle(std::string_view line) {
  try {
    if (line.empty()) return std::nullopt;
    Json message;
    try {
      message = parseDocument(line);
    } catch (const JsonError&) {
      return std::nullopt;
    }
    // Batches, empty objects and notifications get no answer.
    if (!message.is_object() || message.empty()) return std::nullopt;
    auto id = message.find("id");
    if (id == message.end()) return std::nullopt;
    static const Json none = "";
    static const Json empty = Json::object();
    const std::string& method =
        memberOr(message, "method", &Json::is_string, none).get_ref<const std::string&>();
    const Json& params = memberOr(message, "params", &Json::is_object, empty);

    if (method == "initialize") return answerText(*id, initialized(params));
    if (method == "ping") return answerText(*id, Json::object());
    if (method == "tools/list")
      return R"({"jsonrpc":"2.0","id":)" + compact(*id) + R"(,"result":{"tools":)" + toolsText() +
             "}}";
    if (method == "tools/call") {
      const Json& name = memberOr(params, "name", &Json::is_string, none);
      const Json& arguments = memberOr(params, "arguments", &Json::is_object, empty);
      return answerText(*id, call(name.get_ref<const std::string&>(), arguments));
    }
    return compact({{"jsonrpc", "2.0"},
                    {"id", *id},
                    {"error", {{"code", -32601}, {"message", "unknown method " + method}}}});
  } catch (...) {
    // An answer that cannot be built (memory runs out) is dropped.
    return std::nullopt;
  }
}

void MCPServer::run() {
  keepOutputOpen();
  std::string buffer;
  size_t start = 0;       // where the next line begins in `buffer`
  size_t searched = 0;    // bytes from `start` known to hold no line feed
  bool skipping = false;  // inside a line too long to hold, which is dropped
  auto serve = [this](std::string_view line) {
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    try {
      if (auto answer = handle(line)) {
        *answer += '\n';
        // A host that stopped reading loses its answers; the server still reads to the end.
        writeAll(1, *answer);
      }
    } catch (const std::bad_alloc&) {
    }
  };
  for (;;) {
    if (auto* newline = static_cast<const char*>(std::memchr(buffer.data() + start + searched, '\n',
                                                             buffer.size() - start - searched))) {
      size_t end = size_t(newline - buffer.data());
      if (!skipping) serve(std::string_view(buffer).substr(start, end - start));
      skipping = false;
      start = end + 1;
      searched = 0;
      continue;
    }
    // Keep only the unfinished line, so memory follows the largest message.
    buffer.erase(0, skipping ? buffer.size() : start);
    start = 0;
    searched = buffer.size();
    size_t old = buffer.size();
    try {
      buffer.resize(old + readBlock);
    } catch (const std::bad_alloc&) {
      std::string().swap(buffer);
      old = searched = 0;
      skipping = true;
      buffer.resize(readBlock);
    }
    ssize_t got;
    for (;;) {
      got = read(0, buffer.data() + old, readBlock);
      if (got >= 0 || (errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK)) break;
      // Standard input may have been made non-blocking by whoever shares it: wait for it.
      if (errno != EINTR) waitFor(0, POLLIN);
    }
    buffer.resize(old + size_t(got > 0 ? got : 0));
    if (got < 1) break;
  }
  // A last line without a line feed still counts.
  if (!skipping && !buffer.empty()) serve(buffer);
}

}  // namespace nurel

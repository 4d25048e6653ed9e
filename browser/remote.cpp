// browser/remote.cpp: the WebSocket module, loaded with dlopen when a remote browser is first
// asked for, and its connection as a Transport.
#include "browser/remote.h"

#include <dlfcn.h>
#include <stdlib.h>

#include <mutex>

#include "browser/websocket_module.h"
#include "link/bound_symbol.h"

namespace nurel::browser {

namespace {

struct Module {
  decltype(&nurel_websocket_connect) connect = nullptr;
  decltype(&nurel_websocket_send) send = nullptr;
  decltype(&nurel_websocket_receive) receive = nullptr;
  decltype(&nurel_websocket_shut) shut = nullptr;
  decltype(&nurel_websocket_free) free = nullptr;
};

// The module at `path`, loaded once and kept for the rest of the process; throws BadAddress
// when it can't be.
const Module& module(const std::string& path) {
  static std::mutex lock;
  static Module loaded;
  static std::string problem;
  std::lock_guard<std::mutex> guard(lock);
  if (loaded.connect) return loaded;
  if (problem.empty()) {
    void* handle = path.empty() ? nullptr : dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    decltype(&nurel_websocket_interface) interface = nullptr;
    if (!handle) {
      const char* why = path.empty() ? nullptr : dlerror();
      problem = "nurel-browser's WebSocket module couldn't be loaded: " +
                (why ? std::string(why) : std::string("there is none beside this back end"));
    } else if (!bindSymbol(handle, interface, "nurel_websocket_interface") ||
               interface() != NUREL_WEBSOCKET_INTERFACE) {
      problem = "nurel-browser's WebSocket module " + path + " is of another version";
    } else if (Module found; bindSymbol(handle, found.connect, "nurel_websocket_connect") &&
                             bindSymbol(handle, found.send, "nurel_websocket_send") &&
                             bindSymbol(handle, found.receive, "nurel_websocket_receive") &&
                             bindSymbol(handle, found.shut, "nurel_websocket_shut") &&
                             bindSymbol(handle, found.free, "nurel_websocket_free")) {
      loaded = found;
      return loaded;
    } else {
      problem = "nurel-browser's WebSocket module " + path + " lacks a function it should have";
    }
  }
  throw BadAddress(problem);
}

// A text the module handed out, freed.
std::string taken(char* text) {
  std::string copy = text ? text : "";
  ::free(text);
  return copy;
}

class ModuleTransport : public Transport {
 public:
  ModuleTransport(const Module& module, nurel_websocket* socket) : module(module), socket(socket) {}
  ~ModuleTransport() override { module.free(socket); }
  ModuleTransport(const ModuleTransport&) = delete;
  ModuleTransport& operator=(const ModuleTransport&) = delete;

  bool send(std::string_view message) override {
    return module.send(socket, message.data(), message.size()) != 0;
  }

  std::string receive(const std::function<void(std::string_view)>& message) override {
    // Called back on the module's side: nothing may be thrown through it.
    auto handOn = [](void* context, const char* data, size_t size) {
      try {
        (*static_cast<const std::function<void(std::string_view)>*>(context))(
            std::string_view(data, size));
      } catch (...) {
      }
    };
    return taken(
        module.receive(socket, handOn, const_cast<void*>(static_cast<const void*>(&message))));
  }

  void shut() override { module.shut(socket); }

 private:
  const Module& module;
  nurel_websocket* socket;
};

}  // namespace

Remote openRemote(const std::string& url, const Headers& headers, std::chrono::seconds timeout,
                  const std::string& modulePath) {
  const Module* found;
  try {
    found = &module(modulePath);
  } catch (const BadAddress& error) {
    throw BadAddress("couldn't reach the browser at " + shownAddress(url) + ": " + error.what());
  }
  std::vector<const char*> names, values;
  for (const auto& [name, value] : headers) {
    names.push_back(name.c_str());
    values.push_back(value.c_str());
  }
  char* text = nullptr;
  int lasting = 0;
  nurel_websocket* socket = found->connect(url.c_str(), names.data(), values.data(), names.size(),
                                           int(timeout.count()), &text, &lasting);
  std::string said = taken(text);
  if (!socket) {
    if (said.empty()) said = "couldn't reach the browser at " + shownAddress(url);
    if (lasting) throw BadAddress(said);
    throw ConnectError(said);
  }
  return Remote{std::make_unique<ModuleTransport>(*found, socket), said};
}

}  // namespace nurel::browser

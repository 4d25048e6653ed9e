// browser/websocket_module.cpp: the WebSocket transport behind the module's C interface. Nothing
// thrown here leaves it: each failure becomes a text for the back end.
#include "browser/websocket_module.h"

#include <stdlib.h>
#include <string.h>

#include <exception>
#include <memory>
#include <new>
#include <string>

#include "browser/websocket.h"

using nurel::browser::WebSocketTransport;

struct nurel_websocket {
  std::unique_ptr<WebSocketTransport> transport;
};

namespace {

char* copied(const std::string& text) {
  char* copy = static_cast<char*>(malloc(text.size() + 1));
  if (copy) memcpy(copy, text.c_str(), text.size() + 1);
  return copy;
}

}  // namespace

extern "C" {

int nurel_websocket_interface(void) { return NUREL_WEBSOCKET_INTERFACE; }

nurel_websocket* nurel_websocket_connect(const char* url, const char* const* names,
                                         const char* const* values, size_t count,
                                         int timeout_seconds, char** text, int* lasting) {
  *lasting = 0;
  try {
    nurel::browser::Headers headers;
    for (size_t i = 0; i < count; ++i) headers.emplace_back(names[i], values[i]);
    auto socket = std::make_unique<nurel_websocket>();
    socket->transport =
        WebSocketTransport::connect(url, headers, std::chrono::seconds(timeout_seconds));
    *text = copied(socket->transport->address());
    return socket.release();
  } catch (const nurel::browser::BadAddress& error) {
    *lasting = 1;
    *text = copied(error.what());
  } catch (const std::exception& error) {
    *text = copied(error.what());
  }
  return nullptr;
}

int nurel_websocket_send(nurel_websocket* socket, const char* data, size_t size) {
  try {
    return socket->transport->send(std::string_view(data, size)) ? 1 : 0;
  } catch (const std::exception&) {
    return 0;
  }
}

char* nurel_websocket_receive(nurel_websocket* socket,
                              void (*message)(void* context, const char* data, size_t size),
                              void* context) {
  try {
    return copied(socket->transport->receive(
        [&](std::string_view data) { message(context, data.data(), data.size()); }));
  } catch (const std::exception& error) {
    return copied(std::string("the connection to the browser broke: ") + error.what());
  }
}

void nurel_websocket_shut(nurel_websocket* socket) {
  try {
    socket->transport->shut();
  } catch (const std::exception&) {
  }
}

void nurel_websocket_free(nurel_websocket* socket) { delete socket; }
}

// browser/websocket_module.h: what the WebSocket module (nurel-websocket.so) offers the back end
// that loads it. A C interface: the module carries its own C++ runtime, so no C++ object or
// exception crosses it. Texts the module hands out are allocated with malloc, for free().
#pragma once

#include <stddef.h>

#define NUREL_WEBSOCKET_EXPORT __attribute__((visibility("default")))

extern "C" {

/// Raised whenever the functions below change.
#define NUREL_WEBSOCKET_INTERFACE 1

typedef struct nurel_websocket nurel_websocket;

/// NUREL_WEBSOCKET_INTERFACE, as the module was built.
NUREL_WEBSOCKET_EXPORT int nurel_websocket_interface(void);

/// Connects (see openRemote in remote.h); `names` and `values` hold `count` header lines.
/// Gives the connection and sets `*text` to the address reached, as shown; or gives null and
/// sets `*text` to why, and `*lasting` to whether trying again is pointless.
NUREL_WEBSOCKET_EXPORT nurel_websocket* nurel_websocket_connect(const char* url,
                                                                const char* const* names,
                                                                const char* const* values,
                                                                size_t count, int timeout_seconds,
                                                                char** text, int* lasting);

/// Queues one message; 0 when the connection is gone.
NUREL_WEBSOCKET_EXPORT int nurel_websocket_send(nurel_websocket* socket, const char* data,
                                                size_t size);

/// Reads until the connection ends, handing on each whole message; gives what ended it.
NUREL_WEBSOCKET_EXPORT char* nurel_websocket_receive(nurel_websocket* socket,
                                                     void (*message)(void* context,
                                                                     const char* data, size_t size),
                                                     void* context);

/// Makes nurel_websocket_receive return soon, from any thread.
NUREL_WEBSOCKET_EXPORT void nurel_websocket_shut(nurel_websocket* socket);

/// Ends the connection and frees it.
NUREL_WEBSOCKET_EXPORT void nurel_websocket_free(nurel_websocket* socket);
}

// link/nurel.h: the connection to the running browser.
//
// One request per line goes out ({"id", "method", "params"}), one reply per line comes back
// ({"id", "result"} or {"error"}). Calls block until their reply arrives or the socket fails;
// there are no time-outs on this side.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <string>

#include "link/json.h"
#include "link/launch.h"
#include "link/nurel_error.h"
#include "link/places.h"

namespace nurel {

class Nurel {
 public:
  /// A new, unconnected link to the browser at `place`. `launch` starts the browser and paces
  /// the retries of connect().
  explicit Nurel(Place place, Launch& launch = systemLaunch())
      : place(std::move(place)), launch(launch) {}
  /// Leaves the descriptor open on purpose: it lives until exit or a later connect().
  ~Nurel() = default;
  Nurel(const Nurel&) = delete;
  Nurel& operator=(const Nurel&) = delete;

  /// Connects to the place's socket; when nothing answers, starts the browser in its bundle and
  /// tries 100 more times, 0.2 s apart. On success any earlier descriptor is closed and unread
  /// bytes are dropped. Throws NurelError::lost("couldn't reach <dataName>: is it running?").
  void connect();

  /// Sends one request and returns the "result" of the reply with its id (null when the reply
  /// has none). Throws NurelError: `message` with the browser's error text, `lost` when the
  /// socket cannot be written or read; JsonError for parameters that cannot be encoded or a
  /// reply line that is not a JSON object or array.
  Json call(const std::string& method, const Json& params = Json::object());

  /// The connected descriptor, or -1.
  int descriptor() const { return fd; }

 private:
  bool attempt();
  /// Reads until `buffer` holds a whole line; returns its length (without the line feed).
  size_t nextLine();
  /// Takes the line of `length` bytes and its line feed out of `buffer`.
  void dropLine(size_t length);

  // Bytes in one block grown with realloc(), which moves a large block by remapping its pages
  // rather than copying them: a reply of hundreds of MiB is written into memory once.
  class Buffer {
   public:
    Buffer() = default;
    ~Buffer() { std::free(bytes); }
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;

    const char* data() const { return bytes; }
    size_t size() const { return used; }
    /// Room for `count` more bytes after the end; throws std::bad_alloc.
    char* extend(size_t count);
    /// Counts `count` bytes written into that room.
    void grew(size_t count) { used += count; }
    /// Drops the first `count` bytes.
    void consume(size_t count);
    void clear() { consume(used); }

   private:
    char* bytes = nullptr;
    size_t used = 0, room = 0;
  };

  Place place;
  Launch& launch;
  int fd = -1;
  // Bytes read but not yet taken as lines; may hold the start of the next reply.
  Buffer buffer;
  // How many leading bytes of `buffer` are known to hold no line feed, so that a long line
  // arriving in many reads is searched only once.
  size_t searched = 0;
  int64_t nextID = 1;
};

}  // namespace nurel

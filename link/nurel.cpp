// link/nurel.cpp: connecting to the browser and exchanging request and reply lines.
#include "link/nurel.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "link/large_memory.h"

namespace nurel {

namespace {

constexpr size_t readBlock = 65536;
constexpr size_t pathBytes = 103;

}  // namespace

bool Nurel::attempt() {
  int socket = ::socket(AF_UNIX, SOCK_STREAM, 0);
  if (socket < 0) return false;
  // A browser started later by connect() must not inherit our socket.
  fcntl(socket, F_SETFD, FD_CLOEXEC);
  sockaddr_un address;
  std::memset(&address, 0, sizeof address);
  address.sun_family = AF_UNIX;
  // Paths are cut at 103 bytes, even inside a character, whatever room the platform has.
  const std::string& path = place.socketPath;
  std::memcpy(address.sun_path, path.data(), std::min(path.size(), pathBytes));
  if (::connect(socket, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    close(socket);
    return false;
  }
  if (fd >= 0) close(fd);
  buffer.clear();
  searched = 0;
  fd = socket;
  return true;
}

void Nurel::connect() {
  if (attempt()) return;
  launch.start(place.bundlePath, place.info);
  for (int i = 0; i < 100; ++i) {
    launch.pause(200000);
    if (attempt()) return;
  }
  throw NurelError::lost("couldn't reach " + place.dataName + ": is it running?");
}

char* Nurel::Buffer::extend(size_t count) {
  if (room - used < count) {
    size_t wanted = std::max(room * 2, used + count);
    auto* grown = static_cast<char*>(std::realloc(bytes, wanted));
    if (!grown) throw std::bad_alloc();
    bytes = grown;
    room = wanted;
    adviseLarge(bytes, room, false);
  }
  return bytes + used;
}

void Nurel::Buffer::consume(size_t count) {
  size_t rest = used - count;
  // After a large reply, keep only what follows it, so the memory goes back at once.
  if (room > 4 * readBlock && rest < room / 4) {
    if (auto* fresh = static_cast<char*>(std::malloc(rest + readBlock))) {
      std::memcpy(fresh, bytes + count, rest);
      std::free(bytes);
      bytes = fresh;
      room = rest + readBlock;
      used = rest;
      return;
    }
  }
  if (rest > 0) std::memmove(bytes, bytes + count, rest);
  used = rest;
}

size_t Nurel::nextLine() {
  for (;;) {
    const char* start = buffer.data();
    if (buffer.size() > searched)
      if (auto* newline = static_cast<const char*>(
              std::memchr(start + searched, '\n', buffer.size() - searched)))
        return size_t(newline - start);
    searched = buffer.size();
    ssize_t got = read(fd, buffer.extend(readBlock), readBlock);
    if (got < 1) throw NurelError::lost(place.dataName + " closed the connection");
    buffer.grew(size_t(got));
  }
}

void Nurel::dropLine(size_t length) {
  buffer.consume(length + 1);
  searched = 0;
}

Json Nurel::call(const std::string& method, const Json& params) {
  int64_t id = nextID++;
  std::string request = compact(Json{{"id", id}, {"method", method}, {"params", params}});
  request += '\n';
  for (size_t sent = 0; sent < request.size();) {
    ssize_t wrote = write(fd, request.data() + sent, request.size() - sent);
    if (wrote < 1) throw NurelError::lost("lost the connection to " + place.dataName);
    sent += size_t(wrote);
  }
  for (;;) {
    size_t length = nextLine();
    Json reply;
    try {
      // The line is read where it lies in the buffer; it leaves the buffer however that ends.
      reply = parseDocument(std::string_view(buffer.data(), length));
    } catch (const JsonError& error) {
      dropLine(length);
      throw JsonError("couldn't read a reply from " + place.dataName + ": " + error.text());
    } catch (...) {
      dropLine(length);
      throw;
    }
    dropLine(length);
    if (!reply.is_object()) continue;
    // An error line for any id ends the call, even a stale one.
    auto error = reply.find("error");
    if (error != reply.end() && error->is_string())
      throw NurelError::message(error->get<std::string>());
    auto replyID = reply.find("id");
    if (replyID == reply.end() || !replyID->is_number_integer()) continue;
    if (replyID->is_number_unsigned() ? replyID->get<uint64_t>() != uint64_t(id)
                                      : replyID->get<int64_t>() != id)
      continue;
    auto result = reply.find("result");
    if (result == reply.end()) return nullptr;
    return std::move(*result);
  }
}

}  // namespace nurel

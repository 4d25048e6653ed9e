// browser/framing.h: splitting a byte stream into messages that each end with one byte.
//
// Chromium's DevTools pipe ends every JSON message with a NUL byte; the agent socket ends every
// request with a line feed. One read may hold the end of one message, several whole ones and
// the start of the next: Framing keeps what it has not yet seen the end of.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace nurel::browser {

class Framing {
 public:
  /// Messages end with `end`; one longer than `limit` bytes makes feed() report an overflow.
  Framing(char end, size_t limit) : end(end), limit(limit) {}

  /// Adds `bytes`, then calls `message(std::string_view)` for each message now whole, without
  /// its end byte, in order. Returns false, having dropped what it held, when a message grew
  /// past the limit; the caller closes the stream then.
  template <class OnMessage>
  bool feed(std::string_view bytes, OnMessage&& message) {
    size_t start = 0;
    while (start < bytes.size()) {
      size_t stop = bytes.find(end, start);
      if (stop == std::string_view::npos) {
        if (held.size() + (bytes.size() - start) > limit) return overflow();
        held.append(bytes.substr(start));
        return true;
      }
      std::string_view piece = bytes.substr(start, stop - start);
      if (held.size() + piece.size() > limit) return overflow();
      if (held.empty()) {
        message(piece);
      } else {
        held.append(piece);
        std::string whole;
        whole.swap(held);
        message(std::string_view(whole));
      }
      start = stop + 1;
    }
    return true;
  }

  /// Bytes of a message whose end has not come yet.
  size_t pending() const { return held.size(); }

 private:
  bool overflow() {
    std::string().swap(held);
    return false;
  }

  char end;
  size_t limit;
  std::string held;
};

}  // namespace nurel::browser

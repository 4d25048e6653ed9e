// bench/browser.h: a fake browser that answers at once, for the benchmarks.
//
// Unlike the test suite's scripted fake browser, it records nothing and never sleeps: it reads
// request lines and answers each as soon as its line feed arrives, with one fixed reply in
// which only the id changes. Replies are written with one writev() per reply, so even a reply
// of hundreds of MiB leaves as fast as the socket takes it.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace bench {

/// Nanoseconds on the monotonic clock, the one clock all figures use.
int64_t now();

class Browser {
 public:
  /// Listens on `socket` (created fresh) and serves each connection on a thread of its own.
  explicit Browser(std::string socket);
  ~Browser();
  Browser(const Browser&) = delete;
  Browser& operator=(const Browser&) = delete;

  const std::string& socket() const { return path; }
  /// The reply from the byte after the id on: `,"result":...}` and its line feed. Each
  /// request is answered with `{"id":<its id>` followed by this text.
  void answerWith(std::string rest);
  /// When the first byte of the latest reply was written (before the write began).
  int64_t lastReplyStart() const { return replyStart.load(); }
  /// Requests answered so far.
  int64_t answered() const { return count.load(); }

 private:
  void serve();
  void converse(int client);
  void stopClients();
  bool reply(int client, std::string_view request);

  std::string path;
  int listener = -1;
  std::thread worker;
  std::mutex lock;  // guards `rest` and `clients`
  std::condition_variable ended;
  std::vector<int> clients;  // connections being served, each by a detached thread
  std::shared_ptr<const std::string> rest;
  std::atomic<int64_t> replyStart{0};
  std::atomic<int64_t> count{0};
  std::atomic<bool> stopping{false};
};

}  // namespace bench

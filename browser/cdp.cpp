// browser/cdp.cpp: commands, replies and events over a DevTools transport.
#include "browser/cdp.h"

#include <string>
#include <utility>

namespace nurel::browser {

namespace {

// JavaScript strings may hold lone surrogates (a title cut in the middle of an emoji), and
// Chromium writes them as \ud800 escapes, which no UTF-8 reader takes. Each becomes U+FFFD, as
// bytes that are not UTF-8 do elsewhere; pairs stay.
std::string withoutLoneSurrogates(std::string_view text) {
  auto unit = [&](size_t at) -> int {
    if (at + 6 > text.size() || text[at] != '\\' || text[at + 1] != 'u') return -1;
    int value = 0;
    for (size_t i = at + 2; i < at + 6; ++i) {
      char c = text[i];
      int digit = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10
                : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
      if (digit < 0) return -1;
      value = value * 16 + digit;
    }
    return value;
  };
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size();) {
    if (text[i] != '\\' || i + 1 >= text.size()) {
      out.push_back(text[i++]);
      continue;
    }
    int first = unit(i);
    if (first < 0xD800 || first > 0xDFFF) {
      out.append(text.substr(i, 2));  // any other escape, whole
      i += 2;
      continue;
    }
    int second = unit(i + 6);
    if (first <= 0xDBFF && second >= 0xDC00 && second <= 0xDFFF) {
      out.append(text.substr(i, 12));
      i += 12;
    } else {
      out.append("\\ufffd");
      i += 6;
    }
  }
  return out;
}

}  // namespace

Cdp::Cdp(std::unique_ptr<Transport> transport, EventListener event, ClosedListener closed)
    : transport(std::move(transport)), event(std::move(event)), closed(std::move(closed)) {
  reader = std::thread([this] { read(); });
}

Cdp::~Cdp() { end(); }

void Cdp::end() {
  transport->shut();
  if (reader.joinable()) reader.join();
}

std::string Cdp::ending() {
  std::lock_guard<std::mutex> guard(lock);
  return endedBy;
}

int64_t Cdp::send(const std::string& method, const Json& params, const std::string& session,
                  std::shared_ptr<Pending> waiting) {
  std::unique_lock<std::mutex> guard(lock);
  if (!open) throw BrowserLost(endedBy);
  int64_t id = nextID++;
  Json message = {{"id", id}, {"method", method}, {"params", params}};
  if (!session.empty()) message["sessionId"] = session;
  if (waiting) pending[id] = waiting;
  // compactRepaired: a page's title or text may hold bytes that are not UTF-8 by the time it
  // comes back to us in a parameter; the command still goes.
  if (!transport->send(compactRepaired(message))) {
    pending.erase(id);
    throw BrowserLost(endedBy.empty() ? "lost the connection to Chromium" : endedBy);
  }
  return id;
}

Json Cdp::call(const std::string& method, const Json& params, const std::string& session,
               std::chrono::milliseconds timeout) {
  auto waiting = std::make_shared<Pending>();
  int64_t id = send(method, params, session, waiting);
  std::unique_lock<std::mutex> guard(lock);
  if (!answered.wait_for(guard, timeout, [&] { return waiting->done; })) {
    pending.erase(id);
    auto seconds = std::chrono::duration_cast<std::chrono::seconds>(timeout).count();
    throw NoAnswer("Chromium didn't answer " + method + " in " + std::to_string(seconds) + " s");
  }
  if (waiting->lost) throw BrowserLost(waiting->error);
  if (waiting->refused) throw CdpError(waiting->error);
  return std::move(waiting->result);
}

std::vector<Json> Cdp::callAll(const std::vector<Command>& commands, const std::string& session,
                               std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  std::vector<std::shared_ptr<Pending>> sent;
  auto dropAll = [&] {  // with the lock held
    for (auto& waiting : sent) pending.erase(waiting->id);
  };
  try {
    for (auto& [method, params] : commands) sent.push_back(start(method, params, session));
  } catch (const BrowserLost&) {
    std::lock_guard<std::mutex> guard(lock);
    dropAll();
    throw;
  }
  std::vector<Json> results;
  std::unique_lock<std::mutex> guard(lock);
  for (size_t i = 0; i < sent.size(); ++i) {
    auto& waiting = sent[i];
    if (!answered.wait_until(guard, deadline, [&] { return waiting->done; })) {
      dropAll();
      auto seconds = std::chrono::duration_cast<std::chrono::seconds>(timeout).count();
      throw NoAnswer("Chromium didn't answer " + commands[i].first + " in " +
                     std::to_string(seconds) + " s");
    }
    if (waiting->lost || waiting->refused) {
      dropAll();
      if (waiting->lost) throw BrowserLost(waiting->error);
      throw CdpError(waiting->error);
    }
    results.push_back(std::move(waiting->result));
  }
  return results;
}

std::shared_ptr<Cdp::Pending> Cdp::start(const std::string& method, const Json& params,
                                         const std::string& session) {
  auto waiting = std::make_shared<Pending>();
  waiting->id = send(method, params, session, waiting);
  return waiting;
}

bool Cdp::wait(const std::shared_ptr<Pending>& waiting, std::chrono::milliseconds most) {
  std::unique_lock<std::mutex> guard(lock);
  if (!answered.wait_for(guard, most, [&] { return waiting->done; })) return false;
  if (waiting->lost) throw BrowserLost(waiting->error);
  if (waiting->refused) throw CdpError(waiting->error);
  return true;
}

void Cdp::forget(const std::shared_ptr<Pending>& waiting) {
  std::lock_guard<std::mutex> guard(lock);
  pending.erase(waiting->id);
}

void Cdp::post(const std::string& method, const Json& params, const std::string& session) {
  try {
    send(method, params, session, nullptr);
  } catch (const BrowserLost&) {
  }
}

void Cdp::dispatch(std::string_view text) {
  Json message;
  try {
    message = parseDocument(text);
  } catch (const JsonError&) {
    try {
      message = parseDocument(withoutLoneSurrogates(text));
    } catch (const JsonError&) {
      return;  // nothing to match it to
    }
  }
  if (!message.is_object()) return;
  auto id = message.find("id");
  if (id != message.end() && id->is_number_integer()) {
    std::lock_guard<std::mutex> guard(lock);
    auto found = pending.find(id->get<int64_t>());
    if (found == pending.end()) return;
    Pending& waiting = *found->second;
    waiting.done = true;
    if (auto error = message.find("error"); error != message.end()) {
      waiting.refused = true;
      auto text = error->find("message");
      waiting.error = text != error->end() && text->is_string() ? text->get<std::string>()
                                                                  : "Chromium refused the command";
    } else if (auto result = message.find("result"); result != message.end()) {
      waiting.result = std::move(*result);
    } else {
      waiting.result = Json::object();
    }
    pending.erase(found);
    answered.notify_all();
    return;
  }
  auto method = message.find("method");
  if (method == message.end() || !method->is_string()) return;
  auto params = message.find("params");
  auto session = message.find("sessionId");
  static const Json none = Json::object();
  event(method->get<std::string>(), params != message.end() ? *params : none,
        session != message.end() && session->is_string() ? session->get<std::string>()
                                                         : std::string());
}

void Cdp::read() {
  std::string reason = transport->receive([this](std::string_view message) { dispatch(message); });
  {
    std::lock_guard<std::mutex> guard(lock);
    endedBy = reason;
    open = false;
    for (auto& [id, waiting] : pending) {
      waiting->done = true;
      waiting->lost = true;
      waiting->error = reason;
    }
    pending.clear();
    answered.notify_all();
  }
  closed(reason);
}

}  // namespace nurel::browser

// browser/media.cpp: the page's audio and video.
#include "browser/browser.h"
#include "browser/scripts.h"

namespace nurel::browser {

int Browser::worldOf(const std::shared_ptr<Tab>& tab, Library library) {
  inWorld(tab, "0", library);
  std::lock_guard<std::mutex> guard(tab->lock);
  return tab->world;
}

Json Browser::media(const Json& params) {
  auto tab = tabFor(params);
  std::string action = stringParam(params, "action");
  Json value = params.contains("value") ? params["value"] : Json();
  if (!value.is_number() && !value.is_string()) value = nullptr;
  auto timeout = std::chrono::duration_cast<std::chrono::milliseconds>(settings.scriptTime);
  // As from the person's hand: playing, full screen and picture in picture need it.
  Json answer = call("Runtime.evaluate",
                     {{"expression", "(" + std::string(scripts::media) + ")(" + quote(action) +
                                         ", " + compactRepaired(value) + ")"},
                      {"contextId", worldOf(tab, Library::none)},
                      {"userGesture", true},
                      {"awaitPromise", true},
                      {"returnByValue", true},
                      {"timeout", timeout.count()}},
                     tab->session, timeout + std::chrono::seconds(5));
  if (answer.contains("exceptionDetails"))
    throw Failure("couldn't reach the page's media: " +
                  answer["exceptionDetails"].value("text", std::string("an exception")));
  Json result = answer["result"].value("value", Json::object());
  if (!result.is_object()) result = Json::object();
  if (result.value("none", false)) {
    if (action.empty() || action == "state") return "nothing on the page plays audio or video";
    throw Failure("nothing on the page plays audio or video, so nothing to " + action);
  }
  if (result.contains("error")) throw Failure(action + " failed: " + result.value("error", ""));
  return result.value("text", "");
}

}  // namespace nurel::browser

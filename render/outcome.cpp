// render/outcome.cpp: a request sent, and its reply printed, saved, decoded or handed back.
#include "render/outcome.h"

#include <utility>

#include "render/base64.h"
#include "render/render.h"

namespace nurel {

namespace {

// A member of the reply when it is a string; a reply that is not an object counts as an empty
// one.
const std::string* memberString(const Json& reply, const char* key) {
  if (!reply.is_object()) return nullptr;
  auto it = reply.find(key);
  return it != reply.end() && it->is_string() ? &it->get_ref<const std::string&>() : nullptr;
}

Outcome savedPdf(Nurel& nurel, const Json& params, const std::optional<std::string>& file) {
  if (!file) throw OutcomeError("file is missing: where to save the PDF");
  // Only the tab goes to the browser: the intent, the file and the rest stay here.
  auto tab = params.find("tab");
  Json reply = nurel.call("pdf", {{"tab", tab != params.end() ? *tab : Json("")}});
  auto bytes = takeDecoded(reply, "pdf");
  if (!bytes) throw OutcomeError("no PDF");
  Outcome out;
  out.path = writeFile(*file, *bytes);
  out.text = "saved to " + out.path;
  auto title = reply.find("title");
  out.title = title == reply.end() ? "the page" : printed(*title);
  return out;
}

Outcome screenshot(Nurel& nurel, const Json& params, const std::optional<std::string>& file) {
  Json reply = nurel.call("screenshot", params);
  const std::string* refs = memberString(reply, "refs");
  Outcome out;
  if (refs) out.refs = *refs;
  if (!file) {
    // A reply without an image is not an error here: it shows as an empty one. The image is
    // moved, not copied, out of the reply: it may be hundreds of MiB.
    out.image = "";
    if (memberString(reply, "png")) out.image = std::move(reply["png"].get_ref<std::string&>());
    return out;
  }
  auto bytes = takeDecoded(reply, "png");
  if (!bytes) throw OutcomeError("no screenshot");
  out.path = writeFile(*file, *bytes);
  // Nothing is said before the file is written.
  out.text = (out.refs.empty() ? "" : out.refs + "\n") + "saved to " + out.path;
  return out;
}

}  // namespace

Outcome perform(Nurel& nurel, const std::string& method, Json params,
                const std::optional<std::string>& file) {
  if (method == "pdf") return savedPdf(nurel, params, file);
  if (method == "screenshot") return screenshot(nurel, params, file);
  Outcome out;
  if (!file) {
    out.text = printed(nurel.call(method, params));
    return out;
  }
  params.erase("file");
  // The whole text goes into the file, whatever limit was asked for.
  params["limit"] = 0;
  out.text = save(printed(nurel.call(method, params)), *file);
  return out;
}

}  // namespace nurel

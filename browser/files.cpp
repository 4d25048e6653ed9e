// browser/files.cpp: the person's files: what the tabs download, and files given to pages.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <thread>

#include "browser/browser.h"
#include "link/home.h"

namespace nurel::browser {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

std::string downloadsFolder() {
  // As xdg-user-dir DOWNLOAD finds it: XDG_DOWNLOAD_DIR in user-dirs.dirs, with $HOME expanded.
  std::string home = homeDirectory();
  const char* config = std::getenv("XDG_CONFIG_HOME");
  std::string dirs = (config && *config == '/' ? std::string(config) : home + "/.config") + "/user-dirs.dirs";
  std::ifstream file(dirs);
  std::string line;
  while (std::getline(file, line)) {
    size_t start = line.find_first_not_of(" \t");
    if (start == std::string::npos || line.compare(start, 17, "XDG_DOWNLOAD_DIR=") != 0) continue;
    std::string value = line.substr(start + 17);
    while (!value.empty() && (value.back() == '\r' || value.back() == ' ')) value.pop_back();
    if (value.size() >= 2 && value.front() == '"' && value.back() == '"') value = value.substr(1, value.size() - 2);
    if (value.rfind("$HOME", 0) == 0) value = home + value.substr(5);
    if (!value.empty() && value.front() == '/') return value;
  }
  return home + "/Downloads";
}

namespace {

// A name the site suggested, made safe as one file name in one folder.
std::string safeName(const std::string& suggested) {
  std::string name;
  for (char c : suggested) {
    if (c == '/' || c == '\\' || static_cast<unsigned char>(c) < 0x20) c = '_';
    name += c;
  }
  name.erase(0, std::min(name.size(), name.find_first_not_of(". ")));
  if (name.size() > 200) name = name.substr(name.size() - 200);
  return name.empty() ? "download" : name;
}

// Reserves a name in `folder` that nothing has: `name`, else "name (2).ext", "name (3).ext"…
// The empty file made here is ours, and the finished download replaces it.
std::string reserve(const std::string& folder, const std::string& name) {
  size_t dot = name.rfind('.');
  if (dot == 0 || dot == std::string::npos) dot = name.size();
  for (int number = 1; number < 10000; ++number) {
    std::string path = folder + "/" +
                       (number == 1 ? name
                                    : name.substr(0, dot) + " (" + std::to_string(number) + ")" +
                                          name.substr(dot));
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd >= 0) {
      ::close(fd);
      return path;
    }
    if (errno != EEXIST) return {};
  }
  return {};
}

std::string downloadLine(const Browser::Download& download) {
  std::string line = download.name + ": " + std::to_string(uint64_t(download.received));
  if (download.total > 0) line += " of " + std::to_string(uint64_t(download.total));
  line += " bytes, " + download.state;
  if (!download.error.empty()) line += " (" + download.error + ")";
  return line + (download.path.empty() ? "" : ": " + download.path);
}

}  // namespace

void Browser::onDownload(const std::string& method, const Json& params) {
  std::string guid = params.value("guid", "");
  if (method == "Browser.downloadWillBegin") {
    std::string frame = params.value("frameId", "");
    std::shared_ptr<Tab> tab;
    {
      std::lock_guard<std::mutex> guard(tabsLock);
      for (auto& [id, each] : tabsByID) {
        std::lock_guard<std::mutex> tabGuard(each->lock);
        if (each->targetId == frame || each->frames.count(frame)) tab = each;
      }
    }
    Download download;
    download.guid = guid;
    download.url = params.value("url", "");
    download.name = safeName(params.value("suggestedFilename", ""));
    download.tab = tab ? tab->id : "";
    download.path = reserve(downloadFolder, download.name);
    if (download.path.empty()) {
      // It still runs (this is Chromium's reader, which can't wait for an answer to a cancel),
      // and its file goes when it ends.
      download.state = "failed";
      download.error = std::string("couldn't make a file in ") + downloadFolder + ": " + std::strerror(errno);
    } else {
      download.name = download.path.substr(download.path.rfind('/') + 1);
    }
    {
      std::lock_guard<std::mutex> guard(downloadsLock);
      downloadList.push_back(download);
      if (downloadList.size() > 500) downloadList.erase(downloadList.begin());
    }
    downloadsChanged.notify_all();
    if (tab) {
      std::lock_guard<std::mutex> guard(tab->lock);
      ++tab->downloadsStarted;
      tab->changed.notify_all();
    }
    return;
  }
  // Browser.downloadProgress
  std::lock_guard<std::mutex> guard(downloadsLock);
  for (Download& download : downloadList) {
    if (download.guid != guid) continue;
    std::string state = params.value("state", "inProgress");
    std::string partial = downloadFolder + "/" + guid;
    if (download.state != "downloading") {
      if (state != "inProgress") ::unlink(partial.c_str());
      continue;
    }
    download.received = params.value("receivedBytes", download.received);
    download.total = params.value("totalBytes", download.total);
    if (state == "completed") {
      // Under its own name only now that it is whole, in place of the file that held the name.
      if (std::rename(partial.c_str(), download.path.c_str()) == 0) {
        download.state = "done";
      } else {
        download.state = "failed";
        download.error = std::strerror(errno);
      }
    } else if (state == "canceled") {
      download.state = "canceled";
      ::unlink(partial.c_str());
      ::unlink(download.path.c_str());
      download.path.clear();
    }
  }
  downloadsChanged.notify_all();
}

Json Browser::downloads(const Json& params) {
  auto tab = tabFor(params);
  if (remote())
    throw Failure("downloads stay on the machine the browser runs on (NUREL_CDP_URL): nurel can't "
                  "list or keep them here");
  double wanted = numberParam(params, "timeout", 60);
  if (wanted < 0) throw Failure("timeout takes a number of seconds, 0 or more");
  auto deadline = Clock::now() + std::chrono::milliseconds(int64_t(std::min(wanted, 86400.0) * 1000));
  auto running = [&] {
    for (const Download& download : downloadList)
      if (download.tab == tab->id && download.state == "downloading") return true;
    return false;
  };
  std::unique_lock<std::mutex> guard(downloadsLock);
  bool waited = flagParam(params, "wait");
  bool still = waited && !downloadsChanged.wait_until(guard, deadline, [&] { return !running(); });
  std::string lines;
  for (const Download& download : downloadList)
    if (download.tab == tab->id) lines += downloadLine(download) + "\n";
  if (lines.empty()) return tab->id + " downloaded nothing (downloads go to " + downloadFolder + ")";
  if (still) lines += "still downloading after " + std::to_string(int64_t(wanted)) + " s\n";
  lines.pop_back();
  return lines;
}

std::string Browser::downloadsSince(const std::shared_ptr<Tab>& tab, uint64_t before) {
  uint64_t now;
  {
    std::lock_guard<std::mutex> guard(tab->lock);
    now = tab->downloadsStarted;
  }
  if (now == before) return {};
  std::lock_guard<std::mutex> guard(downloadsLock);
  std::string said;
  uint64_t skip = 0, count = 0;
  for (const Download& download : downloadList)
    if (download.tab == tab->id) ++count;
  skip = count > now - before ? count - (now - before) : 0;
  for (const Download& download : downloadList) {
    if (download.tab != tab->id || skip-- > 0) continue;
    said += "; a download started: " + download.name +
            (download.path.empty() ? " (" + download.state + ": " + download.error + ")"
                                   : " to " + download.path);
  }
  return said + "; downloads tells how it goes";
}

// Files for a page: each must be a file under a folder the person allows.
std::vector<std::string> Browser::allowedFiles(const Json& given) {
  if (remote())
    throw Failure("the browser runs on another machine (NUREL_CDP_URL), which can't read this "
                  "one's files: upload isn't available there");
  std::vector<std::string> paths;
  if (given.is_string()) paths.push_back(given.get<std::string>());
  if (given.is_array())
    for (const Json& each : given)
      if (each.is_string()) paths.push_back(each.get<std::string>());
  if (paths.empty()) throw Failure("upload takes the paths of the files to give");
  if (settings.allowedFolders.empty())
    throw Failure("no folder is allowed for uploads: allow one with NUREL_ALLOW_FILES (folders "
                  "separated by colons) in the environment nurel starts from");
  std::vector<std::string> real;
  std::string missing;
  for (const std::string& path : paths) {
    std::string full = absolutePath(path);
    struct stat status {};
    if (stat(full.c_str(), &status) != 0) {
      missing += (missing.empty() ? "" : ", ") + full;
      continue;
    }
    if (!S_ISREG(status.st_mode)) throw Failure(full + " isn't a file");
    if (!underAllowedFolder(full, settings.allowedFolders))
      throw Failure("won't give the page " + full + ": it isn't under a folder of NUREL_ALLOW_FILES");
    char* resolved = realpath(full.c_str(), nullptr);
    real.push_back(resolved ? resolved : full);
    free(resolved);
  }
  if (!missing.empty()) throw Failure("no such file: " + missing);
  return real;
}

Json Browser::upload(const Json& params) {
  auto tab = tabFor(params);
  std::string ref = stringParam(params, "ref");
  if (ref.empty()) throw Failure("upload takes the ref of a file field, or of the button that opens one");
  std::vector<std::string> files = allowedFiles(params.contains("files") ? params["files"] : Json());
  int number = refNumber(tab, ref);
  int context = worldOf(tab, Library::page);
  Json found = call("Runtime.evaluate",
                    {{"expression", pageCall("element", number)},
                     {"contextId", context}},
                    tab->session);
  std::string object = found["result"].value("objectId", "");
  if (object.empty()) throw Failure("ref " + ref + " is no longer on the page");
  Json kind = call("Runtime.callFunctionOn",
                   {{"objectId", object},
                    {"functionDeclaration",
                     "function() { return [this.localName === 'input' && this.type === 'file' ? "
                     "(this.multiple ? 'many' : 'one') : '', __nurel.label(this)]; }"},
                    {"returnByValue", true}},
                   tab->session);
  Json answer = kind["result"].value("value", Json::array({"", ref}));
  std::string field = answer[0].get<std::string>(), label = answer[1].get<std::string>();
  Json where = {{"objectId", object}};
  if (field.empty()) {
    // A button that opens the chooser: click it, and take the chooser before anyone sees it.
    auto [x, y] = targetOf(tab, ref, label);
    {
      std::lock_guard<std::mutex> guard(tab->lock);
      tab->chooser.reset();
    }
    mouse(tab, "mouseMoved", x, y);
    mouse(tab, "mousePressed", x, y, "left", 1, 1);
    mouse(tab, "mouseReleased", x, y, "left", 1, 0);
    std::unique_lock<std::mutex> guard(tab->lock);
    if (!tab->changed.wait_for(guard, 3s, [&] { return tab->chooser || tab->gone || tab->dialog; }) ||
        !tab->chooser)
      throw Failure(label + " didn't open a file chooser: give the ref of the file field or of "
                    "the button that opens it");
    field = tab->chooser->value("mode", "") == "selectMultiple" ? "many" : "one";
    where = {{"backendNodeId", tab->chooser->value("backendNodeId", 0)}};
    tab->chooser.reset();
  }
  if (field == "one" && files.size() > 1)
    throw Failure(label + " takes one file, and " + std::to_string(files.size()) + " were given");
  where["files"] = files;
  call("DOM.setFileInputFiles", where, tab->session);
  std::string names;
  for (const std::string& file : files) names += (names.empty() ? "" : ", ") + file.substr(file.rfind('/') + 1);
  return "gave " + label + " " + std::to_string(files.size()) + (files.size() == 1 ? " file: " : " files: ") + names;
}

}  // namespace nurel::browser

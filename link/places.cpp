// link/places.cpp: the bundle, its Info.plist and the socket path.
#include "link/places.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <utility>

#include "link/home.h"
#include "link/plist_library.h"

namespace nurel {

namespace {

std::string dropLastComponent(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  auto slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

// The whole file at `path`, or nothing when it cannot be opened or read. Plain reads rather than
// a file stream: a stream sets up the C++ locale machinery, which every command would pay for at
// start-up, with or without a bundle.
std::optional<std::string> contentsOf(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  std::string data;
  char block[16384];
  for (;;) {
    ssize_t got = ::read(fd, block, sizeof block);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0 || data.size() + size_t(got) > UINT32_MAX) {
      ::close(fd);
      return std::nullopt;
    }
    if (got == 0) break;
    data.append(block, size_t(got));
  }
  ::close(fd);
  return data;
}

// Property-list values as JSON; dates and data have no JSON form and are left out.
Json fromPlist(const PlistLibrary& plist, plist_t node, int depth) {
  if (!node || depth > maxDepth) return nullptr;
  switch (plist.nodeType(node)) {
    case PLIST_BOOLEAN: {
      uint8_t value = 0;
      plist.boolValue(node, &value);
      return value != 0;
    }
    case PLIST_UINT: {
      uint64_t value = 0;
      plist.uintValue(node, &value);
      return value;
    }
    case PLIST_REAL: {
      double value = 0;
      plist.realValue(node, &value);
      return value;
    }
    case PLIST_STRING: {
      char* value = nullptr;
      plist.stringValue(node, &value);
      Json out = value ? std::string(value) : std::string();
      free(value);
      return out;
    }
    case PLIST_ARRAY: {
      Json out = Json::array();
      for (uint32_t i = 0, n = plist.arraySize(node); i < n; ++i)
        out.push_back(fromPlist(plist, plist.arrayItem(node, i), depth + 1));
      return out;
    }
    case PLIST_DICT: {
      Json out = Json::object();
      plist_dict_iter it = nullptr;
      plist.dictIterator(node, &it);
      for (;;) {
        char* key = nullptr;
        plist_t value = nullptr;
        plist.dictNext(node, it, &key, &value);
        if (!key) break;
        out[key] = fromPlist(plist, value, depth + 1);
        free(key);
      }
      free(it);
      return out;
    }
    default:
      return nullptr;
  }
}

}  // namespace

std::string bundleOf(const std::string& executable) {
  std::string path = executable;
  if (char* resolved = realpath(executable.c_str(), nullptr)) {
    path = resolved;
    free(resolved);
  }
  for (int i = 0; i < 3; ++i) path = dropLastComponent(path);
  return path;
}

Json readInfo(const std::string& bundle) {
  std::optional<std::string> contents = contentsOf(bundle + "/Contents/Info.plist");
  if (!contents || contents->empty()) return Json::object();
  const std::string& data = *contents;
  std::shared_ptr<const PlistLibrary> plist = plistLibrary();
  if (!plist) return Json::object();
  plist_t root = nullptr;
  plist->fromMemory(data.data(), static_cast<uint32_t>(data.size()), &root);
  if (!root) return Json::object();
  Json out = plist->nodeType(root) == PLIST_DICT ? fromPlist(*plist, root, 0) : Json::object();
  plist->free(root);
  return out;
}

std::string dataNameOf(const Json& info) {
  auto it = info.find("NurelDataName");
  if (it != info.end() && it->is_string()) return it->get<std::string>();
  return "Nurel";
}

std::string socketPathOf(const char* environment, const std::string& home,
                         const std::string& dataName) {
  if (environment) return environment;
  std::string base = home;
  if (base.empty() || base.back() != '/') base += '/';
  return base + "Library/Application Support/" + dataName + "/agent.sock";
}

Place locate(const std::string& executable) {
  Place place;
  place.bundlePath = bundleOf(executable);
  place.info = readInfo(place.bundlePath);
  place.dataName = dataNameOf(place.info);
  place.socketPath = socketPathOf(std::getenv("NUREL_SOCKET"), homeDirectory(), place.dataName);
  return place;
}

}  // namespace nurel

// link/places.cpp: the bundle, its Info.plist and the socket path.
#include "link/places.h"

#include <plist/plist.h>
#include <stdlib.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>

#include "link/home.h"

namespace nurel {

namespace {

std::string dropLastComponent(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  auto slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

// Property-list values as JSON; dates and data have no JSON form and are left out.
Json fromPlist(plist_t node, int depth) {
  if (!node || depth > maxDepth) return nullptr;
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
      uint8_t value = 0;
      plist_get_bool_val(node, &value);
      return value != 0;
    }
    case PLIST_UINT: {
      uint64_t value = 0;
      plist_get_uint_val(node, &value);
      return value;
    }
    case PLIST_REAL: {
      double value = 0;
      plist_get_real_val(node, &value);
      return value;
    }
    case PLIST_STRING: {
      char* value = nullptr;
      plist_get_string_val(node, &value);
      Json out = value ? std::string(value) : std::string();
      free(value);
      return out;
    }
    case PLIST_ARRAY: {
      Json out = Json::array();
      for (uint32_t i = 0, n = plist_array_get_size(node); i < n; ++i)
        out.push_back(fromPlist(plist_array_get_item(node, i), depth + 1));
      return out;
    }
    case PLIST_DICT: {
      Json out = Json::object();
      plist_dict_iter it = nullptr;
      plist_dict_new_iter(node, &it);
      for (;;) {
        char* key = nullptr;
        plist_t value = nullptr;
        plist_dict_next_item(node, it, &key, &value);
        if (!key) break;
        out[key] = fromPlist(value, depth + 1);
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
  std::ifstream file(bundle + "/Contents/Info.plist", std::ios::binary);
  if (!file) return Json::object();
  std::string data((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  if (data.empty() || data.size() > UINT32_MAX) return Json::object();
  plist_t root = nullptr;
  plist_from_memory(data.data(), static_cast<uint32_t>(data.size()), &root);
  if (!root) return Json::object();
  Json out = plist_get_node_type(root) == PLIST_DICT ? fromPlist(root, 0) : Json::object();
  plist_free(root);
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

void settle(const std::string& executable) {
  appURL = bundleOf(executable);
  info = readInfo(appURL);
  dataName = dataNameOf(info);
  socketPath = socketPathOf(std::getenv("NUREL_SOCKET"), homeDirectory(), dataName);
}

}  // namespace nurel

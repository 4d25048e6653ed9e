// link/places.h: where the browser lives and where its socket is.
#pragma once

#include <string>

#include "link/json.h"

namespace nurel {

/// The bundle folder for an executable path: symbolic links resolved, then the last three
/// path components removed ("/A/B.app/Contents/MacOS/nurel" gives "/A/B.app").
std::string bundleOf(const std::string& executable);

/// Reads `<bundle>/Contents/Info.plist` (XML or binary) into a dictionary; empty on any failure.
Json readInfo(const std::string& bundle);

/// "NurelDataName" of `info` when it is a string, else "Nurel".
std::string dataNameOf(const Json& info);

/// `environment` (the value of NUREL_SOCKET, or null when unset) or the default path.
std::string socketPathOf(const char* environment, const std::string& home,
                         const std::string& dataName);

/// Where the browser of an executable lives and where it listens.
struct Place {
  std::string bundlePath;     ///< the bundle folder, as bundleOf() gives it
  Json info = Json::object();  ///< its Contents/Info.plist, as readInfo() gives it
  /// The browser's data folder name, "NurelDataName" of `info`, else "Nurel". It also names
  /// the browser in every connection message.
  std::string dataName = "Nurel";
  /// $NUREL_SOCKET when set (even empty), else
  /// ~/Library/Application Support/<dataName>/agent.sock.
  std::string socketPath;
};

/// The place of the browser that belongs to `executable`, from its bundle and the environment.
/// nurel connects there; the back end listens there.
Place locate(const std::string& executable);

}  // namespace nurel

// link/launch.h: the slow, outward effects of connecting: starting the browser and waiting.
//
// `Nurel::connect()` goes through this seam so that tests can record a launch and skip the
// 0.2 s pauses, while the program itself starts the real browser and really sleeps.
#pragma once

#include <string>

#include "link/json.h"

namespace nurel {

class Launch {
 public:
  virtual ~Launch() = default;
  /// Starts the browser in `bundle` (whose Info.plist is `info`) in the background, without
  /// raising it, and returns when the launcher has exited. Failures are ignored.
  virtual void start(const std::string& bundle, const Json& info) = 0;
  /// Sleeps for `microseconds`.
  virtual void pause(unsigned microseconds) = 0;
};

/// The platform's launch. On macOS: "/usr/bin/open -g <bundle>". On Linux: when `info` names
/// a "CFBundleExecutable" that is an executable file in <bundle>/Contents/MacOS, that program,
/// detached in a session of its own with its standard streams on /dev/null; otherwise nothing.
Launch& systemLaunch();

}  // namespace nurel

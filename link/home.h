// link/home.h: the user's home folder and "~" in paths.
#pragma once

#include <string>

namespace nurel {

/// The current user's home folder. On Linux: $HOME when set and not empty, else the user's
/// entry in the password database. On macOS: the password database, as the system's file
/// manager reports it. Empty when neither knows.
std::string homeDirectory();

/// Expands a leading "~" ("~" alone, "~/...") to the home folder and "~name" or "~name/..."
/// to that user's home; an unknown user (a name holding a NUL byte is nobody's), or any other
/// path, is returned unchanged.
std::string expandTilde(const std::string& path);

/// `path` with "~" expanded, made absolute against the current folder, with "." components
/// and repeated slashes removed (".." is kept: it means what the file system says it means).
std::string absolutePath(const std::string& path);

}  // namespace nurel

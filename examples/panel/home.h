/// @file
/// The folder that the panel works in as its user's account: what is in it, and
/// what is put there.
#ifndef PANEL_HOME_H
#define PANEL_HOME_H

#include <sys/stat.h>
#include <tov/str.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>

namespace panel {

/// What lies in the current directory: a size or a kind by name.
struct Listing {
  std::map<std::string, std::string> entries;
  bool whole = true;
};

inline std::string SizeOrKind(const struct stat& status) {
  if (S_ISREG(status.st_mode)) return str::Str(status.st_size);
  if (S_ISDIR(status.st_mode)) return "folder";
  if (S_ISLNK(status.st_mode)) return "link";
  return "special";
}

/// Opens nothing and follows no link: whoever fills the folder decides what its
/// names stand for.
inline Listing ListFolder() {
  constexpr std::size_t kMost = 1000;
  Listing listing;
  for (const auto& entry : std::filesystem::directory_iterator(".")) {
    listing.whole = listing.entries.size() < kMost;
    if (!listing.whole) break;
    struct stat status {};
    // What has gone meanwhile is not there.
    if (::lstat(entry.path().c_str(), &status) != 0) continue;
    listing.entries[entry.path().filename().string()] = SizeOrKind(status);
  }
  return listing;
}

/// A client's name of a file, made fit for a folder: without the folders that
/// some clients send along, not hidden, and without what upsets a terminal.
inline std::string NameToKeep(const std::string& sent) {
  std::string name = sent.substr(sent.find_last_of("/\\") + 1);
  for (char& byte : name) {
    const auto value = static_cast<unsigned char>(byte);
    if (value < ' ' || value == 0x7f) byte = '_';
  }
  if (!name.empty() && name.front() == '.') name.front() = '_';
  return name;
}

/// Gives a file a name in the current directory, unless something has it
/// already.
/// @returns why not, for the visitor; nothing when it is kept
inline std::string Keep(const std::string& file, const std::string& name) {
  if (name.empty()) return "it has no name";
  // A link, since that works where the file's present folder is root's; unlike
  // rename(2) it replaces nothing.
  if (::link(file.c_str(), name.c_str()) != 0) {
    if (errno == EEXIST) return "there is one of this name";
    return std::strerror(errno);
  }
  // Where this is not allowed, the spool's guardian does it.
  static_cast<void>(::unlink(file.c_str()));
  return "";
}

}  // namespace panel

#endif

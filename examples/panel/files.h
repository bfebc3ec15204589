/// @file
/// Files of the user's account. The current directory is the folder shown.
#ifndef PANEL_FILES_H
#define PANEL_FILES_H

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <system_error>

#include "page.h"

namespace panel {

namespace fs = std::filesystem;

/// Owns a descriptor; a negative number means none.
struct Descriptor {
  explicit Descriptor(int opened) : number(opened) {}
  ~Descriptor() { ::close(number); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  const int number;
};

[[noreturn]] inline void RefuseFor(int error) {
  const bool is_forbidden = error == EACCES || error == EPERM;
  const bool is_missing = error == ENOENT || error == ENOTDIR || error == ELOOP;
  throw Refusal(is_forbidden ? 403 : is_missing ? 404 : 500);
}

/// Returns a name for system calls. Refuses it unless it names an entry of the
/// current directory.
inline const char* Checked(const std::string& name) {
  constexpr std::string_view kNotInNames("/\0", 2);
  if (name.empty() || name == "." || name == ".." ||
      name.find_first_of(kNotInNames) != std::string::npos) {
    throw Refusal(400, "This cannot be the name of a file.");
  }
  return name.c_str();
}

/// Opens an entry of the current directory without following a link.
inline int OpenHere(const std::string& name, int flags) {
  const int opened = ::openat(AT_FDCWD, Checked(name),
                              flags | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC);
  if (opened < 0) RefuseFor(errno);
  return opened;
}

/// Enters a folder below the current directory. Refuses a path that leads out,
/// by ".." or by a link.
inline void EnterFolder(const fs::path& path) {
  for (const std::string name : path) {
    const Descriptor folder(OpenHere(name, O_PATH | O_DIRECTORY));
    if (::fchdir(folder.number) != 0) RefuseFor(errno);
  }
}

struct Entry {
  std::string kind;  ///< "file", "folder", "link" or "special".
  std::int64_t size;
};

/// The entries of a folder by name.
using Listing = std::map<std::string, Entry>;
constexpr std::size_t kMostEntries = 1000;

inline std::string KindOf(const struct stat& status) {
  if (S_ISREG(status.st_mode)) return "file";
  if (S_ISDIR(status.st_mode)) return "folder";
  return S_ISLNK(status.st_mode) ? "link" : "special";
}

/// Opens no file and follows no link, because others may have filled the
/// folder.
inline Listing ListFolder() {
  Listing listing;
  std::error_code error;
  for (const auto& file : fs::directory_iterator(".", error)) {
    if (listing.size() == kMostEntries) break;
    struct stat status {};
    // The file may have been removed since it was listed.
    if (::lstat(file.path().c_str(), &status) != 0) continue;
    listing[file.path().filename()] = {KindOf(status), status.st_size};
  }
  if (error) RefuseFor(error.value());
  return listing;
}

/// Returns the media type if browsers can show the file without running
/// anything in it; empty for other files.
inline std::string TypeToShow(const std::string& ending) {
  if (ending == ".txt" || ending == ".log") return "text/plain; charset=utf-8";
  if (ending == ".jpg" || ending == ".jpeg") return "image/jpeg";
  return ending == ".png" ? "image/png" : "";
}

inline void SendFile(const fs::path& path) {
  EnterFolder(path.parent_path());
  // Without O_NONBLOCK, opening a FIFO would wait for a writer.
  const Descriptor file(OpenHere(path.filename(), O_RDONLY | O_NONBLOCK));
  struct stat status {};
  ::fstat(file.number, &status);
  if (!S_ISREG(status.st_mode)) throw Refusal(404);
  Response response = Protect(Response());
  response.Header("Content-Security-Policy", "default-src 'none'; sandbox");
  // The browser may keep the file but must check whether it has changed.
  response.Header("Cache-Control", "private, no-cache");
  const std::string type = TypeToShow(path.extension());
  if (!type.empty()) return response.SendFile(file.number, type);
  response.Attachment(path.filename());
  response.SendFile(file.number, "application/octet-stream");
}

/// Returns the error of a system call as a sentence for the visitor; empty if
/// the call succeeded.
inline std::string ProblemWith(const std::string& name, int returned) {
  if (returned == 0) return "";
  const char* const reason =
      errno == EEXIST ? "this name is already in use" : std::strerror(errno);
  return "'" + name + "': " + reason + ". ";
}

/// Links an upload into the current directory, under the last part of the
/// client's name, not hidden and without control characters. Returns
/// ProblemWith().
inline std::string Keep(const std::string& path, const std::string& sent) {
  std::string name = sent.substr(sent.find_last_of("/\\") + 1);
  for (char& byte : name) {
    const auto value = static_cast<unsigned char>(byte);
    if (value < ' ' || value == 0x7f) byte = '_';
  }
  if (name.empty()) return "'" + sent + "': it has no name. ";
  if (name.front() == '.') name.front() = '_';
  // Unlike rename(2), link(2) replaces nothing.
  return ProblemWith(name, ::link(path.c_str(), name.c_str()));
}

}  // namespace panel

#endif

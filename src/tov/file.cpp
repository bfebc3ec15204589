#include <tov/err.h>
#include <tov/file.h>

#include <fcntl.h>
#include <stdio.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <utility>

#include "descriptor.h"

namespace tov_file {
namespace {

using tov_internal::Descriptor;
using tov_internal::MoveAboveStdio;
using tov_internal::RetryInterrupted;
using tov_internal::ThrowSystemError;

constexpr char kRandomPart[] = "XXXXXX";
constexpr std::size_t kRandomSize = sizeof(kRandomPart) - 1;
constexpr mode_t kPermissionBits = 07777;

bool MeansMissing(int error) { return error == ENOENT || error == ENOTDIR; }

[[noreturn]] void ThrowFor(const char* what, const std::string& path,
                           int error) {
  ThrowSystemError(std::string(what) + " '" + path + "'", error);
}

Descriptor Open(const std::string& path, int flags) {
  // O_CREAT is never set. The mode is passed because without it a hardened C
  // library calls another function than open(2), which tests could not replace.
  return MoveAboveStdio(RetryInterrupted(
      [&] { return ::open(path.c_str(), flags | O_CLOEXEC, 0); }));
}

/// Opens the file itself. Never follows a symbolic link and never waits for the
/// other end of a FIFO.
Descriptor OpenNoFollow(const std::string& path) {
  return Open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
}

struct stat StatusOf(int descriptor, const std::string& path) {
  struct stat status {};
  if (::fstat(descriptor, &status) != 0) ThrowFor("cannot read", path, errno);
  return status;
}

/// fchmod(2) that also works for a descriptor opened with O_PATH.
int ChangeMode(int descriptor, mode_t mode) {
  const int result = ::fchmod(descriptor, mode);
  if (result == 0 || errno != EBADF) return result;
  const std::string path = "/proc/self/fd/" + std::to_string(descriptor);
  return ::chmod(path.c_str(), mode);
}

bool SameFile(const struct stat& left, const struct stat& right) {
  return left.st_dev == right.st_dev && left.st_ino == right.st_ino;
}

/// Creates a new file. @p pattern ends in kRandomPart, which is replaced. If no
/// descriptor is returned, no file is left.
Descriptor MakeUnique(std::string& pattern) {
  const int made = ::mkostemp(pattern.data(), O_CLOEXEC);
  Descriptor file = MoveAboveStdio(made);
  if (made >= 0 && !file) {
    const int error = errno;
    ::unlink(pattern.c_str());
    errno = error;
  }
  return file;
}

/// Fills in a random name for when no file can be created. The name is most
/// probably free.
void FillRandomPart(std::string& pattern) {
  constexpr char kLetters[] = "abcdefghijklmnopqrstuvwxyz0123456789";
  unsigned char random[kRandomSize] = {};
  RetryInterrupted([&] { return ::getrandom(random, sizeof(random), 0); });
  char* at = pattern.data() + pattern.size() - kRandomSize;
  for (const unsigned char byte : random) {
    *at++ = kLetters[byte % (sizeof(kLetters) - 1)];
  }
}

/// Renames a file without replacing another one. Returns 0 or the error.
int RenameNoReplace(const std::string& from, const std::string& to) {
  if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(),
                  RENAME_NOREPLACE) == 0) {
    return 0;
  }
  if (errno != EINVAL && errno != ENOSYS) return errno;
  // The file system has no RENAME_NOREPLACE. link(2) never replaces a file
  // either.
  if (::link(from.c_str(), to.c_str()) != 0) return errno;
  if (::unlink(from.c_str()) == 0) return 0;
  const int error = errno;
  ::unlink(to.c_str());
  return error;
}

void WriteWhole(int target, const char* bytes, std::size_t size,
                const std::string& path) {
  for (std::size_t written = 0; written < size;) {
    const ssize_t count = RetryInterrupted(
        [&] { return ::write(target, bytes + written, size - written); });
    if (count < 0) ThrowFor("cannot write", path, errno);
    written += static_cast<std::size_t>(count);
  }
}

/// Copies exactly this many bytes, not up to the end of the file: its owner
/// could append to it as fast as it is read, or truncate it.
void CopyBytes(int source, const std::string& from, int target,
               const std::string& to, std::uintmax_t size) {
  constexpr std::uintmax_t kPiece = 65536;
  const std::unique_ptr<char[]> piece(new char[kPiece]);
  while (size > 0) {
    const auto wanted = static_cast<std::size_t>(std::min(size, kPiece));
    const ssize_t count =
        RetryInterrupted([&] { return ::read(source, piece.get(), wanted); });
    if (count < 0) ThrowFor("cannot read", from, errno);
    if (count == 0) {
      throw tov_err::Error("'" + from + "' became shorter while it was moved");
    }
    WriteWhole(target, piece.get(), static_cast<std::size_t>(count), to);
    size -= static_cast<std::uintmax_t>(count);
  }
}

[[noreturn]] void ThrowForMove(const std::string& from, const std::string& to,
                               int error) {
  ThrowSystemError("cannot move '" + from + "' to '" + to + "'", error);
}

/// An open file that is to be moved.
struct Source {
  std::string path;
  Descriptor file;
  struct stat status;
};

Source OpenSource(const std::string& path, const struct stat& expected) {
  Descriptor file = OpenNoFollow(path);
  if (!file) ThrowFor("cannot open", path, errno);
  const struct stat opened = StatusOf(file.Get(), path);
  // The file's owner may have replaced it.
  if (!SameFile(opened, expected) || !S_ISREG(opened.st_mode)) {
    throw tov_err::Error("'" + path + "' was replaced while it was moved");
  }
  return {path, std::move(file), opened};
}

void CopyWithAttributes(const Source& source, int target,
                        const std::string& to) {
  CopyBytes(source.file.Get(), source.path, target, to,
            static_cast<std::uintmax_t>(source.status.st_size));
  if (::fchown(target, source.status.st_uid, source.status.st_gid) != 0) {
    ThrowFor("cannot set the owner of", to, errno);
  }
  // The source may have been replaced by a hard link to another user's set-id
  // program. A copy would outlive the removal of that program.
  constexpr mode_t kSetId = S_ISUID | S_ISGID;
  if (::fchmod(target, source.status.st_mode & kPermissionBits & ~kSetId) !=
      0) {
    ThrowFor("cannot set the permissions of", to, errno);
  }
  // A full disk may be reported only here, while the source must still exist.
  if (::fsync(target) != 0) ThrowFor("cannot write", to, errno);
}

/// Creates a file without a name, which disappears if the process is killed.
/// Not every file system supports this.
Descriptor MakeUnnamed(const std::string& folder) {
  const std::string path = folder.empty() ? "." : folder;
  return MoveAboveStdio(RetryInterrupted([&] {
    return ::open(path.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600);
  }));
}

/// Links an unnamed file under a name, unless that name exists. Returns 0 or
/// the error.
int LinkUnnamed(int file, const std::string& to) {
  // This needs no /proc, but it needs a capability.
  if (::linkat(file, "", AT_FDCWD, to.c_str(), AT_EMPTY_PATH) == 0) return 0;
  const std::string path = "/proc/self/fd/" + std::to_string(file);
  return ::linkat(AT_FDCWD, path.c_str(), AT_FDCWD, to.c_str(),
                  AT_SYMLINK_FOLLOW) == 0
             ? 0
             : errno;
}

/// Copies through an unnamed file. Returns false if that is not possible.
bool CopyUnnamed(const Source& source, const std::string& to) {
  const Descriptor copy = MakeUnnamed(SplitPath(to).first);
  if (!copy) return false;
  CopyWithAttributes(source, copy.Get(), to);
  const int error = LinkUnnamed(copy.Get(), to);
  if (error == EEXIST) ThrowForMove(source.path, to, error);
  return error == 0;
}

/// A temporary file in the destination folder. It is removed unless it is
/// published, but remains if the process is killed.
class TempSibling {
 public:
  explicit TempSibling(const std::string& beside)
      : path_(ConcatPath(SplitPath(beside).first,
                         std::string(".tov-") + kRandomPart)),
        file_(MakeUnique(path_)) {
    if (!file_) ThrowFor("cannot make a file beside", beside, errno);
  }
  ~TempSibling() {
    if (!published_) ::unlink(path_.c_str());
  }
  TempSibling(const TempSibling&) = delete;
  TempSibling& operator=(const TempSibling&) = delete;

  int Get() const { return file_.Get(); }

  /// Renames it to its final name, unless that name exists. Returns 0 or the
  /// error.
  int PublishAs(const std::string& to) {
    const int error = RenameNoReplace(path_, to);
    published_ = error == 0;
    return error;
  }

 private:
  std::string path_;
  Descriptor file_;
  bool published_ = false;
};

void CopyNamed(const Source& source, const std::string& to) {
  TempSibling copy(to);
  CopyWithAttributes(source, copy.Get(), to);
  const int error = copy.PublishAs(to);
  if (error != 0) ThrowForMove(source.path, to, error);
}

/// Removes the source of a copy, unless it has been replaced by another file.
void RemoveSource(const std::string& from, const struct stat& copied) {
  struct stat now {};
  if (::lstat(from.c_str(), &now) != 0) {
    if (MeansMissing(errno)) return;
    ThrowFor("cannot remove", from, errno);
  }
  if (SameFile(now, copied)) RemoveFile(from);
}

void CopyAcross(const std::string& from, const std::string& to,
                const struct stat& expected) {
  // If an unnamed file does not work for any reason, the named one is tried,
  // and its error is the one reported.
  if (!CopyUnnamed(OpenSource(from, expected), to)) {
    CopyNamed(OpenSource(from, expected), to);
  }
  try {
    RemoveSource(from, expected);
  } catch (...) {
    ::unlink(to.c_str());
    throw;
  }
}

/// Returns the result of realpath(3); empty, with errno set, on failure.
std::string RealPathOfExisting(const std::string& path) {
  char* real = ::realpath(path.c_str(), nullptr);
  if (real == nullptr) return {};
  const std::unique_ptr<char, void (*)(void*)> owner(real, std::free);
  return real;
}

/// Appends components to a real path without resolving links.
std::string FollowAsWritten(std::string real, const std::string& components) {
  for (std::size_t at = 0; at < components.size();) {
    const std::size_t end =
        std::min(components.find('/', at), components.size());
    const std::string name = components.substr(at, end - at);
    if (name == "..") {
      real.resize(std::max<std::size_t>(real.rfind('/'), 1));
    } else if (!name.empty() && name != ".") {
      real = ConcatPath(real, name);
    }
    at = end + 1;
  }
  return real;
}

/// Resolves a path whose last components do not exist. std::filesystem would
/// pull all locales into a front end that is linked from archives.
std::string RealPathOfMissing(const std::string& path) {
  for (std::size_t end = path.size(); end > 0;) {
    const std::size_t slash = path.rfind('/', end - 1);
    end = slash == std::string::npos ? 0 : slash;
    std::string existing = path.substr(0, end);
    if (end == 0) existing = slash == 0 ? "/" : ".";
    const std::string real = RealPathOfExisting(existing);
    if (!real.empty()) return FollowAsWritten(real, path.substr(end));
    if (!MeansMissing(errno)) break;
  }
  ThrowFor("cannot resolve", path, errno);
}

}  // namespace

bool Exists(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) == 0) return true;
  if (!MeansMissing(errno)) ThrowFor("cannot look for", path, errno);
  return false;
}

void RemoveFile(const std::string& path) {
  if (::unlink(path.c_str()) != 0 && !MeansMissing(errno)) {
    ThrowFor("cannot remove", path, errno);
  }
}

std::pair<std::string, std::string> SplitPath(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return {"", path};
  return {path.substr(0, slash == 0 ? 1 : slash), path.substr(slash + 1)};
}

std::string ConcatPath(const std::string& folder, const std::string& name) {
  if (folder.empty()) return name;
  if (name.empty()) return folder;
  // A folder or name that consists of slashes only contributes nothing.
  const std::size_t folder_size = folder.find_last_not_of('/') + 1;
  const std::size_t name_begin = name.find_first_not_of('/');
  std::string path = folder.substr(0, folder_size) + "/";
  if (name_begin != std::string::npos) path.append(name, name_begin);
  return path;
}

std::string RealPath(const std::string& path) {
  if (path.empty()) throw tov_err::Value("path", path);
  std::string real = RealPathOfExisting(path);
  if (!real.empty()) return real;
  if (!MeansMissing(errno)) ThrowFor("cannot resolve", path, errno);
  return RealPathOfMissing(path);
}

Info::Info(const std::string& path, bool own_link) {
  struct stat status {};
  const int result =
      own_link ? ::lstat(path.c_str(), &status) : ::stat(path.c_str(), &status);
  if (result != 0) ThrowFor("cannot read the attributes of", path, errno);
  mode_ = status.st_mode;
}

bool Info::IsDir() const { return S_ISDIR(mode_); }

Attrs::Attrs(int mode)
    : mode_(static_cast<mode_t>(mode) & kPermissionBits),
      sets_owner_(false),
      owner_(0),
      group_(0) {}

Attrs::Attrs(int mode, unsigned owner, unsigned group)
    : mode_(static_cast<mode_t>(mode) & kPermissionBits),
      sets_owner_(true),
      owner_(owner),
      group_(group) {}

void Attrs::SafeSet(const std::string& path, bool must_exist) const {
  Descriptor file = OpenNoFollow(path);
  // The owner may change the attributes of a file without permission to read
  // it.
  if (!file && errno == EACCES) file = Open(path, O_PATH | O_NOFOLLOW);
  if (!file) {
    if (MeansMissing(errno) && !must_exist) return;
    ThrowFor("cannot open", path, errno);
  }
  const struct stat status = StatusOf(file.Get(), path);
  if (S_ISLNK(status.st_mode)) ThrowFor("cannot open", path, ELOOP);
  // In a folder where anybody may write, the path may be a hard link that
  // somebody made to another user's file.
  if (sets_owner_ && S_ISREG(status.st_mode) && status.st_nlink > 1) {
    throw tov_err::Error("cannot give '" + path +
                         "' away: it has more than one name");
  }
  Apply(file.Get(), path);
}

void Attrs::Apply(int descriptor, const std::string& path) const {
  // The owner comes first, because changing it clears the set-id bits.
  if (sets_owner_ &&
      ::fchownat(descriptor, "", owner_, group_, AT_EMPTY_PATH) != 0) {
    ThrowFor("cannot set the owner of", path, errno);
  }
  if (ChangeMode(descriptor, mode_) != 0) {
    ThrowFor("cannot set the permissions of", path, errno);
  }
}

void MkDir(const std::string& path, const Attrs* attrs) {
  if (::mkdir(path.c_str(), 0700) != 0) {
    const int error = errno;
    struct stat status {};
    const bool directory = error == EEXIST &&
                           ::stat(path.c_str(), &status) == 0 &&
                           S_ISDIR(status.st_mode);
    if (!directory) ThrowFor("cannot make directory", path, error);
    return;
  }
  if (attrs == nullptr) return;
  try {
    const Descriptor made = Open(path, O_RDONLY | O_NOFOLLOW | O_DIRECTORY);
    if (!made) ThrowFor("cannot open", path, errno);
    attrs->Apply(made.Get(), path);
  } catch (...) {
    ::rmdir(path.c_str());
    throw;
  }
}

void Move(const std::string& from, const std::string& to) {
  struct stat source {};
  if (::lstat(from.c_str(), &source) != 0) {
    ThrowFor("cannot move", from, errno);
  }
  if (!S_ISREG(source.st_mode)) {
    throw tov_err::Error("cannot move '" + from + "': it is no regular file");
  }
  const int error = RenameNoReplace(from, to);
  if (error == EXDEV) {
    CopyAcross(from, to, source);
  } else if (error != 0) {
    ThrowForMove(from, to, error);
  }
}

Tmp::Tmp(const std::string& prefix) : name_(prefix + kRandomPart) {
  if (MakeUnique(name_)) return;
  name_ = prefix + kRandomPart;
  FillRandomPart(name_);
}

const std::string& Tmp::Name() const { return name_; }

}  // namespace tov_file

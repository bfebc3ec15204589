/// @file
/// Files and paths.
///
/// Failures throw a tov_err::Error with the path and the system's reason.
/// Descriptors opened here are never 0, 1 or 2, are not inherited by other
/// programs, and are closed when the call returns.
#ifndef TOV_FILE_H
#define TOV_FILE_H

#include <string>
#include <utility>

#include <sys/types.h>

#include <tov/api.h>

namespace tov_file {

/// Returns whether something exists at @p path, following links. A path that
/// goes through a regular file does not exist.
/// @throws tov_err::Error when the system cannot answer
TOV_API bool Exists(const std::string& path);

/// Removes a file. A missing one is not an error.
/// @throws tov_err::Error on every other failure, a directory included
TOV_API void RemoveFile(const std::string& path);

/// Splits a path at its last "/" into folder and last component. Without a
/// "/" the folder is empty; the folder of "/x" is "/".
TOV_API std::pair<std::string, std::string> SplitPath(const std::string& path);

/// Joins a folder and a name with exactly one "/", whatever slashes are at the
/// joint. If one operand is empty, returns the other unchanged.
TOV_API std::string ConcatPath(const std::string& folder,
                               const std::string& name);

/// Returns the absolute path without ".", ".." and symbolic links.
///
/// Components that do not exist are kept as written.
/// @throws tov_err::Error for a loop of links, or for a folder without search
///   permission
TOV_API std::string RealPath(const std::string& path);

/// The type of a file when the object was made.
class TOV_API Info {
 public:
  /// @param path      the file
  /// @param own_link  whether to describe a symbolic link itself and not its
  ///   target
  /// @throws tov_err::Error when there is no such file
  Info(const std::string& path, bool own_link);

  /// Returns whether it is a directory.
  bool IsDir() const;

 private:
  mode_t mode_ = 0;
};

/// Permissions and, optionally, owner and group of a file.
class TOV_API Attrs {
 public:
  /// Sets permissions only; owner and group stay unchanged.
  explicit Attrs(int mode);
  /// Sets permissions, owner and group.
  Attrs(int mode, unsigned owner, unsigned group);

  /// Sets the file's attributes, the owner before the mode.
  ///
  /// Acts on the file itself: a symbolic link at @p path is an error and is not
  /// followed. If the owner is to be set, a file with several names (hard
  /// links) is an error, too.
  /// @param path        the file
  /// @param must_exist  whether a missing file is an error
  /// @throws tov_err::Error on failure
  void SafeSet(const std::string& path, bool must_exist) const;

 private:
  friend TOV_API void MkDir(const std::string& path, const Attrs* attrs);

  TOV_INTERNAL void Apply(int descriptor, const std::string& path) const;

  mode_t mode_;
  bool sets_owner_;
  uid_t owner_;
  gid_t group_;
};

/// Makes a directory. If @p attrs is null, its mode is 0700 and it belongs to
/// the caller.
///
/// An existing directory is not an error and stays unchanged. Missing parents
/// are not made.
/// @throws tov_err::Error on failure, also when @p path exists and is no
///   directory, such as a dangling link
TOV_API void MkDir(const std::string& path, const Attrs* attrs);

/// Moves a regular file, also to another file system.
///
/// Mode and owner are kept, but a copy to another file system loses its
/// set-user-id and set-group-id bits. Never replaces an existing file and never
/// follows a symbolic link at either end. A partial file never appears under
/// the final name, and after a failure the source still exists.
///
/// If the process is killed while it copies, nothing of the copy remains if the
/// target's file system supports unnamed files (open(2), O_TMPFILE). Otherwise
/// a file ".tov-XXXXXX" remains beside @p to, with six other characters for the
/// X.
/// @throws tov_err::Error on failure; an existing @p to is one
TOV_API void Move(const std::string& from, const std::string& to);

/// A new, empty file with a unique name and mode 0600. The file outlives the
/// object.
class TOV_API Tmp {
 public:
  /// Makes the file.
  ///
  /// If the file cannot be made, Name() still returns an unused name, and the
  /// caller's own attempt to open it reports the failure.
  /// @param prefix  folder and beginning of the name; six characters are
  ///   appended
  explicit Tmp(const std::string& prefix);

  /// Returns the path of the file.
  const std::string& Name() const;

 private:
  std::string name_;
};

}  // namespace tov_file

#endif

/// @file
/// Files and paths.
///
/// A failure is reported as a tov_err::Error that names the path and the
/// system's reason. No descriptor opened here is 0, 1 or 2, is inherited by
/// another program, or stays open after the call.
#ifndef TOV_FILE_H
#define TOV_FILE_H

#include <string>
#include <utility>

#include <sys/types.h>

#include <tov/api.h>

namespace tov_file {

/// Returns whether something exists at @p path, links followed. A path that
/// leads through a file does not exist.
/// @throws tov_err::Error when that cannot be found out
TOV_API bool Exists(const std::string& path);

/// Removes a file. A missing one is not an error.
/// @throws tov_err::Error on every other failure; a directory is one
TOV_API void RemoveFile(const std::string& path);

/// Splits a path at its last "/" into folder and last component. Without a
/// "/" the folder is empty; the folder of "/x" is "/".
TOV_API std::pair<std::string, std::string> SplitPath(const std::string& path);

/// Joins a folder and a name with one "/", whatever number of them stands at
/// the joint. An empty operand yields the other one as it is.
TOV_API std::string ConcatPath(const std::string& folder,
                               const std::string& name);

/// Returns the absolute path without ".", ".." and symbolic links.
///
/// Components that do not exist are taken as they are written.
/// @throws tov_err::Error for a loop of links or a folder that may not be
///   searched
TOV_API std::string RealPath(const std::string& path);

/// What is known of a file at one moment.
class TOV_API Info {
 public:
  /// @param path      the file
  /// @param own_link  whether a symbolic link is described itself rather than
  ///                  what it points to
  /// @throws tov_err::Error when there is no such file
  Info(const std::string& path, bool own_link);

  /// Says whether it is a directory.
  bool IsDir() const;

 private:
  mode_t mode_ = 0;
};

/// Permissions and, optionally, owner and group of a file.
class TOV_API Attrs {
 public:
  /// Permissions only; setting them leaves owner and group alone.
  explicit Attrs(int mode);
  /// Permissions, owner and group.
  Attrs(int mode, unsigned owner, unsigned group);

  /// Gives the file these attributes, the owner before the mode.
  ///
  /// Works on the file itself, never on what a symbolic link at @p path points
  /// to: a link is an error. So is a file of several names (hard links) when
  /// the owner is to be set. A missing file is not.
  /// @param path       the file
  /// @param must_exist  whether a missing file is an error after all
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

/// Makes a directory, with mode 0700 and owned by the caller when @p attrs is
/// null.
///
/// An existing directory is not an error and is left as it is. Missing parents
/// are not made.
/// @throws tov_err::Error on failure; something other than a directory at
///   @p path, a dangling link included, is one
TOV_API void MkDir(const std::string& path, const Attrs* attrs);

/// Moves a regular file, across file systems too.
///
/// Mode and owner are kept, but what is copied to another file system loses its
/// set-user-id and set-group-id bits. Nothing existing is ever replaced and no
/// symbolic link is followed at either end. A file never stands half under its
/// final name, and after a failure the source is still there.
///
/// A process that is killed while it copies leaves nothing of the copy if the
/// target's file system has unnamed files (open(2), O_TMPFILE). On others it
/// leaves a file ".tov-XXXXXX" beside @p to, with six other characters in place
/// of the X.
/// @throws tov_err::Error on failure; an existing @p to is one
TOV_API void Move(const std::string& from, const std::string& to);

/// A new, empty file with a name of its own, mode 0600. The file outlives the
/// object.
class TOV_API Tmp {
 public:
  /// Makes the file.
  ///
  /// When it cannot be made there is still a fresh name, and the user's own
  /// attempt to open it reports the failure.
  /// @param prefix  folder and beginning of the name; six characters follow
  explicit Tmp(const std::string& prefix);

  /// Returns the path of the file.
  const std::string& Name() const;

 private:
  std::string name_;
};

}  // namespace tov_file

#endif

/// @file
/// Private: the files that the uploads of one form are written to.
#ifndef ZANCGI_UPLOAD_SPOOL_H
#define ZANCGI_UPLOAD_SPOOL_H

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "../common/scoped_signal_block.h"

namespace zan_cgi {

/// Stores uploads, and removes them again unless they are released.
///
/// If the file system supports it, a file has no name until the whole form has
/// been read. So nothing remains of an upload if the process is killed before,
/// as web servers do when the client disconnects.
class UploadSpool {
 public:
  /// @param directory  where files go; first used by Begin()
  explicit UploadSpool(std::string directory);
  ~UploadSpool();
  UploadSpool(const UploadSpool&) = delete;
  UploadSpool& operator=(const UploadSpool&) = delete;

  /// Makes the file of the next upload.
  /// @throws FormError  507 when it cannot be made
  void Begin();

  /// Appends to the file made last.
  /// @throws FormError  507 when it cannot be written
  void Write(std::string_view data);

  /// Ends the upload begun last.
  /// @throws FormError  507
  void End();

  /// Gives all files their names.
  /// @throws FormError  507
  void Publish();

  /// Returns the path of each upload, in the order of Begin(), after Publish().
  std::vector<std::string> Paths() const;

  /// Hands the files over to the caller, who has their paths.
  void Release() noexcept { files_.clear(); }

 private:
  /// One file. After a failure its members may be partly set.
  struct File {
    std::string path;     ///< Empty while the file has no name.
    int descriptor = -1;  ///< Open while it is written or has no name.
  };

  void MakeAbsolute();
  bool OpenUnnamed(File& file) const;
  void OpenNamed(File& file) const;
  void Link(File& file) const;
  void PublishFile(File& file);

  std::string directory_;
  /// Active while files are written: when a file reaches the size limit, the
  /// form is refused and the process is not killed.
  std::optional<common::ScopedSignalBlock> block_;
  std::vector<File> files_;
  std::size_t unnamed_ = 0;  ///< How many files have no name.
};

}  // namespace zan_cgi

#endif

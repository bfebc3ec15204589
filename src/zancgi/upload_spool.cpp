#include "upload_spool.h"

#include <zancgi/form.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include "../common/scoped_signal_block.h"
#include "descriptor.h"

namespace zan_cgi {
namespace {

/// The file names that administrators and their clean-up rules expect.
constexpr char kNamePattern[] = "zantempXXXXXX";

/// The largest number of files without a name: each needs an open descriptor.
constexpr std::size_t kMostUnnamed = 64;

[[noreturn]] void ThrowNotStored(int error) {
  throw FormError(
      507, std::string("an upload cannot be stored: ") + std::strerror(error));
}

std::string PathInProc(int descriptor) {
  return "/proc/self/fd/" + std::to_string(descriptor);
}

/// Fails with EEXIST if the name exists.
bool LinkAs(int descriptor, const std::string& path) {
  return ::linkat(AT_FDCWD, PathInProc(descriptor).c_str(), AT_FDCWD,
                  path.c_str(), AT_SYMLINK_FOLLOW) == 0;
}

}  // namespace

UploadSpool::UploadSpool(std::string directory)
    : directory_(std::move(directory)) {}

UploadSpool::~UploadSpool() {
  for (const File& file : files_) {
    if (file.descriptor >= 0) ::close(file.descriptor);
    if (!file.path.empty()) ::unlink(file.path.c_str());
  }
}

void UploadSpool::Begin() {
  if (files_.empty()) MakeAbsolute();
  if (!block_) block_.emplace();
  files_.emplace_back();
  File& file = files_.back();
  if (OpenUnnamed(file)) {
    ++unnamed_;
  } else {
    OpenNamed(file);
  }
}

void UploadSpool::Write(std::string_view data) {
  while (!data.empty()) {
    const ssize_t count =
        ::write(files_.back().descriptor, data.data(), data.size());
    if (count > 0) {
      data.remove_prefix(static_cast<std::size_t>(count));
    } else if (count == 0) {
      ThrowNotStored(ENOSPC);
    } else if (errno != EINTR) {
      ThrowNotStored(errno);
    }
  }
}

void UploadSpool::End() {
  if (!files_.back().path.empty() || unnamed_ > kMostUnnamed) {
    PublishFile(files_.back());
  }
}

void UploadSpool::Publish() {
  for (File& file : files_) PublishFile(file);
}

std::vector<std::string> UploadSpool::Paths() const {
  std::vector<std::string> paths;
  paths.reserve(files_.size());
  for (const File& file : files_) paths.push_back(file.path);
  return paths;
}

/// Makes the directory's path absolute, because the process may change its
/// current directory later.
void UploadSpool::MakeAbsolute() {
  if (directory_.empty() || directory_.front() != '/') {
    const std::unique_ptr<char, decltype(&std::free)> current(
        ::getcwd(nullptr, 0), &std::free);
    if (!current) ThrowNotStored(errno);
    directory_ = std::string(current.get()) + "/" + directory_;
  }
  if (directory_.back() != '/') directory_ += '/';
}

/// Opens a file without a name. Not every file system supports this, and naming
/// the file later needs /proc, which some root directories lack.
bool UploadSpool::OpenUnnamed(File& file) const {
  const int made =
      ::open(directory_.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600);
  file.descriptor = MoveAboveStdio(made);
  if (file.descriptor < 0) return false;
  if (::access(PathInProc(file.descriptor).c_str(), F_OK) == 0) return true;
  ::close(std::exchange(file.descriptor, -1));
  return false;
}

void UploadSpool::OpenNamed(File& file) const {
  std::string path = directory_ + kNamePattern;
  const int made = ::mkostemp(path.data(), O_CLOEXEC);
  if (made < 0) ThrowNotStored(errno);
  file.path = std::move(path);
  file.descriptor = MoveAboveStdio(made);
  if (file.descriptor < 0) ThrowNotStored(errno);
}

/// Links the file under a name that mkostemp(3) found unused. If somebody takes
/// that name meanwhile, tries another one.
void UploadSpool::Link(File& file) const {
  for (int attempt = 1;; ++attempt) {
    std::string path = directory_ + kNamePattern;
    const int made = ::mkostemp(path.data(), O_CLOEXEC);
    if (made < 0) ThrowNotStored(errno);
    ::close(made);
    ::unlink(path.c_str());
    if (LinkAs(file.descriptor, path)) {
      file.path = std::move(path);
      return;
    }
    constexpr int kMostAttempts = 100;
    if (errno != EEXIST || attempt == kMostAttempts) ThrowNotStored(errno);
  }
}

void UploadSpool::PublishFile(File& file) {
  if (file.path.empty()) {
    Link(file);
    --unnamed_;
  }
  const int descriptor = std::exchange(file.descriptor, -1);
  // Some file systems report a failed write only here.
  if (descriptor >= 0 && ::close(descriptor) != 0 && errno != EINTR) {
    ThrowNotStored(errno);
  }
}

}  // namespace zan_cgi

/// @file
/// A folder for the uploads of one request that is gone when the request is,
/// however it ends.
#ifndef PANEL_UPLOAD_SPOOL_H
#define PANEL_UPLOAD_SPOOL_H

#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

namespace panel {

/// A new folder, for this process alone, with a guardian that removes it.
///
/// A web server ends a front end by a signal when the visitor goes away in the
/// middle of an upload (lighttpd when it streams, Apache's mod_cgid), and the
/// kernel does when a limit is reached. No destructor runs then, and the
/// library's temporary files would stay. A signal handler is no way out: it may
/// not do what removing files takes, and one that merely returns makes the
/// interrupted read look like an empty one, after which the parse goes on for
/// ever.
///
/// So a second process waits for the end of this one. It makes the folder
/// itself: there is no moment at which nobody would remove it. And it removes
/// it itself, always: by then this process may have another identity or root.
///
/// What is handed over to an account lies in its home from then on; the
/// guardian removes that too, unless it has been given another name.
class UploadSpool {
 public:
  /// @param parent  an existing folder; nobody else may rename what is in it
  /// @throws std::runtime_error when the folder cannot be made
  explicit UploadSpool(const std::string& parent) {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
      throw std::runtime_error("no socket for the guardian of uploads");
    }
    StartGuardian(parent, ends[1]);
    ::close(ends[1]);
    lifeline_ = ends[0];
    ReceivePath(parent);
  }

  /// Has the folder removed with all that is in it.
  ~UploadSpool() { Release(); }

  UploadSpool(const UploadSpool&) = delete;
  UploadSpool& operator=(const UploadSpool&) = delete;

  const std::string& Path() const { return path_; }

  /// Has more files removed at the end, if they are still there. To be called
  /// once, before they come to be at these paths: from then on the guardian
  /// listens to nobody. It may be root, and who gets hold of this process when
  /// it is an account must not tell it what to remove.
  /// @throws std::runtime_error when it cannot be promised
  void AlsoRemove(const std::vector<std::string>& files) const {
    for (const std::string& file : files) {
      if (file.size() > kLongestPath ||
          ::send(lifeline_, file.data(), file.size(), MSG_NOSIGNAL) < 0) {
        throw std::runtime_error("the guardian of uploads cannot be told of '" +
                                 file + "'");
      }
    }
    ::shutdown(lifeline_, SHUT_WR);
  }

 private:
  static constexpr std::size_t kLongestPath = 4096;

  /// The guardian keeps the signals blocked that are blocked when it starts:
  /// none may reach it.
  void StartGuardian(const std::string& parent, int lifeline) {
    sigset_t all;
    sigset_t before;
    ::sigfillset(&all);
    ::sigprocmask(SIG_BLOCK, &all, &before);
    guardian_ = ::fork();
    if (guardian_ == 0) Guard(parent, lifeline);
    ::sigprocmask(SIG_SETMASK, &before, nullptr);
  }

  void ReceivePath(const std::string& parent) {
    char path[kLongestPath];
    const ssize_t size =
        guardian_ < 0 ? 0 : ::recv(lifeline_, path, sizeof(path), 0);
    if (size <= 0) {
      Release();
      throw std::runtime_error("no folder for uploads in '" + parent + "'");
    }
    path_.assign(path, static_cast<std::size_t>(size));
  }

  void Release() const {
    ::close(lifeline_);
    if (guardian_ > 0) ::waitpid(guardian_, nullptr, 0);
  }

  /// The guardian's whole life. It keeps nothing of the web server's open, or
  /// the server would wait for it.
  [[noreturn]] static void Guard(const std::string& parent,
                                 int lifeline) noexcept {
    ::setsid();
    constexpr int kOnlyDescriptor = 0;
    ::dup2(lifeline, kOnlyDescriptor);
    ::close_range(kOnlyDescriptor + 1, ~0U, 0);
    std::string path = parent + "/upload-XXXXXX";
    if (::mkdtemp(path.data()) == nullptr) ::_exit(1);
    ::send(kOnlyDescriptor, path.data(), path.size(), MSG_NOSIGNAL);
    const std::vector<std::string> files = ReceiveFiles(kOnlyDescriptor);
    WaitForTheEnd(kOnlyDescriptor);
    RemoveFiles(files);
    std::error_code failure;
    std::filesystem::remove_all(path, failure);
    ::_exit(failure ? 1 : 0);
  }

  static std::vector<std::string> ReceiveFiles(int lifeline) {
    std::vector<std::string> files;
    char file[kLongestPath];
    for (;;) {
      const ssize_t size = ::recv(lifeline, file, sizeof(file), 0);
      if (size <= 0) return files;
      files.emplace_back(file, static_cast<std::size_t>(size));
    }
  }

  /// Returns when the other end is closed, which the kernel does at last.
  static void WaitForTheEnd(int lifeline) {
    pollfd hang_up{lifeline, 0, 0};
    ::poll(&hang_up, 1, -1);
  }

  /// In a home the account says where a path leads, and this may be root: but
  /// all that can go is a file with the random name of an upload.
  static void RemoveFiles(const std::vector<std::string>& paths) {
    for (const std::string& path : paths) ::unlink(path.c_str());
  }

  pid_t guardian_ = -1;
  int lifeline_ = -1;
  std::string path_;
};

}  // namespace panel

#endif

#include <zancgi/testing/input.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <utility>

#include "system.h"

namespace zan_cgi::testing {
namespace {

/// Blocks SIGPIPE, so that a write without a reader fails with EPIPE.
void IgnoreBrokenPipes() {
  sigset_t signals;
  ::sigemptyset(&signals);
  ::sigaddset(&signals, SIGPIPE);
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

}  // namespace

Input Input::Nothing() {
  Input input;
  input.descriptor_ = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (input.descriptor_ < 0) Fail("open /dev/null");
  return input;
}

Input Input::Pipe(const std::string& bytes) { return SlowPipe({bytes}, {}); }

Input Input::SlowPipe(std::vector<std::string> pieces,
                      std::chrono::milliseconds pause) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) Fail("pipe2");
  Input input;
  input.descriptor_ = ends[0];
  input.writing_end_ = ends[1];
  input.pieces_ = std::move(pieces);
  input.pause_ = pause;
  return input;
}

Input Input::SilentPipe(const std::string& bytes) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) Fail("pipe2");
  Input input;
  input.descriptor_ = ends[0];
  input.writing_end_ = ends[1];
  input.pieces_ = {bytes};
  input.hangs_up_ = false;
  return input;
}

Input Input::Socket(const std::string& bytes) {
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
    Fail("socketpair");
  }
  Input input;
  input.descriptor_ = ends[0];
  input.writing_end_ = ends[1];
  input.pieces_ = {bytes};
  return input;
}

Input Input::File(const std::string& bytes) {
  Input input;
  input.descriptor_ = ::memfd_create("standard input", MFD_CLOEXEC);
  if (input.descriptor_ < 0) Fail("memfd_create");
  if (!WriteAll(input.descriptor_, bytes)) Fail("write");
  ::lseek(input.descriptor_, 0, SEEK_SET);
  return input;
}

Input::Input(Input&& other) noexcept
    : descriptor_(std::exchange(other.descriptor_, -1)),
      writing_end_(std::exchange(other.writing_end_, -1)),
      pieces_(std::move(other.pieces_)),
      pause_(other.pause_),
      hangs_up_(other.hangs_up_),
      writer_(std::move(other.writer_)) {}

Input::~Input() {
  // The reading end closes first, because a blocked writer would wait without
  // end.
  if (descriptor_ >= 0) ::close(descriptor_);
  if (writer_.joinable()) writer_.join();
  if (writing_end_ >= 0) ::close(writing_end_);
}

/// Starts the writer. It hangs up with shutdown(2). For a pipe it replaces the
/// descriptor by another file, so that the number is not reused meanwhile.
void Input::Feed() const {
  if (writing_end_ < 0 || writer_.joinable()) return;
  writer_ = std::thread([pieces = pieces_, pause = pause_, hangs_up = hangs_up_,
                         end = writing_end_] {
    IgnoreBrokenPipes();
    for (const std::string& piece : pieces) {
      std::this_thread::sleep_for(pause);
      if (!WriteAll(end, piece)) break;
    }
    if (!hangs_up) return;
    const int nothing = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    ::shutdown(end, SHUT_WR);
    ::dup2(nothing, end);
    ::close(nothing);
  });
}

void Input::BecomeStandardInput() const {
  ::dup2(descriptor_, STDIN_FILENO);
  ::close(descriptor_);
  if (writing_end_ >= 0) ::close(writing_end_);
}

}  // namespace zan_cgi::testing

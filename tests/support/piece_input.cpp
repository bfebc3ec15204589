#include "support/piece_input.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <stdexcept>
#include <utility>

#include "support/system_calls.h"
#include "support/unread.h"

namespace support {
namespace {

constexpr int kFirstHighDescriptor = 200;
constexpr int kLibrarysTimeLimit = 30'000;
constexpr int kShortTimeLimit = 10;

/// Out of the way of the low descriptors, which tests look at.
int Raise(int descriptor) {
  const int high = ::fcntl(descriptor, F_DUPFD_CLOEXEC, kFirstHighDescriptor);
  ::close(descriptor);
  return high;
}

}  // namespace

PieceInput::PieceInput(std::vector<std::string> pieces, Events events)
    : pieces_(std::move(pieces)),
      events_(std::move(events)),
      before_(::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, kFirstHighDescriptor)) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
  writing_end_ = Raise(ends[1]);
  const int reading_end = Raise(ends[0]);
  ::dup2(reading_end, STDIN_FILENO);
  ::close(reading_end);
  Replace({.poll = [this](pollfd* entries, nfds_t count, int milliseconds) {
    const Event event = events_ ? events_(waits_) : Event::Piece;
    ++waits_;
    if (event == Event::Piece) WritePiece();
    const bool is_shortened =
        event == Event::Silence && milliseconds == kLibrarysTimeLimit;
    return RealPoll(entries, count,
                    is_shortened ? kShortTimeLimit : milliseconds);
  }});
}

PieceInput::~PieceInput() {
  Replace({});
  if (writing_end_ >= 0) ::close(writing_end_);
  ::dup2(before_, STDIN_FILENO);
  ::close(before_);
}

void PieceInput::WritePiece() {
  if (written_ < pieces_.size()) {
    const std::string& piece = pieces_[written_++];
    const ssize_t count = ::write(writing_end_, piece.data(), piece.size());
    if (count != static_cast<ssize_t>(piece.size())) {
      throw std::logic_error("the pipe has not taken the piece");
    }
  } else if (writing_end_ >= 0) {
    ::close(std::exchange(writing_end_, -1));
  }
}

std::size_t PieceInput::BytesUnread() const { return support::BytesUnread(); }

std::vector<std::string> CutInto(const std::string& text, std::size_t size) {
  std::vector<std::string> pieces;
  for (std::size_t at = 0; at < text.size(); at += size) {
    pieces.push_back(text.substr(at, size));
  }
  return pieces;
}

}  // namespace support

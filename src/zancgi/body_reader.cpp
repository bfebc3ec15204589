#include "body_reader.h"

#include <zancgi/form.h>

#include <tov/env.h>

#include <poll.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <limits>
#include <string>
#include <system_error>
#include <utility>

#include "raw_array.h"

namespace zan_cgi {
namespace {

constexpr std::size_t kLargestRead = 65536;
constexpr std::int64_t kMostDropped = std::int64_t{1} << 30;

bool HasOnlyDigits(std::string_view text) {
  return text.find_first_not_of("0123456789") == std::string_view::npos;
}

/// Converts decimal digits. A number that is too large becomes the largest
/// value.
std::int64_t NumberOf(std::string_view digits) {
  std::int64_t number = 0;
  const auto result =
      std::from_chars(digits.data(), digits.data() + digits.size(), number);
  return result.ec == std::errc() ? number
                                  : std::numeric_limits<std::int64_t>::max();
}

int MillisecondsOf(int seconds) {
  return std::clamp(seconds, 0, std::numeric_limits<int>::max() / 1000) * 1000;
}

/// Returns the time of a monotonic clock.
std::int64_t Milliseconds() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

}  // namespace

BodyReader::BodyReader(int idle) : idle_ms_(MillisecondsOf(idle)) {}

void BodyReader::TakeLength(std::int64_t limit) {
  const std::string declared = tov_env::GetEnv("CONTENT_LENGTH");
  // Until a length is known, Drain() may drop everything.
  length_ = std::numeric_limits<std::int64_t>::max();
  if (declared.empty() && !tov_env::GetEnv("HTTP_TRANSFER_ENCODING").empty()) {
    // Without a length, the end would look like a lost connection.
    throw FormError(400, "the length of the body is not declared");
  }
  if (!HasOnlyDigits(declared)) {
    throw FormError(400, "the declared length of the body is not a number");
  }
  length_ = declared.empty() ? 0 : NumberOf(declared);
  if (length_ > limit) {
    throw FormError(
        413, "the body is longer than " + std::to_string(limit) + " bytes");
  }
}

bool BodyReader::ReadMore() {
  if (total_ == length_) return false;
  MakeRoom();
  const std::int64_t left = length_ - total_;
  const std::size_t room = std::min(buffer_.size() - end_, kLargestRead);
  const std::size_t count =
      Read(buffer_.data() + end_, static_cast<std::size_t>(std::min(
                                      left, static_cast<std::int64_t>(room))));
  if (count == 0) {
    throw FormError(400, "the body ends after " + std::to_string(total_) +
                             " of " + std::to_string(length_) + " bytes");
  }
  end_ += count;
  return true;
}

/// Makes room and moves the unread bytes to the front. They are few, because
/// the parsers consume all that they can.
void BodyReader::MakeRoom() {
  const std::size_t unread = end_ - begin_;
  if (buffer_.size() - unread < kLargestRead) {
    RawArray<char> larger(2 * unread + kLargestRead + 4096);
    std::copy_n(buffer_.data() + begin_, unread, larger.data());
    buffer_ = std::move(larger);
  } else if (begin_ > 0) {
    std::memmove(buffer_.data(), buffer_.data() + begin_, unread);
  }
  begin_ = 0;
  end_ = unread;
}

std::size_t BodyReader::Read(char* to, std::size_t count) {
  const std::int64_t deadline = Milliseconds() + idle_ms_;
  for (;;) {
    WaitForInput(deadline);
    const ssize_t got = ::read(STDIN_FILENO, to, count);
    if (got >= 0) {
      is_at_end_ = got == 0;
      total_ += got;
      return static_cast<std::size_t>(got);
    }
    if (errno != EINTR && errno != EAGAIN) ThrowUnreadable();
    // poll(2) reported input but there was none: this must not repeat without
    // end.
    if (errno == EAGAIN && Milliseconds() >= deadline) ThrowSilent();
  }
}

/// Waits until there is input or an error. Signals do not extend the deadline.
void BodyReader::WaitForInput(std::int64_t deadline) {
  for (int left = idle_ms_;;) {
    pollfd input{STDIN_FILENO, POLLIN, 0};
    const int count = ::poll(&input, 1, left);
    if (count > 0) return;
    if (count == 0) ThrowSilent();
    if (errno != EINTR) ThrowUnreadable();
    const std::int64_t more = deadline - Milliseconds();
    left = static_cast<int>(std::max<std::int64_t>(more, 0));
  }
}

void BodyReader::ThrowSilent() {
  is_at_end_ = true;
  throw FormError(408, "nothing of the body has come for " +
                           std::to_string(idle_ms_ / 1000) + " seconds");
}

void BodyReader::ThrowUnreadable() {
  const int error = errno;
  is_at_end_ = true;
  throw FormError(
      400, std::string("the body cannot be read: ") + std::strerror(error));
}

void BodyReader::Drain() noexcept {
  try {
    begin_ = end_ = 0;
    if (buffer_.size() == 0) MakeRoom();
    const std::int64_t most = total_ + std::min(length_ - total_, kMostDropped);
    while (!is_at_end_ && total_ < most) {
      const std::int64_t count =
          std::min(most - total_, static_cast<std::int64_t>(kLargestRead));
      Read(buffer_.data(), static_cast<std::size_t>(count));
    }
  } catch (...) {
    // The rest cannot be read.
  }
}

}  // namespace zan_cgi

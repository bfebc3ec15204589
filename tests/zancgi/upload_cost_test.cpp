// What an upload costs: system calls and memory.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <zancgi/testing/child.h>
#include <zancgi/testing/input.h>
#include <zancgi/testing/scratch.h>
#include <zancgi/zancgi.h>

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

#include "support/allocations.h"

namespace {

using zan_cgi::testing::Child;
using zan_cgi::testing::Input;
using zan_cgi::testing::Outcome;
using zan_cgi::testing::Scratch;
using zan_cgi::testing::Told;

constexpr std::size_t kChunk = 65536;

struct Calls {
  int polls = 0;
  int reads = 0;
  int writes = 0;
};

/// Counted while it is set.
Calls* counted = nullptr;

std::string Form(std::size_t size) {
  return "--XY\r\nContent-Disposition: form-data; name=\"u\"; "
         "filename=\"f\"\r\n\r\n" +
         std::string(size, 'x') + "\r\n--XY--\r\n";
}

Child Post(const std::string& body, const Input& input) {
  Child child;
  child.LogLevel(0)
      .Env("CONTENT_TYPE", "multipart/form-data; boundary=XY")
      .Env("CONTENT_LENGTH", std::to_string(body.size()))
      .StandardInput(input);
  return child;
}

TEST(Upload, CostsOneWaitOneReadAndOneWriteForAChunk) {
  const Scratch scratch;
  const std::string body = Form(10 * kChunk);
  const Input input = Input::File(body);
  const Outcome outcome = Post(body, input).Run([&](const Told& told) {
    zan_cgi::Cgi::Data record;
    record.tmp_dir = scratch.Path();
    Calls calls;
    counted = &calls;
    record.ParseInput();
    counted = nullptr;
    told("polls", std::to_string(calls.polls));
    told("reads", std::to_string(calls.reads));
    told("writes", std::to_string(calls.writes));
    told("size", std::to_string(record.files["f"].size));
  });
  EXPECT_EQ(outcome.told.at("size"), std::to_string(10 * kChunk));
  const std::string chunks = std::to_string((body.size() - 1) / kChunk + 1);
  EXPECT_EQ(outcome.told.at("polls"), chunks);
  EXPECT_EQ(outcome.told.at("reads"), chunks);
  EXPECT_EQ(outcome.told.at("writes"), chunks);
}

/// The largest piece of memory that a query string of 100,000 bytes asks for
/// when this length is declared for it.
std::size_t LargestAllocation(std::uint64_t declared) {
  const Input input = Input::Pipe(std::string(100'000, 'x'));
  Outcome outcome =
      Child()
          .Env("CONTENT_LENGTH", std::to_string(declared))
          .StandardInput(input)
          .Run([](const Told& told) {
            zan_cgi::Cgi::Data record;
            support::BeginAllocations();
            try {
              record.ParseInput();
            } catch (const std::runtime_error& error) {
              told("error", error.what());
            }
            told("largest", std::to_string(support::EndAllocations().largest));
          });
  EXPECT_EQ(outcome.told["error"],
            declared == 100'000 ? "" : "Error reading STDIN");
  return std::stoul(outcome.told["largest"]);
}

TEST(QueryString, TakesRoomForTheDeclaredLengthUpTo16Megabytes) {
  // With the zero byte at the end of a std::string.
  EXPECT_EQ(LargestAllocation(100'000), 100'001U);
  EXPECT_EQ(LargestAllocation(1 << 20), (1U << 20) + 1);
  EXPECT_EQ(LargestAllocation(16 << 20), (16U << 20) + 1);
  EXPECT_EQ(LargestAllocation((16 << 20) + 1), (16U << 20) + 1);
  EXPECT_EQ(LargestAllocation(std::uint64_t{1} << 40), (16U << 20) + 1);
}

#ifndef __SANITIZE_ADDRESS__  // It keeps memory of its own.

/// A line of /proc/self/status, in kilobytes.
long Status(const std::string& name) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(name + ":")) {
      return std::stol(line.substr(name.size() + 1));
    }
  }
  return -1;
}

/// By how many kilobytes the memory in use has grown at most while an upload
/// was taken.
long Growth(std::size_t size) {
  const Scratch scratch;
  const std::string body = Form(size);
  const Input input = Input::Pipe(body);
  const Outcome outcome = Post(body, input).Run([&](const Told& told) {
    zan_cgi::Cgi::Data record;
    record.tmp_dir = scratch.Path();
    // Makes the present size the largest one.
    std::ofstream("/proc/self/clear_refs") << "5" << std::flush;
    const long before = Status("VmRSS");
    record.ParseInput();
    told("growth", std::to_string(Status("VmHWM") - before));
    told("size", std::to_string(record.files["f"].size));
  });
  EXPECT_EQ(outcome.told.at("size"), std::to_string(size));
  return std::stol(outcome.told.at("growth"));
}

TEST(Upload, TakesNoMoreMemoryWhenItIsLarge) {
  const long small = Growth(1 << 20);
  const long large = Growth(200 << 20);
  EXPECT_GT(small, 0);
  EXPECT_LT(large, small + 1024);
}

#endif

}  // namespace

// Under a name of its own, since <poll.h> declares that it only writes to fds.
extern "C" int CountedPoll(pollfd* fds, nfds_t nfds,
                           int timeout) __asm__("poll");

extern "C" int CountedPoll(pollfd* fds, nfds_t nfds, int timeout) {
  if (counted != nullptr) ++counted->polls;
  return static_cast<int>(::syscall(SYS_poll, fds, nfds, timeout));
}

extern "C" ssize_t read(int fd, void* buf, std::size_t nbytes) {
  if (counted != nullptr) ++counted->reads;
  return ::syscall(SYS_read, fd, buf, nbytes);
}

extern "C" ssize_t write(int fd, const void* buf, std::size_t n) {
  if (counted != nullptr) ++counted->writes;
  return ::syscall(SYS_write, fd, buf, n);
}

// What an upload costs: system calls and memory.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <zancgi/form.h>
#include <zancgi/testing/child.h>
#include <zancgi/testing/input.h>
#include <zancgi/testing/scratch.h>
#include <zancgi/zancgi.h>

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <stdexcept>
#include <string>
#include <utility>

#include "support/allocations.h"
#include "support/clean_run.h"
#include "support/form.h"

namespace {

using support::RunCleanly;
using zan_cgi::testing::Child;
using zan_cgi::testing::Input;
using zan_cgi::testing::Outcome;
using zan_cgi::testing::Reporter;
using zan_cgi::testing::Scratch;

constexpr std::size_t kChunk = 65536;

struct Calls {
  int polls = 0;
  int reads = 0;
  int writes = 0;
};

/// Counted while it is set.
Calls* counted = nullptr;

std::string Form(std::size_t size) {
  return support::Upload("u", "f", std::string(size, 'x')) + support::kFormEnd;
}

TEST(Upload, CostsOneWaitOneReadAndOneWriteForAChunk) {
  const Scratch scratch;
  const std::string body = Form(10 * kChunk);
  const Input input = Input::File(body);
  Child child = support::PostOf(body).LogLevel(0);
  RunCleanly(child.StandardInput(input), [&](const Reporter&) {
    zan_cgi::Cgi::Data record;
    record.tmp_dir = scratch.Path();
    Calls calls;
    counted = &calls;
    record.ParseInput();
    counted = nullptr;
    EXPECT_EQ(record.files.at("f").size, static_cast<long>(10 * kChunk));
    const auto chunks = static_cast<int>((body.size() - 1) / kChunk + 1);
    EXPECT_EQ(calls.polls, chunks);
    EXPECT_EQ(calls.reads, chunks);
    EXPECT_EQ(calls.writes, chunks);
  });
}

TEST(QueryString, TakesRoomForTheDeclaredLengthUpTo16Megabytes) {
  // With the zero byte at the end of a std::string.
  const std::pair<std::uint64_t, std::size_t> largest[] = {
      {100'000, 100'001},
      {1 << 20, (1 << 20) + 1},
      {16 << 20, (16 << 20) + 1},
      {(16 << 20) + 1, (16 << 20) + 1},
      {std::uint64_t{1} << 40, (16 << 20) + 1}};
  for (const auto& [declared, allocated] : largest) {
    const Input input = Input::Pipe(std::string(100'000, 'x'));
    Child child = support::Post(std::to_string(declared), "");
    const Outcome outcome = support::RunWithoutLeak(
        child.StandardInput(input), [allocated = allocated](const Reporter&) {
          zan_cgi::Cgi::Data record;
          support::BeginAllocations();
          try {
            record.ParseInput();
          } catch (const std::runtime_error&) {
            EXPECT_EQ(support::EndAllocations().largest, allocated);
            throw;
          }
          EXPECT_EQ(support::EndAllocations().largest, allocated);
        });
    EXPECT_EQ(outcome.error, declared == 100'000 ? "" : "Error reading STDIN");
  }
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
/// was taken by this parser, which returns the upload's size.
template <class Parser>
long Growth(std::size_t size, const Parser& parse) {
  const Scratch scratch;
  const std::string body = Form(size);
  const Input input = Input::Pipe(body);
  Child child = support::PostOf(body).LogLevel(0);
  child.StandardInput(input);
  const Outcome outcome = RunCleanly(child, [&](const Reporter& report) {
    zan_cgi::Cgi cgi("/bin/front", "");
    cgi.SetTmpDir(scratch.Path());
    // Makes the present size the largest one.
    std::ofstream("/proc/self/clear_refs") << "5" << std::flush;
    const long before = Status("VmRSS");
    EXPECT_EQ(parse(cgi), static_cast<std::int64_t>(size));
    report("growth", std::to_string(Status("VmHWM") - before));
  });
  return std::stol(outcome.reported.at("growth"));
}

std::int64_t Parse(zan_cgi::Cgi& cgi) { return cgi.GetFileSize(); }

std::int64_t ParseExactly(zan_cgi::Cgi& cgi) {
  return zan_cgi::Form(cgi).uploads().at(0).size;
}

TEST(Upload, TakesNoMoreMemoryWhenItIsLarge) {
  const long small = Growth(1 << 20, Parse);
  const long large = Growth(200 << 20, Parse);
  EXPECT_GT(small, 0);
  EXPECT_LT(large, small + 1024);
}

TEST(UploadOfAForm, TakesNoMoreMemoryWhenItIsLarge) {
  const long small = Growth(1 << 20, ParseExactly);
  const long large = Growth(64 << 20, ParseExactly);
  EXPECT_GT(small, 0);
  EXPECT_LE(large, small + 100);
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

// What an upload costs: system calls and memory.

#include <zancgi/form.h>

#include <fstream>

#include "support/allocations.h"
#include "support/file_calls.h"
#include "support/form.h"
#include "support/test.h"

namespace support {
namespace {

constexpr std::size_t kChunk = 65536;

std::string Form(std::size_t size) {
  return Upload("u", "f", std::string(size, 'x')) + kFormEnd;
}

TEST(Upload, CostsOneWaitOneReadAndOneWriteForAChunk) {
  const Scratch scratch;
  const std::string body = Form(10 * kChunk);
  RunCleanly(PostOf(body).LogLevel(0), Input::File(body), [&] {
    Cgi::Data record;
    record.tmp_dir = scratch.Path();
    std::map<std::string, int> calls;
    const Watch watch([&](const FileCall& call) {
      ++calls[std::string(call.name)];
      return 0;
    });
    record.ParseInput();
    EXPECT_EQ(record.files.at("f").size, static_cast<long>(10 * kChunk));
    const auto chunks = static_cast<int>((body.size() - 1) / kChunk + 1);
    for (const char* const name : {"poll", "read", "write"}) {
      EXPECT_EQ(calls[name], chunks) << name;
    }
  });
}

TEST(QueryString, ReservesTheDeclaredLengthUpTo16Megabytes) {
  // With the zero byte at the end of a std::string.
  const std::pair<std::uint64_t, std::size_t> largest[] = {
      {100'000, 100'001},
      {1 << 20, (1 << 20) + 1},
      {16 << 20, (16 << 20) + 1},
      {(16 << 20) + 1, (16 << 20) + 1},
      {std::uint64_t{1} << 40, (16 << 20) + 1}};
  for (const auto& [declared, allocated] : largest) {
    Child child = Post(std::to_string(declared), "");
    const Outcome outcome = RunWithoutLeak(
        child, Input::Pipe(std::string(100'000, 'x')), [allocated = allocated] {
          Cgi::Data record;
          BeginAllocations();
          try {
            record.ParseInput();
          } catch (const std::runtime_error&) {
            EXPECT_EQ(EndAllocations().largest, allocated);
            throw;
          }
          EXPECT_EQ(EndAllocations().largest, allocated);
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
long Growth(std::size_t size, const std::function<std::int64_t(Cgi&)>& parse) {
  const Scratch scratch;
  const std::string body = Form(size);
  const Input input = Input::Pipe(body);
  Child child = PostOf(body).LogLevel(0);
  child.StandardInput(input);
  const Outcome outcome = RunCleanly(child, [&](const Reporter& report) {
    Cgi cgi("/bin/front", "");
    cgi.SetTmpDir(scratch.Path());
    // Makes the present size the largest one.
    std::ofstream("/proc/self/clear_refs") << "5" << std::flush;
    const long before = Status("VmRSS");
    EXPECT_EQ(parse(cgi), static_cast<std::int64_t>(size));
    report("growth", std::to_string(Status("VmHWM") - before));
  });
  return std::stol(outcome.reported.at("growth"));
}

TEST(Upload, NeedsNoMoreMemoryWhenItIsLarge) {
  using Parser = std::function<std::int64_t(Cgi&)>;
  const std::pair<Parser, long> parsers[] = {
      {[](Cgi& cgi) { return cgi.GetFileSize(); }, 1024},
      {[](Cgi& cgi) { return zan_cgi::Form(cgi).uploads().at(0).size; }, 100}};
  for (const auto& [parse, kilobytes] : parsers) {
    const long small = Growth(1 << 20, parse);
    const long large = Growth(64 << 20, parse);
    EXPECT_GT(small, 0);
    EXPECT_LE(large, small + kilobytes);
  }
}

#endif

}  // namespace
}  // namespace support

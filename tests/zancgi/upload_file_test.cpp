#include "zancgi/upload_file.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <zancgi/testing/system.h>

#include "support/files.h"
#include "support/terminal.h"
#include "support/test.h"

namespace support {
namespace {

using zan_cgi::UploadFile;

/// What one call of write(2) is to do: to fail with an error, or to write so
/// many bytes at most.
struct Step {
  int error = 0;
  std::size_t most = 0;
};

/// What the next calls are to do, and how many there have been; further ones do
/// what they always do. Null for most tests.
struct Script {
  std::vector<Step> steps;
  std::size_t calls = 0;
};
Script* script = nullptr;

/// A child that starts with these descriptors closed. Every expectation in it
/// must hold.
void RunWithout(const std::vector<int>& closed,
                const std::function<void()>& body) {
  Child child;
  for (const int descriptor : closed) child.Closed(descriptor);
  RunCleanly(child, [&] { body(); });
}

const std::vector<int> kClosedSets[] = {{},     {0},    {1},    {2},
                                        {0, 1}, {0, 2}, {1, 2}, {0, 1, 2}};

/// The number of the descriptor that is open on a file; -1 when there is none.
int DescriptorOf(const std::string& path) {
  for (int descriptor = 0; descriptor < 1000; ++descriptor) {
    std::error_code closed;
    const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
    if (fs::read_symlink(link, closed) == path) return descriptor;
  }
  return -1;
}

TEST(UploadFile,
     HasTheLowestDescriptorAboveStandardErrorAndHandsItToNoProgram) {
  for (const std::vector<int>& closed : kClosedSets) {
    const Scratch scratch;
    RunWithout(closed, [&] {
      const Descriptor high = zan_cgi::testing::AnonymousFile("high");
      const int lowest = ::fcntl(high.Get(), F_DUPFD, 3);
      ::close(lowest);
      UploadFile file;
      file.Open(scratch / "file");
      EXPECT_TRUE(file.IsOpen());
      EXPECT_EQ(DescriptorOf(scratch / "file"), lowest);
      EXPECT_EQ(::fcntl(lowest, F_GETFD), FD_CLOEXEC);
    });
  }
}

TEST(UploadFile, IsNotOpenedWithoutADescriptorAboveStandardError) {
  for (const std::vector<int>& closed : kClosedSets) {
    const Scratch scratch;
    RunWithout(closed, [&] {
      rlimit limit{};
      ::getrlimit(RLIMIT_NOFILE, &limit);
      limit.rlim_cur = 3;
      ::setrlimit(RLIMIT_NOFILE, &limit);
      UploadFile file;
      file.Open(scratch / "file");
      limit.rlim_cur = limit.rlim_max;
      ::setrlimit(RLIMIT_NOFILE, &limit);
      EXPECT_FALSE(file.IsOpen());
      EXPECT_TRUE(file.IsBad());
      EXPECT_EQ(DescriptorOf(scratch / "file"), -1);
    });
  }
}

TEST(UploadFile, IsMadeForItsOwnerOnly) {
  const Scratch scratch;
  RunWithout({}, [&] {
    ::umask(0);
    UploadFile file;
    file.Open(scratch / "file");
    EXPECT_EQ(ModeOf(scratch / "file"), 0600U);
  });
}

TEST(UploadFile, GrowsAtItsEnd) {
  const Scratch scratch;
  const std::string path = scratch.MakeFile("file", "there");
  UploadFile file;
  EXPECT_FALSE(file.IsOpen());
  file.Open(path);
  file.Write(", new", 5);
  file.Close();
  EXPECT_FALSE(file.IsOpen());
  EXPECT_FALSE(file.IsBad());
  EXPECT_EQ(ReadFile(path), "there, new");
}

TEST(UploadFile, IsNotOpenedThroughALink) {
  const Scratch scratch;
  const std::string target = scratch.MakeFile("target", "kept");
  for (const std::string& aim : {target, scratch / "missing"}) {
    const std::string link = scratch / "link";
    fs::create_symlink(aim, link);
    UploadFile file;
    file.Open(link);
    EXPECT_FALSE(file.IsOpen());
    file.Write("lost", 4);
    EXPECT_TRUE(file.IsBad());
    fs::remove(link);
  }
  EXPECT_EQ(ReadFile(target), "kept");
  EXPECT_EQ(scratch.List(), Strings{"target"});
}

TEST(UploadFile, DoesNotBecomeTheTerminalOfTheProcess) {
  // Any other program could have one here.
  if (!CanTakeTerminals()) GTEST_SKIP() << "needs terminals";
  EXPECT_FALSE(TakesTerminal([](const std::string& path) {
    UploadFile file;
    file.Open(path);
    if (!file.IsOpen()) ::_exit(1);
  }));
}

/// The outcome of two writes of five digits each: the content, whether the
/// file is bad, and the number of calls.
std::string WriteDigits(const std::vector<Step>& steps) {
  const Scratch scratch;
  Script followed{steps};
  UploadFile file;
  file.Open(scratch / "file");
  script = &followed;
  file.Write("01234", 5);
  file.Write("56789", 5);
  script = nullptr;
  return ReadFile(scratch / "file") + (file.IsBad() ? ", bad, " : ", ") +
         std::to_string(followed.calls);
}

TEST(UploadFile, IsWrittenWholeAfterASignalOrAShortWrite) {
  EXPECT_EQ(WriteDigits({}), "0123456789, 2");
  EXPECT_EQ(WriteDigits({{.error = EINTR}, {.error = EINTR}}), "0123456789, 4");
  EXPECT_EQ(WriteDigits({{.most = 3}, {.error = EINTR}, {.most = 1}}),
            "0123456789, 5");
}

TEST(UploadFile, IsNotWrittenAgainAfterAWriteHasFailed) {
  for (const int error : {ENOSPC, EIO, EAGAIN, EFBIG}) {
    EXPECT_EQ(WriteDigits({{.most = 3}, {.error = error}}), "012, bad, 2");
  }
  // A write of nothing is never the last one before the end.
  EXPECT_EQ(WriteDigits({{.most = 5}, {.most = 0}}), "01234, bad, 2");
}

}  // namespace

extern "C" ssize_t write(int fd, const void* buf, std::size_t n) {
  Step step{.most = n};
  if (script != nullptr && script->calls++ < script->steps.size()) {
    step = script->steps[script->calls - 1];
  }
  errno = step.error;
  return step.error != 0
             ? -1
             : ::syscall(SYS_write, fd, buf, std::min(n, step.most));
}

}  // namespace support

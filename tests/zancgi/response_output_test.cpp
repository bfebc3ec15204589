#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <zancgi/response.h>
#include <zancgi/testing/system.h>

#include <array>
#include <cstdio>
#include <thread>

#include "support/signals.h"
#include "support/standard_output.h"
#include "support/test.h"

namespace support {
namespace {

/// With which error sendfile(2) fails in this process; 0 for none.
constinit int sendfile_error = 0;
/// How much writev(2) takes at once; 0 for what it can.
constinit std::size_t writev_limit = 0;

}  // namespace

extern "C" ssize_t sendfile(int out_fd, int in_fd, off_t* offset,
                            std::size_t count) {
  if (sendfile_error != 0) {
    errno = sendfile_error;
    return -1;
  }
  return ::syscall(SYS_sendfile, out_fd, in_fd, offset, count);
}

extern "C" ssize_t writev(int fd, const iovec* iovec, int count) {
  if (writev_limit == 0) return ::syscall(SYS_writev, fd, iovec, count);
  while (count > 1 && iovec->iov_len == 0) {
    ++iovec;
    --count;
  }
  return ::write(fd, iovec->iov_base, std::min(iovec->iov_len, writev_limit));
}

namespace {

using zan_cgi::Response;

constexpr std::size_t kSize = 1'000'000;

std::string Content() {
  std::string content(kSize, '\0');
  for (std::size_t i = 0; i < kSize; ++i) {
    content[i] = static_cast<char>(i * 31 / 7);
  }
  return content;
}

/// A file with the content that is sent.
class SentFile {
 public:
  SentFile()
      : path_(scratch_.MakeFile("file", Content())),
        file_(::open(path_.c_str(), O_RDONLY | O_CLOEXEC)) {}

  const std::string& Path() const { return path_; }
  int Get() const { return file_.Get(); }
  void Close() { file_.Close(); }

 private:
  Scratch scratch_;
  std::string path_;
  Descriptor file_;
};

void SendBody(const SentFile&) { Response().Send(Content()); }

void SendFile(const SentFile& file) {
  Response().SendFile(file.Get(), "text/csv");
}

void CopyFile(const SentFile& file) {
  sendfile_error = EINVAL;
  SendFile(file);
}

struct Manner {
  std::string name;
  void (*send)(const SentFile& file);
};

class Output : public testing::TestWithParam<Manner> {
 protected:
  static void InChild(const std::function<void(const SentFile&)>& check) {
    RunCleanly(Child(), [&] {
      const SentFile file;
      check(file);
    });
  }

  static void Send(const SentFile& file) { GetParam().send(file); }
};

const auto kName = [](const auto& parameter) { return parameter.param.name; };
const Manner kFile = {"OfAFile", SendFile};
const Manner kCopy = {"OfACopiedFile", CopyFile};

INSTANTIATE_TEST_SUITE_P(All, Output,
                         testing::Values(Manner{"OfABody", SendBody}, kFile,
                                         kCopy),
                         kName);

/// What happens when this is written there; empty without an exception.
std::string ErrorTo(int descriptor, const std::function<void()>& write) {
  const OutputTo redirection(descriptor);
  try {
    write();
  } catch (const std::runtime_error& thrown) {
    return thrown.what();
  }
  return "";
}

/// A pipe as descriptor 1 and a thread that reads it.
class ReaderThread {
 public:
  /// @param read  reads, and closes the descriptor or leaves that
  explicit ReaderThread(std::function<void(Descriptor& from)> read)
      : read_(std::move(read)) {
    std::array<int, 2> ends{};
    EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    reading_end_ = Descriptor(ends[0]);
    writing_end_ = Descriptor(ends[1]);
  }

  void DoNotBlock() const { ::fcntl(writing_end_.Get(), F_SETFL, O_NONBLOCK); }

  std::string Error(const std::function<void()>& write) {
    std::thread reader([this] { read_(reading_end_); });
    const std::string error = ErrorTo(writing_end_.Get(), [&] {
      writing_end_.Close();
      write();
    });
    reader.join();
    return error;
  }

 private:
  std::function<void(Descriptor& from)> read_;
  Descriptor reading_end_;
  Descriptor writing_end_;
};

std::string ReadSome(int descriptor, std::size_t size) {
  std::string bytes(size, '\0');
  const ssize_t got = zan_cgi::testing::RetryInterrupted(
      [&] { return ::read(descriptor, bytes.data(), size); });
  bytes.resize(static_cast<std::size_t>(got));
  return bytes;
}

std::string ReadAll(int descriptor) {
  std::string all;
  for (;;) {
    const std::string piece = ReadSome(descriptor, 5000);
    if (piece.empty()) return all;
    all += piece;
  }
}

std::string ErrorToNobody(const std::function<void()>& write) {
  return ReaderThread([](Descriptor& from) { from.Close(); }).Error(write);
}

TEST_P(Output, ContinuesAfterAPipeWasFullAndSignalsCame) {
  for (const bool blocks : {true, false}) {
    SCOPED_TRACE(blocks);
    InChild([&](const SentFile& file) {
      std::string received;
      ReaderThread reader([&](Descriptor& from) {
        // All signals are for the thread that writes.
        Block(SIGALRM);
        // While the pipe is full.
        while (SignalsCounted() < 3) std::this_thread::yield();
        received = ReadAll(from.Get());
      });
      if (!blocks) reader.DoNotBlock();
      StartSignalStorm();
      EXPECT_EQ(reader.Error([&] { Send(file); }), "");
      EndSignalStorm();
      EXPECT_TRUE(received.ends_with("\r\n\r\n" + Content()));
    });
  }
}

TEST_P(Output, ArrivesWholeByteByByte) {
  InChild([](const SentFile& file) {
    const std::string whole = OutputOf([&] { Send(file); });
    writev_limit = 1;
    EXPECT_TRUE(OutputOf([&] { Send(file); }) == whole);
  });
}

TEST_P(Output, IsAppendedToADescriptorOpenedForAppending) {
  InChild([](const SentFile& file) {
    const Scratch scratch;
    const std::string path = scratch.MakeFile("output", "before");
    {
      const Descriptor output(
          ::open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
      const OutputTo redirection(output.Get());
      Send(file);
    }
    const std::string written = ReadFile(path);
    EXPECT_TRUE(written.starts_with("beforeStatus: 200 OK\r\n"));
    EXPECT_TRUE(written.ends_with("\r\n\r\n" + Content()));
  });
}

/// Expects that a signal neither waits nor is kept out.
void ExpectUntouched(int signal) {
  EXPECT_FALSE(IsPending(signal));
  EXPECT_FALSE(IsBlocked(signal));
}

TEST_P(Output, WithoutAReaderIsNoError) {
  InChild([](const SentFile& file) {
    const auto write = [&] {
      std::fputs("X-Early: 1\r\n", stdout);
      Send(file);
    };
    EXPECT_EQ(ErrorToNobody(write), "");
    ExpectUntouched(SIGPIPE);
    // Else uploads would stay: a web server that has the whole answer ends the
    // program.
    ::raise(SIGTERM);
    EXPECT_TRUE(IsPending(SIGTERM));
    ReaderThread leaving([](Descriptor& from) {
      ReadSome(from.Get(), 10);
      from.Close();
    });
    EXPECT_EQ(leaving.Error(write), "");
    ExpectUntouched(SIGPIPE);
  });
}

TEST_P(Output, WithoutAReaderIsNoErrorWhateverSigpipeDoes) {
  const sighandler_t fail = [](int) { ADD_FAILURE() << "a signal came"; };
  for (const sighandler_t handler : {SIG_IGN, SIG_DFL, fail}) {
    InChild([&](const SentFile& file) {
      ::signal(SIGPIPE, handler);
      EXPECT_EQ(ErrorToNobody([&] { Send(file); }), "");
      ExpectUntouched(SIGPIPE);
      EXPECT_EQ(::signal(SIGPIPE, SIG_DFL), handler);
    });
  }
}

TEST_P(Output, LeavesAnEarlierSigpipePending) {
  for (const bool waits : {false, true}) {
    SCOPED_TRACE(waits);
    InChild([&](const SentFile& file) {
      Block(SIGPIPE);
      if (waits) ::raise(SIGPIPE);
      EXPECT_EQ(ErrorToNobody([&] { Send(file); }), "");
      EXPECT_EQ(IsPending(SIGPIPE), waits);
      EXPECT_TRUE(IsBlocked(SIGPIPE));
    });
  }
}

/// A TCP connection whose other end has been reset.
Descriptor ResetConnection() {
  const Descriptor listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(address);
  auto* const general = reinterpret_cast<sockaddr*>(&address);
  EXPECT_EQ(::bind(listener.Get(), general, size), 0);
  EXPECT_EQ(::listen(listener.Get(), 1), 0);
  EXPECT_EQ(::getsockname(listener.Get(), general, &size), 0);
  Descriptor client(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  EXPECT_EQ(::connect(client.Get(), general, size), 0);
  Descriptor server(::accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
  const linger at_once{1, 0};
  ::setsockopt(client.Get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
  client.Close();
  return server;
}

TEST_P(Output, ToAConnectionThatIsResetIsNoError) {
  InChild([](const SentFile& file) {
    const Descriptor connection = ResetConnection();
    EXPECT_EQ(ErrorTo(connection.Get(), [&] { Send(file); }), "");
    ExpectUntouched(SIGPIPE);
  });
}

TEST_P(Output, ThatCannotBeWrittenIsAnError) {
  InChild([](const SentFile& file) {
    const Descriptor full(::open("/dev/full", O_WRONLY | O_CLOEXEC));
    EXPECT_EQ(ErrorTo(full.Get(), [&] { Send(file); }),
              "cannot write the answer: No space left on device");
    const std::string error = ErrorTo(full.Get(), [&] {
      ::close(STDOUT_FILENO);
      Send(file);
    });
    EXPECT_EQ(error, "cannot write the answer: Bad file descriptor");
    ExpectUntouched(SIGPIPE);
  });
}

TEST(EarlyText, ThatCannotBeWrittenIsAnError) {
  RunCleanly(Child(), [] {
    const Descriptor full(::open("/dev/full", O_WRONLY | O_CLOEXEC));
    const std::string error = ErrorTo(full.Get(), [] {
      std::fputs("X-Early: 1\r\n", stdout);
      Response(204).Send("");
    });
    EXPECT_EQ(error, "cannot write the answer: No space left on device");
  });
}

/// What happens when the file is changed while the pipe, which is smaller, is
/// full, and what arrives.
std::pair<std::string, std::string> SendAndChange(
    const Manner& manner, const SentFile& file,
    const std::function<void()>& change) {
  std::string received;
  ReaderThread reader([&](Descriptor& from) {
    received = ReadSome(from.Get(), 10);
    change();
    received += ReadAll(from.Get());
  });
  return {reader.Error([&] { manner.send(file); }), received};
}

class FileOutput : public Output {};

INSTANTIATE_TEST_SUITE_P(All, FileOutput, testing::Values(kFile, kCopy), kName);

TEST_P(FileOutput, OfAFileThatShrinksIsAnError) {
  for (const std::size_t size : {std::size_t{0}, kSize / 2, kSize - 10}) {
    SCOPED_TRACE(size);
    InChild([&](const SentFile& file) {
      const auto [error, received] = SendAndChange(GetParam(), file, [&] {
        ::truncate64(file.Path().c_str(), static_cast<off64_t>(size));
      });
      EXPECT_EQ(error, "the file has become shorter while it was sent");
      EXPECT_FALSE(received.ends_with(Content()));
    });
  }
}

TEST_P(FileOutput, OfAFileThatGrowsEndsWhereItDid) {
  InChild([](const SentFile& file) {
    const auto [error, received] = SendAndChange(GetParam(), file, [&] {
      EXPECT_EQ(::truncate(file.Path().c_str(), kSize * 2), 0);
    });
    EXPECT_EQ(error, "");
    EXPECT_TRUE(received.ends_with("\r\n\r\n" + Content()));
  });
}

TEST(CopiedFile, ThatCannotBeReadIsAnError) {
  RunCleanly(Child(), [] {
    SentFile file;
    const auto [error, received] =
        SendAndChange({"", CopyFile}, file, [&] { file.Close(); });
    EXPECT_EQ(error, "cannot read the file: Bad file descriptor");
    EXPECT_LT(received.size(), kSize);
  });
}

TEST(CopiedFile, ReplacesASendfileThatIsNotSupported) {
  RunCleanly(Child(), [] {
    const SentFile file;
    for (const int error : {EINVAL, ENOSYS, EOPNOTSUPP}) {
      sendfile_error = error;
      EXPECT_TRUE(
          OutputOf([&] { SendFile(file); }).ends_with("\r\n\r\n" + Content()));
    }
    sendfile_error = EIO;
    EXPECT_THROW(OutputOf([&] { SendFile(file); }), std::runtime_error);
  });
}

}  // namespace
}  // namespace support

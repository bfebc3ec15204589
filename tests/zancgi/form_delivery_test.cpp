// A form does not depend on how its body arrives. No wait is longer than the
// limit, and the rest of a refused body is read and dropped.

#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <zancgi/form.h>

#include <chrono>
#include <cstdlib>
#include <limits>
#include <random>
#include <thread>

#include "support/fast_folder.h"
#include "support/form.h"
#include "support/piece_input.h"
#include "support/refusal.h"
#include "support/signals.h"
#include "support/system_calls.h"
#include "support/test.h"
#include "support/variable.h"

namespace support {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

/// Look-alikes of the boundary, wherever a piece may end.
std::string Content(std::size_t size) {
  std::string content;
  while (content.size() < size) content += "x\r\n--X\r\n-\r\r\n--";
  content.resize(size);
  return content;
}

std::string FormOf(std::size_t size) {
  return Field("a", Content(size)) + Upload("u", "f", Content(size)) +
         Field("b", "2") + kFormEnd;
}

void ExpectForm(const std::string& spool, std::size_t size) {
  Cgi cgi = CgiWithSpool(spool);
  const Form form(cgi);
  EXPECT_TRUE(form.Value("a") == Content(size));
  EXPECT_EQ(form.Value("b"), "2");
  ASSERT_EQ(form.uploads().size(), 1U);
  EXPECT_TRUE(ReadFile(form.Path(form.uploads()[0])) == Content(size));
}

Form::Limits SilenceOf(int idle) {
  Form::Limits limits;
  limits.idle = idle;
  return limits;
}

void MakeNonBlocking() {
  const int flags = ::fcntl(STDIN_FILENO, F_GETFL);
  ASSERT_EQ(::fcntl(STDIN_FILENO, F_SETFL, flags | O_NONBLOCK), 0);
}

/// A body that comes this way, and what the process does before it reads.
struct Delivery {
  const char* name;
  std::size_t size;
  std::function<Input(const std::string& body)> input;
  std::function<void()> prepare = [] {};
};

std::vector<Delivery> Deliveries() {
  std::vector<Delivery> rows = {
      {"a pipe at once", 1'000'000, Input::Pipe},
      {"a socket", 1'000'000, Input::Socket},
      {"a file", 1'000'000, Input::File},
      {"a pipe that does not block", 1'000'000, Input::Pipe, MakeNonBlocking},
      {"a socket that does not block", 1'000'000, Input::Socket,
       MakeNonBlocking},
      {"a pipe while signals come", 1'000'000, Input::Pipe,
       [] { StartSignalStorm(); }},
  };
  const std::pair<std::size_t, std::size_t> pieces[] = {
      {1, 60}, {7, 300}, {1460, 50'000}, {4096, 100'000}, {65'536, 500'000}};
  for (const auto& [piece, size] : pieces) {
    const auto slowly = [piece = piece](const std::string& body) {
      return Input::SlowPipe(CutInto(body, piece), milliseconds(2));
    };
    rows.push_back({"pieces", size, slowly});
    rows.push_back({"pieces that do not block", size, slowly, MakeNonBlocking});
    rows.push_back({"pieces while signals come", size, slowly,
                    [] { StartSignalStorm(); }});
  }
  return rows;
}

/// Does this with the body of a form of some size, however it comes.
void ForEachDelivery(const std::function<void(const std::string& body,
                                              std::size_t size)>& work) {
  for (const Delivery& row : Deliveries()) {
    SCOPED_TRACE(testing::Message() << row.name << ", " << row.size);
    const std::string body = FormOf(row.size);
    RunCleanly(PostOf(body), row.input(body), [&] {
      row.prepare();
      work(body, row.size);
      EndSignalStorm();
    });
  }
}

TEST(Delivery, MakesNoDifferenceToAForm) {
  const Scratch spool;
  ForEachDelivery([&](const std::string&, std::size_t size) {
    ExpectForm(spool.Path(), size);
    EXPECT_EQ(spool.List(), Strings{});
  });
}

TEST(Delivery, MakesNoDifferenceToABody) {
  ForEachDelivery([](const std::string& body, std::size_t) {
    EXPECT_TRUE(zan_cgi::ReadBody(10'000'000) == body);
  });
}

/// Makes standard input the end of a pipe that is written to. It is never ready
/// to be read, and no error shows that.
void BecomeWritingEnd() {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  ::dup2(ends[1], STDIN_FILENO);
  ::close(ends[1]);
}

/// A client that stops after a part of the body.
struct Silence {
  const char* name;
  std::string sent;
  std::function<void()> prepare = [] {};
};

const Silence kSilences[] = {
    {"before the first byte", ""},
    {"in a header", "--XY\r\nContent-Disp"},
    {"in a value", FieldHead("a") + "val"},
    {"in an upload", UploadHead("u", "f") + "data"},
    {"after the closing boundary", Field("a", "1") + kFormEnd},
    {"does not block", "--XY\r\n", MakeNonBlocking},
    {"a pipe to write to", "", BecomeWritingEnd},
    {"signals come", "--XY\r\n", [] { StartSignalStorm(); }},
    {"signals come, does not block", "--XY\r\n",
     [] {
       MakeNonBlocking();
       StartSignalStorm();
     }},
};

TEST(Silence, EndsTheReadingAfterItsLimitAndNotSooner) {
  const Scratch spool;
  for (const Silence& row : kSilences) {
    SCOPED_TRACE(row.name);
    const Input input = Input::SilentPipe(row.sent);
    RunWithoutError(Post("1000").StandardInput(input), [&] {
      row.prepare();
      const auto begin = Clock::now();
      EXPECT_EQ(RefusalWithin(spool.Path(), SilenceOf(1)),
                (Refusal{408, "nothing of the body has come for 1 seconds"}));
      const auto waited = Clock::now() - begin;
      EndSignalStorm();
      EXPECT_GE(waited, milliseconds(990));
      // Long before a wait of the usual limit would end.
      EXPECT_LT(waited, seconds(20));
    });
    EXPECT_EQ(spool.List(), Strings{});
  }
}

TEST(Silence, IsWaitedForOnlyOnce) {
  const Scratch spool;
  const Strings pieces = {UploadHead("u", "f"), "data"};
  RunCleanly(Post("1000"), [&] {
    const PieceInput input(pieces, [&](std::size_t wait) {
      return wait < pieces.size() ? PieceInput::Event::Piece
                                  : PieceInput::Event::Silence;
    });
    EXPECT_EQ(RefusalWithin(spool.Path(), SilenceOf(1)).status, 408);
    EXPECT_EQ(input.Waits(), pieces.size() + 1);
  });
}

TEST(Silence, EndsTheReadingAfterHalfAMinuteByDefault) {
  const Scratch spool;
  const std::function<Refusal()> readings[] = {
      [&] { return RefusalWithin(spool.Path()); },
      [] { return RefusalOf([] { zan_cgi::ReadBody(1000); }); }};
  for (const auto& read : readings) {
    RunCleanly(Post("1000"), [&] {
      const PieceInput input({"--XY"}, [](std::size_t wait) {
        return wait == 0 ? PieceInput::Event::Piece
                         : PieceInput::Event::Silence;
      });
      EXPECT_EQ(read(),
                (Refusal{408, "nothing of the body has come for 30 seconds"}));
      EXPECT_EQ(input.Waits(), 2U);
    });
  }
}

/// Has so many reads find nothing although poll(2) has reported input, as when
/// another process reads from the same pipe.
void LoseReads(int count) {
  Replace({.read = [count](void* buffer, std::size_t size) mutable {
    if (count == 0) return RealRead(STDIN_FILENO, buffer, size);
    --count;
    errno = EAGAIN;
    return ssize_t{-1};
  }});
}

TEST(LostRead, IsTriedAgain) {
  const std::string body = FormOf(1000);
  const Scratch spool;
  RunCleanly(PostOf(body), Input::File(body), [&] {
    LoseReads(5);
    ExpectForm(spool.Path(), 1000);
  });
}

TEST(LostRead, ThatIsRepeatedIsSilence) {
  const Scratch spool;
  RunCleanly(Post("1000"), [&] {
    LoseReads(std::numeric_limits<int>::max());
    EXPECT_EQ(RefusalWithin(spool.Path(), SilenceOf(1)).status, 408);
  });
}

TEST(Silence, EndsTheDrainOfARefusedBody) {
  const Scratch spool;
  Form::Limits limits = SilenceOf(1);
  limits.parts = 0;
  RunCleanly(Post("1000"), Input::SilentPipe(Field("a", "1")), [&] {
    EXPECT_EQ(RefusalWithin(spool.Path(), limits).status, 413);
  });
}

TEST(Silence, IsMeasuredFromPieceToPiece) {
  const std::string body = FormOf(100);
  const Scratch spool;
  RunCleanly(PostOf(body),
             Input::SlowPipe(CutInto(body, body.size() / 5), milliseconds(800)),
             [&] {
               // Each piece comes in time, all together do not.
               EXPECT_EQ(RefusalWithin(spool.Path(), SilenceOf(4)), Refusal{});
             });
}

/// Replaces standard input by this file, opened this way.
void ReadFrom(const std::string& path, int flags) {
  const int file = ::open(path.c_str(), flags | O_CLOEXEC);
  ASSERT_GE(file, 0);
  ASSERT_EQ(::dup2(file, STDIN_FILENO), STDIN_FILENO);
  ::close(file);
}

TEST(StandardInput, ThatCannotBeReadIsNeverWaitedFor) {
  const Scratch scratch;
  const Scratch spool;
  const std::string file = scratch.MakeFile("file", "a form");
  struct Row {
    const char* name;
    std::function<void()> prepare;
    std::string text;
  };
  const std::string bad = "the body cannot be read: Bad file descriptor";
  const Row rows[] = {
      {"closed", [] { ::close(STDIN_FILENO); }, bad},
      {"a directory", [&] { ReadFrom(scratch.Path(), O_RDONLY); },
       "the body cannot be read: Is a directory"},
      {"nothing", [] { ReadFrom("/dev/null", O_RDONLY); },
       "the body ends after 0 of 1000 bytes"},
      {"a file to write to", [&] { ReadFrom(file, O_WRONLY); }, bad},
      {"a short file", [&] { ReadFrom(file, O_RDONLY); },
       "the body ends after 6 of 1000 bytes"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    RunWithoutError(Post("1000"), [&] {
      row.prepare();
      const auto begin = Clock::now();
      EXPECT_EQ(RefusalWithin(spool.Path()), (Refusal{400, row.text}));
      EXPECT_EQ(RefusalOf([] { zan_cgi::ReadBody(1000); }).status, 400);
      EXPECT_LT(Clock::now() - begin, seconds(20));
    });
  }
}

/// The end to read from comes first.
int OpenPipe(int ends[2]) { return ::pipe2(ends, O_CLOEXEC); }
int OpenSocket(int ends[2]) {
  return ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends);
}

using Sizes = std::function<std::size_t()>;

/// Replaces standard input by a pipe or socket, and meanwhile writes this into
/// it, at most so much at once.
class Writer {
 public:
  explicit Writer(
      std::string bytes, int (*open)(int ends[2]) = OpenPipe,
      Sizes sizes = [] { return std::string::npos; })
      : bytes_(std::move(bytes)), sizes_(std::move(sizes)) {
    int ends[2];
    if (open(ends) != 0) throw std::runtime_error("no pipe");
    ::dup2(ends[0], STDIN_FILENO);
    ::close(ends[0]);
    ::signal(SIGPIPE, SIG_IGN);
    thread_ = std::thread([this, end = ends[1]] { Write(end); });
  }
  ~Writer() {
    if (thread_.joinable()) thread_.join();
  }
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;

  /// How many bytes the pipe has taken in the end. Nothing reads any more.
  std::size_t Written() {
    ::close(STDIN_FILENO);
    thread_.join();
    return written_;
  }

 private:
  void Write(int end) {
    while (written_ < bytes_.size()) {
      const std::size_t size = std::min(sizes_(), bytes_.size() - written_);
      const ssize_t count = ::write(end, bytes_.data() + written_, size);
      if (count < 0) break;
      written_ += static_cast<std::size_t>(count);
    }
    ::close(end);
  }

  const std::string bytes_;
  const Sizes sizes_;
  std::size_t written_ = 0;
  std::thread thread_;
};

#ifdef __SANITIZE_ADDRESS__
constexpr std::size_t kHonestForms = 100;
#else
constexpr std::size_t kHonestForms = 500;
#endif

/// A text as people upload it.
std::string Text(std::mt19937_64& random, std::size_t longest) {
  const char* const words[] = {"a",  "word", " ",  "-",     "--", "----",
                               "\n", "\r\n", "\r", "\r\n-", "=",  "&"};
  const std::size_t size = random() % longest;
  std::string text;
  while (text.size() < size) text += words[random() % std::size(words)];
  return text;
}

/// Replaces standard input by a file of this content.
void ReadFromFileOf(const std::string& content) {
  const int file = ::memfd_create("body", MFD_CLOEXEC);
  ASSERT_EQ(::write(file, content.data(), content.size()),
            static_cast<ssize_t>(content.size()));
  ASSERT_EQ(::lseek(file, 0, SEEK_SET), 0);
  ASSERT_EQ(::dup2(file, STDIN_FILENO), STDIN_FILENO);
  ::close(file);
}

/// Sends a form with a text to upload, as a browser does, by chance as a file,
/// through a pipe or through a socket.
void ExpectUploadAsSent(std::mt19937_64& random, const std::string& spool) {
  const std::size_t longest = std::size_t{1} << random() % 17;
  const std::string text =
      Text(random, std::min<std::size_t>(240'000, 1000 * longest));
  const zan_cgi::testing::Form sent = zan_cgi::testing::Form()
                                          .Field("before", "1")
                                          .File("u", "f.txt", text)
                                          .Field("after", "2");
  ::setenv("CONTENT_TYPE", sent.ContentType().c_str(), 1);
  ::setenv("CONTENT_LENGTH", std::to_string(sent.Body().size()).c_str(), 1);
  std::minstd_rand pieces(static_cast<std::uint32_t>(random()));
  const Sizes sizes = [=]() mutable { return 1 + pieces() % longest; };
  std::optional<Writer> writer;
  switch (random() % 3) {
    case 0:
      ReadFromFileOf(sent.Body());
      break;
    case 1:
      writer.emplace(sent.Body(), OpenPipe, sizes);
      break;
    default:
      writer.emplace(sent.Body(), OpenSocket, sizes);
  }
  Cgi cgi = CgiWithSpool(spool);
  const Form form(cgi);
  EXPECT_EQ(form.Value("before") + form.Value("after"), "12");
  ASSERT_EQ(form.uploads().size(), 1U);
  EXPECT_TRUE(ReadFile(form.Path(form.uploads()[0])) == text) << sent.Body();
}

TEST(HonestForms, AreReadAsTheyWereSent) {
  const std::size_t count =
      NumberInVariable("ZANCGI_RANDOM_CASES", kHonestForms);
  const Scratch spool(FastFolder());
  RunCleanly(Post("0").LogLevel(0).TimeLimit(std::chrono::hours(1)), [&] {
    std::mt19937_64 random(NumberInVariable("ZANCGI_RANDOM_SEED", 20261122));
    for (std::size_t i = 0; i < count && !testing::Test::HasFailure(); ++i) {
      ExpectUploadAsSent(random, spool.Path());
    }
    ::close(STDIN_FILENO);
  });
}

TEST(RefusedForm, IsReadToItsEndAndNotFurther) {
  struct Row {
    const char* name;
    int status;
    const char* type;
    std::string begin;
    std::int64_t longest = 10'000'000;
    const char* spool = "/tmp";
  };
  const Row rows[] = {
      {"rule", 400, kForm, Field("a", "1") + "--XYbad\r\n"},
      {"no boundary", 400, "multipart/form-data", ""},
      {"declared length", 413, kForm, "", 1000},
      {"value", 413, kForm, FieldHead("a")},
      {"encoded value", 413, kEncoded, "a="},
      {"type", 415, "text/plain", ""},
      {"folder", 507, kForm, UploadHead("u", "f"), 10'000'000,
       "/nowhere/at/all"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string body = row.begin + std::string(3'000'000, 'x');
    RunCleanly(PostOf(body, row.type), [&] {
      Writer writer(body + "unread");
      Form::Limits limits;
      limits.body = row.longest;
      EXPECT_EQ(RefusalOf([&] {
                  ::setenv("TMP", row.spool, 1);
                  Cgi cgi("/bin/front", "");
                  const Form form(cgi, limits);
                }).status,
                row.status);
      char rest[10];
      EXPECT_EQ(::read(STDIN_FILENO, rest, sizeof(rest)), 6);
      EXPECT_EQ(writer.Written(), body.size() + 6);
    });
  }
}

TEST(RefusedForm, OfMoreThanAGigabyteIsReadUpToThat) {
  constexpr std::int64_t kGigabyte = std::int64_t{1} << 30;
  const Scratch spool;
  for (const std::int64_t declared :
       {kGigabyte - 1, kGigabyte, kGigabyte + 1, 3 * kGigabyte}) {
    SCOPED_TRACE(declared);
    RunCleanly(Post(std::to_string(declared)), [&] {
      std::int64_t count = 0;
      Replace({.poll =
                   [](pollfd* entries, nfds_t, int) {
                     entries->revents = POLLIN;
                     return 1;
                   },
               .read =
                   [&](void*, std::size_t size) {
                     count += static_cast<std::int64_t>(size);
                     return static_cast<ssize_t>(size);
                   }});
      EXPECT_EQ(RefusalWithin(spool.Path()).status, 413);
      Replace({});
      EXPECT_EQ(count, std::min(declared, kGigabyte));
    });
  }
}

}  // namespace
}  // namespace support

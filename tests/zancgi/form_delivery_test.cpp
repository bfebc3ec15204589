// A form does not depend on how its body arrives. No wait is longer than the
// limit, and the rest of a refused body is read and dropped.

#include <poll.h>
#include <zancgi/form.h>

#include <chrono>
#include <limits>
#include <random>
#include <thread>

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

/// Cuts a text by chance, usually into small pieces.
Strings CutAnyhow(const std::string& text) {
  std::mt19937_64 random(NumberInVariable("ZANCGI_RANDOM_SEED", 20261122));
  Strings pieces;
  for (std::size_t at = 0; at < text.size(); at += pieces.back().size()) {
    const std::size_t longest = std::size_t{1} << random() % 17;
    pieces.push_back(text.substr(at, 1 + random() % longest));
  }
  return pieces;
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
  // Pieces of one size, or of any for 0.
  const std::pair<std::size_t, std::size_t> pieces[] = {
      {1, 60}, {7, 300}, {1460, 50'000}, {65'536, 500'000}, {0, 300'000}};
  for (const auto& [piece, size] : pieces) {
    const auto slowly = [piece = piece](const std::string& body) {
      return Input::SlowPipe(piece > 0 ? CutInto(body, piece) : CutAnyhow(body),
                             milliseconds(1));
    };
    rows.push_back({"pieces", size, slowly});
    rows.push_back({"pieces that do not block", size, slowly, MakeNonBlocking});
    rows.push_back({"pieces while signals come", size, slowly,
                    [] { StartSignalStorm(); }});
  }
  return rows;
}

TEST(Delivery, MakesNoDifferenceToAFormOrABody) {
  const Scratch spool;
  for (const Delivery& row : Deliveries()) {
    SCOPED_TRACE(testing::Message() << row.name << ", " << row.size);
    const std::string body = FormOf(row.size);
    for (const bool is_form : {true, false}) {
      RunCleanly(PostOf(body), row.input(body), [&] {
        row.prepare();
        if (is_form) {
          ExpectForm(spool.Path(), row.size);
        } else {
          EXPECT_TRUE(zan_cgi::ReadBody(10'000'000) == body);
        }
        EndSignalStorm();
      });
      EXPECT_EQ(spool.List(), Strings{});
    }
  }
}

/// Makes standard input the end of a pipe that is written to. It is never ready
/// to be read, and no error shows that.
void BecomeWritingEnd() {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  ::dup2(ends[1], STDIN_FILENO);
  ::close(ends[1]);
}

/// What a process does before it reads from a client that has stopped.
const std::pair<const char*, std::function<void()>> kSilences[] = {
    {"a pipe", [] {}},
    {"does not block", MakeNonBlocking},
    {"a pipe to write to", BecomeWritingEnd},
    {"signals come", [] { StartSignalStorm(); }},
    {"signals come, does not block",
     [] {
       MakeNonBlocking();
       StartSignalStorm();
     }},
};

TEST(Silence, EndsTheReadingAfterItsLimitAndNotSooner) {
  const Scratch spool;
  for (const auto& [name, prepare] : kSilences) {
    SCOPED_TRACE(name);
    const Input input = Input::SilentPipe("--XY\r\n");
    RunWithoutError(Post("1000").StandardInput(input), [&, prepare = prepare] {
      prepare();
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

/// Where a client stops, how that is read, and what comes of it.
struct Silence {
  std::string sent;
  std::function<Refusal()> read;
  Refusal refusal = {408, "nothing of the body has come for 30 seconds"};
};

TEST(Silence, IsWaitedForOnlyOnceForHalfAMinuteByDefault) {
  const Scratch spool;
  const auto read_form = [&] { return RefusalWithin(spool.Path()); };
  const auto read_body = [](std::int64_t limit) {
    return [=] { return RefusalOf([=] { zan_cgi::ReadBody(limit); }); };
  };
  const Silence rows[] = {
      {"--XY\r\nContent-Disp", read_form},
      {FieldHead("a") + "val", read_form},
      {UploadHead("u", "f") + "data", read_form},
      {Field("a", "1") + kFormEnd, read_form},
      {"text", read_body(1000)},
      // A drain.
      {"text", read_body(9), {413, "the body is longer than 9 bytes"}}};
  for (const Silence& row : rows) {
    RunCleanly(Post("1000"), [&] {
      const PieceInput input({row.sent}, [](std::size_t wait) {
        return wait == 0 ? PieceInput::Event::Piece
                         : PieceInput::Event::Silence;
      });
      EXPECT_EQ(row.read(), row.refusal) << row.sent;
      EXPECT_EQ(input.Waits(), 2U);
    });
    EXPECT_EQ(spool.List(), Strings{});
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

TEST(LostRead, IsTriedAgainUntilItIsSilence) {
  const std::string body = FormOf(1000);
  const Scratch spool;
  RunCleanly(PostOf(body), Input::File(body), [&] {
    LoseReads(5);
    ExpectForm(spool.Path(), 1000);
    LoseReads(std::numeric_limits<int>::max());
    EXPECT_EQ(RefusalWithin(spool.Path(), SilenceOf(1)).status, 408);
  });
}

TEST(Silence, IsMeasuredFromPieceToPieceAndNotFromSignals) {
  const std::string body = FormOf(100);
  const Scratch spool;
  RunCleanly(PostOf(body), Input::File(body), [&] {
    Replace({.poll =
                 [waits = 0](pollfd* entries, nfds_t count, int limit) mutable {
                   // Each second wait goes on after a signal.
                   const bool goes_on = waits++ % 2 == 1;
                   EXPECT_EQ(limit < 4000, goes_on) << limit;
                   // Some of the limit passes.
                   std::this_thread::sleep_for(milliseconds(2));
                   if (goes_on) return RealPoll(entries, count, limit);
                   errno = EINTR;
                   return -1;
                 },
             .read =
                 [](void* buffer, std::size_t size) {
                   return RealRead(STDIN_FILENO, buffer,
                                   std::min<std::size_t>(size, 100));
                 }});
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
      const Strings pieces = CutInto(body + "unread", 65'536);
      const PieceInput input(pieces);
      Form::Limits limits;
      limits.body = row.longest;
      EXPECT_EQ(RefusalOf([&] {
                  ::setenv("TMP", row.spool, 1);
                  Cgi cgi("/bin/front", "");
                  const Form form(cgi, limits);
                }).status,
                row.status);
      EXPECT_EQ(input.Waits(), pieces.size());
      EXPECT_EQ(input.BytesUnread(), 6U);
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

#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <tov/client.h>
#include <tov/err.h>

#include <cstring>
#include <memory>

#include "support/backend.h"
#include "support/signals.h"
#include "support/test.h"

namespace support {
namespace {

using namespace std::string_literals;

using tov_client::Connect;
using tov_client::Protocol;
using Lines = std::vector<std::string>;

constexpr char kTooShort[] =
    "the answer of back end 'backend' is shorter than its Content-Length";
constexpr char kSenseless[] =
    "back end 'backend' sent a Content-Length that makes no sense";

/// The whole answer, read in pieces of at most @p size bytes.
std::string WholeAnswer(Protocol& protocol, std::size_t size) {
  std::string answer;
  std::string piece(size, '\0');
  while (const unsigned long count = protocol.GetAnswer(piece.data(), size)) {
    answer.append(piece, 0, count);
  }
  return answer;
}

/// One whole conversation; reports its "answer".
Outcome Converse(Backend& backend, const Lines& lines,
                 std::size_t piece = 4096) {
  return RunWithoutLeak(Child().With(backend), [&](const Reporter& report) {
    const auto protocol = Connect(backend.Name(), false);
    for (const std::string& line : lines) protocol->SendEnv(line);
    protocol->RequestComplete();
    report("answer", WholeAnswer(*protocol, piece));
  });
}

Outcome ConverseWith(const Step& step, std::size_t piece = 4096) {
  Backend backend;
  backend.Then(step);
  return Converse(backend, {"QUERY_STRING=func=whoami"}, piece);
}

/// What a request of these variables is on the wire.
Query Sent(const Lines& lines) {
  Backend backend;
  backend.Then(Answer("x"));
  EXPECT_EQ(Converse(backend, lines).error, "");
  return backend.Queries().at(0);
}

/// What a back end of this name answers.
std::string AnswerOf(const std::string& name) {
  Backend backend(name);
  backend.Then(Answer("x"));
  return Converse(backend, {}).reported["answer"];
}

/// Expects that each answer arrives as it is, in one piece and byte by byte;
/// with @p error, that it fails so.
void ExpectEach(const Lines& answers, const std::string& error = "") {
  for (const std::string& answer : answers) {
    SCOPED_TRACE(answer);
    for (const Step& step : {Answer(answer), AnswerByteByByte(answer)}) {
      Outcome outcome = ConverseWith(step);
      EXPECT_EQ(outcome.error, error);
      EXPECT_EQ(outcome.error_type, error.empty() ? "" : "tov_err::Error");
      EXPECT_EQ(outcome.reported["answer"], error.empty() ? answer : "");
    }
  }
}

Outcome ConnectTo(const std::string& name, const std::string& run_dir) {
  return RunWithoutLeak(Child().Env("TOV_RUN_DIR", run_dir),
                        [&] { Connect(name, false); });
}

void ExpectRefusalBeforeAnythingIsOpened(const std::string& name) {
  const Scratch run_dir;
  RunCleanly(Child().Env("TOV_RUN_DIR", run_dir.Path()), [&] {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit nothing{0, limit.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &nothing);
    EXPECT_THROW(Connect(name, false), tov_err::Value) << name;
    ::setrlimit(RLIMIT_NOFILE, &limit);
  });
}

/// A name for which the socket's path has this many bytes.
std::string NameForPathOf(std::size_t size) {
  const Scratch alike;
  return std::string(size - alike.Path().size() - sizeof("/.sock") + 1, 'n');
}

void Pause(int milliseconds) {
  ::usleep(static_cast<useconds_t>(milliseconds) * 1000);
}

/// A socket of this name on which this process listens.
int Listen(const std::string& socket_path, int backlog) {
  const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, socket_path.data(), socket_path.size());
  EXPECT_EQ(::bind(listener, reinterpret_cast<const sockaddr*>(&address),
                   sizeof(address)),
            0);
  EXPECT_EQ(::listen(listener, backlog), 0);
  return listener;
}

/// A service in the client's own process: it does only what the test calls.
class OwnService {
 public:
  OwnService() : listener_(Listen(run_dir_ / "own.sock", 1)) {
    ::setenv("TOV_RUN_DIR", run_dir_.Path().c_str(), 1);
    protocol_ = Connect("own", false);
    connection_ = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    protocol_->RequestComplete();
  }
  ~OwnService() {
    Close();
    ::close(listener_);
  }

  Protocol& Client() { return *protocol_; }

  /// Sends a piece, and has the client take it before it returns.
  std::string Pass(const std::string& piece) {
    ::send(connection_, piece.data(), piece.size(), MSG_NOSIGNAL);
    std::string taken;
    std::string room(piece.size(), '\0');
    while (taken.size() < piece.size()) {
      const auto count = Client().GetAnswer(room.data(), room.size());
      taken.append(room, 0, count);
    }
    return taken;
  }
  void EndAnswer() { ::shutdown(connection_, SHUT_WR); }
  /// Without having read the request.
  void Close() { ::close(std::exchange(connection_, -1)); }

 private:
  Scratch run_dir_;
  int listener_;
  int connection_ = -1;
  std::unique_ptr<Protocol> protocol_;
};

/// An answer that arrives in exactly these pieces.
Outcome AnswerInPieces(const Lines& pieces) {
  return RunWithoutLeak(Child(), [&](const Reporter& report) {
    OwnService service;
    std::string answer;
    for (const std::string& piece : pieces) answer += service.Pass(piece);
    service.EndAnswer();
    report("answer", answer + WholeAnswer(service.Client(), 100));
  });
}

/// A service that takes its time for everything.
[[noreturn]] void ServeSlowly(int listener) {
  const int connection = ::accept(listener, nullptr, nullptr);
  Pause(200);
  char piece[65536];
  ssize_t size;
  do {
    size = ::recv(connection, piece, sizeof(piece), 0);
  } while (size > 0 && piece[size - 1] != ',');
  for (const std::string text : {"first ", "second"}) {
    Pause(200);
    ::send(connection, text.data(), text.size(), MSG_NOSIGNAL);
  }
  Pause(200);
  ::_exit(0);
}

/// A service whose queue is full for a while.
[[noreturn]] void AcceptLate(int listener) {
  Pause(200);
  ::accept(listener, nullptr, nullptr);
  ::pause();
  ::_exit(0);
}

/// Runs a client named "slow" in a signal storm while another process serves;
/// reports "alarms".
Outcome RunInSignalStorm(void (*serve)(int listener),
                         const std::function<void(const Reporter&)>& client) {
  const Scratch run_dir;
  return RunWithoutLeak(Child().Env("TOV_RUN_DIR", run_dir.Path()),
                        [&](const Reporter& report) {
                          const int listener = Listen(run_dir / "slow.sock", 0);
                          const pid_t service = ::fork();
                          if (service == 0) serve(listener);
                          StartSignalStorm();
                          client(report);
                          report("alarms", std::to_string(SignalsCounted()));
                          EndSignalStorm();
                          ::kill(service, SIGKILL);
                          ::waitpid(service, nullptr, 0);
                          ::close(listener);
                        });
}

TEST(Request, IsANetstringOfVariablesInTheirOrder) {
  const std::string own = "CONTENT_LENGTH\0000\0SCGI\0001\0"s;
  EXPECT_EQ(Sent({}).raw, "24:" + own + ",");
  EXPECT_EQ(Sent({"REQUEST_METHOD=GET", "EMPTY=", "EMPTY=2"}).raw,
            "58:" + own + "REQUEST_METHOD\0GET\0EMPTY\0\0EMPTY\0002\0,"s);
}

TEST(Request, TakesAnyByteButZeroInAValue) {
  std::string bytes;
  for (int byte = 1; byte < 256; ++byte) bytes += static_cast<char>(byte);
  const Query query = Sent({"ALL=" + bytes, "EQUALS=a=b=", "od\n\xff=1"});
  EXPECT_EQ(query["ALL"], bytes);
  EXPECT_EQ(query["EQUALS"], "a=b=");
  EXPECT_EQ(query["od\n\xff"], "1");
}

TEST(Request, MayHaveThousandsOfVariablesAndBeLargerThanASocketsBuffer) {
  Lines lines;
  for (int i = 0; i < 5000; ++i) {
    const std::string number = std::to_string(i);
    lines.push_back(std::string("V").append(number) + "=" + number);
  }
  const std::string value(3'000'000, 'v');
  lines.push_back("LARGE=" + value);
  const Query query = Sent(lines);
  EXPECT_EQ(query.variables.size(), 5003u);
  EXPECT_EQ(query["V4999"], "4999");
  EXPECT_TRUE(query["LARGE"] == value);
}

TEST(Request, RefusesALineThatIsNoVariableOrIsOneOfTheWireFormat) {
  // What the error shows; a text of what() ends at a zero byte.
  for (const auto& [line, name] : {std::pair(""s, "''"s),
                                   {"NAME", "'NAME'"},
                                   {"=value", "''"},
                                   {"A=1\0B=2"s, "'A'"},
                                   {"A\0B=2"s, "'A\0B'"s},
                                   {"CONTENT_LENGTH=5", "'CONTENT_LENGTH'"},
                                   {"CONTENT_LENGTH=", "'CONTENT_LENGTH'"},
                                   {"SCGI=1", "'SCGI'"}}) {
    Backend backend;
    backend.Then(CloseSilently());
    const Outcome outcome = RunWithoutLeak(
        Child().With(backend),
        [&, text = line] { Connect(backend.Name(), false)->SendEnv(text); });
    EXPECT_EQ(outcome.error_type, "tov_err::Value") << line;
    const std::string error =
        "bad value " + name + " of 'environment variable'";
    EXPECT_EQ(outcome.error, error.c_str());
  }
  const Lines alike = {"CONTENT_LENGTH2=1", "SCGI_X=2", "XSCGI=3"};
  EXPECT_EQ(Sent(alike).variables.size(), 5u);
}

TEST(Connect, RefusesANameThatIsNoFileNameOrIsTooLong) {
  // 108 bytes are as many as an address has, which leaves none for the final
  // zero.
  for (const std::string& name :
       {""s, "."s, ".."s, ".hidden"s, "../x"s, "a/b"s, "/a"s, "a/"s, "/"s,
        "a\0b"s, "\0"s, std::string(200, 'n'), NameForPathOf(109),
        NameForPathOf(108)}) {
    ExpectRefusalBeforeAnythingIsOpened(name);
  }
}

TEST(Connect, TakesTheLongestNameThatFits) {
  ASSERT_EQ(Backend(NameForPathOf(107)).SocketPath().size(), 107u);
  EXPECT_EQ(AnswerOf(NameForPathOf(107)), "x");
}

TEST(Connect, TakesANameWithADotInside) { EXPECT_EQ(AnswerOf("a.b..c"), "x"); }

TEST(Connect, NamesTheSocketAndTheReasonOfAFailure) {
  const Scratch run_dir;
  const Outcome outcome = ConnectTo("panel", run_dir.Path());
  EXPECT_EQ(outcome.error_type, "tov_err::Error");
  EXPECT_EQ(outcome.error, "cannot connect to the back end at '" +
                               run_dir / "panel.sock" +
                               "': " + std::strerror(ENOENT));
}

TEST(Connect, FailsWhenNobodyListens) {
  const Outcome outcome = ConverseWith(Refuse());
  EXPECT_EQ(outcome.error_type, "tov_err::Error");
  EXPECT_TRUE(outcome.error.ends_with(std::strerror(ECONNREFUSED)))
      << outcome.error;
}

TEST(Connect, LooksInTheDefaultDirectoryUnlessAnotherIsSet) {
  const std::string name = "no-such-service-for-tests";
  const Outcome unset = RunWithoutLeak(Child(), [&] { Connect(name, false); });
  const Outcome empty = ConnectTo(name, "");
  for (const Outcome& outcome : {unset, empty}) {
    EXPECT_EQ(outcome.error_type, "tov_err::Error");
    EXPECT_NE(outcome.error.find("/run/tov/" + name + ".sock"),
              std::string::npos)
        << outcome.error;
  }
}

std::vector<int> FlagsOfDescriptors() {
  std::vector<int> flags;
  for (int descriptor = 0; descriptor < 256; ++descriptor) {
    flags.push_back(::fcntl(descriptor, F_GETFD));
  }
  return flags;
}

TEST(Connect, TakesADescriptorThatIsNeitherStandardNorInherited) {
  for (Child child : {Child(), Child().Closed(0).Closed(1).Closed(2)}) {
    Backend backend;
    backend.Then(Answer("x"));
    const Outcome outcome =
        RunWithoutLeak(child.With(backend), [&](const Reporter& report) {
          std::vector<int> expected = FlagsOfDescriptors();
          *std::find(expected.begin() + 3, expected.end(), -1) = FD_CLOEXEC;
          const auto protocol = Connect(backend.Name(), false);
          EXPECT_EQ(FlagsOfDescriptors(), expected);
          protocol->RequestComplete();
          report("answer", WholeAnswer(*protocol, 100));
        });
    EXPECT_EQ(outcome.error, "");
    EXPECT_EQ(outcome.reported.at("answer"), "x");
  }
}

TEST(Connect, ClosesTheConnectionWhenDestroyed) {
  Backend backend;
  backend.Times(2, Answer("x"));
  const Outcome outcome =
      RunWithoutLeak(Child().With(backend), [&](const Reporter&) {
        Connect(backend.Name(), false);
        const auto protocol = Connect(backend.Name(), true);
        protocol->SendEnv("A=1");
        protocol->RequestComplete();
      });
  EXPECT_EQ(outcome.error, "");
  ASSERT_EQ(backend.Queries().size(), 2u);
  EXPECT_EQ(backend.Queries()[0].raw, "");
}

TEST(AnswerText, IsReturnedByteForByte) {
  std::string bytes;
  for (int byte = 0; byte < 256; ++byte) bytes += static_cast<char>(byte);
  ExpectEach({"<doc/>", bytes, "\n",
              "Status: 200 OK\r\nContent-Type: text/xml\r\n\r\nx"});
}

TEST(AnswerText, MayBeLargeAndTakenInSmallPieces) {
  const Outcome small = ConverseWith(Answer("Status: 200\n\nabc"), 1);
  EXPECT_EQ(small.reported.at("answer"), "Status: 200\n\nabc");
  std::string answer;
  while (answer.size() < 3'000'000) answer += std::to_string(answer.size());
  for (const std::size_t piece : {1000u, 65536u, 5'000'000u}) {
    const Outcome outcome = ConverseWith(Answer(answer), piece);
    EXPECT_EQ(outcome.error, "");
    EXPECT_TRUE(outcome.reported.at("answer") == answer);
  }
}

// The kernel reports a peer that has not read everything once it has closed.
TEST(AnswerText, IsNotReadOnAfterItsEnd) {
  const Outcome outcome = RunWithoutLeak(Child(), [](const Reporter& report) {
    OwnService service;
    std::string answer = service.Pass("x");
    service.EndAnswer();
    answer += WholeAnswer(service.Client(), 100);
    service.Close();
    report("answer", answer + WholeAnswer(service.Client(), 100));
  });
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(outcome.reported.at("answer"), "x");
}

TEST(AnswerText, WithoutAByteOrCutByAResetIsAnError) {
  for (const Step& step : {CloseSilently(), Reset(), AnswerThenReset("half"),
                           AnswerThenReset("")}) {
    EXPECT_EQ(ConverseWith(step).error_type, "tov_err::Error")
        << static_cast<int>(step.kind);
  }
}

TEST(ContentLength, IsComparedWithWhatFollowsTheHeader) {
  const std::string five = "Content-Length: 5\r\n";
  ExpectEach({five + "\r\nhello", "Content-Length: 0\r\n\r\n",
              "Content-Length: 5\n\nhello",
              // What is too much is handed on as well.
              "Content-Length: 4\r\n\r\nhello",
              "Content-Length: 0\r\n\r\nhello",
              // It is not needed.
              "Status: 200 OK\r\n", "Status: 200 OK",
              "Content-Type: text/html\r\n\r\n"});
  ExpectEach(
      {"Content-Length: 6\r\n\r\nhello", "Content-Length: 6\n\nhello",
       "Content-Length: 1\r\n\r\n", "Content-Length: 4294967301\r\n\r\nhello",
       // In any case and place.
       "content-length: 6\r\n\r\nhello", "CONTENT-LENGTH:6\r\n\r\nhello",
       "Status: 200 OK\r\nContent-Length: \t6 \r\n"
       "Content-Type: text/xml\r\n\r\nhello",
       "A: 1\nContent-length:6\nB: 2\r\n\nhello",
       // Ended among the headers.
       five, five + "Status: 200 OK\r\n"},
      kTooShort);
}

TEST(ContentLength, MayBeRepeatedAndHaveBlanksAndTabsAround) {
  for (const std::string& header :
       {"Content-Length: 5 "s, "Content-Length:\t5\t"s,
        "Content-Length: \t5 \t"s, "Content-Length:\t 5\t "s,
        "Content-Length: 5\r\nContent-length:5"s}) {
    ExpectEach({header + "\r\n\r\nhello"});
    ExpectEach({header + "\r\n\r\nhell"}, kTooShort);
  }
}

TEST(ContentLength, WithTwoMeaningsOrNoneIsAnError) {
  for (const std::string value :
       {"5\r\nContent-Length: 4\r", "4\r\nContent-Length: 5\r",
        "5\nContent-Length: 4\nContent-Length: 4", "", "x", "-5", "5x", "5 5",
        "5,5", "0x5", "1e0", "99999999999999999999999"}) {
    ExpectEach({"Content-Length: " + value + "\n\r\nhello"}, kSenseless);
  }
}

TEST(ContentLength, IsTextWhereItIsNoHeader) {
  ExpectEach(
      {":x\nContent-Length: 100\n\nshort", "X-Content-Length: 60\r\n\r\nhello",
       "Content-Length-X: 60\r\n\r\nhello",
       // After a line that is none, or after all headers.
       "<doc>\nContent-Length: 100\n\n</doc>",
       "\r\nContent-Length: 100\r\n\r\nhello",
       "Status: 200\r\n\r\nContent-Length: 100\r\n\r\nx",
       // Before a line that is none.
       "Content-Length: 100\nhello world",
       "Content-Length: 100\n<doc>\n\n</doc>", "Content-Length: x\nhello world",
       "Content-Length: 5\nContent-Length: 4\n<doc/>\n"});
}

TEST(ContentLength, CountsWhileTheNextLineMayBecomeAHeader) {
  const std::string length = "Content-Length: 2000\n";
  ExpectEach({length + std::string(1023, 'n'), length + "\r"}, kTooShort);
  ExpectEach({length + std::string(1024, 'n'), length + "n\r"});
}

TEST(ContentLength, CountsAfterALongHeaderButNotAfterALongName) {
  const std::string rest = "\nContent-Length: 6\n\nhello";
  ExpectEach({"X: " + std::string(3000, 'x') + rest,
              std::string(1023, 'n') + ":" + rest},
             kTooShort);
  ExpectEach({std::string(1024, 'n') + ": x" + rest});
}

TEST(ContentLength, IsFoundWhereverTheAnswerIsCut) {
  for (const Lines& pieces : {Lines{"Content-Length: 6\r\n\r", "\nhello"},
                              {"Content-Length: 6\r\n", "\r", "\nhello"},
                              {"Content-Length: 6\r", "\n\r\nhello"},
                              {"Content-Len", "gth: 6\n", "\nhello"}}) {
    EXPECT_EQ(AnswerInPieces(pieces).error,
              "the answer of back end 'own' is shorter than its "
              "Content-Length")
        << pieces[0];
  }
  for (const Lines& pieces :
       {Lines{"Content-Length: 5\r\n\r", "\nhello"},
        {"Content-Length: 60\r\n\r", "hello"},
        // The name is more than a line.
        {std::string(1000, 'n'),
         std::string(100, 'n') + ": x\nContent-Length: 6\n\nhello"}}) {
    const Outcome outcome = AnswerInPieces(pieces);
    EXPECT_EQ(outcome.error, "") << pieces[0];
    EXPECT_TRUE(outcome.reported.contains("answer")) << pieces[0];
  }
}

TEST(Signals, DoNotInterruptAConversation) {
  const Outcome outcome =
      RunInSignalStorm(ServeSlowly, [](const Reporter& report) {
        const auto protocol = Connect("slow", false);
        // More than a socket takes, so that sending has to wait as well.
        protocol->SendEnv("X=" + std::string(2'000'000, 'x'));
        protocol->RequestComplete();
        report("answer", WholeAnswer(*protocol, 100));
      });
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(outcome.reported.at("answer"), "first second");
  EXPECT_GT(std::stoi(outcome.reported.at("alarms")), 10);
}

TEST(Signals, DoNotInterruptAConnectionThatHasToWait) {
  const Outcome outcome = RunInSignalStorm(AcceptLate, [](const Reporter&) {
    // As many as may wait.
    const auto first = Connect("slow", false);
    Connect("slow", false);
  });
  EXPECT_EQ(outcome.error, "");
  EXPECT_GT(std::stoi(outcome.reported.at("alarms")), 3);
}

/// Sends more than a socket takes to a back end that closes without reading.
void SendToDeafEars(const Backend& backend) {
  const auto protocol = Connect(backend.Name(), false);
  protocol->SendEnv("LARGE=" + std::string(3'000'000, 'x'));
  protocol->RequestComplete();
}

TEST(Signals, AreNeitherRaisedNorLeftPendingByABrokenConnection) {
  Backend backend;
  backend.Times(2, Reset());
  const Outcome outcome =
      RunWithoutLeak(Child().With(backend), [&](const Reporter& report) {
        // The signal's default action would end the process.
        EXPECT_THROW(SendToDeafEars(backend), tov_err::Error);
        Block(SIGPIPE);
        EXPECT_THROW(SendToDeafEars(backend), tov_err::Error);
        report("pending", IsPending(SIGPIPE) ? "yes" : "no");
      });
  EXPECT_EQ(outcome.reported.at("pending"), "no");
}

TEST(Protocol, TakesItsCallsInOneOrderOnly) {
  using Misuse = void (*)(Protocol&);
  const Misuse answer_too_early = [](Protocol& protocol) {
    char piece[10];
    protocol.GetAnswer(piece, sizeof(piece));
  };
  const Misuse variable_too_late = [](Protocol& protocol) {
    protocol.RequestComplete();
    protocol.SendEnv("A=1");
  };
  const Misuse complete_twice = [](Protocol& protocol) {
    protocol.RequestComplete();
    protocol.RequestComplete();
  };
  for (const auto& [misuse, error] :
       {std::pair(answer_too_early, "not complete yet"),
        {variable_too_late, "complete already"},
        {complete_twice, "complete already"}}) {
    Backend backend;
    backend.Then(Answer("x"));
    const Outcome outcome = RunWithoutLeak(
        Child().With(backend), [&, commit = misuse](const Reporter&) {
          commit(*Connect(backend.Name(), false));
        });
    EXPECT_EQ(outcome.error_type, "tov_err::Error");
    EXPECT_EQ(outcome.error,
              std::string("the request to back end 'backend' is ") + error);
  }
}

}  // namespace

}  // namespace support

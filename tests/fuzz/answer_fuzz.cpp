/// @file
/// A back end's answer over a real socket, in pieces, with attempts that fail.
///
/// The input's first line is a script: a letter for the call, four letters for
/// what becomes of the four attempts, then one byte for the size of each piece
/// of the answer. The rest of the input is the answer.
#include <fcntl.h>
#include <sanitizer/asan_interface.h>
#include <signal.h>
#include <stdlib.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <tov/err.h>
#include <unistd.h>
#include <zancgi/zancgi.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "fuzz/harness.h"
#include "support/variable.h"

namespace {

using fuzz::Expect;
using fuzz::ExpectEqual;
using zan_cgi::Cgi;

constexpr char kCookies[] = "fuzzses5=session; fuzzlang5=de:en:fr";

enum class Call { QueryXml, QueryText, Authorize };
enum class Fate { Answered, Refused, ClosedAtOnce, Reset };

struct Script {
  Call call = Call::QueryXml;
  Fate fates[4] = {};
  std::vector<std::size_t> pieces;
  std::string answer;
};

template <class Choice>
Choice Chosen(std::string_view letters, char letter) {
  const std::size_t found = letters.find(letter);
  const auto value = static_cast<unsigned char>(letter);
  return static_cast<Choice>(
      found == std::string_view::npos ? value % letters.size() : found);
}

Script Read(std::string_view input) {
  Script script;
  std::string line = fuzz::TakeLine(input);
  script.answer = input;
  line.resize(std::max<std::size_t>(line.size(), 5), 'a');
  script.call = Chosen<Call>("xta", line[0]);
  for (std::size_t i = 0; i < 4; ++i) {
    script.fates[i] = Chosen<Fate>("arcx", line[i + 1]);
  }
  // Each costs more of the socket's buffer than its bytes.
  constexpr std::size_t kMostPieces = 64;
  for (const char byte : line.substr(5, kMostPieces)) {
    script.pieces.push_back(static_cast<unsigned char>(byte) + 1U);
  }
  return script;
}

std::string QueryOf(const Script& script) {
  return script.call == Call::QueryText ? "func=list&out=text"
                                        : "func=whoami&out=xml";
}

/// The back end's side of one call.
class Backend {
 public:
  explicit Backend(const Script& script) : script_(script) { current = this; }
  ~Backend() {
    Close();
    current = nullptr;
  }
  Backend(const Backend&) = delete;
  Backend& operator=(const Backend&) = delete;

  std::int64_t Attempts() const { return attempts_; }

  /// Connects a socket to a fresh end of ours, with the answer in it already.
  int Accept(int client) {
    Close();
    Expect(attempts_ < 4, "there are four attempts at most");
    fate_ = script_.fates[attempts_++];
    if (fate_ == Fate::Refused) {
      errno = ECONNREFUSED;
      return -1;
    }
    int ends[2];
    // Packets, so that each piece is received by itself; but only a stream
    // raises SIGPIPE.
    const int type = fate_ == Fate::ClosedAtOnce ? SOCK_STREAM : SOCK_SEQPACKET;
    Expect(::socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, ends) == 0,
           "sockets can be made");
    Expect(::dup3(ends[0], client, O_CLOEXEC) == client,
           "a socket can be replaced");
    ::close(ends[0]);
    end_ = ends[1];
    SendAnswer();
    if (fate_ == Fate::ClosedAtOnce) Close();
    return 0;
  }

  /// Called before the answer is received.
  void NoteReceive() {
    if (fate_ == Fate::Reset) Close();
  }

  /// Reads the request that the last attempt has sent.
  std::string Request() const {
    std::string request(4096, '\0');
    const ssize_t size = ::read(end_, request.data(), request.size());
    Expect(size > 0, "an answered attempt has sent its request");
    request.resize(static_cast<std::size_t>(size));
    return request;
  }

  static Backend* current;

 private:
  void SendAnswer() {
    std::string_view rest = script_.answer;
    for (std::size_t i = 0; !rest.empty(); ++i) {
      const std::size_t size =
          i < script_.pieces.size() ? script_.pieces[i] : rest.size();
      const std::string_view piece = rest.substr(0, size);
      Expect(::send(end_, piece.data(), piece.size(), MSG_NOSIGNAL) ==
                 static_cast<ssize_t>(piece.size()),
             "a piece of the answer can be sent");
      rest.remove_prefix(piece.size());
    }
    ::shutdown(end_, SHUT_WR);
  }

  void Close() {
    if (end_ >= 0) ::close(end_);
    end_ = -1;
  }

  const Script& script_;
  int attempts_ = 0;
  Fate fate_ = Fate::Answered;
  int end_ = -1;
};

Backend* Backend::current = nullptr;

std::string Variable(const std::string& name, const std::string& value) {
  return name + '\0' + value + '\0';
}

std::string RequestFor(const std::string& query) {
  const std::string header =
      Variable("CONTENT_LENGTH", "0") + Variable("SCGI", "1") +
      Variable("HTTP_COOKIE", kCookies) + Variable("QUERY_STRING", query) +
      Variable("REQUEST_METHOD", "GET");
  return std::to_string(header.size()) + ":" + header + ",";
}

struct Header {
  std::vector<std::string> lengths;
  std::size_t size = 0;
};

std::size_t TokenSize(std::string_view line) {
  return std::min(line.find_first_not_of("!#$%&'*+-.0123456789"
                                         "ABCDEFGHIJKLMNOPQRSTUVWXYZ^_`"
                                         "abcdefghijklmnopqrstuvwxyz|~"),
                  line.size());
}

/// So much of a header line counts.
constexpr std::size_t kLineLimit = 1024;

/// The lines of the header part, if the answer begins with one. A header part
/// that ends in the middle is one as well: the answer was cut.
std::optional<Header> HeaderOf(std::string_view answer) {
  Header header;
  for (;;) {
    const std::size_t end = answer.find('\n', header.size);
    const bool whole = end != std::string_view::npos;
    std::string_view line = answer.substr(header.size, end - header.size);
    line = line.substr(0, kLineLimit);
    if (whole) header.size = end + 1;
    if (whole && line.ends_with('\r')) line.remove_suffix(1);
    if (whole && line.empty()) return header;
    const std::size_t name = TokenSize(line);
    const bool named = name > 0 && name < line.size() && line[name] == ':';
    if (!whole) {
      const bool may_become_one =
          named || (name == line.size() && name < kLineLimit) || line == "\r";
      header.size = answer.size();
      return may_become_one ? std::optional(header) : std::nullopt;
    }
    if (!named) return std::nullopt;
    if (name != 14 || ::strncasecmp(line.data(), "Content-Length", 14) != 0) {
      continue;
    }
    std::string_view value = line.substr(name + 1);
    const std::size_t begin = value.find_first_not_of(" \t");
    value.remove_prefix(std::min(begin, value.size()));
    header.lengths.emplace_back(
        value.substr(0, value.find_last_not_of(" \t") + 1));
  }
}

std::optional<std::size_t> NumberOf(const std::string& digits) {
  std::size_t number = 0;
  const char* const end = digits.data() + digits.size();
  const auto [stop, error] = std::from_chars(digits.data(), end, number);
  return error == std::errc() && stop == end ? std::optional(number)
                                             : std::nullopt;
}

/// Whether the answer keeps its own promise of its length.
bool IsWhole(const std::string& answer) {
  if (answer.empty()) return false;
  const std::optional<Header> header = HeaderOf(answer);
  if (!header) return true;
  for (const std::string& length : header->lengths) {
    const std::optional<std::size_t> number = NumberOf(length);
    if (!number || *number > answer.size() - header->size) return false;
    if (number != NumberOf(header->lengths.front())) return false;
  }
  return true;
}

/// Which attempt succeeds, counted from 1; 0 for none.
int SuccessfulAttempt(const Script& script) {
  if (!IsWhole(script.answer)) return 0;
  for (int i = 0; i < 4; ++i) {
    if (script.fates[i] == Fate::Answered) return i + 1;
  }
  return 0;
}

std::string HandedOn(const Script& script) {
  const std::size_t begin = script.call == Call::QueryText
                                ? std::string::npos
                                : script.answer.find("<?xml");
  return begin == std::string::npos ? script.answer
                                    : script.answer.substr(begin);
}

struct Result {
  std::string answer;
  std::string error;
  /// The back end could not be asked.
  bool failed = false;
};

/// What is not a standard exception gets out, which is a finding too.
template <class Function>
Result Caught(const Function& function) {
  Result result;
  try {
    result.answer = function();
  } catch (const tov_err::Error& error) {
    result.failed = true;
    result.error = error.what();
  } catch (const std::runtime_error& error) {
    result.error = error.what();
  }
  return result;
}

/// Makes the call, and looks at what reached the back end.
template <class Function>
Result Asked(const Script& script, const Function& function) {
  const Backend backend(script);
  const Result result = Caught(function);
  const int successful = SuccessfulAttempt(script);
  Expect(result.failed == (successful == 0),
         "a call fails when all four attempts have failed, and only then");
  ExpectEqual<std::int64_t>("number of attempts", backend.Attempts(),
                            successful == 0 ? 4 : successful);
  if (successful != 0) {
    ExpectEqual("request", backend.Request(), RequestFor(QueryOf(script)));
  }
  return result;
}

void ExpectQuery(const Script& script, Cgi& request) {
  const Result result =
      Asked(script, [&] { return request.Query(QueryOf(script)); });
  if (result.failed) return;
  ExpectEqual<std::string>("error", result.error, "");
  ExpectEqual("answer", result.answer, HandedOn(script));
}

void ExpectStranger(const Cgi& request) {
  const Result result = Caught([&] { return request.auth().name; });
  ExpectEqual<std::string>("error", result.error, "not authorized");
}

bool Contains(const std::string& text, const char* part) {
  return text.find(part) != std::string::npos;
}

void ExpectRefusal(const std::string& error, const std::string& answer) {
  if (error == "You do not authorized for this operation") {
    Expect(Contains(answer, "<error") && Contains(answer, "access"),
           "who is refused was refused by the back end");
  } else if (error == "unknown authorization error") {
    Expect(Contains(answer, "<error"), "an error is the back end's");
  } else {
    ExpectEqual<std::string>("error", error, "bad answer from 'fuzz'");
  }
}

void ExpectUser(const Cgi& request, const std::string& answer) {
  const Cgi::AuthInfo& user = request.auth();
  Expect(Contains(answer, "<doc") && Contains(answer, "<user"),
         "who is authorized was named by the back end");
  Expect(answer.find('\0') == std::string::npos,
         "an answer with a zero byte confirms nobody");
  Expect(user.name.empty() || Contains(answer, "name"), "a name was sent");
  Expect(user.level == 0 || Contains(answer, "level"), "a level was sent");
  ExpectEqual<std::string>("session", user.auth, "session");
  ExpectEqual<std::int64_t>("method", user.method, Cgi::AuthInfo::AuthCookie);
  ExpectEqual<std::string>("language word", user.lang_word, "fr");
  ExpectEqual<std::string>("language rest", user.lang_rest, "de:en");
}

Result Authorized(const Script& script, Cgi& request) {
  return Asked(script, [&] {
    request.Authorize(Cgi::AuthInfo::AuthCookie);
    return std::string();
  });
}

/// Half a document must not make anybody a user.
void ExpectCutAnswerConfirmsNobody(const Script& script) {
  Script cut = script;
  cut.answer.resize(script.answer.rfind('>'));
  Cgi request("cgi/front", "fuzz");
  Expect(!Authorized(cut, request).error.empty(), "a cut answer is an error");
  ExpectStranger(request);
}

/// Where an element can be added as the last one of the document; npos if
/// something follows the document.
std::size_t EndOfDocument(const std::string& answer) {
  const std::size_t end = answer.rfind("</doc>");
  const bool is_last =
      end != std::string::npos &&
      answer.find_first_not_of(" \t\r\n", end + 6) == std::string::npos;
  return is_last ? end : std::string::npos;
}

/// An error counts, whatever else the answer says.
void ExpectErrorToCount(const Script& script) {
  Script refusal = script;
  const std::size_t end = EndOfDocument(script.answer);
  if (end == std::string::npos) return;
  refusal.answer.insert(end, "<error type='access'/>");
  Cgi request("cgi/front", "fuzz");
  ExpectEqual<std::string>("error", Authorized(refusal, request).error,
                           "You do not authorized for this operation");
  ExpectStranger(request);
}

void ExpectAuthorize(const Script& script, Cgi& request) {
  const Result result = Authorized(script, request);
  if (result.error.empty()) {
    ExpectUser(request, HandedOn(script));
    ExpectCutAnswerConfirmsNobody(script);
    ExpectErrorToCount(script);
    return;
  }
  ExpectStranger(request);
  if (!result.failed) ExpectRefusal(result.error, HandedOn(script));
}

void ReportBrokenPipe(int /*signal*/) {
  fuzz::ReportFinding("SIGPIPE has reached the process");
}

}  // namespace

extern "C" int connect(int fd, const sockaddr* addr, socklen_t len) {
  if (Backend::current != nullptr) return Backend::current->Accept(fd);
  return static_cast<int>(::syscall(SYS_connect, fd, addr, len));
}

extern "C" ssize_t recv(int fd, void* buf, size_t n, int flags) {
  if (Backend::current != nullptr) Backend::current->NoteReceive();
  // What the sanitizer's own recv would have looked at.
  Expect(__asan_region_is_poisoned(buf, n) == nullptr,
         "the answer is received into memory that is there");
  return ::syscall(SYS_recvfrom, fd, buf, n, flags, nullptr, nullptr);
}

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  ::clearenv();
  support::SetVariable("HTTP_COOKIE", kCookies);
  support::SetVariable("REQUEST_METHOD", "POST");
  support::SetVariable("TOV_LOG_LEVEL", "0");
  ::signal(SIGPIPE, ReportBrokenPipe);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  const fuzz::DescriptorWatch watch;
  const Script script = Read({reinterpret_cast<const char*>(data), size});
  Cgi request("cgi/front", "fuzz");
  if (script.call == Call::Authorize) {
    ExpectAuthorize(script, request);
  } else {
    ExpectQuery(script, request);
  }
  return 0;
}

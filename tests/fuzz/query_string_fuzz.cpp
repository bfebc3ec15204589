/// @file
/// A query string, compared with a decoder of its own; and the log lines that
/// it causes, which it must not be able to forge.
#include <fcntl.h>
#include <sys/syscall.h>
#include <tov/log.h>
#include <tov/str.h>
#include <unistd.h>
#include <zancgi/zancgi.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/harness.h"
#include "plain/plain_words.h"
#include "support/variable.h"

namespace {

using fuzz::Expect;
using fuzz::ExpectEqual;
using fuzz::StringMap;
using Strings = std::vector<std::string>;

struct Expected {
  StringMap params;
  std::size_t warnings = 0;
};

void AddPair(std::string_view value, Expected& expected) {
  const std::string name = plain::UrlDecode(plain::TakeWord(value, "="));
  if (name.empty()) {
    if (!value.empty()) ++expected.warnings;
  } else if (expected.params.contains(name)) {
    expected.params[name] += ", " + plain::UrlDecode(value);
  } else {
    expected.params[name] = plain::UrlDecode(value);
  }
}

Expected ExpectedOf(std::string_view query) {
  Expected expected;
  while (!query.empty()) AddPair(plain::TakeWord(query, "&"), expected);
  return expected;
}

/// The log goes to a file that has no name any more.
class LogFile {
 public:
  LogFile() {
    const std::string path = (std::filesystem::temp_directory_path() /
                              ("query_string_fuzz." + std::to_string(getpid())))
                                 .string();
    ::unlink(path.c_str());
    support::SetVariable("TOV_LOG", path);
    support::SetVariable("TOV_LOG_LEVEL", "4");
    Expect(tov_log::Module("fuzz", "fuzz").Check(tov_log::Warning),
           "the log is on");
    descriptor_ = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    Expect(descriptor_ >= 0, "the log is in its file");
    ::unlink(path.c_str());
  }

  /// Returns the lines since the last call.
  Strings Take() const {
    const off_t size = ::lseek(descriptor_, 0, SEEK_END);
    std::string text(static_cast<std::size_t>(size), '\0');
    if (size == 0) return {};
    Expect(::pread(descriptor_, text.data(), text.size(), 0) == size,
           "the log can be read");
    Expect(::ftruncate(descriptor_, 0) == 0, "the log can be emptied");
    Expect(text.ends_with('\n'), "the log ends with a whole line");
    Strings lines;
    for (std::string_view rest = text; !rest.empty();) {
      lines.push_back(fuzz::TakeLine(rest));
    }
    return lines;
  }

 private:
  int descriptor_;
};

/// Expects so many lines, each "2026-01-31T12:00:00Z zancgi[1] core warning: "
/// and a text without control bytes.
void ExpectWarnings(const LogFile& log, std::size_t count) {
  const Strings lines = log.Take();
  ExpectEqual<std::int64_t>("number of log lines",
                            static_cast<std::int64_t>(lines.size()),
                            static_cast<std::int64_t>(count));
  const std::string prefix =
      "Z zancgi[" + std::to_string(::getpid()) + "] core warning: ";
  for (const std::string& line : lines) {
    ExpectEqual<std::int64_t>("place of the prefix",
                              static_cast<std::int64_t>(line.find(prefix)),
                              sizeof("2026-01-31T12:00:00") - 1);
    Expect(line.size() < 4096, "a line fits into a pipe");
    Expect(std::none_of(line.begin(), line.end(),
                        [](char byte) {
                          const auto value = static_cast<unsigned char>(byte);
                          return value < 32 || value == 127;
                        }),
           "a line holds no control bytes");
  }
}

/// Of messages of one format so many are logged, and then that more are not.
std::size_t Limited(std::size_t count) {
  return std::min<std::size_t>(count, 100 + 1);
}

/// Through the environment where that can hold it.
void Parse(const std::string& query, zan_cgi::Cgi::Data& request) {
  if (query.find('\0') != std::string::npos) {
    request.ParseQueryString(query);
    return;
  }
  support::SetVariable("QUERY_STRING", query);
  request.ParseQuery();
}

/// The number of the process that takes the present input.
auto process = static_cast<pid_t>(::syscall(SYS_getpid));

}  // namespace

// Messages are counted for each process.
extern "C" pid_t getpid() { return process; }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  static const LogFile log;
  ++process;
  support::SetVariable("REQUEST_METHOD", "GET");
  const std::string query(reinterpret_cast<const char*>(data), size);

  zan_cgi::Cgi::Data request;
  Parse(query, request);
  const Expected expected = ExpectedOf(query);
  ExpectEqual("params", request.params, expected.params);
  Expect(request.parsed, "a parsed query is marked as parsed");
  ExpectWarnings(log, Limited(expected.warnings));

  request.ParseQueryString(query);
  ExpectEqual("params after a second parse", request.params, expected.params);
  ExpectWarnings(log, 1);

  ExpectEqual("query encoded and decoded again",
              str::url::Decode(str::url::Encode(query)), query);
  return 0;
}

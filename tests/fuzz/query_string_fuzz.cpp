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
  Strings warnings;
};

void AddPair(std::string_view item, Expected& expected) {
  const std::size_t equals = std::min(item.find('='), item.size());
  const std::string name = plain::UrlDecode(item.substr(0, equals));
  const std::string_view value = item.substr(std::min(equals + 1, item.size()));
  if (name.empty()) {
    if (value.empty()) return;
    // What is printed ends at a zero byte.
    expected.warnings.push_back("Key name is empty, value = '" +
                                std::string(value.substr(0, value.find('\0'))) +
                                "'");
  } else if (expected.params.contains(name)) {
    expected.params[name] += ", " + plain::UrlDecode(value);
  } else {
    expected.params[name] = plain::UrlDecode(value);
  }
}

Expected ExpectedOf(std::string_view query) {
  Expected expected;
  for (std::size_t begin = 0; begin <= query.size();) {
    const std::size_t end = std::min(query.find('&', begin), query.size());
    AddPair(query.substr(begin, end - begin), expected);
    begin = end + 1;
  }
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

std::string EscapedForLog(std::string_view text) {
  std::string escaped;
  for (const char byte : text) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    const auto value = static_cast<unsigned char>(byte);
    if (value >= 32 && value != 127) {
      escaped += byte;
    } else {
      escaped.append("\\x").append(1, kDigits[value / 16]);
      escaped.append(1, kDigits[value % 16]);
    }
  }
  return escaped;
}

/// "2026-01-31T12:00:00Z zancgi[1] core warning: ", then the text.
void ExpectWarning(const std::string& line, std::string_view text) {
  constexpr std::size_t kLongest = 4096 - 1;
  const std::string escaped = EscapedForLog(text);
  const std::string prefix =
      "Z zancgi[" + std::to_string(::getpid()) + "] core warning: ";
  const std::size_t begin = line.find(prefix);
  ExpectEqual<std::int64_t>("place of the prefix",
                            static_cast<std::int64_t>(begin),
                            sizeof("2026-01-31T12:00:00") - 1);
  Expect(line.size() <= kLongest, "a line fits into a pipe");
  const std::string told = line.substr(begin + prefix.size());
  if (begin + prefix.size() + escaped.size() <= kLongest) {
    ExpectEqual("warning", told, escaped);
  } else {
    Expect(told.ends_with("..."), "a cut line says so");
    const std::string kept = told.substr(0, told.size() - 3);
    ExpectEqual("cut warning", kept, escaped.substr(0, kept.size()));
  }
}

/// Of messages of one format so many are logged, and then that more are not.
constexpr std::size_t kMostOfAFormat = 100;

Strings Limited(Strings texts, const std::string& format) {
  if (texts.size() > kMostOfAFormat) {
    texts.resize(kMostOfAFormat);
    texts.push_back("further messages are dropped after 100 of \"" + format +
                    "\"");
  }
  return texts;
}

void ExpectWarnings(const LogFile& log, const Strings& texts) {
  const Strings lines = log.Take();
  ExpectEqual<std::int64_t>("number of log lines",
                            static_cast<std::int64_t>(lines.size()),
                            static_cast<std::int64_t>(texts.size()));
  for (std::size_t i = 0; i < texts.size(); ++i) {
    ExpectWarning(lines[i], texts[i]);
  }
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
  ExpectWarnings(log,
                 Limited(expected.warnings, "Key name is empty, value = '%s'"));

  request.ParseQueryString(query);
  ExpectEqual("params after a second parse", request.params, expected.params);
  ExpectWarnings(log, {"attempt to reparse GET query"});

  ExpectEqual("query encoded and decoded again",
              str::url::Decode(str::url::Encode(query)), query);
  return 0;
}

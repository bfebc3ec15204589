/// @file
/// A second, simple implementation of the rules for the body of a POST, for
/// comparison with the library's parser. It shares no code with the library and
/// does no input or output.
#ifndef ZANCGI_TESTS_PLAIN_PLAIN_PARSER_H
#define ZANCGI_TESTS_PLAIN_PLAIN_PARSER_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace plain {

/// Why a read returns nothing.
enum class Nothing {
  /// The read returns 0 bytes.
  kRead,
  /// The read would block (EAGAIN).
  kWouldBlock,
  /// A signal interrupts the wait (EINTR).
  kSignal,
};

/// The script of standard input.
struct Input {
  std::string bytes;
  /// The sizes of successive reads; 0 is a read that returns nothing. A read
  /// never returns more than was requested or is left. Further reads return as
  /// much as possible.
  std::vector<std::size_t> reads;
  /// The reason for each 0 among the reads.
  Nothing nothing = Nothing::kRead;
  /// Whether a read without bytes left fails because of a hang-up. Otherwise
  /// each such read returns 0.
  bool hangs_up = true;
};

struct Request {
  std::string content_length;
  std::string content_type;
  /// The record's temporary directory before the parse; may be empty.
  std::string tmp_dir;
  /// The environment variable TMP; unset if empty.
  std::string tmp;
  /// Free bytes in the file system of the temporary directory.
  std::uint64_t free_space = UINT64_MAX;
  /// Whether the query for the free space fails.
  bool free_space_fails = false;
  /// Whether temporary files can be opened.
  bool files_open = true;
  /// The size limit of files: a write beyond it fails.
  std::uint64_t file_limit = UINT64_MAX;
  Input input;
};

struct File {
  std::string content;
  std::int64_t size = 0;
  /// Whether it was opened and not removed again.
  bool exists = false;

  friend bool operator==(const File&, const File&) = default;
};

/// The results of a parse.
struct Outcome {
  /// Whether it would run without end. The rest is then its state so far.
  bool spins = false;
  /// The text of the std::runtime_error that ended it; empty if there was none.
  std::string error;
  std::map<std::string, std::string> params;
  /// By client file name.
  std::map<std::string, File> files;
  bool parsed = false;
  std::string tmp_dir;
  std::size_t bytes_read = 0;
  /// Calls of Sleep(100).
  unsigned sleeps = 0;
  /// Level and text of each log line, in order, with all levels enabled. The
  /// line number in "zancgi.cpp:1" becomes "#", a temporary file's name "FILE".
  std::vector<std::pair<int, std::string>> log;
};

Outcome Parse(const Request& request);

}  // namespace plain

#endif

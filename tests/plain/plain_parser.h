/// @file
/// The rules for the body of a POST, written a second time and as plainly as
/// possible: what the library's parser is compared with. Shares no code with
/// the library and does no input or output.
#ifndef ZANCGI_TESTS_PLAIN_PLAIN_PARSER_H
#define ZANCGI_TESTS_PLAIN_PLAIN_PARSER_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace plain {

/// Why a read finds nothing.
enum class Nothing {
  /// The read itself gives 0 bytes.
  kRead,
  /// The read would block (EAGAIN).
  kWouldBlock,
  /// A signal interrupts the wait (EINTR).
  kSignal,
};

/// What standard input gives.
struct Input {
  std::string bytes;
  /// What successive reads give: each as many bytes as it says, but no more
  /// than are asked for and left; 0 is a read that finds nothing. After these,
  /// reads give as much as is asked for and left.
  std::vector<std::size_t> reads;
  /// The reason for each 0 among the reads.
  Nothing nothing = Nothing::kRead;
  /// What a read gives when no bytes are left: -1 after a hang-up, otherwise 0,
  /// for ever.
  bool hangs_up = true;
};

struct Request {
  std::string content_length;
  std::string content_type;
  /// The record's temporary directory before the parse; may be empty.
  std::string tmp_dir;
  /// The environment variable TMP; empty is unset.
  std::string tmp;
  /// What the file system of the temporary directory has free, in bytes.
  std::uint64_t free_space = UINT64_MAX;
  /// The query for the free space fails.
  bool free_space_fails = false;
  /// Whether temporary files can be opened.
  bool files_open = true;
  /// No file grows beyond this: the write that would make it larger fails.
  std::uint64_t file_limit = UINT64_MAX;
  Input input;
};

struct File {
  std::string content;
  std::int64_t size = 0;
  /// It has not been removed again, nor failed to be opened.
  bool exists = false;

  friend bool operator==(const File&, const File&) = default;
};

/// What the parse leaves behind.
struct Outcome {
  /// It would go on for ever; the rest is then how far it got.
  bool spins = false;
  /// The text of the std::runtime_error that ended it; empty when there was
  /// none.
  std::string error;
  std::map<std::string, std::string> params;
  /// By client file name.
  std::map<std::string, File> files;
  bool parsed = false;
  std::string tmp_dir;
  std::size_t bytes_read = 0;
  /// Calls of Sleep(100).
  unsigned sleeps = 0;
  /// Level and text of each log line, in order, all levels being enabled. The
  /// line in "zancgi.cpp:1" is "#", a temporary file's name is "FILE".
  std::vector<std::pair<int, std::string>> log;
};

Outcome Parse(const Request& request);

}  // namespace plain

#endif

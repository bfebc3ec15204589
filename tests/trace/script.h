/// @file
/// A base library that records what the product calls of it.
///
/// Each call becomes a mark of Mark(), written as in C++, with texts in single
/// quotes. Not recorded are the calls whose order and number are open: GetEnv,
/// GetWord, Trim, SplitPath, Decode, Str, Tmp::Name, IsDir, the bool of an
/// XmlNode, the beginning and end of an Xml, and a GetNode that repeats the one
/// before. What SplitPath, RealPath, Decode, Encode and Str return stands in
/// brackets.
///
/// A log line becomes "zancgi 9: text" or "unix 9: text", after the source unit
/// whose module it came through; its line number is "#". A line ends in
/// UNCHECKED when no Check of its module and level came just before.
#ifndef ZANCGI_TESTS_TRACE_SCRIPT_H
#define ZANCGI_TESTS_TRACE_SCRIPT_H

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace support::trace {

/// Happens at a call, before its usual work; when it throws, instead of it.
using Effect = std::function<void()>;

/// What the base library does in one child process.
struct Script {
  /// The environment. That of the process is empty.
  std::map<std::string, std::string> environment = {};
  /// Standard input, a regular file.
  std::string input = {};
  /// What the back end answers in one conversation after the other, at most a
  /// line with each GetAnswer().
  std::vector<std::string> answers = {};
  /// By function, what happens at its first call, its second, and so on. Calls
  /// of Decode without anything to decode do not count.
  std::map<std::string, std::vector<Effect>> effects = {};
  /// How calls of the system fail: see support::Answers.
  std::map<std::string, std::vector<int>> failures = {};
  /// How many blocks of 512 bytes are free in every file system.
  long free_blocks = 1000;
  /// What Check() returns.
  bool logs = true;
};

/// Has this process follow a script, which must outlive it. Nothing is recorded
/// yet.
void Follow(Script& script);

/// The first line of a record.
inline constexpr char kStart[] = "start";

/// Begins the record.
void Start();

/// Adds a line to the record.
void Note(const std::string& line);

}  // namespace support::trace

#endif

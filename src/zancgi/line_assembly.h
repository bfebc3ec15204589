/// @file
/// Private: assembles the text lines in the body of a form.
#ifndef ZANCGI_LINE_ASSEMBLY_H
#define ZANCGI_LINE_ASSEMBLY_H

#include <cstddef>
#include <cstring>
#include <string>

namespace zan_cgi {

/// Appends bytes of a chunk to a line up to the line's end, and moves the
/// position past them. Returns whether the line is complete.
///
/// A line ends before an LF, and the byte before the LF is dropped unchecked:
/// it is expected to be a CR. Kept for compatibility, with these consequences:
/// - A line that ends in a bare LF loses its last byte.
/// - For the chunk's last byte, the check for an LF reads the byte after the
///   chunk, which is zero or left from an earlier chunk. So a CR LF split
///   across two chunks does not end the line: both bytes become part of it.
/// - A position beyond the chunk (two bytes are skipped unchecked after a
///   boundary) completes the line at once and moves two bytes further.
///
/// @param chunk     the chunk; one byte after its end can be read
/// @param size      its length
/// @param position  where to continue; updated
inline bool ExtendLine(const char* chunk, std::size_t size,
                       std::size_t& position, std::string& line) {
  if (position == size) return false;
  if (position > size) {
    position += 2;
    return true;
  }
  const char* const begin = chunk + position;
  // The search begins at the second byte: an LF in the first one has no byte
  // before it to drop.
  const void* const found = std::memchr(begin + 1, '\n', size - position);
  if (found == nullptr) {
    line.append(begin, size - position);
    position = size;
    return false;
  }
  const char* const line_feed = static_cast<const char*>(found);
  line.append(begin, static_cast<std::size_t>(line_feed - 1 - begin));
  position = static_cast<std::size_t>(line_feed + 1 - chunk);
  return true;
}

}  // namespace zan_cgi

#endif

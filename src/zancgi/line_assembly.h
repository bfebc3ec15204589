/// @file
/// Private: putting together the text lines in the body of a form.
#ifndef ZANCGI_LINE_ASSEMBLY_H
#define ZANCGI_LINE_ASSEMBLY_H

#include <cstddef>
#include <cstring>
#include <string>

namespace zan_cgi {

/// Appends bytes of a chunk to a line up to the line's end, and moves the
/// position past them. Returns whether the line is complete.
///
/// A line ends before an LF, and the byte before the LF is dropped unseen: it
/// is expected to be a CR. Kept for compatibility, with all that follows:
/// - A line that ends in a bare LF loses its last byte.
/// - Whether an LF follows the chunk's last byte is read from the byte after
///   it, which is left from an earlier chunk or zero. So a CR LF that two
///   chunks share is not seen: both become part of the line, which goes on.
/// - A position beyond the chunk (two bytes are skipped unseen after a
///   boundary) completes the line at once and moves two further.
///
/// @param chunk     the chunk; one byte after its end can be read
/// @param size      its length
/// @param position  where to go on; moved
inline bool ExtendLine(const char* chunk, std::size_t size,
                       std::size_t& position, std::string& line) {
  if (position == size) return false;
  if (position > size) {
    position += 2;
    return true;
  }
  const char* const begin = chunk + position;
  // The first byte cannot be the LF that is looked for: it would be the one
  // dropped.
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

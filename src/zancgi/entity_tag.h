/// @file
/// Private: entity tags (RFC 9110 section 8.8.3).
#ifndef ZANCGI_ENTITY_TAG_H
#define ZANCGI_ENTITY_TAG_H

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace zan_cgi {

inline bool IsWeakTag(std::string_view tag) { return tag.starts_with("W/"); }

/// Returns the part of a tag that the weak comparison uses.
inline std::string_view OpaqueTag(std::string_view tag) {
  return IsWeakTag(tag) ? tag.substr(2) : tag;
}

/// Returns whether the value of an If-None-Match header lists an entity tag, by
/// weak comparison. "*" matches every tag. In a malformed value, only the tags
/// before the error count.
inline bool NamesTag(std::string_view header, std::string_view tag) {
  if (header == "*") return true;
  while (true) {
    header.remove_prefix(
        std::min(header.find_first_not_of(" \t,"), header.size()));
    header = OpaqueTag(header);
    if (!header.starts_with('"')) return false;
    const std::size_t quote = header.find('"', 1);
    if (quote == std::string_view::npos) return false;
    if (header.substr(0, quote + 1) == OpaqueTag(tag)) return true;
    header.remove_prefix(quote + 1);
  }
}

}  // namespace zan_cgi

#endif

/// @file
/// Uploads whose contents make the search for their separator slow.
#ifndef ZANCGI_TESTS_SUPPORT_SLOW_CONTENT_H
#define ZANCGI_TESTS_SUPPORT_SLOW_CONTENT_H

#include <map>
#include <string>
#include <vector>

namespace support {

/// Boundaries that are hard to search for, by names that tests can have.
const std::map<std::string, std::string>& SlowBoundaries();

/// Texts that, repeated, make searches for "\r\n--" and a boundary slow.
std::vector<std::string> SlowContents(const std::string& boundary);

/// A form with one upload, "u" with the file name "f", whose content begins
/// exactly with the second chunk, so that nothing of it is taken from the wrong
/// place.
std::string UploadBehindAChunk(const std::string& boundary,
                               const std::string& content);

}  // namespace support

#endif

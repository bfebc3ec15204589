#include "support/slow_content.h"

namespace support {
namespace {

constexpr std::size_t kChunk = 65536;

std::string Pairs(int count) {
  std::string pairs;
  for (int i = 0; i < count; ++i) pairs += "ab";
  return pairs;
}

}  // namespace

const std::map<std::string, std::string>& SlowBoundaries() {
  static const std::map<std::string, std::string> boundaries = {
      {"Short", "XY"},
      {"Dash", "-"},
      {"Dashes", std::string(70, '-')},
      {"Letters", std::string(69, 'a') + "b"},
      {"Pairs", Pairs(35)},
  };
  return boundaries;
}

std::vector<std::string> SlowContents(const std::string& boundary) {
  const std::string separator = "\r\n--" + boundary;
  return {"\r",
          "\n",
          "\r\n",
          "\r\n--",
          "-",
          "--\r\n",
          separator.substr(0, separator.size() - 1),
          separator.substr(1),
          "\r" + separator.substr(0, separator.size() - 1),
          boundary,
          std::string(1, '\0')};
}

std::string UploadBehindAChunk(const std::string& boundary,
                               const std::string& content) {
  const std::string begin = "--" + boundary + "\r\nX: ";
  const std::string end =
      "\r\nContent-Disposition: form-data; name=\"u\"; filename=\"f\"\r\n\r\n";
  return begin + std::string(kChunk - begin.size() - end.size(), 'x') + end +
         content + "\r\n--" + boundary + "--\r\n";
}

}  // namespace support

/// @file
/// A Cookie header, compared with a reader of its own.
#include <zancgi/zancgi.h>

#include <string>
#include <string_view>

#include "fuzz/harness.h"
#include "plain/plain_words.h"
#include "support/variable.h"

namespace {

using fuzz::StringMap;

/// The last cookie of a name counts, an empty name is a name, and nothing
/// between two semicolons is no cookie, though blanks are one.
StringMap ExpectedOf(std::string_view header) {
  StringMap cookies;
  while (!header.empty()) {
    const std::string_view piece = plain::TakeWord(header, ";");
    if (piece.empty()) continue;
    std::string_view value = plain::Trim(piece);
    const std::string name(plain::TakeWord(value, "="));
    cookies[name] = value;
  }
  return cookies;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  // The environment ends it at a zero byte.
  const std::string all(reinterpret_cast<const char*>(data), size);
  const std::string header = all.substr(0, all.find('\0'));
  support::SetVariable("HTTP_COOKIE", header);
  const zan_cgi::Cgi::Data request;
  fuzz::ExpectEqual("cookies", request.cookies, ExpectedOf(header));
  fuzz::Expect(!request.parsed && request.params.empty(),
               "cookies leave the parameters alone");
  return 0;
}

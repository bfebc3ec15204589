/// @file
/// Forms, compared with the plain rules, in pieces of every size.
///
/// An input can be read and written by hand: a line "Content-Type: ...", which
/// ends in CR LF, and the body.
#include <gtest/gtest-printers.h>
#include <zancgi/testing/scratch.h>

#include <cstddef>
#include <cstdint>
#include <exception>
#include <random>
#include <string>
#include <string_view>

#include "fuzz/harness.h"
#include "plain/form_product.h"
#include "plain/plain_form.h"

namespace {

/// Small limits, so that small inputs reach them.
constexpr plain::PlainLimits kLimits{4096, 300, 600, 12, 200};

/// Without what cannot stand in the environment.
std::string UpToZero(const std::string& text) {
  return text.substr(0, text.find('\0'));
}

plain::FormRequest ToRequest(std::string_view input) {
  constexpr std::string_view kName = "Content-Type: ";
  plain::FormRequest request;
  std::string line = fuzz::TakeLine(input);
  if (line.starts_with(kName)) line.erase(0, kName.size());
  if (line.ends_with('\r')) line.pop_back();
  request.content_type = UpToZero(line);
  request.body = input;
  request.declared_length = static_cast<std::int64_t>(input.size());
  request.limits = kLimits;
  return request;
}

/// A form that breaks a rule and a limit may be refused for either.
bool AreAlike(const plain::PlainForm& a, const plain::PlainForm& b) {
  return a == b || (a.status != 0 && b.status != 0);
}

void Compare(const plain::FormRequest& request, const std::string& folder,
             const plain::PlainForm& wanted, const plain::ReadSizes& sizes) {
  const fuzz::DescriptorWatch watch;
  try {
    const plain::PlainForm form = plain::ReadByProduct(request, folder, sizes);
    if (AreAlike(form, wanted)) return;
    fuzz::ReportFinding("is " + testing::PrintToString(form) + "\nshould be " +
                        testing::PrintToString(wanted) + "\nof " +
                        plain::Describe(request));
  } catch (const std::exception& error) {
    fuzz::ReportFinding(error.what());
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  static const zan_cgi::testing::Scratch scratch;
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const plain::FormRequest request = ToRequest(input);
  const plain::PlainForm wanted = plain::ParsePlainForm(request);
  Compare(request, scratch.Path(), wanted, plain::Always(65536));
  // The same input is always cut alike.
  std::minstd_rand random(
      static_cast<unsigned>(std::hash<std::string_view>()(input)));
  Compare(request, scratch.Path(), wanted,
          [&] { return 1 + random() % (std::size_t{1} << random() % 8); });
  return 0;
}

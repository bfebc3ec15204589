/// @file
/// Runs the library's Form on the requests of the plain parser.
///
/// Use it in a child process only, because it replaces reads of standard input.
#ifndef ZANCGI_TESTS_PLAIN_FORM_PRODUCT_H
#define ZANCGI_TESTS_PLAIN_FORM_PRODUCT_H

#include <cstddef>
#include <functional>
#include <iosfwd>
#include <string>

#include "plain/plain_form.h"

namespace plain {

/// For the messages of failed comparisons.
void PrintTo(const PlainForm& form, std::ostream* out);
std::string Describe(const FormRequest& request);

/// Returns the largest size of the next read of standard input, at least 1.
using ReadSizes = std::function<std::size_t()>;

/// Makes all reads the same size.
inline ReadSizes Always(std::size_t size) {
  return [size] { return size; };
}

/// Reads the request's form with zan_cgi::Form.
/// @param folder  the folder for its uploads
/// @throws std::runtime_error  the size of an upload is wrong, or its file was
///   not removed
PlainForm ReadByProduct(const FormRequest& request, const std::string& folder,
                        const ReadSizes& sizes);

}  // namespace plain

#endif

/// @file
/// The library's own forms, run on what the plain ones are run on.
///
/// Belongs into a child process: reads of standard input are answered by it.
#ifndef ZANCGI_TESTS_PLAIN_FORM_PRODUCT_H
#define ZANCGI_TESTS_PLAIN_FORM_PRODUCT_H

#include <cstddef>
#include <functional>
#include <string>

#include "plain/plain_form.h"

namespace plain {

/// How many bytes the next read of standard input may give, at least 1.
using ReadSizes = std::function<std::size_t()>;

/// Reads whose sizes are all the same.
inline ReadSizes Always(std::size_t size) {
  return [size] { return size; };
}

/// Reads the request's form with zan_cgi::Form.
/// @param folder  where its uploads go
/// @throws std::runtime_error  an upload has another size than it says, or is
///   left behind
PlainForm ReadByProduct(const FormRequest& request, const std::string& folder,
                        const ReadSizes& sizes);

}  // namespace plain

#endif

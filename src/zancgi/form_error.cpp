#include <zancgi/form.h>

#include <stdexcept>
#include <string>

namespace zan_cgi {

FormError::FormError(int status, const std::string& message)
    : std::runtime_error(message), status_(status) {}
FormError::~FormError() = default;

int FormError::status() const noexcept { return status_; }

}  // namespace zan_cgi

#include <zancgi/account.h>

#include <stdexcept>
#include <string>

namespace zan_cgi {

AccountError::AccountError(const std::string& message)
    : std::runtime_error(message) {}
AccountError::~AccountError() = default;

}  // namespace zan_cgi

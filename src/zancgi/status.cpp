#include <zancgi/account.h>
#include <zancgi/form.h>

#include <tov/err.h>

#include <exception>
#include <memory>
#include <new>
#include <stdexcept>
#include <string_view>
#include <typeinfo>

namespace zan_cgi {
namespace {

/// The library that throws an exception, which decides the exception's type.
enum class Thrower : short {
  kProduct,     ///< std::runtime_error itself.
  kBaseLibrary  ///< tov_err::Error, or what derives from it.
};

/// The texts are stored in place, because pointers would be relocated at each
/// start.
struct StatusOfText {
  char text[48];  ///< A final "..." matches any text after it.
  Thrower thrower;
  short status;
};

constexpr StatusOfText kStatuses[] = {
    {"Error reading STDIN", Thrower::kProduct, 400},
    {"POST read failed: ...", Thrower::kProduct, 400},
    {"On getting element value element name is empty", Thrower::kProduct, 400},
    {"not authorized", Thrower::kProduct, 401},
    {"You do not authorized for this operation", Thrower::kProduct, 403},
    {"failed to get pw entry", Thrower::kProduct, 403},
    {"it is not your folder", Thrower::kProduct, 403},
    {"no such directory '...", Thrower::kProduct, 404},
    {"bad request method '...", Thrower::kProduct, 405},
    {"timeout", Thrower::kProduct, 408},
    {"Post data too large. ...", Thrower::kProduct, 413},
    {"Element value size must be less than ...", Thrower::kProduct, 413},
    {"bad answer from '...", Thrower::kProduct, 502},
    {"unknown authorization error", Thrower::kProduct, 502},
    {"error writing temporary file", Thrower::kProduct, 507},
    {"cannot open a socket...", Thrower::kBaseLibrary, 502},
    {"cannot connect to the back end at '...", Thrower::kBaseLibrary, 502},
    {"cannot send the request to back end '...", Thrower::kBaseLibrary, 502},
    {"cannot read the answer of back end '...", Thrower::kBaseLibrary, 502},
    {"the answer of back end '...", Thrower::kBaseLibrary, 502},
    {"back end '...", Thrower::kBaseLibrary, 502},
};

bool Matches(std::string_view text, std::string_view pattern) {
  constexpr std::string_view kAnything = "...";
  if (!pattern.ends_with(kAnything)) return text == pattern;
  pattern.remove_suffix(kAnything.size());
  return text.starts_with(pattern);
}

bool IsThrownBy(Thrower thrower, const std::exception& error) {
  return thrower == Thrower::kProduct
             ? typeid(error) == typeid(std::runtime_error)
             : dynamic_cast<const tov_err::Error*>(&error) != nullptr;
}

/// Whether it is the error that a request without a session id throws.
bool IsMissingSession(const std::exception& error) {
  if (dynamic_cast<const tov_err::Value*>(&error) == nullptr) return false;
  try {
    return error.what() == std::string_view(tov_err::Value("auth", "").what());
  } catch (const std::bad_alloc&) {
    return false;
  }
}

}  // namespace

int StatusOf(const std::exception& error) {
  if (const auto* const form = dynamic_cast<const FormError*>(&error)) {
    return form->status();
  }
  if (dynamic_cast<const AccountError*>(&error) != nullptr) return 403;
  if (IsMissingSession(error)) return 401;
  for (const StatusOfText& row : kStatuses) {
    if (IsThrownBy(row.thrower, error) && Matches(error.what(), row.text)) {
      return row.status;
    }
  }
  return 500;
}

}  // namespace zan_cgi

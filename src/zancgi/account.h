/// @file
/// Becoming a system account with proof of success, and the HTTP status that
/// fits an exception.
#ifndef ZANCGI_ACCOUNT_H
#define ZANCGI_ACCOUNT_H

#include <zancgi/zancgi.h>

#include <exception>
#include <stdexcept>
#include <string>

namespace zan_cgi {

/// The process cannot become an account, or did not become it. what() is one
/// sentence that names the violated condition.
class ZANCGI_API AccountError : public std::runtime_error {
 public:
  /// @param message  what what() returns
  explicit AccountError(const std::string& message);
  /// Copies the message.
  /// @{
  AccountError(const AccountError&) noexcept = default;
  AccountError& operator=(const AccountError&) noexcept = default;
  /// @}
  ~AccountError() override;
};

/// How BecomeAccount() makes the switch.
struct AccountOptions {
  /// The directory to enter: a path in the home folder, with or without a
  /// leading slash. Empty means the home folder itself.
  std::string directory;
  /// Make the home folder the process's root directory (chroot(2)). Safe only
  /// if every component of the home's path is owned by root and writable by no
  /// one else.
  bool confined = false;
  /// Open and close a PAM session of service "login". A failure there is only a
  /// warning in the log.
  bool pam_session = false;
};

/// Makes this process a system account for the rest of its life with Cgi::Su(),
/// then proves that it is this account and nothing more.
///
/// The proof covers:
/// - The real, effective, saved and file-system user id and group id.
/// - The supplementary groups. They must be those that getgrouplist(3) gave
///   before the switch for the account, with its user id as base group.
/// - No capability is permitted, effective, inheritable or ambient
///   (capabilities(7)).
/// - The process cannot take an id of root or change its groups.
/// - The current directory is in the home folder, by device and inode. If the
///   process is confined, the home folder is its root directory.
///
/// Call it once, after Cgi::Authorize() and before a second thread starts.
/// Every folder above the account's home must belong to root. An ordinary user
/// can become himself without confinement.
///
/// If the switch or the proof fails, the process does not continue as root. It
/// removes the uploads that it still can. Then it takes user and group id 65534
/// without groups and capabilities, unless it holds only the account's ids and
/// groups, or those of the ordinary user who started it. If it cannot give up
/// its rights, it calls std::abort(). End the request after an exception.
/// @param cgi      the request whose uploads are handed over
/// @param user     login name of the account
/// @param options  the directory to enter and the kind of switch
/// @throws AccountError  the user name is empty or unknown, its user id or
///   group id is 0, it is in the group with id 0, or its home folder cannot be
///   used, and nothing has changed; or the switch failed, with the message of
///   Cgi::Su(); or the proof failed
/// @throws std::bad_alloc  before or after the switch, with the same effects as
///   an AccountError
ZANCGI_API void BecomeAccount(Cgi& cgi, const std::string& user,
                              const AccountOptions& options = AccountOptions());

/// Returns the HTTP status (RFC 9110 section 15) that fits an exception of the
/// libraries; 500 for every other exception.
///
/// For a FormError it is status(), for an AccountError 403. The other
/// exceptions are recognized by type and message: 400 for an invalid body, 401
/// without a session, 403 for denied access, 404 for a missing directory, 405
/// for a method, 408 if the client sent nothing in time, 413 for too large a
/// body, 502 for a back end that cannot be reached, gave no proper answer, or
/// reported an error of its own to Cgi::Authorize(), 507 for an upload that
/// could not be stored.
ZANCGI_API int StatusOf(const std::exception& error);

}  // namespace zan_cgi

#endif

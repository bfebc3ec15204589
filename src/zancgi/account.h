/// @file
/// Becoming a system account, with proof that it has worked, and the HTTP
/// status that fits an exception.
#ifndef ZANCGI_ACCOUNT_H
#define ZANCGI_ACCOUNT_H

#include <zancgi/zancgi.h>

#include <exception>
#include <stdexcept>
#include <string>

namespace zan_cgi {

/// The process cannot become an account, or has not become it. what() is one
/// sentence that names the condition which does not hold.
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
  /// The directory to enter, a path in the home folder with or without a
  /// leading slash; empty for the home folder itself.
  std::string directory;
  /// Make the home folder the process's root directory (chroot(2)). Only for
  /// homes of which every component is owned by root and writable by no one
  /// else.
  bool confined = false;
  /// Open and close a PAM session of service "login". What fails there is a
  /// warning in the log.
  bool pam_session = false;
};

/// Makes this process a system account for the rest of its life by Cgi::Su(),
/// then proves that it is the account and nothing more.
///
/// Proved are: real, effective, saved and file-system user id and group id;
/// the supplementary groups, which are those that getgrouplist(3) gave before
/// for the account with its user id as base group; that no capability is
/// permitted, effective, inheritable or ambient (capabilities(7)); that no id
/// of root and no other groups can be taken; that the current directory lies
/// in the home folder, by device and inode, and that the home folder is the
/// root directory when the process is confined.
///
/// To be called once, after Cgi::Authorize() and before there is a second
/// thread. Every folder above the account's home must be root's. An ordinary
/// user can become himself without being confined.
///
/// When the switch or the proof fails, nothing goes on as root: uploads that
/// the process can still remove are removed; then it takes user and group id
/// 65534 without groups and capabilities, unless it holds nothing but the
/// account's ids and groups, or those that an ordinary user started it with.
/// When it cannot be rid of what it holds, it ends by std::abort(). The request
/// must end after an exception.
/// @param cgi      the request, whose uploads are handed over
/// @param user     login name of the account
/// @param options  where to, and how
/// @throws AccountError  the user name is empty or not known, its user id or
///   group id is 0, it is in the group with id 0, or its home folder cannot be
///   used, and nothing has changed; or the switch has failed, with the text of
///   Cgi::Su(); or the proof has failed
/// @throws std::bad_alloc  as an AccountError, before the switch or after it
ZANCGI_API void BecomeAccount(Cgi& cgi, const std::string& user,
                              const AccountOptions& options = AccountOptions());

/// Returns the HTTP status (RFC 9110 section 15) that fits an exception of the
/// libraries; 500 for every other one.
///
/// Of a FormError it is its status(), of an AccountError 403. The others are
/// known by their types and texts: 400 for a body that is not what it should
/// be, 401 without a session, 403 for what is not allowed, 404 for a directory
/// that is not there, 405 for a method, 408 for a silent client, 413 for what
/// is too large, 502 for a back end that cannot be reached or has not answered
/// properly, 507 for an upload that could not be stored.
ZANCGI_API int StatusOf(const std::exception& error);

}  // namespace zan_cgi

#endif

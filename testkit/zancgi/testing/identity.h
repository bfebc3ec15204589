/// @file
/// Who a child process is.
#ifndef ZANCGI_TESTING_IDENTITY_H
#define ZANCGI_TESTING_IDENTITY_H

namespace zan_cgi::testing {

/// Whether this process is root: what needs root says so when it is skipped.
bool IsRoot();

/// Takes on user 65534 and its group for good, when the caller is root. For
/// child processes.
/// @throws std::runtime_error when that fails
void BecomeOrdinaryUser();

}  // namespace zan_cgi::testing

#endif

/// @file
/// The user of a child process.
#ifndef ZANCGI_TESTING_IDENTITY_H
#define ZANCGI_TESTING_IDENTITY_H

namespace zan_cgi::testing {

/// Whether this process is root. A test that needs root should give that as the
/// reason when it is skipped.
bool IsRoot();

/// Changes to user and group 65534 for good if the caller is root. Call it in
/// child processes only.
/// @throws std::runtime_error when that fails
void BecomeOrdinaryUser();

}  // namespace zan_cgi::testing

#endif

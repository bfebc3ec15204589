/// @file
/// Private: the account's folder that the process is confined to or lives in.
#ifndef ZANCGI_CONFINEMENT_H
#define ZANCGI_CONFINEMENT_H

namespace zan_cgi {

/// Returns whether the process has been confined to a root directory that is
/// not root's own, so that somebody else decides what is found there: a PAM
/// configuration, a socket in the back end's place.
bool IsInsideAccountsFolder();

/// Records that it has been. Nothing takes that back.
void SetInsideAccountsFolder();

/// Returns the home folder of the account that the process has become, as an
/// absolute path that the process sees now: "/" when it is confined. Null
/// before, for root, and when the password database names no absolute path.
/// Valid until the process becomes another account.
const char* AccountHome();

/// Records the home folder. Takes ownership of @p home, made by malloc(3).
void SetAccountHome(char* home);

}  // namespace zan_cgi

#endif

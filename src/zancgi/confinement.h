/// @file
/// Private: the process's confinement, and the home of its account.
#ifndef ZANCGI_CONFINEMENT_H
#define ZANCGI_CONFINEMENT_H

namespace zan_cgi {

/// Returns whether the process is confined to a root directory that others than
/// root control. They decide what is found there, such as a PAM configuration
/// or a socket in place of the back end's.
bool IsInsideAccountsFolder();

/// Records the confinement. It cannot be undone.
void SetInsideAccountsFolder();

/// Returns the home folder of the process's account as an absolute path that is
/// valid now: "/" when the process is confined. Null before a switch, for root,
/// and if the password database has no absolute path. The pointer is valid
/// until the process becomes another account.
const char* AccountHome();

/// Records the home folder. Takes ownership of @p home, which malloc(3)
/// allocated.
void SetAccountHome(char* home);

}  // namespace zan_cgi

#endif

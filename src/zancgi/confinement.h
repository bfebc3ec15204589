/// @file
/// Private: whether the process is confined to an account's folder.
#ifndef ZANCGI_CONFINEMENT_H
#define ZANCGI_CONFINEMENT_H

namespace zan_cgi {

/// Returns whether the process has been confined to a root directory that is
/// not root's own, so that somebody else decides what is found there: a PAM
/// configuration, a socket in the back end's place.
bool IsInsideAccountsFolder();

/// Returns the home folder of the account that the process has been made, as
/// the process sees it; null before, and of root.
const char* AccountHome();

}  // namespace zan_cgi

#endif

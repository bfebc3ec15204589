/// @file
/// Private: loads the PAM library, which few requests need.
#ifndef ZANCGI_PAM_LIBRARY_H
#define ZANCGI_PAM_LIBRARY_H

#include <dlfcn.h>
#include <security/pam_appl.h>

// Weak references, so that libpam is not loaded at each start. Loading it takes
// longer than most requests.
#pragma weak pam_start
#pragma weak pam_open_session
#pragma weak pam_close_session
#pragma weak pam_end
#pragma weak pam_strerror

namespace zan_cgi {

/// The PAM functions that a session needs; null if missing.
struct PamLibrary {
  decltype(&pam_start) start = nullptr;
  decltype(&pam_open_session) open_session = nullptr;
  decltype(&pam_close_session) close_session = nullptr;
  decltype(&pam_end) end = nullptr;
  decltype(&pam_strerror) strerror = nullptr;

  bool IsComplete() const {
    return start != nullptr && open_session != nullptr &&
           close_session != nullptr && end != nullptr && strerror != nullptr;
  }
};

template <class Function>
void FindFunction(Function& function, const char* name) {
  function = reinterpret_cast<Function>(::dlsym(RTLD_DEFAULT, name));
}

/// Returns the PAM functions of the program. If it has none, loads the library,
/// which stays loaded until the process ends.
inline PamLibrary LoadPam() {
  PamLibrary pam{::pam_start, ::pam_open_session, ::pam_close_session,
                 ::pam_end, ::pam_strerror};
  if (pam.IsComplete()) return pam;
  // RTLD_GLOBAL, because PAM modules may need the symbols, as if libpam were
  // linked.
  if (::dlopen("libpam.so.0", RTLD_NOW | RTLD_GLOBAL) == nullptr) return {};
  FindFunction(pam.start, "pam_start");
  FindFunction(pam.open_session, "pam_open_session");
  FindFunction(pam.close_session, "pam_close_session");
  FindFunction(pam.end, "pam_end");
  FindFunction(pam.strerror, "pam_strerror");
  return pam;
}

}  // namespace zan_cgi

#endif

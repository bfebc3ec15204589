// Makes the linker refuse a wholly static front end that becomes an account.
// The C library would load modules for the look-up, and PAM its own: each of
// them brings the shared C library into a process that has another one, and
// Debian's module for systemd crashes there.

#include <zancgi/account.h>
#include <zancgi/zancgi.h>

#include <string>

/// Defined nowhere: its name is what the linker says.
extern "C" [[noreturn]] void
becoming_an_account_needs_the_shared_C_library__link_zancgi_static_instead();

namespace zan_cgi {
namespace {

[[noreturn]] void Refuse() {
  becoming_an_account_needs_the_shared_C_library__link_zancgi_static_instead();
}

}  // namespace

void Cgi::Su(const std::string& /*user*/, const std::string& /*dir*/,
             bool /*use_chroot*/, bool /*use_pam*/) {
  Refuse();
}

void Cgi::Data::DoSu(const std::string& /*user*/, const std::string& /*dir*/,
                     bool /*use_chroot*/, bool /*use_pam*/) {
  Refuse();
}

void Cgi::Data::DoChownFiles(const std::string& /*user*/,
                             const std::string& /*dir*/, bool /*use_chroot*/) {
  Refuse();
}

void BecomeAccount(Cgi& /*cgi*/, const std::string& /*user*/,
                   const AccountOptions& /*options*/) {
  Refuse();
}

int myconv(int /*num_msg*/, const pam_message** /*msg*/,
           pam_response** /*resp*/, void* /*appdata_ptr*/) {
  Refuse();
}

}  // namespace zan_cgi

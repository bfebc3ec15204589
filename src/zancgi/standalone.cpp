// Makes the linker refuse a wholly static front end that becomes an account.
// For that, the C library and PAM would load modules. Each module brings the
// shared C library into a process that already has a static one, and Debian's
// systemd module crashes there.

#include <zancgi/account.h>
#include <zancgi/zancgi.h>

#include <string>

/// Not defined anywhere, so that the linker reports its name.
extern "C" [[noreturn]] void
becoming_an_account_needs_the_shared_C_library_link_zancgi_static_instead();

namespace zan_cgi {
namespace {

[[noreturn]] void Refuse() {
  becoming_an_account_needs_the_shared_C_library_link_zancgi_static_instead();
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

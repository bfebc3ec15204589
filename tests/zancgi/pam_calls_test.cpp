#include <pwd.h>
#include <security/pam_appl.h>

#include "session.h"
#include "support/switch.h"
#include "support/test.h"
#include "zancgi/pam_library.h"

namespace support {
namespace {

/// The home of every account.
std::string home;

/// Stands for the one handle that there is.
char handle_place;
pam_handle_t* TheHandle() {
  return reinterpret_cast<pam_handle_t*>(&handle_place);
}

std::string Name(const pam_handle_t* handle) {
  if (handle == nullptr) return "none";
  return handle == TheHandle() ? "handle" : "another handle";
}

int MarkCall(const std::string& call) {
  Mark(call);
  return PAM_SUCCESS;
}

LogLine Call(const std::string& call) { return {-1, call}; }

// The session is that of the name that was given, not of the account's.
TEST(PamCalls, GoToTheProgramsOwnFunctionsAndToNoOthers) {
  const Scratch scratch;
  fs::permissions(scratch.Path(), fs::perms{0755});
  const Outcome outcome = Child().Run([&](const Reporter& report) {
    home = scratch.Path();
    BecomeOrdinaryUser();
    Cgi::Data request;
    MarkSwitch();
    request.DoSu("VISITOR", "", false, true);
    report("place", fs::current_path());
    report("loaded", ReadFile("/proc/self/maps"));
  });
  EXPECT_EQ(outcome.status, 0) << outcome.standard_error;
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(outcome.reported.at("place"), scratch.Path());
  EXPECT_EQ(outcome.reported.at("loaded").find("libpam"), std::string::npos);
  EXPECT_NE(outcome.reported.at("loaded").find("libzancgi"), std::string::npos);
  EXPECT_EQ(
      LinesOfTheSwitch(outcome.log),
      (Lines{{9, "zancgi_unix.cpp:# starting PAM session for user 'VISITOR'"},
             Call("pam_start(login, VISITOR, conversation without data)"),
             kStarted,
             Call("pam_open_session(handle, silent)"),
             kOpened,
             Call("pam_close_session(handle, silent)"),
             kClosed,
             Call("pam_end(handle, 0)")}));
}

TEST(PamLibrary, IsIncompleteWithoutAnyOfItsFunctions) {
  const zan_cgi::PamLibrary complete{::pam_start, ::pam_open_session,
                                     ::pam_close_session, ::pam_end,
                                     ::pam_strerror};
  EXPECT_TRUE(complete.IsComplete());
  const auto without = [&complete](auto zan_cgi::PamLibrary::*function) {
    zan_cgi::PamLibrary library = complete;
    library.*function = nullptr;
    return library;
  };
  EXPECT_FALSE(without(&zan_cgi::PamLibrary::start).IsComplete());
  EXPECT_FALSE(without(&zan_cgi::PamLibrary::open_session).IsComplete());
  EXPECT_FALSE(without(&zan_cgi::PamLibrary::close_session).IsComplete());
  EXPECT_FALSE(without(&zan_cgi::PamLibrary::end).IsComplete());
  EXPECT_FALSE(without(&zan_cgi::PamLibrary::strerror).IsComplete());
}

}  // namespace

// Every account that is asked for is "visitor".
extern "C" passwd* getpwnam(const char* /*name*/) {
  static char name[] = "visitor";
  static passwd account{};
  account.pw_name = name;
  account.pw_uid = 54321;
  account.pw_gid = 54322;
  account.pw_dir = home.data();
  return &account;
}

extern "C" int pam_start(const char* service_name, const char* user,
                         const pam_conv* pam_conversation,
                         pam_handle_t** pamh) {
  const bool is_ours = pam_conversation->conv == &zan_cgi::myconv;
  const bool is_without_data = pam_conversation->appdata_ptr == nullptr;
  *pamh = TheHandle();
  return MarkCall(std::string("pam_start(") + service_name + ", " + user +
                  (is_ours ? ", conversation" : ", another conversation") +
                  (is_without_data ? " without data)" : " with data)"));
}

extern "C" int pam_open_session(pam_handle_t* pamh, int flags) {
  return MarkCall("pam_open_session(" + Name(pamh) +
                  (flags == PAM_SILENT ? ", silent)" : ", loud)"));
}

extern "C" int pam_close_session(pam_handle_t* pamh, int flags) {
  return MarkCall("pam_close_session(" + Name(pamh) +
                  (flags == PAM_SILENT ? ", silent)" : ", loud)"));
}

extern "C" int pam_end(pam_handle_t* pamh, int pam_status) {
  return MarkCall("pam_end(" + Name(pamh) + ", " + std::to_string(pam_status) +
                  ")");
}

// Called only for an error.
extern "C" const char* pam_strerror(pam_handle_t* /*pamh*/, int /*errnum*/) {
  Mark("pam_strerror");
  return "";
}

}  // namespace support

#include <gtest/gtest.h>
#include <pwd.h>
#include <security/pam_appl.h>
#include <zancgi/testing/child.h>
#include <zancgi/testing/identity.h>
#include <zancgi/testing/scratch.h>
#include <zancgi/zancgi.h>

#include <filesystem>
#include <string>

#include "session.h"
#include "support/switch.h"
#include "zancgi/pam_library.h"

namespace {

using support::Lines;
using support::LinesOfTheSwitch;
using zan_cgi::Cgi;
using zan_cgi::testing::Child;
using zan_cgi::testing::LogLine;
using zan_cgi::testing::Mark;
using zan_cgi::testing::Outcome;
using zan_cgi::testing::Scratch;
using zan_cgi::testing::Told;

/// What the functions of PAM at the end of this file return.
struct Results {
  int start = PAM_SUCCESS;
  int open = PAM_SUCCESS;
  int close = PAM_SUCCESS;
};
Results results;

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

int MarkCall(const std::string& call, int result) {
  Mark(call);
  return result;
}

LogLine Call(const std::string& call) { return {-1, call}; }

const LogLine kStartCall =
    Call("pam_start(login, visitor, conversation without data)");
const LogLine kOpenCall = Call("pam_open_session(handle, silent)");
const LogLine kCloseCall = Call("pam_close_session(handle, silent)");

/// What a switch to the account "visitor", as an ordinary user, calls and logs.
Lines CallsOfASwitch(const Results& wanted, int log_level = 9,
                     bool use_pam = true) {
  const Scratch scratch;
  std::filesystem::permissions(scratch.Path(), std::filesystem::perms{0755});
  const Outcome outcome =
      Child().LogLevel(log_level).Run([&](const Told& told) {
        results = wanted;
        home = scratch.Path();
        zan_cgi::testing::BecomeOrdinaryUser();
        Cgi::Data request;
        support::MarkSwitch();
        request.DoSu("visitor", "", false, use_pam);
        told("place", std::filesystem::current_path());
      });
  EXPECT_EQ(outcome.status, 0) << outcome.standard_error;
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(outcome.told.at("place"), scratch.Path());
  return LinesOfTheSwitch(outcome.log);
}

TEST(PamCalls, AreThoseOfOneSessionOnOneHandle) {
  EXPECT_EQ(CallsOfASwitch({}),
            (Lines{kStarting, kStartCall, kStarted, kOpenCall, kOpened,
                   kCloseCall, kClosed, Call("pam_end(handle, 0)")}));
}

TEST(PamCalls, AreNotMadeWithoutNeed) {
  EXPECT_EQ(CallsOfASwitch({}, 9, false), Lines{});
}

TEST(PamCalls, EndNothingAfterAFailedStart) {
  for (const int code : {PAM_ABORT, PAM_SYSTEM_ERR, PAM_BUF_ERR, -1, 1000}) {
    EXPECT_EQ(CallsOfASwitch({.start = code}),
              (Lines{kStarting, kStartCall, kNotStarted}));
  }
}

TEST(PamCalls, TellTheEndThatTheSessionCouldNotBeOpened) {
  for (const int code : {PAM_SESSION_ERR, PAM_PERM_DENIED, -1, 1000}) {
    const std::string number = std::to_string(code);
    EXPECT_EQ(CallsOfASwitch({.open = code}),
              (Lines{kStarting,
                     kStartCall,
                     kStarted,
                     kOpenCall,
                     Call("pam_strerror(handle, " + number + ")"),
                     {4, "PAM error " + number +
                             " (what went wrong) on open_session"},
                     Call("pam_end(handle, " + number + ")")}));
  }
}

TEST(PamCalls, TellTheEndThatTheSessionCouldNotBeClosed) {
  for (const int code : {PAM_SESSION_ERR, PAM_PERM_DENIED, -1, 1000}) {
    const std::string number = std::to_string(code);
    EXPECT_EQ(CallsOfASwitch({.close = code}),
              (Lines{kStarting,
                     kStartCall,
                     kStarted,
                     kOpenCall,
                     kOpened,
                     kCloseCall,
                     Call("pam_strerror(handle, " + number + ")"),
                     {4, "PAM error " + number +
                             " (what went wrong) on close_session"},
                     Call("pam_end(handle, " + number + ")")}));
  }
}

TEST(PamCalls, AreMadeAlikeButNotLoggedAtLowerLevels) {
  const Lines calls{kStartCall, kOpenCall, kCloseCall,
                    Call("pam_end(handle, 0)")};
  for (const int level : {0, 3, 4, 8}) {
    EXPECT_EQ(CallsOfASwitch({}, level), calls);
  }
}

TEST(PamCalls, ThatFailLeaveNoTraceBelowTheLevelOfWarnings) {
  EXPECT_EQ(CallsOfASwitch({.start = 4}, 4), (Lines{kStartCall, kNotStarted}));
  EXPECT_EQ(CallsOfASwitch({.start = 4}, 3), Lines{kStartCall});
  EXPECT_EQ(CallsOfASwitch({.open = 4}, 3),
            (Lines{kStartCall, kOpenCall, Call("pam_end(handle, 4)")}));
  EXPECT_EQ(
      CallsOfASwitch({.close = 4}, 3),
      (Lines{kStartCall, kOpenCall, kCloseCall, Call("pam_end(handle, 4)")}));
}

TEST(PamCalls, GoToTheProgramsOwnFunctionsWithoutLoadingAnother) {
  const Outcome outcome = Child().Run([](const Told& told) {
    home = "/";
    zan_cgi::testing::BecomeOrdinaryUser();
    Cgi::Data request;
    request.DoSu("visitor", "", false, true);
    told("loaded", zan_cgi::testing::ReadFile("/proc/self/maps"));
  });
  EXPECT_EQ(outcome.told.at("loaded").find("libpam"), std::string::npos);
  EXPECT_NE(outcome.told.at("loaded").find("libzancgi"), std::string::npos);
}

TEST(PamLibrary, IsCompleteWithEachFunctionOnly) {
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

/// The session is that of the name that was given, not of the account's.
TEST(PamCalls, NameTheUserAsGiven) {
  const Outcome outcome = Child().Run([](const Told&) {
    home = "/";
    zan_cgi::testing::BecomeOrdinaryUser();
    Cgi::Data request;
    support::MarkSwitch();
    request.DoSu("VISITOR", "", false, true);
  });
  const Lines log = LinesOfTheSwitch(outcome.log);
  ASSERT_GE(log.size(), 2U);
  EXPECT_EQ(log[0].text,
            "zancgi_unix.cpp:N starting PAM session for user 'VISITOR'");
  EXPECT_EQ(log[1],
            Call("pam_start(login, VISITOR, conversation without data)"));
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
  // A failed start may leave anything here.
  *pamh = TheHandle();
  return MarkCall(std::string("pam_start(") + service_name + ", " + user +
                      (is_ours ? ", conversation" : ", another conversation") +
                      (is_without_data ? " without data)" : " with data)"),
                  results.start);
}

extern "C" int pam_open_session(pam_handle_t* pamh, int flags) {
  return MarkCall("pam_open_session(" + Name(pamh) +
                      (flags == PAM_SILENT ? ", silent)" : ", loud)"),
                  results.open);
}

extern "C" int pam_close_session(pam_handle_t* pamh, int flags) {
  return MarkCall("pam_close_session(" + Name(pamh) +
                      (flags == PAM_SILENT ? ", silent)" : ", loud)"),
                  results.close);
}

extern "C" int pam_end(pam_handle_t* pamh, int pam_status) {
  return MarkCall(
      "pam_end(" + Name(pamh) + ", " + std::to_string(pam_status) + ")",
      PAM_SUCCESS);
}

extern "C" const char* pam_strerror(pam_handle_t* pamh, int errnum) {
  Mark("pam_strerror(" + Name(pamh) + ", " + std::to_string(errnum) + ")");
  return "what went wrong";
}

// What is never called would be seen as well.

extern "C" int pam_set_item(pam_handle_t* /*pamh*/, int /*item_type*/,
                            const void* /*item*/) {
  return MarkCall("pam_set_item", PAM_SUCCESS);
}

extern "C" int pam_putenv(pam_handle_t* /*pamh*/, const char* /*name_value*/) {
  return MarkCall("pam_putenv", PAM_SUCCESS);
}

extern "C" int pam_authenticate(pam_handle_t* /*pamh*/, int /*flags*/) {
  return MarkCall("pam_authenticate", PAM_SUCCESS);
}

extern "C" int pam_acct_mgmt(pam_handle_t* /*pamh*/, int /*flags*/) {
  return MarkCall("pam_acct_mgmt", PAM_SUCCESS);
}

extern "C" int pam_setcred(pam_handle_t* /*pamh*/, int /*flags*/) {
  return MarkCall("pam_setcred", PAM_SUCCESS);
}

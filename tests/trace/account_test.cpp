// The hand-over of uploads to an account, and the switch after it.

#include "support/form.h"
#include "support/record.h"
#include "support/test.h"
#include "trace/scenario.h"

namespace support::trace {
namespace {

/// Hands over the uploads "B", "a" and "c", whose files do not exist. Their
/// paths afterwards are the result.
auto HandOver(const std::string& user, bool use_chroot = false) {
  return Serve([=](Cgi& cgi) {
    auto& record = RecordOf(cgi);
    record.files["a"].path = "spool/2";
    record.files["B"].path = "spool/1";
    record.files["c"].path = "spool/x\\3";
    Try([&] { record.DoChownFiles(user, "not used", use_chroot); });
    Result(cgi.File("B") + " " + cgi.File("a") + " " + cgi.File("c"));
    record.files.clear();
  });
}

/// The trace of the beginning of a hand-over to "alice", and of that of one
/// upload up to the move.
const std::string kBegin = "getpwnam alice\nAttrs(0644, 1001, 1002)\n";
std::string Giving(const std::string& from, const std::string& name) {
  return "ConcatPath('.', '" + name + "')\nAttrs(0644, 1001, 1002).SafeSet('" +
         from + "', false)\n";
}
std::string Moving(const std::string& client_name, const std::string& from,
                   const std::string& name) {
  return Giving(from, name) + "unix 9: [zancgi_unix.cpp]:# moving file '" +
         client_name + "' stored as '" + from + "' to './" + name +
         "'\nMove('" + from + "', './" + name + "')\n";
}

TEST(HandOver, GivesEachUploadAwayAndMovesIt) {
  ExpectTrace({}, HandOver("alice"),
              kBegin + Moving("B", "spool/1", "1") +
                  Moving("a", "spool/2", "2") + Moving("c", "spool/x\\3", "3") +
                  "= ./1 ./2 ./3");
}

TEST(HandOver, ThatFailsLeavesTheOthersWhereTheyAre) {
  ExpectTrace({.effects = {{"SafeSet", {nullptr, Fail("no owner")}}}},
              HandOver("alice", true),
              kBegin + Moving("B", "spool/1", "1") + Giving("spool/2", "2") +
                  "throws tov_err::Error: no owner\n"
                  "= /1 spool/2 spool/x\\3");
  ExpectTrace({.effects = {{"Move", {Fail("no room")}}}},
              HandOver("alice", true),
              kBegin + Moving("B", "spool/1", "1") +
                  "throws tov_err::Error: no room\n"
                  "= spool/1 spool/2 spool/x\\3");
}

TEST(HandOver, ToRootOrNobodyChangesNothing) {
  ExpectTrace({}, HandOver("root", true),
              "getpwnam root\n= spool/1 spool/2 spool/x\\3");
  ExpectTrace({}, HandOver("nobody"), R"(
    getpwnam nobody
    throws std::runtime_error: failed to get pw entry
    = spool/1 spool/2 spool/x\3)");
}

TEST(HandOver, WithoutUploadsLooksTheAccountUp) {
  ExpectTrace({}, Serve([](Cgi& cgi) {
                RecordOf(cgi).DoChownFiles("alice", "", false);
              }),
              kBegin);
}

/// A body with the upload "f", and what a POST of it comes to.
const std::string kBody = Upload("u", "f", "content") + kFormEnd;
std::string Uploaded() { return Admission(kBody) + Making(1) + End(kBody); }

/// Parses such a request and becomes the account in its home.
auto UploadAndBecome(const std::string& user, bool use_chroot = false) {
  return Serve([=](Cgi& cgi) {
    cgi.ParseQuery();
    cgi.Su(user, use_chroot ? "/" : "", use_chroot, false);
    Result(cgi.File("f"));
  });
}

/// The trace of the hand-over of the upload.
const std::string kHandOver =
    kBegin + Moving("f", "spool/zantemp-1", "zantemp-1");

TEST(Su, HandsTheUploadsOverBeforeTheSwitch) {
  ExpectTrace(Post(kBody), UploadAndBecome("alice"),
              Uploaded() + kHandOver + R"(
    getpwnam alice
    chdir .
    initgroups alice 1001
    setgid 1002
    setuid 1001
    = ./zantemp-1
  )" + Dropping("./zantemp-1"));
}

TEST(Su, HandsTheUploadsOverAndLoadsTheResolverBeforeItConfines) {
  // The root directory stays as it was here, and has no such file.
  ExpectTrace(Post(kBody), UploadAndBecome("alice", true),
              Uploaded() + kHandOver + R"(
    getpwnam alice
    unix 8: ChRoot Init resolver
    chroot .
    initgroups alice 1001
    setgid 1002
    setuid 1001
    chdir /
    = /zantemp-1
    Exists('/zantemp-1'))");
}

TEST(Su, IsNotTriedAfterAHandOverThatFails) {
  Script script = Post(kBody);
  script.effects["Move"] = {Fail("no room")};
  ExpectTrace(script, UploadAndBecome("alice"),
              Uploaded() + kHandOver + "throws tov_err::Error: no room\n" +
                  Dropping("spool/zantemp-1"));
}

// The path is recorded for the root directory that was to come. In the one that
// there still is, it leads to another file or to none, and the upload stays.
TEST(Su, ThatCannotConfineLooksForTheUploadsInTheOldRoot) {
  Script script = Post(kBody);
  script.failures["chroot ."] = {EPERM};
  ExpectTrace(script, UploadAndBecome("alice", true),
              Uploaded() + kHandOver + R"(
    getpwnam alice
    unix 8: ChRoot Init resolver
    chroot .
    throws std::runtime_error: failed to chroot to users home folder
    Exists('/zantemp-1'))");
}

TEST(Su, ToRootLeavesTheUploadsAndEntersHisHome) {
  ExpectTrace(Post(kBody), UploadAndBecome("root"), Uploaded() + R"(
    getpwnam root
    getpwnam root
    setgid 0
    setuid 0
    chdir .
    = spool/zantemp-1
  )" + Dropping("spool/zantemp-1"));
}

/// Becomes "alice", with a session.
/// @param session  the trace of the session
void ExpectSession(const Script& script, const std::string& session) {
  for (const bool use_chroot : {false, true}) {
    ExpectTrace(script, Serve([=](Cgi& cgi) {
                  RecordOf(cgi).DoSu("alice", use_chroot ? "/" : "", use_chroot,
                                     true);
                }),
                std::string("getpwnam alice\n") +
                    (use_chroot ? "unix 8: ChRoot Init resolver\nchroot .\n"
                                : "chdir .\n") +
                    "initgroups alice 1001\nsetgid 1002\n"
                    "unix 9: [zancgi_unix.cpp]:# starting PAM session for user "
                    "'alice'\npam_start login alice myconv\n" +
                    session + "setuid 1001\n" + (use_chroot ? "chdir /" : ""));
  }
}

const char kStarted[] =
    "unix 9: [zancgi_unix.cpp]:# PAM start done\n"
    "pam_open_session session silent\n";

const char kOpened[] =
    "unix 9: [zancgi_unix.cpp]:# PAM open_session - ok\n"
    "pam_close_session session silent\n";

TEST(Session, IsOpenedAndClosedBeforeTheProcessIsTheUser) {
  ExpectSession({}, std::string(kStarted) + kOpened +
                        "unix 9: [zancgi_unix.cpp]:# PAM close_session - ok\n"
                        "pam_end session 0\n");
}

TEST(Session, ThatFailsToStartIsNotEnded) {
  for (const int code : {4, 5, 26, -1, 1000}) {
    ExpectSession({.failures = {{"pam_start login alice myconv", {code}}}},
                  "unix 4: failed to start PAM session\n");
  }
}

TEST(Session, EndsWithTheCodeOfTheFailedCall) {
  for (const int code : {6, 14, -1, 1000}) {
    const std::string number = std::to_string(code);
    const auto failing = [&](const std::string& what) {
      return "pam_strerror session " + number + "\nunix 4: PAM error " +
             number + " (what it means) on " + what + "\npam_end session " +
             number + "\n";
    };
    ExpectSession({.failures = {{"pam_open_session session silent", {code}}}},
                  kStarted + failing("open_session"));
    ExpectSession({.failures = {{"pam_close_session session silent", {code}}}},
                  kStarted + (kOpened + failing("close_session")));
  }
}

}  // namespace
}  // namespace support::trace

// The hand-over of uploads to an account, and the switch after it.

#include <gtest/gtest.h>
#include <zancgi/zancgi.h>

#include <string>

#include "support/form.h"
#include "support/record.h"
#include "trace/scenario.h"

namespace {

using support::kFormEnd;
using support::RecordOf;
using support::Upload;
using trace::ExpectTrace;
using trace::Fail;
using trace::Result;
using trace::Script;
using trace::Serve;
using zan_cgi::Cgi;

/// Hands over the uploads "B", "a" and "c", whose files do not exist. Their
/// paths afterwards are the result.
auto HandOver(const std::string& user, bool use_chroot = false) {
  return Serve([=](Cgi& cgi) {
    auto& record = RecordOf(cgi);
    record.files["a"].path = "spool/2";
    record.files["B"].path = "spool/1";
    record.files["c"].path = "spool/x\\3";
    trace::Try([&] { record.DoChownFiles(user, "not used", use_chroot); });
    Result(cgi.File("B") + " " + cgi.File("a") + " " + cgi.File("c"));
    record.files.clear();
  });
}

TEST(HandOver, GivesEachUploadAwayAndMovesIt) {
  ExpectTrace({}, HandOver("alice"), R"(
    getpwnam alice
    Attrs(0644, 1001, 1002)
    ConcatPath('.', '1')
    Attrs(0644, 1001, 1002).SafeSet('spool/1', false)
    unix 9: [zancgi_unix.cpp]:# moving file 'B' stored as 'spool/1' to './1'
    Move('spool/1', './1')
    ConcatPath('.', '2')
    Attrs(0644, 1001, 1002).SafeSet('spool/2', false)
    unix 9: [zancgi_unix.cpp]:# moving file 'a' stored as 'spool/2' to './2'
    Move('spool/2', './2')
    ConcatPath('.', '3')
    Attrs(0644, 1001, 1002).SafeSet('spool/x\3', false)
    unix 9: [zancgi_unix.cpp]:# moving file 'c' stored as 'spool/x\3' to './3'
    Move('spool/x\3', './3')
    = ./1 ./2 ./3
  )");
}

TEST(HandOver, ThatFailsLeavesTheOthersWhereTheyAre) {
  ExpectTrace({.effects = {{"SafeSet", {nullptr, Fail("no owner")}}}},
              HandOver("alice", true), R"(
    getpwnam alice
    Attrs(0644, 1001, 1002)
    ConcatPath('.', '1')
    Attrs(0644, 1001, 1002).SafeSet('spool/1', false)
    unix 9: [zancgi_unix.cpp]:# moving file 'B' stored as 'spool/1' to './1'
    Move('spool/1', './1')
    ConcatPath('.', '2')
    Attrs(0644, 1001, 1002).SafeSet('spool/2', false)
    throws tov_err::Error: no owner
    = /1 spool/2 spool/x\3
  )");
  ExpectTrace({.effects = {{"Move", {Fail("no room")}}}},
              HandOver("alice", true), R"(
    getpwnam alice
    Attrs(0644, 1001, 1002)
    ConcatPath('.', '1')
    Attrs(0644, 1001, 1002).SafeSet('spool/1', false)
    unix 9: [zancgi_unix.cpp]:# moving file 'B' stored as 'spool/1' to './1'
    Move('spool/1', './1')
    throws tov_err::Error: no room
    = spool/1 spool/2 spool/x\3
  )");
}

TEST(HandOver, ToRootOrNobodyChangesNothing) {
  ExpectTrace({}, HandOver("root", true), R"(
    getpwnam root
    = spool/1 spool/2 spool/x\3
  )");
  ExpectTrace({}, HandOver("nobody"), R"(
    getpwnam nobody
    throws std::runtime_error: failed to get pw entry
    = spool/1 spool/2 spool/x\3
  )");
}

TEST(HandOver, OfNothingLooksTheAccountUp) {
  ExpectTrace({}, Serve([](Cgi& cgi) {
                RecordOf(cgi).DoChownFiles("alice", "", false);
              }),
              R"(
    getpwnam alice
    Attrs(0644, 1001, 1002)
  )");
}

/// What a POST with the upload "f" comes to, before what happens to it.
const std::string kBody = Upload("u", "f", "content") + kFormEnd;
std::string Uploaded() {
  return trace::Admission(kBody) + R"(
    ConcatPath('spool', 'zantemp')
    Tmp('spool/zantemp')
    zancgi 8: ParseInput Creating new file spool/zantemp-1
    Attrs(0700)
    Attrs(0700).SafeSet('spool/zantemp-1', false)
  )" + trace::End(kBody);
}

/// Parses such a request and becomes the account in its home.
auto UploadAndBecome(const std::string& user) {
  return Serve([user](Cgi& cgi) {
    cgi.ParseQuery();
    cgi.Su(user, "", false, false);
    Result(cgi.File("f"));
  });
}

TEST(Su, HandsTheUploadsOverBeforeTheSwitch) {
  ExpectTrace(trace::Post(kBody), UploadAndBecome("alice"), Uploaded() + R"(
    getpwnam alice
    Attrs(0644, 1001, 1002)
    ConcatPath('.', 'zantemp-1')
    Attrs(0644, 1001, 1002).SafeSet('spool/zantemp-1', false)
    unix 9: [zancgi_unix.cpp]:# moving file 'f' stored as 'spool/zantemp-1' to './zantemp-1'
    Move('spool/zantemp-1', './zantemp-1')
    getpwnam alice
    chdir .
    initgroups alice 1001
    setgid 1002
    setuid 1001
    = ./zantemp-1
    Exists('./zantemp-1')
    zancgi 9: [zancgi.cpp]:# dropping temporary file './zantemp-1'
    RemoveFile('./zantemp-1')
  )");
}

TEST(Su, IsNotTriedAfterAHandOverThatFails) {
  Script script = trace::Post(kBody);
  script.effects["Move"] = {Fail("no room")};
  ExpectTrace(script, UploadAndBecome("alice"), Uploaded() + R"(
    getpwnam alice
    Attrs(0644, 1001, 1002)
    ConcatPath('.', 'zantemp-1')
    Attrs(0644, 1001, 1002).SafeSet('spool/zantemp-1', false)
    unix 9: [zancgi_unix.cpp]:# moving file 'f' stored as 'spool/zantemp-1' to './zantemp-1'
    Move('spool/zantemp-1', './zantemp-1')
    throws tov_err::Error: no room
    Exists('spool/zantemp-1')
    zancgi 9: [zancgi.cpp]:# dropping temporary file 'spool/zantemp-1'
    RemoveFile('spool/zantemp-1')
  )");
}

TEST(Su, ToRootLeavesTheUploadsAndEntersHisHome) {
  ExpectTrace(trace::Post(kBody), UploadAndBecome("root"), Uploaded() + R"(
    getpwnam root
    getpwnam root
    setgid 0
    setuid 0
    chdir .
    = spool/zantemp-1
    Exists('spool/zantemp-1')
    zancgi 9: [zancgi.cpp]:# dropping temporary file 'spool/zantemp-1'
    RemoveFile('spool/zantemp-1')
  )");
}

TEST(Su, WarmsTheResolverUpBeforeItConfines) {
  ExpectTrace({}, Serve([](Cgi& cgi) { cgi.Su("alice", "/", true, false); }),
              R"(
    getpwnam alice
    Attrs(0644, 1001, 1002)
    getpwnam alice
    unix 8: ChRoot Init resolver
    chroot .
    initgroups alice 1001
    setgid 1002
    setuid 1001
    chdir /
  )");
}

}  // namespace

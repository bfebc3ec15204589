// The body of a POST as a front end sees it. What comes of each kind of body is
// in tests/plain/rules_test.cpp.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zancgi/testing/child.h>
#include <zancgi/testing/input.h>
#include <zancgi/testing/scratch.h>
#include <zancgi/zancgi.h>

#include <algorithm>
#include <iostream>
#include <memory>
#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/clean_run.h"
#include "support/form.h"

namespace {

using support::kFormEnd;
using support::Post;
using support::PostOf;
using support::RunCleanly;
using support::RunWithoutLeak;
using support::Upload;
using zan_cgi::Cgi;
using zan_cgi::testing::Child;
using zan_cgi::testing::Input;
using zan_cgi::testing::LogLine;
using zan_cgi::testing::Outcome;
using zan_cgi::testing::Reporter;
using zan_cgi::testing::Scratch;
using Strings = std::vector<std::string>;

Cgi MakeCgi() { return {"/bin/front", "panel"}; }

/// The log with "#" in place of line numbers, "FILE" of temporary files and "N"
/// of free space.
Strings Lines(const Outcome& outcome) {
  const std::regex place("^zancgi\\.cpp:[0-9]+ ");
  const std::regex file("[^ ']*/zantemp[A-Za-z0-9]{6}");
  const std::regex space("tmpdir '[0-9]+'");
  Strings lines;
  for (const LogLine& line : outcome.log) {
    std::string text = std::regex_replace(line.text, place, "zancgi.cpp:# ");
    text = std::regex_replace(text, file, "FILE");
    text = std::regex_replace(text, space, "tmpdir 'N'");
    lines.push_back(std::to_string(line.level) + " " + text);
  }
  return lines;
}

TEST(Upload, IsAFileOfItsOwnInTheTemporaryDirectory) {
  const Scratch scratch;
  const std::string body = Upload("u", "f", "x") + kFormEnd;
  const Input input = Input::Pipe(body);
  RunCleanly(PostOf(body).StandardInput(input), [&scratch](const Reporter&) {
    Cgi cgi = MakeCgi();
    cgi.SetTmpDir(scratch.Path());
    EXPECT_EQ(cgi.File("f"), "");
    cgi.ParseQuery();
    EXPECT_TRUE(std::regex_match(
        cgi.File("f"), std::regex(scratch / "zantemp[A-Za-z0-9]{6}")));
    EXPECT_EQ(zan_cgi::testing::ReadFile(cgi.File("f")), "x");
    EXPECT_EQ(cgi.File("u"), "");
    struct stat found {};
    EXPECT_EQ(::stat(cgi.File("f").c_str(), &found), 0);
    EXPECT_EQ(found.st_mode & 07777U, 0700U);
  });
  EXPECT_EQ(scratch.List(), Strings{});
}

TEST(Upload, GoesWithTheLastCopyOfTheRequest) {
  const Scratch scratch;
  const std::string body =
      Upload("u", "b", "12345") + Upload("v", "a", "123") + kFormEnd;
  const Input input = Input::Pipe(body);
  RunCleanly(PostOf(body).StandardInput(input), [&scratch](const Reporter&) {
    auto first = std::make_unique<Cgi>(MakeCgi());
    first->SetTmpDir(scratch.Path());
    auto second = std::make_unique<Cgi>(*first);
    EXPECT_EQ(second->GetFileSize(), 8);
    Strings names;
    first->GetFileNames(names);
    EXPECT_EQ(names, (Strings{"a", "b"}));
    first.reset();
    EXPECT_EQ(scratch.List().size(), 2U);
    second.reset();
    EXPECT_EQ(scratch.List(), Strings{});
  });
}

/// The log of a request with an upload, whose record has gone.
Outcome LogOfUpload(const std::string& body, int level) {
  const Scratch scratch;
  const Input input = Input::Pipe(body);
  return RunCleanly(PostOf(body).LogLevel(level).StandardInput(input),
                    [&](const Reporter&) {
                      Cgi::Data record;
                      record.tmp_dir = scratch.Path();
                      record.ParseInput();
                      EXPECT_EQ(record.files.at("f").size, 1);
                    });
}

TEST(Upload, LogsEachStepInOrder) {
  const std::string body = Upload("u", "f", "x") + kFormEnd;
  const std::string size = std::to_string(body.size());
  EXPECT_EQ(
      Lines(LogOfUpload(body, 9)),
      (Strings{
          "8 void zan_cgi::Cgi::Data::ParseCookies()",
          "8 void zan_cgi::Cgi::Data::ParseInput()",
          "9 zancgi.cpp:# POST boundary detected: true",
          "9 zancgi.cpp:# query size '" + size + "', free space in tmpdir 'N'",
          "8 ParseInput Creating new file FILE",
          "9 zancgi.cpp:# End of stdin parsing, stdin state EOF false, "
          "GOOD true, read " +
              size + " of " + size + " chars",
          "9 zancgi.cpp:# dropping temporary file 'FILE'"}));
}

TEST(Upload, LogsNothingAtTheUsualLevel) {
  const std::string body = Upload("u", "f", "x") + kFormEnd;
  EXPECT_EQ(LogOfUpload(body, 7).standard_error, "");
}

TEST(ContentLength, OfZeroOrNoneLeavesTheBodyForALaterTry) {
  for (const bool is_set : {true, false}) {
    Child child = Post("0");
    if (!is_set) child = Child().Env("REQUEST_METHOD", "POST");
    const Input input = Input::Pipe("a=1");
    const Outcome outcome =
        RunCleanly(child.StandardInput(input), [](const Reporter&) {
          Cgi cgi = MakeCgi();
          Strings names{"old"};
          EXPECT_EQ(cgi.Param("a"), "");
          EXPECT_EQ(cgi.GetFileSize(), 0);
          cgi.GetParams(names);
          EXPECT_EQ(names, Strings{});
          cgi.GetFileNames(names);
          EXPECT_EQ(names, Strings{});
          cgi.ParseQuery();
          ::setenv("CONTENT_LENGTH", "3", 1);
          EXPECT_EQ(cgi.Param("a"), "1");
        });
    const Strings lines = Lines(outcome);
    EXPECT_EQ(std::count(lines.begin(), lines.end(),
                         "9 zancgi.cpp:# CONTENT_LENGTH=0"),
              5);
    EXPECT_EQ(outcome.Logged(4), Strings{});
  }
}

/// Parses what comes of a body for which a length is declared, in a folder,
/// after the front end has set a state of std::cin.
Outcome ParseInState(std::ios::iostate state, const Input& input,
                     const std::string& declared, const std::string& folder) {
  return RunWithoutLeak(Post(declared, "").StandardInput(input),
                        [&](const Reporter& report) {
                          std::cin.setstate(state);
                          Cgi::Data record;
                          record.tmp_dir = folder;
                          try {
                            record.ParseInput();
                          } catch (const std::runtime_error&) {
                            EXPECT_TRUE(record.parsed);
                            report("a", record.params["a"]);
                            throw;
                          }
                          report("a", record.params["a"]);
                        });
}

TEST(StandardInputStream, EndsTheLoopWhenItIsInAnyErrorState) {
  for (const auto state :
       {std::ios::badbit, std::ios::failbit, std::ios::eofbit}) {
    const Outcome outcome =
        ParseInState(state, Input::Pipe("a=1"), "7", "/tmp");
    EXPECT_EQ(outcome.error,
              "POST read failed: CONTENT_LENGTH=7, bytes read:3");
    EXPECT_EQ(outcome.reported.at("a"), "1");
  }
}

TEST(StandardInputStream, IsReportedAtTheEnd) {
  const Outcome outcome =
      ParseInState(std::ios::eofbit, Input::Pipe("a=1"), "3", "/tmp");
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(Lines(outcome).back(),
            "9 zancgi.cpp:# End of stdin parsing, stdin state EOF true, GOOD "
            "false, read 3 of 3 chars");
}

TEST(StandardInputStream, InAnErrorStateEndsADrain) {
  const Outcome outcome =
      ParseInState(std::ios::eofbit, Input::SilentPipe(""), "10", "/nowhere");
  EXPECT_EQ(outcome.error, "Cannot run statfs on /nowhere");
  EXPECT_EQ(Lines(outcome).back(),
            "9 zancgi.cpp:# query bytes read on throw '0' of '10'");
}

}  // namespace

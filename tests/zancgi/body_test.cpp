// The body of a POST: fields, uploads, and what is said about them.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/vfs.h>
#include <unistd.h>
#include <zancgi/testing/child.h>
#include <zancgi/testing/input.h>
#include <zancgi/testing/scratch.h>
#include <zancgi/zancgi.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <iostream>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "support/form.h"

namespace {

using support::Field;
using support::kForm;
using support::kFormEnd;
using support::Part;
using support::Upload;
using zan_cgi::Cgi;
using zan_cgi::testing::Child;
using zan_cgi::testing::Input;
using zan_cgi::testing::LogLine;
using zan_cgi::testing::Outcome;
using zan_cgi::testing::Scratch;
using zan_cgi::testing::Told;
using Strings = std::vector<std::string>;
using namespace std::chrono_literals;

/// When not negative, what every file system has free.
std::int64_t free_bytes = -1;

/// A process that serves a POST of this body.
Child PostOf(const std::string& body, const std::string& content_type = kForm) {
  return support::Post(std::to_string(body.size()), content_type);
}

Cgi MakeCgi() { return {"/bin/front", "panel"}; }

/// Tells parameters, uploads' contents and sizes, and the flag.
void TellAll(const Cgi::Data& record, const Told& told) {
  for (const auto& [name, value] : record.params) told("param " + name, value);
  for (const auto& [name, file] : record.files) {
    told("size " + name, std::to_string(file.size));
    if (std::filesystem::exists(file.path)) {
      told("file " + name, zan_cgi::testing::ReadFile(file.path));
    }
  }
  told("parsed", record.parsed ? "true" : "false");
}

/// Parses the body and tells what came of it, also when that is an error.
void ParseAndTell(const std::string& folder, const Told& told) {
  Cgi::Data record;
  record.tmp_dir = folder;
  try {
    record.ParseInput();
  } catch (...) {
    TellAll(record, told);
    throw;
  }
  TellAll(record, told);
}

/// The parse of a body from a pipe, in a folder that must be empty afterwards.
Outcome Parse(const std::string& body, const std::string& content_type = kForm,
              const std::string& declared = "") {
  const Scratch scratch;
  const Input input = Input::Pipe(body);
  Child child = PostOf(body, content_type);
  if (!declared.empty()) child.Env("CONTENT_LENGTH", declared);
  const Outcome outcome = child.StandardInput(input).Run(
      [&scratch](const Told& told) { ParseAndTell(scratch.Path(), told); });
  EXPECT_EQ(outcome.status, 0) << outcome.standard_error;
  EXPECT_EQ(scratch.List(), Strings{});
  EXPECT_EQ(outcome.leaked_descriptors, Strings{});
  return outcome;
}

/// What the body has told under this name, or "(nothing)".
std::string Of(const Outcome& outcome, const std::string& name) {
  const auto found = outcome.told.find(name);
  return found == outcome.told.end() ? "(nothing)" : found->second;
}

/// The log with "#" in place of line numbers and "FILE" of temporary files.
std::vector<LogLine> NormalLog(const Outcome& outcome) {
  std::vector<LogLine> log = outcome.log;
  const std::regex place("^zancgi\\.cpp:[0-9]+ ");
  const std::regex file("[^ ']*/zantemp[A-Za-z0-9]{6}");
  for (LogLine& line : log) {
    line.text = std::regex_replace(line.text, place, "zancgi.cpp:# ");
    line.text = std::regex_replace(line.text, file, "FILE");
  }
  return log;
}

Strings Lines(const Outcome& outcome) {
  Strings lines;
  for (const LogLine& line : NormalLog(outcome)) {
    lines.push_back(std::to_string(line.level) + " " + line.text);
  }
  return lines;
}

bool HasLine(const Outcome& outcome, const std::string& line) {
  const Strings lines = Lines(outcome);
  return std::find(lines.begin(), lines.end(), line) != lines.end();
}

TEST(Field, KeepsItsLinesJoinedByLf) {
  EXPECT_EQ(Of(Parse(Field("a", "x\r\ny") + kFormEnd), "param a"), "x\ny");
}

TEST(Field, OfOneNameContinuesTheValue) {
  const Outcome outcome = Parse(Field("a", "1") + Field("a", "2") + kFormEnd);
  EXPECT_EQ(Of(outcome, "param a"), "1\n2");
}

TEST(Field, LosesTheLastByteOfALineThatEndsInABareLf) {
  EXPECT_EQ(Of(Parse(Field("a", "one\ntwo") + kFormEnd), "param a"), "on\ntwo");
}

TEST(Field, MayBeEmpty) {
  EXPECT_EQ(Of(Parse(Field("a", "") + kFormEnd), "param a"), "");
}

TEST(Field, HoldsTheContentWhenTheFileNameComesBeforeTheName) {
  const Outcome outcome =
      Parse(Part("filename=\"f\"; name=\"a\"", "x\r\ny") + kFormEnd);
  EXPECT_EQ(Of(outcome, "param a"), "x\ny");
  EXPECT_EQ(Of(outcome, "size f"), "(nothing)");
}

TEST(Field, NamedFilenameWithoutAFileIsIgnored) {
  const Outcome outcome =
      Parse(Part("name=\"filename\"", "x") + Field("a", "1") + kFormEnd);
  EXPECT_TRUE(HasLine(outcome,
                      "9 zancgi.cpp:# Filename not found in "
                      "Content-Disposition. Ignoring this part"));
  EXPECT_EQ(Of(outcome, "param filename"), "(nothing)");
  EXPECT_EQ(Of(outcome, "param a"), "1");
}

TEST(Field, WithAnUnquotedNameIsIgnored) {
  const Outcome outcome =
      Parse(Part("name=a", "x") + Field("b", "1") + kFormEnd);
  EXPECT_TRUE(HasLine(
      outcome, "9 zancgi.cpp:# Element with empty name found. Ignoring."));
  EXPECT_EQ(Of(outcome, "param a"), "(nothing)");
  EXPECT_EQ(Of(outcome, "param b"), "1");
}

TEST(Field, TakesALineOf262144Bytes) {
  const std::string line(262'144, 'x');
  EXPECT_EQ(Of(Parse(Field("a", line) + kFormEnd), "param a"), line);
}

TEST(Field, RefusesALineOf262145Bytes) {
  const Outcome outcome =
      Parse(Field("a", std::string(262'145, 'x')) + kFormEnd);
  EXPECT_EQ(outcome.error_type, "std::runtime_error");
  EXPECT_EQ(outcome.error, "Element value size must be less than 262144");
  EXPECT_EQ(Of(outcome, "parsed"), "false");
}

TEST(Field, RefusesALongLineBeforeItsEndHasCome) {
  // Nothing but the line is ever sent, and more is announced.
  const std::string body = Field("a", std::string(400'000, 'x'));
  const Input input = Input::SilentPipe(body.substr(0, body.size() - 2));
  const Scratch scratch;
  const Outcome outcome =
      PostOf(body + std::string(1000, 'x'))
          .StandardInput(input)
          .Run([&](const Told& told) { ParseAndTell(scratch.Path(), told); });
  EXPECT_EQ(outcome.error, "Element value size must be less than 262144");
}

TEST(Field, OfManyLinesHasNoLimit) {
  std::string value;
  for (int i = 0; i < 40; ++i) value += std::string(10'000, 'x') + "\r\n";
  const Outcome outcome = Parse(Field("a", value) + kFormEnd);
  EXPECT_EQ(Of(outcome, "param a").size(), 40 * 10'001U);
}

TEST(Field, WithoutANameIsAnErrorOnceItsValueComes) {
  // The second name of one line empties the first, whose state stays.
  const Outcome outcome = Parse(Part("name=\"a\"; name=\"\"", "x") + kFormEnd);
  EXPECT_EQ(outcome.error_type, "std::runtime_error");
  EXPECT_EQ(outcome.error, "On getting element value element name is empty");
  EXPECT_EQ(Of(outcome, "parsed"), "false");
}

TEST(OtherDisposition, HasItsWholePartSkipped) {
  const Outcome outcome =
      Parse("--XY\r\nContent-Disposition: attachment; name=\"a\"\r\n\r\nx\r\n" +
            Field("b", "1") + kFormEnd);
  EXPECT_TRUE(HasLine(outcome,
                      "9 zancgi.cpp:# Ignoring unknown type of "
                      "Content-Disposition: attachment"));
  EXPECT_EQ(Of(outcome, "param a"), "(nothing)");
  EXPECT_EQ(Of(outcome, "param b"), "1");
}

TEST(Headers, AreCaseSensitiveAndWantTheirBlank) {
  for (const std::string name :
       {"content-disposition: ", "Content-Disposition:"}) {
    const Outcome outcome =
        Parse("--XY\r\n" + name + "form-data; name=\"a\"\r\n\r\nx\r\n" +
              Field("b", "1") + kFormEnd);
    EXPECT_EQ(Of(outcome, "param a"), "(nothing)") << name;
    EXPECT_EQ(Of(outcome, "param b"), "1") << name;
  }
}

TEST(Headers, EndAnAttributeAtASemicolonInsideQuotes) {
  const Outcome outcome = Parse(Upload("u", "a;b.txt", "x") + kFormEnd);
  EXPECT_EQ(Of(outcome, "param u"), "a");
  EXPECT_EQ(Of(outcome, "file a"), "x");
}

TEST(Headers, LetWhatLooksLikeANameBehindASemicolonWipeTheName) {
  const Outcome outcome =
      Parse(Upload("u", "x;names.txt", "x") + Field("b", "1") + kFormEnd);
  EXPECT_EQ(Of(outcome, "param u"), "(nothing)");
  EXPECT_EQ(Of(outcome, "size x"), "(nothing)");
  EXPECT_EQ(Of(outcome, "param b"), "1");
}

TEST(Headers, EndANameAtTheFirstQuote) {
  const Outcome outcome = Parse(Upload("u", "a\\\"b", "x") + kFormEnd);
  EXPECT_EQ(Of(outcome, "param u"), "a\\");
}

TEST(Headers, KeepNamesFromThePartBefore) {
  // The second part gives no name of its own.
  const Outcome outcome =
      Parse(Field("a", "1") + Part("filename=\"f\"", "x") + kFormEnd);
  EXPECT_EQ(Of(outcome, "param a"), "f");
  EXPECT_EQ(Of(outcome, "file f"), "x");
}

TEST(Upload, IsStoredByteForByte) {
  std::string content("\r\n--X\r--XY\n\0\xff", 13);
  for (int i = 0; i < 256; ++i) content += static_cast<char>(i);
  const Outcome outcome = Parse(Upload("u", "f.bin", content) + kFormEnd);
  EXPECT_EQ(Of(outcome, "param u"), "f.bin");
  EXPECT_EQ(Of(outcome, "file f.bin"), content);
  EXPECT_EQ(Of(outcome, "size f.bin"), std::to_string(content.size()));
  EXPECT_EQ(Of(outcome, "parsed"), "true");
}

TEST(Upload, MayBeEmpty) {
  const Outcome outcome = Parse(Upload("u", "f", "") + kFormEnd);
  EXPECT_EQ(Of(outcome, "file f"), "");
  EXPECT_EQ(Of(outcome, "size f"), "0");
}

TEST(Upload, EndsAtTheBoundaryInItsContent) {
  const Outcome outcome =
      Parse(Upload("u", "f", "before\r\n--XY and after") + kFormEnd);
  EXPECT_EQ(Of(outcome, "file f"), "before");
}

TEST(Upload, OfTheSameFileNameReplacesTheEarlierOne) {
  const Outcome outcome = Parse(Upload("u", "f", "first") +
                                Upload("v", "f", "the second") + kFormEnd);
  EXPECT_EQ(Of(outcome, "param u"), "f");
  EXPECT_EQ(Of(outcome, "param v"), "f");
  EXPECT_EQ(Of(outcome, "file f"), "the second");
  EXPECT_EQ(Of(outcome, "size f"), "10");
}

TEST(Upload, MayBeLargerThanManyChunks) {
  std::string content;
  while (content.size() < 3'000'000) {
    content += std::to_string(content.size() * 7919) + "\r\n--X";
  }
  const Outcome outcome = Parse(Upload("u", "f", content) + kFormEnd);
  // What the beginning of a separator costs behind the headers in one chunk is
  // at most this one time.
  const std::string stored = Of(outcome, "file f");
  ASSERT_EQ(stored.size(), content.size());
  EXPECT_EQ(stored.substr(70'000), content.substr(70'000));
}

TEST(Upload, WritesWrongBytesForABrokenSeparatorBehindHeadersInOneChunk) {
  const std::string head = Upload("u", "f", "data");
  const std::string first = head.substr(0, head.size() - 2) + "\r\n-";
  const std::string second = std::string("x\r\n") + kFormEnd;
  const Input input = Input::SlowPipe({first, second}, 50ms);
  const Scratch scratch;
  const Outcome outcome =
      PostOf(first + second).StandardInput(input).Run([&](const Told& told) {
        ParseAndTell(scratch.Path(), told);
      });
  // Four data bytes lie in the first chunk, so the bytes from offset 4 of the
  // chunk stand for the three that the match had.
  EXPECT_EQ(Of(outcome, "file f"), "data" + first.substr(4, 3) + "x");
}

TEST(Upload, IsAFileOfItsOwnInTheTemporaryDirectory) {
  const Scratch scratch;
  const std::string body = Upload("u", "f", "x") + kFormEnd;
  const Input input = Input::Pipe(body);
  const Outcome outcome =
      PostOf(body).StandardInput(input).Run([&scratch](const Told& told) {
        Cgi cgi = MakeCgi();
        cgi.SetTmpDir(scratch.Path());
        told("before", cgi.File("f"));
        cgi.ParseQuery();
        told("path", cgi.File("f"));
        told("field", cgi.File("u"));
        struct stat found;
        ::stat(cgi.File("f").c_str(), &found);
        told("mode", std::to_string(found.st_mode & 07777U));
      });
  EXPECT_EQ(Of(outcome, "before"), "");
  EXPECT_EQ(Of(outcome, "field"), "");
  EXPECT_TRUE(std::regex_match(Of(outcome, "path"),
                               std::regex(scratch / "zantemp[A-Za-z0-9]{6}")));
  EXPECT_EQ(Of(outcome, "mode"), std::to_string(0700));
  EXPECT_EQ(scratch.List(), Strings{});
}

TEST(Upload, GoesWithTheLastCopyOfTheRequest) {
  const Scratch scratch;
  const std::string body =
      Upload("u", "b", "12345") + Upload("v", "a", "123") + kFormEnd;
  const Input input = Input::Pipe(body);
  const Outcome outcome =
      PostOf(body).StandardInput(input).Run([&scratch](const Told& told) {
        auto first = std::make_unique<Cgi>(MakeCgi());
        first->SetTmpDir(scratch.Path());
        auto second = std::make_unique<Cgi>(*first);
        told("size", std::to_string(second->GetFileSize()));
        Strings names;
        first->GetFileNames(names);
        told("names", names.at(0) + names.at(1));
        first.reset();
        told("left", std::to_string(scratch.List().size()));
        second.reset();
        told("left at last", std::to_string(scratch.List().size()));
      });
  EXPECT_EQ(Of(outcome, "size"), "8");
  EXPECT_EQ(Of(outcome, "names"), "ab");
  EXPECT_EQ(Of(outcome, "left"), "2");
  EXPECT_EQ(Of(outcome, "left at last"), "0");
}

TEST(Upload, LogsEachStepInOrder) {
  const std::string body = Upload("u", "f", "x") + kFormEnd;
  const std::string size = std::to_string(body.size());
  Strings lines = Lines(Parse(body));
  ASSERT_EQ(lines.size(), 7U);
  lines[3] =
      std::regex_replace(lines[3], std::regex("tmpdir '[0-9]+'"), "tmpdir 'N'");
  EXPECT_EQ(lines,
            (Strings{"8 void zan_cgi::Cgi::Data::ParseCookies()",
                     "8 void zan_cgi::Cgi::Data::ParseInput()",
                     "9 zancgi.cpp:# POST boundary detected: true",
                     "9 zancgi.cpp:# query size '" + size +
                         "', free space in tmpdir 'N'",
                     "8 ParseInput Creating new file FILE",
                     "9 zancgi.cpp:# End of stdin parsing, stdin state EOF "
                     "false, GOOD true, read " +
                         size + " of " + size + " chars",
                     "9 zancgi.cpp:# dropping temporary file 'FILE'"}));
}

TEST(Upload, LogsNothingAtTheUsualLevel) {
  const Scratch scratch;
  const std::string body = Upload("u", "f", "x") + kFormEnd;
  const Input input = Input::Pipe(body);
  const Outcome outcome = PostOf(body).LogLevel(7).StandardInput(input).Run(
      [&](const Told& told) { ParseAndTell(scratch.Path(), told); });
  EXPECT_EQ(Of(outcome, "file f"), "x");
  EXPECT_EQ(outcome.log, std::vector<LogLine>{});
}

TEST(QueryStringBody, GivesDecodedValuesUnderKeysAsSent) {
  const Outcome outcome =
      Parse("%61=%41+b&&c=&=x&d&c=2=3", "application/x-www-form-urlencoded");
  EXPECT_EQ(Of(outcome, "param %61"), "A b");
  EXPECT_EQ(Of(outcome, "param c"), "2=3");
  EXPECT_EQ(Of(outcome, "param d"), "");
  EXPECT_EQ(Of(outcome, "param "), "(nothing)");
  EXPECT_EQ(Of(outcome, "parsed"), "true");
}

TEST(QueryStringBody, IsWhatAFormWithoutItsBoundaryIsTakenFor) {
  const Outcome outcome = Parse("a=1&b=2", kForm);
  EXPECT_EQ(Of(outcome, "param a"), "1");
  EXPECT_EQ(Of(outcome, "param b"), "2");
}

TEST(QueryStringBody, LogsItsChunks) {
  Strings lines = Lines(Parse("a=1", "text/plain"));
  ASSERT_EQ(lines.size(), 7U);
  lines.erase(lines.begin() + 3);
  EXPECT_EQ(lines,
            (Strings{"8 void zan_cgi::Cgi::Data::ParseCookies()",
                     "8 void zan_cgi::Cgi::Data::ParseInput()",
                     "9 zancgi.cpp:# POST boundary detected: false",
                     "9 zancgi.cpp:# appending 3 chars to buff",
                     "9 zancgi.cpp:# no boundaries in POST data, assuming GET "
                     "format",
                     "9 zancgi.cpp:# End of stdin parsing, stdin state EOF "
                     "false, GOOD true, read 3 of 3 chars"}));
}

TEST(Boundary, IsTakenWithItsQuotes) {
  const std::string body = Field("a", "1") + kFormEnd;
  const Outcome outcome = Parse(body, "multipart/form-data; boundary=\"XY\"");
  EXPECT_EQ(Of(outcome, "param a"), "(nothing)");
  EXPECT_TRUE(HasLine(outcome,
                      "9 zancgi.cpp:# no boundaries in POST data, assuming "
                      "GET format"));
}

TEST(Boundary, EndsAtASemicolonAndMayStandAnywhere) {
  const Outcome outcome =
      Parse(Field("a", "1") + kFormEnd, "x; xboundary=XY; boundary=Z");
  EXPECT_EQ(Of(outcome, "param a"), "1");
}

TEST(Boundary, IsNotFoundBehindAnExtraDash) {
  const Outcome outcome = Parse("-" + Field("a", "1"));
  EXPECT_EQ(Of(outcome, "param a"), "(nothing)");
}

/// A form whose boundary value is of this size, whole in as few chunks as can
/// be.
Outcome ParseWithBoundaryOfSize(std::size_t size) {
  const std::string boundary(size, 'b');
  const std::string body = "--" + boundary +
                           "\r\nContent-Disposition: form-data; "
                           "name=\"a\"\r\n\r\n1\r\n--" +
                           boundary + "--\r\n";
  const Input input = Input::File(body);
  return PostOf(body, "multipart/form-data; boundary=" + boundary)
      .LogLevel(0)
      .StandardInput(input)
      .Run([](const Told& told) {
        const itimerval soon{{0, 0}, {0, 200'000}};
        ::setitimer(ITIMER_PROF, &soon, nullptr);
        ParseAndTell("/tmp", told);
      });
}

TEST(Boundary, MayFillTheChunk) {
  for (const std::size_t size : {1U, 70U, 71U, 4091U, 4096U, 65'532U}) {
    EXPECT_EQ(Of(ParseWithBoundaryOfSize(size), "param a"), "1") << size;
  }
}

TEST(Boundary, IsNotFoundWhenItIsLongerThanTheChunk) {
  for (const std::size_t size : {65'535U, 65'536U, 65'540U, 100'000U}) {
    const Outcome outcome = ParseWithBoundaryOfSize(size);
    EXPECT_EQ(Of(outcome, "param a"), "(nothing)") << size;
    EXPECT_EQ(Of(outcome, "parsed"), "true") << size;
  }
}

TEST(Length, OfZeroLeavesTheRecordUnparsedForALaterTry) {
  const Input input = Input::Pipe("a=1");
  const Outcome outcome =
      PostOf("").StandardInput(input).Run([](const Told& told) {
        Cgi cgi = MakeCgi();
        told("first", cgi.Param("a"));
        ::setenv("CONTENT_LENGTH", "3", 1);
        told("second", cgi.Param("a"));
      });
  EXPECT_EQ(Of(outcome, "first"), "");
  EXPECT_EQ(Of(outcome, "second"), "1");
  EXPECT_TRUE(HasLine(outcome, "9 zancgi.cpp:# CONTENT_LENGTH=0"));
}

TEST(Length, BeyondWhatComesIsAnError) {
  const Outcome outcome = Parse(Field("a", "1") + kFormEnd, kForm, "1000");
  EXPECT_EQ(outcome.error_type, "std::runtime_error");
  EXPECT_EQ(outcome.error, "Error reading STDIN");
  EXPECT_EQ(outcome.Logged(4), Strings{"Signal HUP received"});
  EXPECT_EQ(Of(outcome, "param a"), "1");
  EXPECT_EQ(Of(outcome, "parsed"), "false");
}

TEST(Length, LessThanWhatComesLeavesTheRestUnread) {
  const std::string body = Field("a", "1") + kFormEnd;
  const Input input = Input::Pipe(body + "rest");
  const Outcome outcome =
      PostOf(body).StandardInput(input).Run([](const Told& told) {
        Cgi::Data record;
        record.ParseInput();
        TellAll(record, told);
        char rest[8];
        const ssize_t count = ::read(STDIN_FILENO, rest, sizeof(rest));
        told("rest", std::string(rest, static_cast<std::size_t>(count)));
      });
  EXPECT_EQ(Of(outcome, "param a"), "1");
  EXPECT_EQ(Of(outcome, "rest"), "rest");
}

TEST(Length, TakesNoMemoryByItself) {
  // No machine has so much.
  const std::string length = "9000000000000000";
  const Input input = Input::Pipe("a=1");
  const Outcome outcome =
      support::Post(length, "").StandardInput(input).Run([](const Told&) {
        MakeCgi().ParseQuery();
      });
  EXPECT_EQ(outcome.error, "Error reading STDIN");
}

TEST(Length, BelowZeroFailsAtTheFirstRead) {
  for (const std::string length : {"-1", "-70000", "-99999999999999999999"}) {
    const Outcome outcome = Parse("a=1", "text/plain", length);
    EXPECT_EQ(outcome.error, "Error reading STDIN") << length;
    EXPECT_EQ(outcome.Logged(3), Strings{"error reading stdin, code 14"});
  }
}

TEST(SecondParse, IsRefusedWithAWarning) {
  const std::string body = Field("a", "1") + kFormEnd;
  const Input input = Input::Pipe(body + body);
  const Outcome outcome =
      PostOf(body).StandardInput(input).Run([](const Told& told) {
        Cgi::Data record;
        record.ParseInput();
        record.ParseInput();
        TellAll(record, told);
      });
  EXPECT_EQ(Of(outcome, "param a"), "1");
  EXPECT_EQ(outcome.Logged(4), Strings{"attempt to reparse POST query"});
}

TEST(SecondParse, OfTheFacadeIsRefusedBeforeThat) {
  const std::string body = Field("a", "1") + kFormEnd;
  const Input input = Input::Pipe(body);
  const Outcome outcome =
      PostOf(body).StandardInput(input).Run([](const Told&) {
        Cgi cgi = MakeCgi();
        cgi.ParseQuery();
        cgi.ParseQuery();
      });
  EXPECT_EQ(outcome.Logged(4), Strings{"CGI already parsed input"});
}

TEST(StandardInputStream, EndsTheLoopWhenItIsInAnyErrorState) {
  for (const auto state :
       {std::ios::badbit, std::ios::failbit, std::ios::eofbit}) {
    const std::string body = "a=1";
    const Input input = Input::Pipe(body);
    const Outcome outcome =
        PostOf(body + "&b=2").StandardInput(input).Run([&](const Told& told) {
          std::cin.setstate(state);
          ParseAndTell("/tmp", told);
        });
    EXPECT_EQ(outcome.error,
              "POST read failed: CONTENT_LENGTH=7, bytes read:3");
    EXPECT_EQ(Of(outcome, "parsed"), "true");
    EXPECT_EQ(Of(outcome, "param a"), "1");
  }
}

TEST(StandardInputStream, IsReportedAtTheEnd) {
  const Input input = Input::Pipe("a=1");
  const Outcome outcome =
      PostOf("a=1", "").StandardInput(input).Run([&](const Told& told) {
        std::cin.setstate(std::ios::eofbit);
        ParseAndTell("/tmp", told);
      });
  EXPECT_TRUE(HasLine(outcome,
                      "9 zancgi.cpp:# End of stdin parsing, stdin state EOF "
                      "true, GOOD false, read 3 of 3 chars"));
}

TEST(ShortOfSpace, IsNoErrorForAFormWithoutFiles) {
  const Scratch scratch;
  const std::string body = Field("a", "1") + kFormEnd;
  const Input input = Input::Pipe(body);
  const Outcome outcome =
      PostOf(body).StandardInput(input).Run([&](const Told& told) {
        free_bytes = static_cast<std::int64_t>(body.size()) - 1;
        ParseAndTell(scratch.Path(), told);
      });
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(Of(outcome, "param a"), "1");
  EXPECT_EQ(outcome.Logged(4),
            Strings{"There is not enoght free space on '" + scratch.Path() +
                    "' to process a query"});
}

TEST(ShortOfSpace, FailsAFormWithAFileOnceItsBodyIsRead) {
  const std::string body = Upload("u", "f", "x") + Field("a", "1") + kFormEnd;
  const std::string empty_input =
      Upload("u", "", "") + Field("a", "1") + kFormEnd;
  for (const std::string& sent : {body, empty_input}) {
    const Scratch scratch;
    const Input input = Input::Pipe(sent);
    const Outcome outcome =
        PostOf(sent).StandardInput(input).Run([&](const Told& told) {
          free_bytes = 0;
          try {
            ParseAndTell(scratch.Path(), told);
          } catch (const std::runtime_error&) {
            char next;
            told("left", std::to_string(::read(STDIN_FILENO, &next, 1)));
            throw;
          }
        });
    EXPECT_EQ(outcome.error, "error writing temporary file");
    EXPECT_EQ(Of(outcome, "parsed"), "true");
    EXPECT_EQ(Of(outcome, "left"), "0");
    EXPECT_EQ(scratch.List(), Strings{});
  }
}

// The parser comes to the data only where a chunk begins with them.
TEST(ShortOfSpace, LeavesNoEntryForAFileThatIsNotMade) {
  const Scratch scratch;
  const std::string body = Upload("u", "f", "data") + kFormEnd;
  const std::size_t data = body.find("\r\n\r\n") + 4;
  const Input input = Input::SlowPipe(
      {body.substr(0, data - 2), "\r\n", body.substr(data)}, 50ms);
  const Outcome outcome =
      PostOf(body).StandardInput(input).Run([&](const Told&) {
        free_bytes = 0;
        Cgi::Data record;
        record.tmp_dir = scratch.Path();
        EXPECT_THROW(record.ParseInput(), std::runtime_error);
        EXPECT_TRUE(record.files.empty());
      });
  EXPECT_EQ(outcome.status, 0) << outcome.standard_error;
  EXPECT_EQ(scratch.List(), Strings{});
}

TEST(ShortOfSpace, IsNotYetAnEqualAmount) {
  const Scratch scratch;
  const std::string body = Upload("u", "f", "x") + kFormEnd;
  const Input input = Input::Pipe(body);
  const Outcome outcome =
      PostOf(body).StandardInput(input).Run([&](const Told& told) {
        free_bytes = static_cast<std::int64_t>(body.size());
        ParseAndTell(scratch.Path(), told);
      });
  EXPECT_EQ(Of(outcome, "file f"), "x");
  EXPECT_EQ(outcome.Logged(4), Strings{});
}

TEST(FailedPreparation, HasTheBodyReadBeforeItShows) {
  const std::string body(200'000, 'x');
  const Input input = Input::Pipe(body);
  const Outcome outcome =
      PostOf(body).StandardInput(input).Run([&](const Told& told) {
        try {
          ParseAndTell("/nowhere", told);
        } catch (const std::runtime_error&) {
          char next;
          told("left", std::to_string(::read(STDIN_FILENO, &next, 1)));
          throw;
        }
      });
  EXPECT_EQ(outcome.error_type, "std::runtime_error");
  EXPECT_EQ(outcome.error, "Cannot run statfs on /nowhere");
  EXPECT_EQ(Of(outcome, "left"), "0");
  EXPECT_EQ(Of(outcome, "parsed"), "true");
  const Strings lines = Lines(outcome);
  ASSERT_EQ(lines.size(), 5U);
  EXPECT_EQ(lines[3],
            "9 zancgi.cpp:# Reading query before processing thrown exception");
  EXPECT_EQ(lines[4],
            "9 zancgi.cpp:# query bytes read on throw '200000' of '200000'");
}

TEST(FailedPreparation, IsOverruledByABodyThatEndsEarly) {
  const Input input = Input::Pipe("short");
  const Outcome outcome =
      PostOf("longer than that").StandardInput(input).Run([](const Told& told) {
        ParseAndTell("/nowhere", told);
      });
  EXPECT_EQ(outcome.error, "Error reading STDIN");
  EXPECT_EQ(Of(outcome, "parsed"), "false");
  EXPECT_EQ(Lines(outcome).back(), "4 Signal HUP received");
}

TEST(FailedPreparation, StopsReadingWhenTheStreamIsInAnErrorState) {
  const Input input = Input::SilentPipe("");
  const Outcome outcome =
      PostOf("never sent").StandardInput(input).Run([](const Told& told) {
        std::cin.setstate(std::ios::eofbit);
        ParseAndTell("/nowhere", told);
      });
  EXPECT_EQ(outcome.error, "Cannot run statfs on /nowhere");
  EXPECT_EQ(Lines(outcome).back(),
            "9 zancgi.cpp:# query bytes read on throw '0' of '10'");
}

TEST(TemporaryDirectory, IsTmpUnlessTheEnvironmentNamesOne) {
  const Scratch scratch;
  for (const std::string& name : {scratch.Path(), std::string()}) {
    const Input input = Input::Pipe("a=1");
    Child child = PostOf("a=1", "");
    child.StandardInput(input).Env("TMP", name);
    const Outcome outcome = child.Run([](const Told& told) {
      Cgi::Data record;
      record.ParseInput();
      told("tmp_dir", record.tmp_dir);
    });
    const std::string expected = name.empty() ? "/tmp" : name;
    EXPECT_EQ(Of(outcome, "tmp_dir"), expected);
    EXPECT_TRUE(HasLine(
        outcome,
        "9 zancgi.cpp:# temp dir is empty, new temp dir '" + expected + "'"));
  }
}

TEST(TemporaryDirectory, IsNotLookedAtBeforeAFileIsMade) {
  const Scratch scratch;
  const std::string file = scratch.MakeFile("file");
  const Input input = Input::Pipe("a=1");
  const Outcome outcome = PostOf("a=1", "").StandardInput(input).Run(
      [&](const Told& told) { ParseAndTell(file, told); });
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(Of(outcome, "param a"), "1");
}

/// Parses until 20 ms of processor time are used up.
Outcome ParseUntilAlarm(const Input& input, const std::string& declared) {
  const Scratch scratch;
  return Child()
      .LogLevel(0)
      .Env("CONTENT_TYPE", kForm)
      .Env("CONTENT_LENGTH", declared)
      .StandardInput(input)
      .Run([&](const Told& told) {
        const itimerval soon{{0, 0}, {0, 20'000}};
        ::setitimer(ITIMER_PROF, &soon, nullptr);
        ParseAndTell(scratch.Path(), told);
        told("ended", "");
      });
}

TEST(GoesOnForEver, WhenAReadInMidBodyGivesNothing) {
  // A regular file at its end is readable and gives nothing.
  for (const std::string& sent :
       {std::string("preamble"), std::string("--XY\r\nHeader"), Field("a", "1"),
        Upload("u", "f", "x")}) {
    const Input input = Input::File(sent);
    const Outcome outcome = ParseUntilAlarm(input, "1000");
    EXPECT_EQ(outcome.status, 128 + SIGPROF) << sent;
  }
}

TEST(GoesOnForEver, WhenTheFirstBoundaryEndsAChunk) {
  for (const std::string behind : {"", "\r"}) {
    const Input input = Input::SlowPipe(
        {"--XY" + behind, (Field("a", "1") + kFormEnd).substr(4)}, 50ms);
    const Outcome outcome = ParseUntilAlarm(input, "1000");
    EXPECT_EQ(outcome.status, 128 + SIGPROF) << behind.size();
  }
}

TEST(GoesOnForEver, WhenTheBoundaryFillsTheChunkUpToItsLastTwoBytes) {
  for (const std::size_t size : {65'533U, 65'534U}) {
    EXPECT_EQ(ParseWithBoundaryOfSize(size).status, 128 + SIGPROF) << size;
  }
}

// A browser sends such a part for a file input that is left empty.
TEST(GoesOnForEver, WhenTheBoundaryAfterAnIgnoredPartEndsAChunk) {
  const std::string ignored = Field("a", "1") + Upload("u", "", "") + "--XY";
  for (const std::string after : {"", "\r"}) {
    const Input input = Input::SlowPipe(
        {ignored + after, (Field("b", "2") + kFormEnd).substr(4)}, 50ms);
    const Outcome outcome = ParseUntilAlarm(input, "1000");
    EXPECT_EQ(outcome.status, 128 + SIGPROF) << after.size();
  }
}

/// Parses or drains a regular file that is shorter than declared. Returns the
/// signal of the limit that ends it, of processor time or of real time.
int SignalThatEnds(const std::string& sent, const std::string& folder) {
  const Input input = Input::File(sent);
  const Outcome outcome = Child()
                              .Env("CONTENT_TYPE", kForm)
                              .Env("CONTENT_LENGTH", "10")
                              .StandardInput(input)
                              .Run([&](const Told& told) {
                                const itimerval later{{0, 0}, {0, 350'000}};
                                ::setitimer(ITIMER_REAL, &later, nullptr);
                                const itimerval soon{{0, 0}, {0, 100'000}};
                                ::setitimer(ITIMER_PROF, &soon, nullptr);
                                ParseAndTell(folder, told);
                              });
  return outcome.status - 128;
}

TEST(SleepsForEver, WhenTheFirstReadGivesNothing) {
  EXPECT_EQ(SignalThatEnds("", "/tmp"), SIGALRM);
}

TEST(SleepsForEver, WhenABodyThatIsDrainedIsShorterThanDeclared) {
  EXPECT_EQ(SignalThatEnds("12345", "/nowhere"), SIGALRM);
}

}  // namespace

extern "C" int statfs64(const char* file, struct statfs64* buf) {
  if (free_bytes < 0) {
    return static_cast<int>(::syscall(SYS_statfs, file, buf));
  }
  *buf = {};
  buf->f_bsize = 1;
  buf->f_bfree = static_cast<std::uint64_t>(free_bytes);
  return 0;
}

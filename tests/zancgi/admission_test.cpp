// What is settled before the body of a POST is read: its length, the temporary
// directory, and whether there is room.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <tov/err.h>
#include <unistd.h>
#include <zancgi/testing/child.h>
#include <zancgi/testing/identity.h>
#include <zancgi/testing/input.h>
#include <zancgi/testing/scratch.h>
#include <zancgi/zancgi.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <filesystem>
#include <regex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/form.h"
#include "support/mount.h"
#include "support/system_calls.h"

namespace {

using support::kFormEnd;
using support::Post;
using support::Replace;
using zan_cgi::Cgi;
using zan_cgi::testing::Child;
using zan_cgi::testing::Input;
using zan_cgi::testing::LogLine;
using zan_cgi::testing::Outcome;
using zan_cgi::testing::Scratch;
using zan_cgi::testing::Told;
using Strings = std::vector<std::string>;
using Names = std::vector<std::string>;

/// What a child has come to, with no descriptor left open.
Outcome Checked(const Outcome& outcome) {
  EXPECT_EQ(outcome.status, 0) << outcome.standard_error;
  EXPECT_EQ(outcome.leaked_descriptors, Strings{});
  return outcome;
}

/// The text of the refusal; empty when the limit is kept.
std::string Refusal(Cgi& cgi, long limit) {
  try {
    cgi.CheckContentLength(limit);
    return "";
  } catch (const std::runtime_error& error) {
    return error.what();
  }
}

std::string RefusalOf(const std::string& declared, long limit) {
  const Outcome outcome = Checked(Post(declared).Run([&](const Told& told) {
    Cgi cgi("/bin/front", "panel");
    told("refusal", Refusal(cgi, limit));
  }));
  return outcome.told.at("refusal");
}

/// What the declared length is taken for: the smallest limit that is kept.
std::string LengthTaken(const Child& request) {
  const Outcome outcome = Checked(request.Run([](const Told& told) {
    Cgi cgi("/bin/front", "panel");
    long refused = -(1L << 40);
    long kept = 1L << 40;
    EXPECT_NE(Refusal(cgi, refused), "");
    EXPECT_EQ(Refusal(cgi, kept), "");
    while (refused + 1 < kept) {
      const long middle = refused + (kept - refused) / 2;
      (Refusal(cgi, middle).empty() ? kept : refused) = middle;
    }
    told("taken", std::to_string(kept));
  }));
  return outcome.told.at("taken");
}

std::string LengthTaken(const std::string& declared) {
  return LengthTaken(Post(declared));
}

TEST(ContentLength, EqualToTheLimitPasses) {
  EXPECT_EQ(RefusalOf("2048", 2048), "");
  EXPECT_EQ(RefusalOf("0", 0), "");
}

TEST(ContentLength, AboveTheLimitIsRefusedAsARuntimeError) {
  const Outcome outcome = Checked(Post("2049").Run([](const Told&) {
    Cgi("/bin/front", "panel").CheckContentLength(2048);
  }));
  EXPECT_EQ(outcome.error_type, "std::runtime_error");
  EXPECT_EQ(outcome.error, "Post data too large. Max allowed length is 2KB");
}

TEST(ContentLength, IsRefusedWithTheLimitInWholeKilobytes) {
  const std::pair<long, std::string> texts[] = {
      {-1, "0"},
      {0, "0"},
      {1, "0"},
      {1023, "0"},
      {1024, "1"},
      {2047, "1"},
      {-1023, "0"},
      {-1024, "-1"},
      {-2049, "-2"},
      {1L << 20, "1024"},
      {1'500'000, "1464"},
      {2'147'483'646, "2097151"},
      {LONG_MIN, "-9007199254740992"},
  };
  for (const auto& [limit, kilobytes] : texts) {
    EXPECT_EQ(RefusalOf("2147483647", limit),
              "Post data too large. Max allowed length is " + kilobytes + "KB");
  }
}

TEST(ContentLength, OfOtherMethodsIsNotLookedAt) {
  for (const std::string method :
       {"GET", "HEAD", "PUT", "post", "Post", "POST ", " POST", "POSTS", ""}) {
    const Outcome outcome = Checked(
        Post("2147483647").Env("REQUEST_METHOD", method).Run([](const Told&) {
          Cgi("/bin/front", "panel").CheckContentLength(LONG_MIN);
        }));
    EXPECT_EQ(outcome.error, "") << "'" << method << "'";
  }
  EXPECT_EQ(Checked(Child().Env("CONTENT_LENGTH", "9").Run([](const Told&) {
              Cgi("/bin/front", "panel").CheckContentLength(0);
            })).error,
            "");
}

TEST(ContentLength, BeyondThirtyTwoBitsNeverPassesForASmallOne) {
  for (const std::string declared :
       {"2147483648", "4294967295", "4294967296", "4294967297", "6442450944",
        "9223372036854775807", "9223372036854775808", "18446744073709551617",
        "99999999999999999999"}) {
    EXPECT_EQ(RefusalOf(declared, 1L << 20),
              "Post data too large. Max allowed length is 1024KB")
        << declared;
    EXPECT_EQ(LengthTaken(declared), "2147483647") << declared;
  }
}

TEST(ContentLength, IsNotRefusedByALimitThatNoLengthExceeds) {
  EXPECT_EQ(RefusalOf("99999999999999999999", 2'147'483'647), "");
  EXPECT_EQ(RefusalOf("99999999999999999999", LONG_MAX), "");
}

TEST(ContentLength, BelowZeroIsLessThanAnyLimit) {
  EXPECT_EQ(LengthTaken("-1"), "-1");
  EXPECT_EQ(LengthTaken("-70000"), "-70000");
  EXPECT_EQ(LengthTaken("-2147483648"), "-2147483648");
  EXPECT_EQ(LengthTaken("-2147483649"), "-2147483648");
  EXPECT_EQ(LengthTaken("-99999999999999999999"), "-2147483648");
}

TEST(ContentLength, MayHaveASignAndWhiteSpace) {
  EXPECT_EQ(LengthTaken("+5"), "5");
  EXPECT_EQ(LengthTaken(" 5"), "5");
  EXPECT_EQ(LengthTaken("5 "), "5");
  EXPECT_EQ(LengthTaken(" +5\r\n"), "5");
  EXPECT_EQ(LengthTaken("007"), "7");
}

TEST(ContentLength, ThatIsNoNumberIsZero) {
  for (const std::string declared :
       {"", "0x10", "5,5", "5 5", "five", "+", "-", "+-5", "1e6", "5KB"}) {
    EXPECT_EQ(LengthTaken(declared), "0") << declared;
  }
}

TEST(ContentLength, ThatIsMissingIsZero) {
  EXPECT_EQ(LengthTaken(Child().Env("REQUEST_METHOD", "POST")), "0");
}

TEST(ContentLength, IsCheckedWithoutReadingOrLogging) {
  const Input input = Input::Pipe("a=1");
  const Outcome outcome =
      Checked(Post("3", "").StandardInput(input).Run([](const Told& told) {
        Cgi cgi("/bin/front", "panel");
        told("refusal", Refusal(cgi, 2));
        told("a", cgi.Param("a"));
      }));
  EXPECT_NE(outcome.told.at("refusal"), "");
  EXPECT_EQ(outcome.told.at("a"), "1");
  EXPECT_TRUE(outcome.Logged(3).empty());
  EXPECT_TRUE(outcome.Logged(4).empty());
}

/// Checks the directory; tells it as it is afterwards, and its kind.
void CheckAndTell(const std::string& directory, const Told& told) {
  Cgi::Data record;
  record.tmp_dir = directory;
  try {
    record.CheckTmpDir();
  } catch (...) {
    told("tmp_dir", record.tmp_dir);
    throw;
  }
  told("tmp_dir", record.tmp_dir);
  told("made", std::filesystem::is_directory(record.tmp_dir) ? "yes" : "no");
}

Outcome Check(const std::string& directory, Child child = {}) {
  return Checked(child.Run(
      [&directory](const Told& told) { CheckAndTell(directory, told); }));
}

/// It was taken, and is a directory now.
void ExpectTaken(const Outcome& outcome, const std::string& directory) {
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(outcome.told.at("tmp_dir"), directory);
  EXPECT_EQ(outcome.told.at("made"), "yes");
}

void ExpectNoDirectory(const std::string& path) {
  const Outcome outcome = Check(path);
  EXPECT_EQ(outcome.error_type, "std::runtime_error");
  EXPECT_EQ(outcome.error, "temp dir '" + path + "' is not a directory");
  EXPECT_EQ(outcome.told.at("tmp_dir"), path);
}

/// It cannot be made or looked at, but is kept.
void ExpectSystemError(const Outcome& outcome, const std::string& path) {
  EXPECT_EQ(outcome.error_type, "tov_err::Error");
  EXPECT_NE(outcome.error.find(path), std::string::npos) << outcome.error;
  EXPECT_EQ(outcome.told.at("tmp_dir"), path);
}

TEST(TmpDir, ThatIsThereIsTakenAsItIs) {
  const Scratch scratch;
  const std::string folder = scratch.MakeDir("folder");
  ASSERT_EQ(::chmod(folder.c_str(), 0751), 0);
  ExpectTaken(Check(folder), folder);
  struct stat found {};
  ASSERT_EQ(::stat(folder.c_str(), &found), 0);
  EXPECT_EQ(found.st_mode & 07777U, 0751U);
  EXPECT_EQ(scratch.List(), Names{"folder"});
}

TEST(TmpDir, ThatIsMissingIsMade) {
  const Scratch scratch;
  ExpectTaken(Check(scratch / "new"), scratch / "new");
  struct stat found {};
  ASSERT_EQ(::stat((scratch / "new").c_str(), &found), 0);
  EXPECT_EQ(found.st_mode & 07777U, 0700U);
}

TEST(TmpDir, KeepsTheSpellingThatItWasGiven) {
  const Scratch scratch;
  scratch.MakeDir("a");
  for (const std::string name : {"/a/../new", "/./a/", "//a"}) {
    ExpectTaken(Check(scratch.Path() + name), scratch.Path() + name);
  }
}

TEST(TmpDir, MayBeALinkToADirectory) {
  const Scratch scratch;
  std::filesystem::create_directory_symlink(scratch.MakeDir("folder"),
                                            scratch / "link");
  ExpectTaken(Check(scratch / "link"), scratch / "link");
}

TEST(TmpDir, MustBeADirectory) {
  const Scratch scratch;
  ExpectNoDirectory(scratch.MakeFile("file"));
  std::filesystem::create_symlink(scratch / "file", scratch / "link");
  ExpectNoDirectory(scratch / "link");
  ASSERT_EQ(::mkfifo((scratch / "fifo").c_str(), 0600), 0);
  ExpectNoDirectory(scratch / "fifo");
  ExpectNoDirectory("/dev/null");
}

TEST(TmpDir, IsNamedAsItIsHoweverOdd) {
  const Scratch scratch;
  ExpectNoDirectory(scratch.MakeFile("%s 'x'\n"));
}

TEST(TmpDir, WithTooLongANameIsAnError) {
  const Scratch scratch;
  const std::string path = scratch / std::string(300, 'x');
  ExpectSystemError(Check(path), path);
}

TEST(TmpDir, IsNotMadeWithItsParents) {
  const Scratch scratch;
  ExpectSystemError(Check(scratch / "no/parent"), scratch / "no/parent");
  EXPECT_EQ(scratch.List(), Names{});
}

TEST(TmpDir, IsNotMadeBehindADanglingLink) {
  const Scratch scratch;
  std::filesystem::create_symlink(scratch / "nowhere", scratch / "link");
  ExpectSystemError(Check(scratch / "link"), scratch / "link");
  EXPECT_EQ(scratch.List(), Names{"link"});
}

TEST(TmpDir, IsNotMadeBelowAFile) {
  const Scratch scratch;
  const std::string path = scratch.MakeFile("file") + "/new";
  ExpectSystemError(Check(path), path);
}

TEST(TmpDir, BehindALoopOfLinksIsAnError) {
  const Scratch scratch;
  std::filesystem::create_symlink(scratch / "loop", scratch / "loop");
  ExpectSystemError(Check(scratch / "loop"), scratch / "loop");
}

/// Checks the directory as an ordinary user.
Outcome CheckAsOrdinaryUser(const std::string& directory) {
  return Checked(Child().Run([&directory](const Told& told) {
    zan_cgi::testing::BecomeOrdinaryUser();
    CheckAndTell(directory, told);
  }));
}

TEST(TmpDir, ThatMayNotBeMadeIsAnError) {
  const Scratch scratch;
  ASSERT_EQ(::chmod(scratch.Path().c_str(), 0555), 0);
  ExpectSystemError(CheckAsOrdinaryUser(scratch / "new"), scratch / "new");
  EXPECT_EQ(scratch.List(), Names{});
}

TEST(TmpDir, ThatMayNotBeLookedAtIsAnError) {
  const Scratch scratch;
  ASSERT_EQ(::chmod(scratch.Path().c_str(), 0755), 0);
  const std::string closed = scratch.MakeDir("closed");
  ASSERT_EQ(::chmod(closed.c_str(), 0), 0);
  ExpectSystemError(CheckAsOrdinaryUser(closed + "/new"), closed + "/new");
  ASSERT_EQ(::chmod(closed.c_str(), 0700), 0);
}

TEST(TmpDir, ThatIsEmptyIsTheEnvironments) {
  const Scratch scratch;
  const std::string folder = scratch / "new";
  ExpectTaken(Check("", Child().Env("TMP", folder)), folder);
}

TEST(TmpDir, OfTheEnvironmentMustBeADirectoryToo) {
  const Scratch scratch;
  const std::string file = scratch.MakeFile("file");
  const Outcome outcome = Check("", Child().Env("TMP", file));
  EXPECT_EQ(outcome.error, "temp dir '" + file + "' is not a directory");
  EXPECT_EQ(outcome.told.at("tmp_dir"), file);
}

TEST(TmpDir, OfTheEnvironmentIsUnusedWhenThereIsOne) {
  const Scratch scratch;
  const Outcome outcome =
      Check(scratch.Path(), Child().Env("TMP", scratch / "other"));
  ExpectTaken(outcome, scratch.Path());
  EXPECT_EQ(scratch.List(), Names{});
}

TEST(TmpDir, IsTmpBelowTheCurrentDirectoryFailingAll) {
  for (Child child : {Child(), Child().Env("TMP", "")}) {
    const Scratch scratch;
    ExpectTaken(Check("", child.WorkDir(scratch.Path())), "tmp");
    EXPECT_EQ(scratch.List(), Names{"tmp"});
  }
}

TEST(TmpDir, OfTheEnvironmentMayBeRelative) {
  const Scratch scratch;
  scratch.MakeDir("work");
  Child child;
  child.WorkDir(scratch / "work").Env("TMP", "../spool");
  ExpectTaken(Check("", child), "../spool");
  EXPECT_EQ(scratch.List(), (Names{"spool", "work"}));
}

TEST(TmpDir, BelowACurrentDirectoryThatIsGoneIsAnError) {
  const Scratch scratch;
  const std::string work = scratch.MakeDir("work");
  const Outcome outcome =
      Checked(Child().WorkDir(work).Run([&work](const Told& told) {
        std::filesystem::remove(work);
        CheckAndTell("", told);
      }));
  ExpectSystemError(outcome, "tmp");
}

TEST(TmpDir, BelowACurrentDirectoryThatMayNotBeEnteredIsAnError) {
  const Scratch scratch;
  ASSERT_EQ(::chmod(scratch.Path().c_str(), 0755), 0);
  const std::string work = scratch.MakeDir("work");
  const Outcome outcome =
      Checked(Child().WorkDir(work).Run([&work](const Told& told) {
        ASSERT_EQ(::chmod(work.c_str(), 0), 0);
        zan_cgi::testing::BecomeOrdinaryUser();
        CheckAndTell("", told);
      }));
  ExpectSystemError(outcome, "tmp");
}

TEST(TmpDir, IsCheckedInSilence) {
  const Scratch scratch;
  const Outcome outcome = Check("", Child().WorkDir(scratch.Path()));
  EXPECT_EQ(
      outcome.log,
      (std::vector<LogLine>{{8, "void zan_cgi::Cgi::Data::ParseCookies()"}}));
}

/// A front end in `scratch`, whose current directory that is.
Cgi MakeCgi(const Scratch& scratch) { return {scratch / "cgi/front", "panel"}; }

const std::string kUpload = support::Upload("u", "f", "content") + kFormEnd;

/// A process that serves a POST of this body.
Child PostOf(const std::string& body, const Input& input) {
  Child child = Post(std::to_string(body.size()));
  child.StandardInput(input);
  return child;
}

TEST(SetTmpDir, MakesTheDirectoryThatUploadsGoTo) {
  const Scratch scratch;
  const Input input = Input::Pipe(kUpload);
  const Outcome outcome =
      Checked(PostOf(kUpload, input).Run([&scratch](const Told& told) {
        Cgi cgi = MakeCgi(scratch);
        cgi.SetTmpDir(scratch / "spool");
        cgi.ParseQuery();
        told("path", cgi.File("f"));
        told("content", zan_cgi::testing::ReadFile(cgi.File("f")));
      }));
  EXPECT_TRUE(outcome.told.at("path").starts_with(scratch / "spool/zantemp"));
  EXPECT_EQ(outcome.told.at("content"), "content");
  EXPECT_TRUE(std::filesystem::is_empty(scratch / "spool"));
}

TEST(SetTmpDir, ReplacesAnEarlierOne) {
  const Scratch scratch;
  const Input input = Input::Pipe(kUpload);
  const Outcome outcome =
      Checked(PostOf(kUpload, input).Run([&scratch](const Told& told) {
        Cgi cgi = MakeCgi(scratch);
        cgi.SetTmpDir(scratch / "first");
        cgi.SetTmpDir(scratch / "second");
        cgi.ParseQuery();
        told("path", cgi.File("f"));
      }));
  EXPECT_TRUE(outcome.told.at("path").starts_with(scratch / "second/zantemp"));
}

TEST(SetTmpDir, WithAnEmptyNameMakesTmpBelowTheProgramsFolder) {
  const Scratch scratch;
  scratch.MakeDir("cgi");
  const Input input = Input::Pipe(kUpload);
  const Outcome outcome =
      Checked(PostOf(kUpload, input).Run([&scratch](const Told& told) {
        Cgi cgi = MakeCgi(scratch);
        cgi.SetTmpDir("");
        cgi.ParseQuery();
        told("path", cgi.File("f"));
        told("content", zan_cgi::testing::ReadFile(cgi.File("f")));
      }));
  EXPECT_TRUE(outcome.told.at("path").starts_with("tmp/zantemp"));
  EXPECT_EQ(outcome.told.at("content"), "content");
  EXPECT_EQ(scratch.List(), (Names{"cgi", "tmp"}));
}

TEST(SetTmpDir, IsNotWhatAParseWithoutItUses) {
  const Scratch scratch;
  scratch.MakeDir("cgi");
  const Input input = Input::Pipe(kUpload);
  const Outcome outcome =
      Checked(PostOf(kUpload, input).Run([&scratch](const Told& told) {
        Cgi cgi = MakeCgi(scratch);
        cgi.ParseQuery();
        told("path", cgi.File("f"));
      }));
  EXPECT_TRUE(outcome.told.at("path").starts_with("/tmp/zantemp"));
  EXPECT_EQ(scratch.List(), Names{"cgi"});
}

TEST(SetTmpDir, KeepsTheNameWhenTheDirectoryCannotBeMade) {
  const Scratch scratch;
  const Input input = Input::Pipe(kUpload);
  const Outcome outcome =
      Checked(PostOf(kUpload, input).Run([&scratch](const Told& told) {
        Cgi cgi = MakeCgi(scratch);
        EXPECT_THROW(cgi.SetTmpDir(scratch / "no/parent"), tov_err::Error);
        std::filesystem::create_directories(scratch / "no/parent");
        cgi.ParseQuery();
        told("path", cgi.File("f"));
      }));
  EXPECT_EQ(outcome.error, "");
  EXPECT_TRUE(
      outcome.told.at("path").starts_with(scratch / "no/parent/zantemp"));
}

TEST(SetTmpDir, KeepsTheNameOfWhatIsNoDirectory) {
  const Scratch scratch;
  const std::string file = scratch.MakeFile("file");
  const Input input = Input::Pipe(kUpload);
  const Outcome outcome = Checked(PostOf(kUpload, input).Run([&](const Told&) {
    Cgi cgi = MakeCgi(scratch);
    EXPECT_THROW(cgi.SetTmpDir(file), std::runtime_error);
    cgi.ParseQuery();
  }));
  EXPECT_EQ(outcome.error, "error writing temporary file");
  EXPECT_EQ(scratch.List(), Names{"file"});
}

/// An answer to statfs64 of these numbers; all others differ from them.
auto Having(std::int64_t block_size, std::uint64_t blocks) {
  return [block_size, blocks](const char*, struct statfs64* found) {
    *found = {};
    found->f_bsize = block_size;
    found->f_frsize = 7;
    found->f_blocks = 11;
    found->f_bfree = blocks;
    found->f_bavail = 13;
    return 0;
  };
}

std::string FreeSpace(std::int64_t block_size, std::uint64_t blocks) {
  const Outcome outcome = Checked(Child().Run([&](const Told& told) {
    Replace({.statfs = Having(block_size, blocks)});
    told("free", std::to_string(Cgi::Data().FreeSpaceSize("/any")));
  }));
  return outcome.told.at("free");
}

TEST(FreeSpace, IsThatOfAllFreeBlocks) {
  EXPECT_EQ(FreeSpace(4096, 100), "409600");
  EXPECT_EQ(FreeSpace(512, 3), "1536");
  EXPECT_EQ(FreeSpace(4096, 0), "0");
}

TEST(FreeSpace, HasSixtyFourBitsWithoutASign) {
  EXPECT_EQ(FreeSpace(4096, 1'048'577), "4294971392");
  EXPECT_EQ(FreeSpace(1L << 20, 1UL << 43), "9223372036854775808");
  EXPECT_EQ(FreeSpace(1, UINT64_MAX), "18446744073709551615");
}

TEST(FreeSpace, IsAskedOnceOfThePathAsItIs) {
  const Outcome outcome = Checked(Child().Run([](const Told& told) {
    std::string asked;
    Replace({.statfs = [&](const char* path, struct statfs64* found) {
      asked += path;
      return Having(1, 1)(path, found);
    }});
    Cgi::Data().FreeSpaceSize("a/../b//");
    told("asked", asked);
  }));
  EXPECT_EQ(outcome.told.at("asked"), "a/../b//");
}

TEST(FreeSpace, ThatCannotBeFoundOutIsAnError) {
  for (const std::string path : {"/nowhere/at/all", "", "relative"}) {
    const Outcome outcome = Checked(
        Child().Run([&](const Told&) { Cgi::Data().FreeSpaceSize(path); }));
    EXPECT_EQ(outcome.error_type, "std::runtime_error");
    EXPECT_EQ(outcome.error, "Cannot run statfs on " + path);
  }
}

TEST(FreeSpace, IsAskedOnceOnlyWhenThatFails) {
  for (const int error : {EIO, EINTR, EOVERFLOW}) {
    const Outcome outcome = Checked(Child().Run([error](const Told& told) {
      int calls = 0;
      Replace({.statfs = [&](const char*, struct statfs64*) {
        ++calls;
        errno = error;
        return -1;
      }});
      EXPECT_THROW(Cgi::Data().FreeSpaceSize("/any"), std::runtime_error);
      told("calls", std::to_string(calls));
    }));
    EXPECT_EQ(outcome.told.at("calls"), "1");
  }
}

TEST(FreeSpace, OfARealFileSystemIsFound) {
  // Nothing can be stored there.
  const Outcome outcome = Checked(Child().Run([](const Told& told) {
    told("free", std::to_string(Cgi::Data().FreeSpaceSize("/proc")));
  }));
  EXPECT_EQ(outcome.told.at("free"), "0");
}

TEST(FreeSpace, OfAFileSystemInMemoryIsItsSize) {
  if (!zan_cgi::testing::IsRoot()) GTEST_SKIP() << "needs root";
  const Scratch scratch;
  const Outcome outcome = Checked(Child().Run([&scratch](const Told& told) {
    support::MountPrivately(scratch.Path(), "size=1m");
    Cgi::Data record;
    told("empty", std::to_string(record.FreeSpaceSize(scratch.Path())));
    scratch.MakeFile("file", std::string(4096, 'x'));
    told("used", std::to_string(record.FreeSpaceSize(scratch / "file")));
  }));
  ASSERT_EQ(outcome.error, "");
  EXPECT_EQ(outcome.told.at("empty"), "1048576");
  EXPECT_EQ(outcome.told.at("used"), "1044480");
}

/// The lines of a parse, without place numbers.
Strings Lines(const Outcome& outcome) {
  const std::regex place("^zancgi\\.cpp:[0-9]+ ");
  Strings lines;
  for (const LogLine& line : outcome.log) {
    lines.push_back(std::to_string(line.level) + " " +
                    std::regex_replace(line.text, place, "zancgi.cpp:# "));
  }
  return lines;
}

/// The lines that a parse logs about room, when a body of this declared length
/// has ended before its first byte.
Strings RoomLines(const std::string& declared, std::uint64_t free_space,
                  int level = 9) {
  const Input input = Input::Pipe("");
  const Outcome outcome = Checked(
      Post(declared).LogLevel(level).StandardInput(input).Run([&](const Told&) {
        Replace({.statfs = Having(1, free_space)});
        Cgi::Data record;
        record.tmp_dir = "/any";
        record.ParseInput();
      }));
  EXPECT_EQ(outcome.error, "Error reading STDIN");
  Strings found;
  for (const std::string& line : Lines(outcome)) {
    if (line.find("space") != std::string::npos) found.push_back(line);
  }
  return found;
}

std::string SizeLine(const std::string& declared, const std::string& free) {
  return "9 zancgi.cpp:# query size '" + declared +
         "', free space in tmpdir '" + free + "'";
}

const std::string kNoRoom =
    "4 There is not enoght free space on '/any' to process a query";

TEST(Room, IsEnoughWhenItEqualsTheDeclaredLength) {
  EXPECT_EQ(RoomLines("1000", 1000), Strings{SizeLine("1000", "1000")});
}

TEST(Room, OfOneByteLessIsTooLittle) {
  EXPECT_EQ(RoomLines("1000", 999),
            (Strings{SizeLine("1000", "999"), kNoRoom}));
}

TEST(Room, IsComparedInSixtyFourBitsWithoutASign) {
  const std::string most = "18446744073709551615";
  EXPECT_EQ(RoomLines("5000000000", 6'000'000'000),
            Strings{SizeLine("5000000000", "6000000000")});
  EXPECT_EQ(RoomLines("4294967297", 2),
            (Strings{SizeLine("4294967297", "2"), kNoRoom}));
  EXPECT_EQ(RoomLines("99999999999999999999", UINT64_MAX),
            Strings{SizeLine("9223372036854775807", most)});
}

TEST(Room, ForANegativeLengthIsTooLittle) {
  const Input input = Input::Pipe("a=1");
  const Outcome outcome =
      Checked(Post("-1").StandardInput(input).Run([](const Told&) {
        Replace({.statfs = Having(1, UINT64_MAX - 1)});
        Cgi::Data record;
        record.tmp_dir = "/any";
        record.ParseInput();
      }));
  EXPECT_EQ(outcome.error, "Error reading STDIN");
  EXPECT_EQ(outcome.Logged(4), Strings{kNoRoom.substr(2)});
}

TEST(Room, IsLoggedAtItsLevelsOnly) {
  EXPECT_EQ(RoomLines("2", 1, 8), Strings{kNoRoom});
  EXPECT_EQ(RoomLines("2", 1, 4), Strings{kNoRoom});
  EXPECT_EQ(RoomLines("2", 1, 3), Strings{});
}

TEST(Room, ThatIsTooLittleCountsWithoutTheLogToo) {
  const Scratch scratch;
  const Input input = Input::Pipe(kUpload);
  const Outcome outcome =
      Checked(PostOf(kUpload, input).LogLevel(0).Run([&](const Told&) {
        Replace({.statfs = Having(1, kUpload.size() - 1)});
        Cgi::Data record;
        record.tmp_dir = scratch.Path();
        try {
          record.ParseInput();
        } catch (const std::runtime_error&) {
          EXPECT_TRUE(record.parsed);
          EXPECT_TRUE(record.files.empty());
          EXPECT_EQ(scratch.List(), Names{});
          throw;
        }
      }));
  EXPECT_EQ(outcome.error, "error writing temporary file");
}

TEST(Room, IsLookedForBeforeAnyByteIsRead) {
  const Input input = Input::Pipe("a=1");
  const Outcome outcome =
      Checked(Post("3").StandardInput(input).Run([](const Told&) {
        Replace({.read =
                     [](void* buffer, std::size_t size) {
                       zan_cgi::testing::Mark("read");
                       return support::RealRead(STDIN_FILENO, buffer, size);
                     },
                 .statfs =
                     [](const char* path, struct statfs64* found) {
                       zan_cgi::testing::Mark(std::string("statfs ") + path);
                       return Having(1, 2)(path, found);
                     }});
        Cgi::Data record;
        record.ParseInput();
      }));
  EXPECT_EQ(
      Lines(outcome),
      (Strings{"8 void zan_cgi::Cgi::Data::ParseCookies()",
               "8 void zan_cgi::Cgi::Data::ParseInput()",
               "9 zancgi.cpp:# POST boundary detected: true",
               "9 zancgi.cpp:# temp dir is empty, new temp dir '/tmp'",
               "-1 statfs /tmp", SizeLine("3", "2"),
               "4 There is not enoght free space on '/tmp' to process a query",
               "-1 read", "9 zancgi.cpp:# appending 3 chars to buff",
               "9 zancgi.cpp:# no boundaries in POST data, assuming GET format",
               "9 zancgi.cpp:# End of stdin parsing, stdin state EOF false, "
               "GOOD true, read 3 of 3 chars"}));
}

/// Parses an ordinary field with this for TMP, and tells the directory.
Outcome ParseWithTmp(const std::string& tmp, Child child = {}) {
  const Input input = Input::Pipe("a=1");
  return Checked(child.Env("CONTENT_LENGTH", "3")
                     .Env("TMP", tmp)
                     .StandardInput(input)
                     .Run([](const Told& told) {
                       Cgi::Data record;
                       try {
                         record.ParseInput();
                       } catch (const std::runtime_error&) {
                         told("tmp_dir", record.tmp_dir);
                         throw;
                       }
                       told("tmp_dir", record.tmp_dir);
                       told("a", record.params.at("a"));
                     }));
}

TEST(ParsersTmpDir, IsNeitherMadeNorAskedWhatItIs) {
  const Scratch scratch;
  const std::string file = scratch.MakeFile("file");
  EXPECT_EQ(ParseWithTmp(file).told.at("a"), "1");
  const Outcome missing = ParseWithTmp(scratch / "missing");
  EXPECT_EQ(missing.error_type, "std::runtime_error");
  EXPECT_EQ(missing.error, "Cannot run statfs on " + scratch / "missing");
  EXPECT_EQ(missing.told.at("tmp_dir"), scratch / "missing");
  EXPECT_EQ(scratch.List(), Names{"file"});
}

TEST(ParsersTmpDir, MayBeRelative) {
  const Scratch scratch;
  scratch.MakeDir("spool");
  Child child;
  child.WorkDir(scratch / "spool");
  EXPECT_EQ(ParseWithTmp("../spool", child).told.at("tmp_dir"), "../spool");
}

TEST(ParsersTmpDir, BelowACurrentDirectoryThatMayNotBeEnteredIsAnError) {
  const Scratch scratch;
  ASSERT_EQ(::chmod(scratch.Path().c_str(), 0755), 0);
  const std::string work = scratch.MakeDir("work");
  const Input input = Input::Pipe("a=1");
  const Outcome outcome = Checked(Post("3")
                                      .Env("TMP", "spool")
                                      .WorkDir(work)
                                      .StandardInput(input)
                                      .Run([&work](const Told&) {
                                        ASSERT_EQ(::chmod(work.c_str(), 0), 0);
                                        zan_cgi::testing::BecomeOrdinaryUser();
                                        Cgi::Data record;
                                        record.ParseInput();
                                      }));
  EXPECT_EQ(outcome.error, "Cannot run statfs on spool");
}

TEST(ParsersTmpDir, IsLoggedFromLevelNineOnly) {
  const std::string line = "9 zancgi.cpp:# temp dir is empty, new temp dir ";
  EXPECT_EQ(Lines(ParseWithTmp("/")).at(3), line + "'/'");
  const Outcome quiet = ParseWithTmp("/", Child().LogLevel(8));
  EXPECT_EQ(quiet.told.at("tmp_dir"), "/");
  EXPECT_TRUE(quiet.Logged(9).empty());
}

TEST(ParsersTmpDir, ThatIsSetIsNotLogged) {
  const Input input = Input::Pipe("a=1");
  const Outcome outcome =
      Checked(Post("3").StandardInput(input).Run([](const Told&) {
        Cgi::Data record;
        record.tmp_dir = "/";
        record.ParseInput();
      }));
  for (const std::string& line : Lines(outcome)) {
    EXPECT_EQ(line.find("temp dir is empty"), std::string::npos);
  }
}

}  // namespace

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
#include <functional>
#include <regex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/clean_run.h"
#include "support/form.h"
#include "support/mount.h"
#include "support/system_calls.h"

namespace {

using support::kFormEnd;
using support::Post;
using support::PostOf;
using support::Replace;
using support::RunCleanly;
using support::RunWithoutLeak;
using zan_cgi::Cgi;
using zan_cgi::testing::Child;
using zan_cgi::testing::Input;
using zan_cgi::testing::LogLine;
using zan_cgi::testing::Outcome;
using zan_cgi::testing::Reporter;
using zan_cgi::testing::Scratch;
using Strings = std::vector<std::string>;

/// Does the work as the server of a POST.
Outcome Serve(const std::function<void()>& work, Child child = Post("")) {
  return RunCleanly(child, [&](const Reporter&) { work(); });
}

/// The text of the refusal of a declared length; empty when the limit is kept.
std::string RefusalOf(const std::string& declared, long limit) {
  ::setenv("CONTENT_LENGTH", declared.c_str(), 1);
  try {
    Cgi("/bin/front", "panel").CheckContentLength(limit);
    return "";
  } catch (const std::runtime_error& error) {
    return error.what();
  }
}

/// What a declared length is taken for: the smallest limit that is kept.
std::string LengthTaken(const std::string& declared) {
  long refused = -(1L << 40);
  long kept = 1L << 40;
  EXPECT_NE(RefusalOf(declared, refused), "");
  EXPECT_EQ(RefusalOf(declared, kept), "");
  while (refused + 1 < kept) {
    const long middle = refused + (kept - refused) / 2;
    (RefusalOf(declared, middle).empty() ? kept : refused) = middle;
  }
  return std::to_string(kept);
}

TEST(ContentLength, AboveTheLimitIsRefusedAsARuntimeError) {
  const Outcome outcome = RunWithoutLeak(Post("2049"), [](const Reporter&) {
    Cgi("/bin/front", "panel").CheckContentLength(2048);
  });
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
  Serve([&] {
    for (const auto& [limit, kilobytes] : texts) {
      EXPECT_EQ(
          RefusalOf("2147483647", limit),
          "Post data too large. Max allowed length is " + kilobytes + "KB");
    }
  });
}

TEST(ContentLength, OfOtherMethodsIsNotLookedAt) {
  Serve([] {
    for (const std::string method : {"GET", "HEAD", "PUT", "post", "Post",
                                     "POST ", " POST", "POSTS", ""}) {
      ::setenv("REQUEST_METHOD", method.c_str(), 1);
      EXPECT_EQ(RefusalOf("2147483647", LONG_MIN), "") << "'" << method << "'";
    }
    ::unsetenv("REQUEST_METHOD");
    EXPECT_EQ(RefusalOf("9", 0), "");
  });
}

TEST(ContentLength, IsTakenForANumberOfThirtyTwoBits) {
  const std::pair<std::string, std::string> lengths[] = {
      {"0", "0"},
      {"2048", "2048"},
      // What is larger never passes for a small one.
      {"2147483648", "2147483647"},
      {"4294967295", "2147483647"},
      {"4294967296", "2147483647"},
      {"4294967297", "2147483647"},
      {"6442450944", "2147483647"},
      {"9223372036854775807", "2147483647"},
      {"9223372036854775808", "2147483647"},
      {"18446744073709551617", "2147483647"},
      {"99999999999999999999", "2147483647"},
      {"-1", "-1"},
      {"-70000", "-70000"},
      {"-2147483648", "-2147483648"},
      {"-2147483649", "-2147483648"},
      {"-99999999999999999999", "-2147483648"},
      // A sign and white space.
      {"+5", "5"},
      {" 5", "5"},
      {"5 ", "5"},
      {" +5\r\n", "5"},
      {"007", "7"},
      // No numbers.
      {"", "0"},
      {"0x10", "0"},
      {"5,5", "0"},
      {"5 5", "0"},
      {"five", "0"},
      {"+", "0"},
      {"-", "0"},
      {"+-5", "0"},
      {"1e6", "0"},
      {"5KB", "0"},
  };
  Serve([&] {
    for (const auto& [declared, taken] : lengths) {
      EXPECT_EQ(LengthTaken(declared), taken) << declared;
    }
    EXPECT_EQ(RefusalOf("99999999999999999999", LONG_MAX), "");
  });
}

TEST(ContentLength, ThatIsMissingIsZero) {
  Serve([] {
    ::unsetenv("CONTENT_LENGTH");
    Cgi cgi("/bin/front", "panel");
    EXPECT_NO_THROW(cgi.CheckContentLength(0));
    EXPECT_THROW(cgi.CheckContentLength(-1), std::runtime_error);
  });
}

TEST(ContentLength, IsCheckedWithoutReadingOrLogging) {
  const Input input = Input::Pipe("a=1");
  const Outcome outcome = Serve(
      [] {
        Cgi cgi("/bin/front", "panel");
        EXPECT_THROW(cgi.CheckContentLength(2), std::runtime_error);
        EXPECT_EQ(cgi.Param("a"), "1");
      },
      Post("3", "").StandardInput(input));
  EXPECT_TRUE(outcome.Logged(3).empty());
  EXPECT_TRUE(outcome.Logged(4).empty());
}

/// Checks the directory; tells it as it is afterwards, and its kind.
void CheckAndTell(const std::string& directory, const Reporter& report) {
  Cgi::Data record;
  record.tmp_dir = directory;
  try {
    record.CheckTmpDir();
  } catch (...) {
    report("tmp_dir", record.tmp_dir);
    throw;
  }
  report("tmp_dir", record.tmp_dir);
  report("made", std::filesystem::is_directory(record.tmp_dir) ? "yes" : "no");
}

Outcome Check(const std::string& directory, Child child = {}) {
  return RunWithoutLeak(child, [&directory](const Reporter& report) {
    CheckAndTell(directory, report);
  });
}

/// It was taken, and is a directory now.
void ExpectTaken(const Outcome& outcome, const std::string& directory) {
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(outcome.reported.at("tmp_dir"), directory);
  EXPECT_EQ(outcome.reported.at("made"), "yes");
}

void ExpectNoDirectory(const std::string& path) {
  const Outcome outcome = Check(path);
  EXPECT_EQ(outcome.error_type, "std::runtime_error");
  EXPECT_EQ(outcome.error, "temp dir '" + path + "' is not a directory");
  EXPECT_EQ(outcome.reported.at("tmp_dir"), path);
}

/// It cannot be made or looked at, but is kept.
void ExpectSystemError(const Outcome& outcome, const std::string& path) {
  EXPECT_EQ(outcome.error_type, "tov_err::Error");
  EXPECT_NE(outcome.error.find(path), std::string::npos) << outcome.error;
  EXPECT_EQ(outcome.reported.at("tmp_dir"), path);
}

TEST(TmpDir, ThatIsThereIsTakenAsItIs) {
  const Scratch scratch;
  const std::string folder = scratch.MakeDir("folder");
  ASSERT_EQ(::chmod(folder.c_str(), 0751), 0);
  ExpectTaken(Check(folder), folder);
  struct stat found {};
  ASSERT_EQ(::stat(folder.c_str(), &found), 0);
  EXPECT_EQ(found.st_mode & 07777U, 0751U);
  EXPECT_EQ(scratch.List(), Strings{"folder"});
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
  std::filesystem::create_directory_symlink(scratch.MakeDir("a"),
                                            scratch / "link");
  for (const std::string name : {"/a/../new", "/./a/", "//a", "/link"}) {
    ExpectTaken(Check(scratch.Path() + name), scratch.Path() + name);
  }
}

TEST(TmpDir, MustBeADirectory) {
  const Scratch scratch;
  ExpectNoDirectory(scratch.MakeFile("file"));
  ExpectNoDirectory(scratch.MakeFile("%s 'x'\n"));
  std::filesystem::create_symlink(scratch / "file", scratch / "link");
  ExpectNoDirectory(scratch / "link");
  ASSERT_EQ(::mkfifo((scratch / "fifo").c_str(), 0600), 0);
  ExpectNoDirectory(scratch / "fifo");
  ExpectNoDirectory("/dev/null");
}

TEST(TmpDir, ThatCannotBeMadeIsAnError) {
  const Scratch scratch;
  scratch.MakeFile("file");
  std::filesystem::create_symlink(scratch / "nowhere", scratch / "dangling");
  std::filesystem::create_symlink(scratch / "loop", scratch / "loop");
  for (const std::string& name :
       {std::string(300, 'x'), std::string("no/parent"),
        std::string("dangling"), std::string("file/new"),
        std::string("loop")}) {
    ExpectSystemError(Check(scratch / name), scratch / name);
  }
  EXPECT_EQ(scratch.List(), (Strings{"dangling", "file", "loop"}));
}

/// Checks the directory as an ordinary user.
Outcome CheckAsOrdinaryUser(const std::string& directory) {
  return RunWithoutLeak(Child(), [&directory](const Reporter& report) {
    zan_cgi::testing::BecomeOrdinaryUser();
    CheckAndTell(directory, report);
  });
}

TEST(TmpDir, ThatMayNotBeMadeIsAnError) {
  const Scratch scratch;
  ASSERT_EQ(::chmod(scratch.Path().c_str(), 0555), 0);
  ExpectSystemError(CheckAsOrdinaryUser(scratch / "new"), scratch / "new");
  EXPECT_EQ(scratch.List(), Strings{});
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
  EXPECT_EQ(outcome.reported.at("tmp_dir"), file);
}

TEST(TmpDir, OfTheEnvironmentIsUnusedWhenThereIsOne) {
  const Scratch scratch;
  const Outcome outcome =
      Check(scratch.Path(), Child().Env("TMP", scratch / "other"));
  ExpectTaken(outcome, scratch.Path());
  EXPECT_EQ(scratch.List(), Strings{});
}

TEST(TmpDir, IsTmpBelowTheCurrentDirectoryFailingAll) {
  for (Child child : {Child(), Child().Env("TMP", "")}) {
    const Scratch scratch;
    ExpectTaken(Check("", child.WorkDir(scratch.Path())), "tmp");
    EXPECT_EQ(scratch.List(), Strings{"tmp"});
  }
}

TEST(TmpDir, OfTheEnvironmentMayBeRelative) {
  const Scratch scratch;
  scratch.MakeDir("work");
  Child child;
  child.WorkDir(scratch / "work").Env("TMP", "../spool");
  ExpectTaken(Check("", child), "../spool");
  EXPECT_EQ(scratch.List(), (Strings{"spool", "work"}));
}

TEST(TmpDir, BelowACurrentDirectoryThatCannotBeEnteredIsAnError) {
  const Scratch scratch;
  ASSERT_EQ(::chmod(scratch.Path().c_str(), 0755), 0);
  for (const bool is_gone : {false, true}) {
    const std::string work = scratch.MakeDir("work");
    const Outcome outcome =
        RunWithoutLeak(Child().WorkDir(work), [&](const Reporter& report) {
          if (is_gone) std::filesystem::remove(work);
          ::chmod(work.c_str(), 0);
          zan_cgi::testing::BecomeOrdinaryUser();
          CheckAndTell("", report);
        });
    ExpectSystemError(outcome, "tmp");
    ::chmod(work.c_str(), 0700);
  }
}

TEST(TmpDir, IsCheckedInSilence) {
  const Scratch scratch;
  const Outcome outcome = Check("", Child().WorkDir(scratch.Path()));
  EXPECT_EQ(
      outcome.log,
      (std::vector<LogLine>{{8, "void zan_cgi::Cgi::Data::ParseCookies()"}}));
}

const std::string kUpload = support::Upload("u", "f", "content") + kFormEnd;

/// Serves an upload for which a front end in `scratch` chooses directories.
/// Returns where it went.
std::string UploadAfter(const Scratch& scratch,
                        const std::function<void(Cgi& cgi)>& choose) {
  const Input input = Input::Pipe(kUpload);
  const Outcome outcome = RunCleanly(
      PostOf(kUpload).StandardInput(input), [&](const Reporter& report) {
        Cgi cgi(scratch / "cgi/front", "panel");
        choose(cgi);
        cgi.ParseQuery();
        report("path", cgi.File("f"));
        EXPECT_EQ(zan_cgi::testing::ReadFile(cgi.File("f")), "content");
      });
  const std::string path = outcome.reported.at("path");
  EXPECT_TRUE(path.find("/zantemp") != std::string::npos) << path;
  return path.substr(0, path.find("/zantemp"));
}

TEST(SetTmpDir, MakesTheDirectoryThatUploadsGoTo) {
  const Scratch scratch;
  EXPECT_EQ(UploadAfter(scratch,
                        [&](Cgi& cgi) {
                          cgi.SetTmpDir(scratch / "first");
                          cgi.SetTmpDir(scratch / "second");
                        }),
            scratch / "second");
  EXPECT_TRUE(std::filesystem::is_empty(scratch / "second"));
}

TEST(SetTmpDir, WithAnEmptyNameMakesTmpBelowTheProgramsFolder) {
  const Scratch scratch;
  scratch.MakeDir("cgi");
  EXPECT_EQ(UploadAfter(scratch, [](Cgi& cgi) { cgi.SetTmpDir(""); }), "tmp");
  EXPECT_EQ(scratch.List(), (Strings{"cgi", "tmp"}));
}

TEST(SetTmpDir, IsNotWhatAParseWithoutItUses) {
  const Scratch scratch;
  scratch.MakeDir("cgi");
  EXPECT_EQ(UploadAfter(scratch, [](Cgi&) {}), "/tmp");
  EXPECT_EQ(scratch.List(), Strings{"cgi"});
}

TEST(SetTmpDir, KeepsTheNameWhenTheDirectoryCannotBeMade) {
  const Scratch scratch;
  const std::string path = scratch / "no/parent";
  EXPECT_EQ(UploadAfter(scratch,
                        [&](Cgi& cgi) {
                          EXPECT_THROW(cgi.SetTmpDir(path), tov_err::Error);
                          std::filesystem::create_directories(path);
                        }),
            path);
}

TEST(SetTmpDir, KeepsTheNameOfWhatIsNoDirectory) {
  const Scratch scratch;
  const std::string file = scratch.MakeFile("file");
  const Input input = Input::Pipe(kUpload);
  const Outcome outcome = RunWithoutLeak(
      PostOf(kUpload).StandardInput(input), [&](const Reporter&) {
        Cgi cgi(scratch / "cgi/front", "panel");
        EXPECT_THROW(cgi.SetTmpDir(file), std::runtime_error);
        cgi.ParseQuery();
      });
  EXPECT_EQ(outcome.error, "error writing temporary file");
  EXPECT_EQ(scratch.List(), Strings{"file"});
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

TEST(FreeSpace, IsThatOfAllFreeBlocksInSixtyFourBitsWithoutASign) {
  struct Row {
    std::int64_t block_size;
    std::uint64_t blocks;
    std::uint64_t bytes;
  };
  const Row rows[] = {{4096, 100, 409'600},
                      {512, 3, 1536},
                      {4096, 0, 0},
                      {4096, 1'048'577, 4'294'971'392},
                      {1L << 20, 1UL << 43, 9'223'372'036'854'775'808U},
                      {1, UINT64_MAX, 18'446'744'073'709'551'615U}};
  Serve([&] {
    for (const auto& [block_size, blocks, bytes] : rows) {
      Replace({.statfs = Having(block_size, blocks)});
      EXPECT_EQ(Cgi::Data().FreeSpaceSize("/any"), bytes);
    }
  });
}

TEST(FreeSpace, IsAskedOnceOfThePathAsItIs) {
  Serve([] {
    std::string asked;
    Replace({.statfs = [&](const char* path, struct statfs64* found) {
      asked += path;
      return Having(1, 1)(path, found);
    }});
    Cgi::Data().FreeSpaceSize("a/../b//");
    EXPECT_EQ(asked, "a/../b//");
  });
}

TEST(FreeSpace, ThatCannotBeFoundOutIsAnError) {
  for (const std::string path : {"/nowhere/at/all", "", "relative"}) {
    const Outcome outcome = RunWithoutLeak(
        Child(), [&](const Reporter&) { Cgi::Data().FreeSpaceSize(path); });
    EXPECT_EQ(outcome.error_type, "std::runtime_error");
    EXPECT_EQ(outcome.error, "Cannot run statfs on " + path);
  }
}

TEST(FreeSpace, IsAskedOnceOnlyWhenThatFails) {
  Serve([] {
    for (const int error : {EIO, EINTR, EOVERFLOW}) {
      int calls = 0;
      Replace({.statfs = [&](const char*, struct statfs64*) {
        ++calls;
        errno = error;
        return -1;
      }});
      EXPECT_THROW(Cgi::Data().FreeSpaceSize("/any"), std::runtime_error);
      EXPECT_EQ(calls, 1);
    }
  });
}

TEST(FreeSpace, OfARealFileSystemIsFound) {
  // Nothing can be stored there.
  Serve([] { EXPECT_EQ(Cgi::Data().FreeSpaceSize("/proc"), 0U); });
}

TEST(FreeSpace, OfAFileSystemInMemoryIsItsSize) {
  if (!zan_cgi::testing::IsRoot()) GTEST_SKIP() << "needs root";
  const Scratch scratch;
  Serve([&scratch] {
    support::MountPrivately(scratch.Path(), "size=1m");
    Cgi::Data record;
    EXPECT_EQ(record.FreeSpaceSize(scratch.Path()), 1'048'576U);
    scratch.MakeFile("file", std::string(4096, 'x'));
    EXPECT_EQ(record.FreeSpaceSize(scratch / "file"), 1'044'480U);
  });
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
  const Outcome outcome =
      RunWithoutLeak(Post(declared).LogLevel(level).StandardInput(input),
                     [&](const Reporter&) {
                       Replace({.statfs = Having(1, free_space)});
                       Cgi::Data record;
                       record.tmp_dir = "/any";
                       record.ParseInput();
                     });
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

TEST(Room, IsComparedWithTheDeclaredLengthInSixtyFourBitsWithoutASign) {
  struct Row {
    std::string declared;
    std::uint64_t free_space;
    Strings lines;
  };
  const std::string most = "18446744073709551615";
  const Row rows[] = {
      {"1000", 1000, {SizeLine("1000", "1000")}},
      {"1000", 999, {SizeLine("1000", "999"), kNoRoom}},
      {"5000000000", 6'000'000'000, {SizeLine("5000000000", "6000000000")}},
      {"4294967297", 2, {SizeLine("4294967297", "2"), kNoRoom}},
      {"99999999999999999999",
       UINT64_MAX,
       {SizeLine("9223372036854775807", most)}},
      {"-1",
       UINT64_MAX - 1,
       {SizeLine(most, "18446744073709551614"), kNoRoom}}};
  for (const auto& [declared, free_space, lines] : rows) {
    EXPECT_EQ(RoomLines(declared, free_space), lines);
  }
}

TEST(Room, IsLoggedAtItsLevelsOnly) {
  EXPECT_EQ(RoomLines("2", 1, 8), Strings{kNoRoom});
  EXPECT_EQ(RoomLines("2", 1, 4), Strings{kNoRoom});
  EXPECT_EQ(RoomLines("2", 1, 3), Strings{});
}

TEST(Room, ThatIsTooLittleCountsWithoutTheLogToo) {
  const Scratch scratch;
  const Input input = Input::Pipe(kUpload);
  RunCleanly(PostOf(kUpload).LogLevel(0).StandardInput(input),
             [&](const Reporter&) {
               Replace({.statfs = Having(1, kUpload.size() - 1)});
               Cgi::Data record;
               record.tmp_dir = scratch.Path();
               EXPECT_THROW(record.ParseInput(), std::runtime_error);
               EXPECT_TRUE(record.parsed);
               EXPECT_TRUE(record.files.empty());
               EXPECT_EQ(scratch.List(), Strings{});
             });
}

TEST(Room, IsLookedForBeforeAnyByteIsRead) {
  const Input input = Input::Pipe("a=1");
  const Outcome outcome =
      RunCleanly(Post("3").StandardInput(input), [](const Reporter&) {
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
      });
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
Outcome ParseWithTmp(
    const std::string& tmp, Child child = {},
    const std::function<void()>& before = [] {}) {
  const Input input = Input::Pipe("a=1");
  child.Env("CONTENT_LENGTH", "3").Env("TMP", tmp).StandardInput(input);
  return RunWithoutLeak(child, [&](const Reporter& report) {
    before();
    Cgi::Data record;
    try {
      record.ParseInput();
    } catch (const std::runtime_error&) {
      report("tmp_dir", record.tmp_dir);
      throw;
    }
    report("tmp_dir", record.tmp_dir);
    report("a", record.params.at("a"));
  });
}

TEST(ParsersTmpDir, IsNeitherMadeNorAskedWhatItIs) {
  const Scratch scratch;
  const std::string file = scratch.MakeFile("file");
  EXPECT_EQ(ParseWithTmp(file).reported.at("a"), "1");
  const Outcome missing = ParseWithTmp(scratch / "missing");
  EXPECT_EQ(missing.error_type, "std::runtime_error");
  EXPECT_EQ(missing.error, "Cannot run statfs on " + scratch / "missing");
  EXPECT_EQ(missing.reported.at("tmp_dir"), scratch / "missing");
  EXPECT_EQ(scratch.List(), Strings{"file"});
}

TEST(ParsersTmpDir, MayBeRelative) {
  const Scratch scratch;
  scratch.MakeDir("spool");
  Child child;
  child.WorkDir(scratch / "spool");
  EXPECT_EQ(ParseWithTmp("../spool", child).reported.at("tmp_dir"), "../spool");
}

TEST(ParsersTmpDir, BelowACurrentDirectoryThatMayNotBeEnteredIsAnError) {
  const Scratch scratch;
  ASSERT_EQ(::chmod(scratch.Path().c_str(), 0755), 0);
  const std::string work = scratch.MakeDir("work");
  const Outcome outcome = ParseWithTmp("spool", Child().WorkDir(work), [&work] {
    ASSERT_EQ(::chmod(work.c_str(), 0), 0);
    zan_cgi::testing::BecomeOrdinaryUser();
  });
  EXPECT_EQ(outcome.error, "Cannot run statfs on spool");
}

TEST(ParsersTmpDir, IsLoggedFromLevelNineOnly) {
  const std::string line = "9 zancgi.cpp:# temp dir is empty, new temp dir ";
  EXPECT_EQ(Lines(ParseWithTmp("/")).at(3), line + "'/'");
  const Outcome quiet = ParseWithTmp("/", Child().LogLevel(8));
  EXPECT_EQ(quiet.reported.at("tmp_dir"), "/");
  EXPECT_TRUE(quiet.Logged(9).empty());
}

TEST(ParsersTmpDir, ThatIsSetIsNotLogged) {
  const Input input = Input::Pipe("a=1");
  const Outcome outcome =
      RunCleanly(Post("3").StandardInput(input), [](const Reporter&) {
        Cgi::Data record;
        record.tmp_dir = "/";
        record.ParseInput();
      });
  for (const std::string& line : Lines(outcome)) {
    EXPECT_EQ(line.find("temp dir is empty"), std::string::npos);
  }
}

}  // namespace

// The body of a POST as a front end sees it, and what is settled before it is
// read: its length, the temporary directory, and whether there is room. What
// comes of each kind of body is in tests/plain/rules_test.cpp.

#include <sys/vfs.h>
#include <tov/err.h>

#include <climits>
#include <iostream>
#include <memory>
#include <regex>
#include <typeinfo>

#include "support/files.h"
#include "support/form.h"
#include "support/mount.h"
#include "support/system_calls.h"
#include "support/test.h"

namespace support {
namespace {

/// The log with "#" in place of line numbers and "FILE" of temporary files.
Strings Lines(const Outcome& outcome) {
  const std::regex place("^zancgi\\.cpp:[0-9]+ ");
  const std::regex file("[^ ']*/zantemp[A-Za-z0-9]{6}");
  Strings lines;
  for (const LogLine& line : outcome.log) {
    std::string text = std::regex_replace(line.text, place, "zancgi.cpp:# ");
    text = std::regex_replace(text, file, "FILE");
    lines.push_back(std::to_string(line.level) + " " + text);
  }
  return lines;
}

Cgi MakeCgi() { return {"/bin/front", "panel"}; }

TEST(Upload, IsAFileOfItsOwnInTheTemporaryDirectory) {
  const Scratch scratch;
  const std::string body = Upload("u", "f", "x") + kFormEnd;
  RunCleanly(PostOf(body), Input::Pipe(body), [&scratch] {
    Cgi cgi = MakeCgi();
    cgi.SetTmpDir(scratch.Path());
    EXPECT_EQ(cgi.File("f"), "");
    cgi.ParseQuery();
    EXPECT_TRUE(std::regex_match(
        cgi.File("f"), std::regex(scratch / "zantemp[A-Za-z0-9]{6}")));
    EXPECT_EQ(ReadFile(cgi.File("f")), "x");
    EXPECT_EQ(cgi.File("u"), "");
    EXPECT_EQ(ModeOf(cgi.File("f")), 0700U);
  });
  EXPECT_EQ(scratch.List(), Strings{});
}

TEST(Upload, IsRemovedWithTheLastCopyOfTheRequest) {
  const Scratch scratch;
  const std::string body =
      Upload("u", "b", "12345") + Upload("v", "a", "123") + kFormEnd;
  RunCleanly(PostOf(body), Input::Pipe(body), [&scratch] {
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
  return RunCleanly(PostOf(body).LogLevel(level), Input::Pipe(body), [&] {
    Cgi::Data record;
    record.tmp_dir = scratch.Path();
    record.ParseInput();
    EXPECT_EQ(record.files.at("f").size, 1);
  });
}

TEST(Upload, LogsEachStepInOrder) {
  const std::string body = Upload("u", "f", "x") + kFormEnd;
  const std::string size = std::to_string(body.size());
  Strings lines = Lines(LogOfUpload(body, 9));
  // As much as there is.
  lines.at(3) = std::regex_replace(lines.at(3), std::regex("tmpdir '[0-9]+'"),
                                   "tmpdir 'N'");
  EXPECT_EQ(
      lines,
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

TEST(ContentLength, OfZeroOrNoneLeavesTheBodyForLater) {
  for (const bool is_set : {true, false}) {
    Child child = Post("0");
    if (!is_set) child = Child().Env("REQUEST_METHOD", "POST");
    const Outcome outcome = RunCleanly(child, Input::Pipe("a=1"), [] {
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

/// Does the work as the server of a POST.
Outcome Serve(const std::function<void()>& work) {
  return RunCleanly(Post(""), work);
}

/// The text of the refusal of a declared length; empty when the limit is kept.
std::string RefusalOf(const std::string& declared, long limit) {
  ::setenv("CONTENT_LENGTH", declared.c_str(), 1);
  try {
    Cgi("/bin/front", "panel").CheckContentLength(limit);
    return "";
  } catch (const std::runtime_error& error) {
    EXPECT_TRUE(typeid(error) == typeid(std::runtime_error));
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
      {LONG_MIN, "-9007199254740992"}};
  Serve([&] {
    for (const auto& [limit, kilobytes] : texts) {
      EXPECT_EQ(
          RefusalOf("2147483647", limit),
          "Post data too large. Max allowed length is " + kilobytes + "KB");
    }
  });
}

TEST(ContentLength, IsIgnoredForOtherMethods) {
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

TEST(ContentLength, IsReadAsANumberOf32Bits) {
  const std::string most = "2147483647";
  const std::string least = "-2147483648";
  const std::pair<std::string, std::string> lengths[] = {
      {"0", "0"},
      {"2048", "2048"},
      // What is larger never passes for a small one.
      {"2147483648", most},
      {"4294967295", most},
      {"4294967296", most},
      {"4294967297", most},
      {"6442450944", most},
      {"9223372036854775807", most},
      {"9223372036854775808", most},
      {"18446744073709551617", most},
      {"99999999999999999999", most},
      {"-1", "-1"},
      {"-70000", "-70000"},
      {least, least},
      {"-2147483649", least},
      {"-99999999999999999999", least},
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
      {"5KB", "0"}};
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
  const Outcome outcome = RunCleanly(Post("3", ""), Input::Pipe("a=1"), [] {
    Cgi cgi("/bin/front", "panel");
    EXPECT_THROW(cgi.CheckContentLength(2), std::runtime_error);
    EXPECT_EQ(cgi.Param("a"), "1");
  });
  EXPECT_TRUE(outcome.Logged(3).empty());
  EXPECT_TRUE(outcome.Logged(4).empty());
}

/// Checks the directory; reports its path afterwards, and its kind.
void CheckAndReport(const std::string& directory, const Reporter& report) {
  Cgi::Data record;
  record.tmp_dir = directory;
  try {
    record.CheckTmpDir();
  } catch (...) {
    report("tmp_dir", record.tmp_dir);
    throw;
  }
  report("tmp_dir", record.tmp_dir);
  report("made", fs::is_directory(record.tmp_dir) ? "yes" : "no");
}

Outcome Check(
    const std::string& directory, const Child& child = {},
    const std::function<void()>& prepare = [] {}) {
  return RunWithoutLeak(child, [&](const Reporter& report) {
    prepare();
    CheckAndReport(directory, report);
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

TEST(TmpDir, IsUsedOrMade) {
  const Scratch scratch;
  ASSERT_EQ(::chmod(scratch.MakeDir("there").c_str(), 0751), 0);
  ExpectTaken(Check(scratch / "there"), scratch / "there");
  EXPECT_EQ(ModeOf(scratch / "there"), 0751U);
  EXPECT_EQ(scratch.List(), Strings{"there"});
  ExpectTaken(Check(scratch / "new"), scratch / "new");
  EXPECT_EQ(ModeOf(scratch / "new"), 0700U);
}

TEST(TmpDir, KeepsTheSpellingThatItWasGiven) {
  const Scratch scratch;
  fs::create_directory_symlink(scratch.MakeDir("a"), scratch / "link");
  for (const std::string name : {"/a/../new", "/./a/", "//a", "/link"}) {
    ExpectTaken(Check(scratch.Path() + name), scratch.Path() + name);
  }
}

TEST(TmpDir, MustBeADirectory) {
  const Scratch scratch;
  ExpectNoDirectory(scratch.MakeFile("file"));
  ExpectNoDirectory(scratch.MakeFile("%s 'x'\n"));
  fs::create_symlink(scratch / "file", scratch / "link");
  ExpectNoDirectory(scratch / "link");
  ASSERT_EQ(::mkfifo((scratch / "fifo").c_str(), 0600), 0);
  ExpectNoDirectory(scratch / "fifo");
  ExpectNoDirectory("/dev/null");
}

TEST(TmpDir, ThatCannotBeMadeIsAnError) {
  const Scratch scratch;
  scratch.MakeFile("file");
  fs::create_symlink(scratch / "nowhere", scratch / "dangling");
  fs::create_symlink(scratch / "loop", scratch / "loop");
  for (const std::string& name :
       {std::string(300, 'x'), std::string("no/parent"),
        std::string("dangling"), std::string("file/new"),
        std::string("loop")}) {
    ExpectSystemError(Check(scratch / name), scratch / name);
  }
  EXPECT_EQ(scratch.List(), (Strings{"dangling", "file", "loop"}));
}

TEST(TmpDir, ThatMayNotBeMadeOrLookedAtIsAnError) {
  const Scratch scratch;
  const std::string closed = scratch.MakeDir("closed");
  ASSERT_EQ(::chmod(closed.c_str(), 0), 0);
  ASSERT_EQ(::chmod(scratch.Path().c_str(), 0555), 0);
  for (const std::string& path : {scratch / "new", closed + "/new"}) {
    ExpectSystemError(Check(path, {}, BecomeOrdinaryUser), path);
  }
  EXPECT_EQ(scratch.List(), Strings{"closed"});
  ASSERT_EQ(::chmod(closed.c_str(), 0700), 0);
}

TEST(TmpDir, WithoutANameIsThatOfTheEnvironment) {
  const Scratch scratch;
  const std::string file = scratch.MakeFile("file");
  ExpectTaken(Check("", Child().Env("TMP", scratch / "new")), scratch / "new");
  const Outcome outcome = Check("", Child().Env("TMP", file));
  EXPECT_EQ(outcome.error, "temp dir '" + file + "' is not a directory");
  EXPECT_EQ(outcome.reported.at("tmp_dir"), file);
  // May be relative.
  Child child = Child().WorkDir(scratch.MakeDir("work"));
  ExpectTaken(Check("", child.Env("TMP", "../spool")), "../spool");
  EXPECT_EQ(scratch.List(), (Strings{"file", "new", "spool", "work"}));
}

TEST(TmpDir, ReplacesThatOfTheEnvironment) {
  const Scratch scratch;
  ExpectTaken(Check(scratch.Path(), Child().Env("TMP", scratch / "other")),
              scratch.Path());
  EXPECT_EQ(scratch.List(), Strings{});
}

TEST(TmpDir, IsTmpBelowTheCurrentDirectoryByDefault) {
  for (Child child : {Child(), Child().Env("TMP", "")}) {
    const Scratch scratch;
    ExpectTaken(Check("", child.WorkDir(scratch.Path())), "tmp");
    EXPECT_EQ(scratch.List(), Strings{"tmp"});
  }
}

TEST(TmpDir, BelowACurrentDirectoryThatCannotBeEnteredIsAnError) {
  const Scratch scratch;
  ASSERT_EQ(::chmod(scratch.Path().c_str(), 0755), 0);
  for (const bool is_gone : {false, true}) {
    const std::string work = scratch.MakeDir("work");
    const Outcome outcome = Check("", Child().WorkDir(work), [&] {
      if (is_gone) fs::remove(work);
      ::chmod(work.c_str(), 0);
      BecomeOrdinaryUser();
    });
    ExpectSystemError(outcome, "tmp");
    ::chmod(work.c_str(), 0700);
  }
}

TEST(TmpDir, IsCheckedWithoutLogging) {
  const Scratch scratch;
  const Outcome outcome = Check("", Child().WorkDir(scratch.Path()));
  EXPECT_EQ(
      outcome.log,
      (std::vector<LogLine>{{8, "void zan_cgi::Cgi::Data::ParseCookies()"}}));
}

const std::string kUpload = Upload("u", "f", "content") + kFormEnd;

/// Serves an upload for which a front end in `scratch` chooses directories.
/// Returns where it went.
std::string UploadAfter(const Scratch& scratch,
                        const std::function<void(Cgi& cgi)>& choose) {
  const Outcome outcome = RunCleanly(
      PostOf(kUpload), Input::Pipe(kUpload), [&](const Reporter& report) {
        Cgi cgi(scratch / "cgi/front", "panel");
        choose(cgi);
        cgi.ParseQuery();
        report("path", cgi.File("f"));
        EXPECT_EQ(ReadFile(cgi.File("f")), "content");
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
  EXPECT_TRUE(fs::is_empty(scratch / "second"));
}

TEST(SetTmpDir, WithAnEmptyNameMakesTmpBelowTheProgramsFolder) {
  const Scratch scratch;
  scratch.MakeDir("cgi");
  EXPECT_EQ(UploadAfter(scratch, [](Cgi& cgi) { cgi.SetTmpDir(""); }), "tmp");
  EXPECT_EQ(scratch.List(), (Strings{"cgi", "tmp"}));
}

TEST(SetTmpDir, IsNeededForAnyFolderButTmp) {
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
                          fs::create_directories(path);
                        }),
            path);
}

TEST(SetTmpDir, KeepsTheNameEvenIfItIsNoDirectory) {
  const Scratch scratch;
  const std::string file = scratch.MakeFile("file");
  const Outcome outcome =
      RunWithoutLeak(PostOf(kUpload), Input::Pipe(kUpload), [&] {
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

TEST(FreeSpace, IsThatOfAllFreeBlocksInUnsigned64Bits) {
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

TEST(FreeSpace, IsReadOnceFromTheUnchangedPathEvenIfThatFails) {
  Serve([] {
    for (const int error : {0, EIO, EINTR, EOVERFLOW}) {
      std::string asked;
      Replace({.statfs = [&](const char* path, struct statfs64* found) {
        asked += path;
        Having(1, 1)(path, found);
        errno = error;
        return error == 0 ? 0 : -1;
      }});
      try {
        Cgi::Data().FreeSpaceSize("a/../b//");
        EXPECT_EQ(error, 0);
      } catch (const std::runtime_error&) {
        EXPECT_NE(error, 0);
      }
      EXPECT_EQ(asked, "a/../b//");
    }
  });
}

TEST(FreeSpace, ThatCannotBeReadIsAnError) {
  for (const std::string path : {"/nowhere/at/all", "", "relative"}) {
    const Outcome outcome =
        RunWithoutLeak(Child(), [&] { Cgi::Data().FreeSpaceSize(path); });
    EXPECT_EQ(outcome.error_type, "std::runtime_error");
    EXPECT_EQ(outcome.error, "Cannot run statfs on " + path);
  }
}

TEST(FreeSpace, OfARealFileSystemIsFound) {
  // Nothing can be stored there.
  Serve([] { EXPECT_EQ(Cgi::Data().FreeSpaceSize("/proc"), 0U); });
}

TEST(FreeSpace, OfAFileSystemInMemoryIsItsSize) {
  if (!IsRoot()) GTEST_SKIP() << "needs root";
  const Scratch scratch;
  Serve([&scratch] {
    MountPrivately(scratch.Path(), "size=1m");
    Cgi::Data record;
    EXPECT_EQ(record.FreeSpaceSize(scratch.Path()), 1'048'576U);
    scratch.MakeFile("file", std::string(4096, 'x'));
    EXPECT_EQ(record.FreeSpaceSize(scratch / "file"), 1'044'480U);
  });
}

/// The lines that a parse logs about room, when a body of this declared length
/// has ended before its first byte.
Strings RoomLines(const std::string& declared, std::uint64_t free_space,
                  int level = 9) {
  const Outcome outcome =
      RunWithoutLeak(Post(declared).LogLevel(level), Input::Pipe(""), [&] {
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

TEST(Room, IsComparedWithTheDeclaredLengthInUnsigned64Bits) {
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

TEST(Room, IsCheckedWithoutTheLogToo) {
  const Scratch scratch;
  RunCleanly(PostOf(kUpload).LogLevel(0), Input::Pipe(kUpload), [&] {
    Replace({.statfs = Having(1, kUpload.size() - 1)});
    Cgi::Data record;
    record.tmp_dir = scratch.Path();
    EXPECT_THROW(record.ParseInput(), std::runtime_error);
    EXPECT_TRUE(record.parsed);
    EXPECT_TRUE(record.files.empty());
    EXPECT_EQ(scratch.List(), Strings{});
  });
}

TEST(Room, IsCheckedBeforeAnyByteIsRead) {
  const Outcome outcome = RunCleanly(Post("3"), Input::Pipe("a=1"), [] {
    Replace({.read =
                 [](void* buffer, std::size_t size) {
                   zan_cgi::testing::Mark("read");
                   return RealRead(STDIN_FILENO, buffer, size);
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

/// Parses an ordinary field with this for TMP, and reports the directory.
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

TEST(ParsersTmpDir, IsNeitherMadeNorExamined) {
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
    BecomeOrdinaryUser();
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
  const Outcome outcome = RunCleanly(Post("3"), Input::Pipe("a=1"), [] {
    Cgi::Data record;
    record.tmp_dir = "/";
    record.ParseInput();
  });
  for (const std::string& line : Lines(outcome)) {
    EXPECT_EQ(line.find("temp dir is empty"), std::string::npos);
  }
}

}  // namespace
}  // namespace support

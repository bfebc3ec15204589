// What is settled before the body of a POST is read: its length, the temporary
// directory, and the room in it.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>
#include <zancgi/zancgi.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/input.h"
#include "support/scratch.h"

namespace {

using support::Child;
using support::Input;
using support::Outcome;
using support::Scratch;
using support::Told;
using zan_cgi::Cgi;
using Strings = std::vector<std::string>;
namespace fs = std::filesystem;

/// What statfs64(2) answers; the kernel when not set.
struct Space {
  int error = 0;
  std::int64_t block_size = 0;
  std::uint64_t free_blocks = 0;
};
std::optional<Space> scripted_space;

const std::string kPassed = "(passed)";

/// The error that the length check ends in, or "(passed)".
std::string CheckLength(const Child& child, long limit) {
  const Outcome outcome = child.Run([limit](const Told&) {
    Cgi cgi("/bin/front", "backend");
    cgi.CheckContentLength(limit);
  });
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.Logged(4), Strings{});
  if (outcome.error_type.empty()) return kPassed;
  EXPECT_EQ(outcome.error_type, "std::runtime_error");
  return outcome.error;
}

Child Post(const std::string& length) {
  return Child().Env("REQUEST_METHOD", "POST").Env("CONTENT_LENGTH", length);
}

std::string CheckLength(const std::string& length, long limit) {
  return CheckLength(Post(length), limit);
}

std::string TooLarge(const std::string& kilobytes) {
  return "Post data too large. Max allowed length is " + kilobytes + "KB";
}

/// Checks a temporary directory of this name, and tells the name afterwards
/// also when the check fails.
Outcome CheckDir(Child child, const std::string& dir) {
  return child.Run([&](const Told& told) {
    Cgi::Data record;
    record.tmp_dir = dir;
    try {
      record.CheckTmpDir();
    } catch (...) {
      told("tmp_dir", record.tmp_dir);
      throw;
    }
    told("tmp_dir", record.tmp_dir);
  });
}

/// The free space of "/" when statfs64(2) answers this.
Outcome FreeSpace(const Space& space) {
  return Child().Run([&](const Told& told) {
    Cgi::Data record;
    scripted_space = space;
    told("free", std::to_string(record.FreeSpaceSize("/")));
  });
}

/// A POST without a boundary, in a record with this temporary directory.
Outcome Parse(Child child, const std::string& dir, const std::string& body,
              const Space& space) {
  const Input input = Input::Pipe(body);
  return child.StandardInput(input).Run([&](const Told& told) {
    Cgi::Data record;
    record.tmp_dir = dir;
    scripted_space = space;
    try {
      record.ParseInput();
    } catch (...) {
      told("tmp_dir", record.tmp_dir);
      throw;
    }
    told("tmp_dir", record.tmp_dir);
  });
}

/// The texts of level 9 with "#" for line numbers.
Strings DebugLines(const Outcome& outcome) {
  static const std::regex place("^zancgi\\.cpp:[0-9]+ ");
  Strings lines;
  for (const std::string& line : outcome.Logged(9)) {
    lines.push_back(std::regex_replace(line, place, "zancgi.cpp:# "));
  }
  return lines;
}

mode_t ModeOf(const std::string& path) {
  struct stat found = {};
  EXPECT_EQ(::stat(path.c_str(), &found), 0);
  return found.st_mode & 07777U;
}

/// Makes the calling process one that permissions bind.
void BecomeOrdinary() {
  if (support::IsRoot() && ::setuid(65534) != 0) ::_exit(96);
}

TEST(LengthLimit, RefusesWhatIsLonger) {
  EXPECT_EQ(CheckLength("2049", 2048), TooLarge("2"));
  EXPECT_EQ(CheckLength("2147483647", 2048), TooLarge("2"));
}

TEST(LengthLimit, AcceptsAnEqualLength) {
  EXPECT_EQ(CheckLength("2048", 2048), kPassed);
  EXPECT_EQ(CheckLength("2047", 2048), kPassed);
  EXPECT_EQ(CheckLength("0", 0), kPassed);
}

TEST(LengthLimit, IsReportedInWholeKilobytes) {
  EXPECT_EQ(CheckLength("5000", 0), TooLarge("0"));
  EXPECT_EQ(CheckLength("5000", 1023), TooLarge("0"));
  EXPECT_EQ(CheckLength("5000", 1024), TooLarge("1"));
  EXPECT_EQ(CheckLength("5000", 2047), TooLarge("1"));
  EXPECT_EQ(CheckLength("2147483647", 2'147'483'646), TooLarge("2097151"));
}

TEST(LengthLimit, BelowZeroRefusesEveryPositiveLength) {
  // Rounded towards zero.
  EXPECT_EQ(CheckLength("0", -1), TooLarge("0"));
  EXPECT_EQ(CheckLength("1", -1023), TooLarge("0"));
  EXPECT_EQ(CheckLength("1", -1025), TooLarge("-1"));
  EXPECT_EQ(CheckLength("1", LONG_MIN), TooLarge("-9007199254740992"));
}

TEST(LengthLimit, ComparesWithSign) {
  EXPECT_EQ(CheckLength("-1", 0), kPassed);
  EXPECT_EQ(CheckLength("-70000", 10), kPassed);
  EXPECT_EQ(CheckLength("-5", -6), TooLarge("0"));
}

TEST(LengthLimit, HoldsForLengthsBeyond32Bits) {
  for (const std::string length :
       {"2147483648", "4294967296", "4294967297", "99999999999999999999"}) {
    EXPECT_EQ(CheckLength(length, 1'048'576), TooLarge("1024")) << length;
  }
}

TEST(LengthLimit, Beyond31BitsRefusesNothing) {
  for (const std::string length : {"2147483648", "99999999999999999999"}) {
    EXPECT_EQ(CheckLength(length, INT_MAX), kPassed) << length;
    EXPECT_EQ(CheckLength(length, LONG_MAX), kPassed) << length;
  }
}

TEST(LengthLimit, TakesBlanksAndASignAsPartOfTheNumber) {
  for (const std::string length : {"+5", " 5", "5 ", " +5 ", "5\r\n"}) {
    EXPECT_EQ(CheckLength(length, 4), TooLarge("0")) << length;
    EXPECT_EQ(CheckLength(length, 5), kPassed) << length;
  }
}

TEST(LengthLimit, TakesWhatIsNoNumberForZero) {
  for (const std::string length :
       {"", "x", "0x10", "5,5", "5x", "+", "- 5", "5.0"}) {
    EXPECT_EQ(CheckLength(length, 0), kPassed) << length;
    EXPECT_EQ(CheckLength(length, -1), TooLarge("0")) << length;
  }
}

TEST(LengthLimit, TakesAMissingLengthForZero) {
  const Child child = Child().Env("REQUEST_METHOD", "POST");
  EXPECT_EQ(CheckLength(child, 0), kPassed);
  EXPECT_EQ(CheckLength(child, -1), TooLarge("0"));
}

TEST(LengthLimit, IsForPostAlone) {
  for (const std::string method :
       {"GET", "post", "Post", "PUT", "POST ", " POST", "POSTS", "HEAD", ""}) {
    EXPECT_EQ(CheckLength(Post("5000").Env("REQUEST_METHOD", method), 1),
              kPassed)
        << method;
  }
  EXPECT_EQ(CheckLength(Child().Env("CONTENT_LENGTH", "5000"), 1), kPassed);
}

TEST(LengthLimit, IsCheckedWithoutReadingTheBody) {
  const Input input = Input::Pipe("a=1");
  const Outcome outcome =
      Post("3").Env("TMP", "/").StandardInput(input).Run([](const Told& told) {
        Cgi cgi("/bin/front", "backend");
        try {
          cgi.CheckContentLength(2);
        } catch (const std::runtime_error&) {
          told("refused", "yes");
        }
        cgi.CheckContentLength(3);
        told("a", cgi.Param("a"));
      });
  EXPECT_EQ(outcome.told.at("refused"), "yes");
  EXPECT_EQ(outcome.told.at("a"), "1");
}

TEST(TmpDir, ThatExistsIsLeftAsItIs) {
  const Scratch scratch;
  const std::string dir = scratch.MakeDir("dir");
  scratch.MakeFile("dir/file");
  ASSERT_EQ(::chmod(dir.c_str(), 0755), 0);
  const Outcome outcome = CheckDir(Child(), dir);
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(outcome.told.at("tmp_dir"), dir);
  EXPECT_EQ(ModeOf(dir), 0755U);
  EXPECT_TRUE(fs::exists(dir + "/file"));
}

TEST(TmpDir, ThatIsMissingIsMade) {
  const Scratch scratch;
  const std::string dir = scratch / "dir";
  const Outcome outcome = CheckDir(Child(), dir);
  EXPECT_EQ(outcome.error, "");
  EXPECT_TRUE(fs::is_directory(dir));
  EXPECT_EQ(ModeOf(dir), 0700U);
  EXPECT_EQ(outcome.leaked_descriptors, Strings{});
}

TEST(TmpDir, MayBeALinkToADirectory) {
  const Scratch scratch;
  const std::string dir = scratch.MakeDir("dir");
  fs::create_directory_symlink(dir, scratch / "link");
  const Outcome outcome = CheckDir(Child(), scratch / "link");
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(outcome.told.at("tmp_dir"), scratch / "link");
}

TEST(TmpDir, ThatIsNoDirectoryIsRefused) {
  const Scratch scratch;
  const std::string file = scratch.MakeFile("file", "x");
  const std::string link = scratch / "link";
  const std::string fifo = scratch / "fifo";
  fs::create_symlink(file, link);
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  for (const std::string& path : {file, link, fifo}) {
    const Outcome outcome = CheckDir(Child(), path);
    EXPECT_EQ(outcome.error_type, "std::runtime_error");
    EXPECT_EQ(outcome.error, "temp dir '" + path + "' is not a directory");
    EXPECT_EQ(outcome.told.at("tmp_dir"), path);
  }
  EXPECT_EQ(support::ReadFile(file), "x");
}

TEST(TmpDir, KeepsTheWordingForOddNames) {
  const Scratch scratch;
  const std::string file = scratch.MakeFile("%s 'x'");
  EXPECT_EQ(CheckDir(Child(), file).error,
            "temp dir '" + file + "' is not a directory");
}

/// Expects that making the directory fails, and that the name is kept.
void ExpectCannotBeMade(Child child, const std::string& path) {
  const Outcome outcome = CheckDir(child, path);
  EXPECT_EQ(outcome.error_type, "tov_err::Error") << path;
  EXPECT_NE(outcome.error.find(path), std::string::npos) << outcome.error;
  EXPECT_EQ(outcome.told.at("tmp_dir"), path);
}

TEST(TmpDir, ThatCannotBeMadeIsAnErrorOfTheBaseLibrary) {
  const Scratch scratch;
  const std::string file = scratch.MakeFile("file");
  const std::string dangling = scratch / "dangling";
  fs::create_symlink(scratch / "nothing", dangling);
  ExpectCannotBeMade(Child(), scratch / "missing/dir");
  ExpectCannotBeMade(Child(), file + "/dir");
  ExpectCannotBeMade(Child(), dangling);
  ExpectCannotBeMade(Child(), scratch / std::string(300, 'x'));
  EXPECT_EQ(scratch.List(), (Strings{"dangling", "file"}));
}

TEST(TmpDir, BelowAFolderWithoutWriteRightIsAnErrorOfTheBaseLibrary) {
  const Scratch scratch;
  ASSERT_EQ(::chmod(scratch.Path().c_str(), 0555), 0);
  const std::string path = scratch / "dir";
  const Outcome outcome = Child().Run([&](const Told& told) {
    BecomeOrdinary();
    Cgi::Data record;
    record.tmp_dir = path;
    EXPECT_FALSE(fs::exists(path));
    try {
      record.CheckTmpDir();
    } catch (...) {
      told("tmp_dir", record.tmp_dir);
      throw;
    }
  });
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.error_type, "tov_err::Error");
  EXPECT_EQ(outcome.told.at("tmp_dir"), path);
  ASSERT_EQ(::chmod(scratch.Path().c_str(), 0755), 0);
}

TEST(TmpDir, ThatIsEmptyIsTheOneOfTheEnvironment) {
  const Scratch scratch;
  const std::string dir = scratch / "dir";
  const Outcome outcome =
      CheckDir(Child().Env("TMP", dir).WorkDir(scratch.Path()), "");
  EXPECT_EQ(outcome.told.at("tmp_dir"), dir);
  EXPECT_TRUE(fs::is_directory(dir));
  EXPECT_EQ(scratch.List(), Strings{"dir"});
}

TEST(TmpDir, OfTheEnvironmentMayBeRelativeToTheCurrentDirectory) {
  const Scratch scratch;
  scratch.MakeDir("a");
  for (const std::string name : {"dir", "./a/../dir2", ".."}) {
    const Outcome outcome =
        CheckDir(Child().Env("TMP", name).WorkDir(scratch.Path()), "");
    EXPECT_EQ(outcome.error, "") << name;
    EXPECT_EQ(outcome.told.at("tmp_dir"), name);
  }
  EXPECT_EQ(scratch.List(), (Strings{"a", "dir", "dir2"}));
}

TEST(TmpDir, OfTheEnvironmentIsNotAskedForWhenOneIsNamed) {
  const Scratch scratch;
  const std::string dir = scratch / "dir";
  const Outcome outcome = CheckDir(Child().Env("TMP", scratch / "other"), dir);
  EXPECT_EQ(outcome.told.at("tmp_dir"), dir);
  EXPECT_EQ(scratch.List(), Strings{"dir"});
}

TEST(TmpDir, WithoutAnyNameIsTmpBelowTheCurrentDirectory) {
  for (const Child& child : {Child(), Child().Env("TMP", "")}) {
    const Scratch scratch;
    const Outcome outcome = CheckDir(Child(child).WorkDir(scratch.Path()), "");
    EXPECT_EQ(outcome.error, "");
    EXPECT_EQ(outcome.told.at("tmp_dir"), "tmp");
    EXPECT_EQ(scratch.List(), Strings{"tmp"});
    EXPECT_EQ(ModeOf(scratch / "tmp"), 0700U);
  }
}

TEST(TmpDir, OfTheFrontEndIsBelowTheFolderAboveItsProgram) {
  const Scratch scratch;
  const std::string program = scratch.MakeDir("site/cgi") + "/front";
  const Outcome outcome = Child().Run([&](const Told&) {
    Cgi cgi(program, "backend");
    cgi.SetTmpDir("");
  });
  EXPECT_EQ(outcome.error, "");
  EXPECT_TRUE(fs::is_directory(scratch / "site/tmp"));
}

/// Sets this directory, then parses an upload into it and tells its path.
Outcome SetDirAndUpload(const std::string& dir) {
  const std::string body =
      "--XY\r\nContent-Disposition: form-data; name=\"u\"; filename=\"f\""
      "\r\n\r\nx\r\n--XY--\r\n";
  const Input input = Input::Pipe(body);
  return Post(std::to_string(body.size()))
      .Env("CONTENT_TYPE", "multipart/form-data; boundary=XY")
      .StandardInput(input)
      .Run([&](const Told& told) {
        Cgi cgi("/bin/front", "backend");
        try {
          cgi.SetTmpDir(dir);
        } catch (const std::exception& error) {
          told("refused", error.what());
        }
        cgi.ParseQuery();
        told("path", cgi.File("f"));
      });
}

TEST(SetTmpDir, SaysWhereUploadsGo) {
  const Scratch scratch;
  const Outcome outcome = SetDirAndUpload(scratch / "dir");
  EXPECT_EQ(outcome.error, "");
  EXPECT_TRUE(outcome.told.at("path").starts_with(scratch / "dir/zantemp"))
      << outcome.told.at("path");
}

TEST(SetTmpDir, KeepsTheNameThatItRefuses) {
  const Scratch scratch;
  const std::string file = scratch.MakeFile("file");
  Outcome outcome = SetDirAndUpload(file);
  EXPECT_EQ(outcome.told["refused"],
            "temp dir '" + file + "' is not a directory");
  EXPECT_EQ(outcome.error, "error writing temporary file");
  const std::string missing = scratch / "missing/dir";
  outcome = SetDirAndUpload(missing);
  EXPECT_NE(outcome.told["refused"], "");
  EXPECT_EQ(outcome.error, "Cannot run statfs on " + missing);
}

TEST(FreeSpace, IsBlockSizeTimesFreeBlocksThoseOfTheSuperuserIncluded) {
  EXPECT_EQ(FreeSpace({0, 4096, 10}).told.at("free"), "40960");
  EXPECT_EQ(FreeSpace({0, 1, 0}).told.at("free"), "0");
}

TEST(FreeSpace, Has64Bits) {
  EXPECT_EQ(FreeSpace({0, 4096, 0x1'0000'0001}).told.at("free"),
            "17592186048512");
  EXPECT_EQ(FreeSpace({0, 1, UINT64_MAX}).told.at("free"),
            "18446744073709551615");
}

TEST(FreeSpace, FailsWithThePath) {
  const Outcome outcome = FreeSpace({EIO, 4096, 10});
  EXPECT_EQ(outcome.error_type, "std::runtime_error");
  EXPECT_EQ(outcome.error, "Cannot run statfs on /");
}

TEST(FreeSpace, IsThatOfTheFileSystemOfThePath) {
  const Outcome outcome = Child().Run([](const Told& told) {
    Cgi::Data record;
    told("free", std::to_string(record.FreeSpaceSize("/proc")));
    record.FreeSpaceSize("/proc/self/nothing");
  });
  EXPECT_EQ(outcome.told.at("free"), "0");
  EXPECT_EQ(outcome.error, "Cannot run statfs on /proc/self/nothing");
}

TEST(Room, IsAskedForAfterTheDefaultDirectoryIsChosen) {
  const Outcome outcome = Parse(Post("3"), "", "a=1", {0, 10, 20});
  const Strings lines = DebugLines(outcome);
  ASSERT_GT(lines.size(), 2U);
  EXPECT_EQ(lines[0], "zancgi.cpp:# POST boundary detected: false");
  EXPECT_EQ(lines[1], "zancgi.cpp:# temp dir is empty, new temp dir '/tmp'");
  EXPECT_EQ(lines[2],
            "zancgi.cpp:# query size '3', free space in tmpdir '200'");
  EXPECT_EQ(outcome.told.at("tmp_dir"), "/tmp");
}

TEST(Room, OfANamedDirectoryIsAskedForWithoutAWordAboutTheName) {
  const Outcome outcome =
      Parse(Post("3").Env("TMP", "/"), "/named", "a=1", {0, 10, 20});
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(outcome.told.at("tmp_dir"), "/named");
  EXPECT_EQ(DebugLines(outcome).at(1),
            "zancgi.cpp:# query size '3', free space in tmpdir '200'");
}

TEST(Room, IsWrittenWith64Bits) {
  const Outcome outcome = Parse(Post("3"), "/", "a=1", {0, 1, UINT64_MAX});
  EXPECT_EQ(DebugLines(outcome).at(1),
            "zancgi.cpp:# query size '3', free space in tmpdir "
            "'18446744073709551615'");
  EXPECT_EQ(outcome.Logged(4), Strings{});
}

TEST(Room, ThatCannotBeAskedForLeavesTheChosenDirectoryBehind) {
  const Outcome outcome =
      Parse(Post("3").Env("TMP", "/elsewhere"), "", "a=1", {EIO, 0, 0});
  EXPECT_EQ(outcome.error, "Cannot run statfs on /elsewhere");
  EXPECT_EQ(outcome.told.at("tmp_dir"), "/elsewhere");
}

TEST(Room, ThatIsTooSmallIsAWarningWithoutASourceName) {
  const Outcome outcome = Parse(Post("3").LogLevel(4), "/", "a=1", {0, 1, 2});
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(outcome.log,
            (std::vector<support::LogLine>{
                {4,
                 "There is not enoght free space on '/' to process a "
                 "query"}}));
}

TEST(Room, ThatIsJustEnoughIsNoMatter) {
  const Outcome outcome = Parse(Post("3").LogLevel(4), "/", "a=1", {0, 1, 3});
  EXPECT_EQ(outcome.log, std::vector<support::LogLine>{});
}

TEST(Room, IsComparedWithoutSignSoANegativeLengthIsTooLarge) {
  const Outcome outcome =
      Parse(Post("-1").LogLevel(4), "/", "a=1", {0, 1, UINT64_MAX - 1});
  EXPECT_EQ(outcome.Logged(4),
            Strings{"There is not enoght free space on '/' to process a "
                    "query"});
}

TEST(Room, IsThatOfTmpWhereSetTmpDirWouldTakeTmpBelowTheCurrentDirectory) {
  const Scratch scratch;
  const std::string program = scratch.MakeDir("site/cgi") + "/front";
  const Input input = Input::Pipe("a=1");
  const Outcome outcome =
      Post("3").StandardInput(input).Run([&](const Told& told) {
        Cgi cgi(program, "backend");
        told("a", cgi.Param("a"));
      });
  EXPECT_EQ(outcome.told.at("a"), "1");
  const Strings lines = DebugLines(outcome);
  EXPECT_EQ(std::count(lines.begin(), lines.end(),
                       "zancgi.cpp:# temp dir is empty, new temp dir '/tmp'"),
            1);
  EXPECT_FALSE(fs::exists(scratch / "site/tmp"));
}

}  // namespace

extern "C" int statfs64(const char* file, struct statfs64* buf) {
  if (!scripted_space.has_value()) {
    return static_cast<int>(::syscall(SYS_statfs, file, buf));
  }
  if (scripted_space->error != 0) {
    errno = scripted_space->error;
    return -1;
  }
  *buf = {};
  buf->f_bsize = scripted_space->block_size;
  buf->f_bfree = scripted_space->free_blocks;
  // None of them for ordinary users, and a size that fragments are counted in.
  buf->f_bavail = 0;
  buf->f_frsize = 512;
  return 0;
}

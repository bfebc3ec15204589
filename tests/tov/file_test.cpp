#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <tov/err.h>
#include <tov/file.h>
#include <unistd.h>
#include <zancgi/testing/child.h>
#include <zancgi/testing/identity.h>
#include <zancgi/testing/scratch.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/clean_run.h"
#include "support/new_operator.h"
#include "support/terminal.h"

namespace {

using support::RunWithoutLeak;
using tov_file::Attrs;
using zan_cgi::testing::BecomeOrdinaryUser;
using zan_cgi::testing::Child;
using zan_cgi::testing::Outcome;
using zan_cgi::testing::ReadFile;
using zan_cgi::testing::Scratch;
using zan_cgi::testing::Told;
using Names = std::vector<std::string>;

constexpr uid_t kNobody = 65534;
constexpr char kOtherFileSystem[] = "/dev/shm";

/// What an interposed renameat2(2) does instead of renaming; inactive at first.
struct {
  int error = 0;
  std::function<void()> before;
  int calls = 0;
} renaming;

/// Whether an interposed open(2) makes no files without a name.
bool has_no_unnamed_files = false;

struct stat StatOf(const std::string& path) {
  struct stat found {};
  EXPECT_EQ(::lstat(path.c_str(), &found), 0) << path;
  return found;
}

mode_t ModeOf(const std::string& path) { return StatOf(path).st_mode & 07777; }

std::string OwnerOf(const std::string& path) {
  const struct stat found = StatOf(path);
  return std::to_string(found.st_uid) + ":" + std::to_string(found.st_gid);
}

bool IsThere(const std::string& path) {
  struct stat found;
  return ::lstat(path.c_str(), &found) == 0;
}

void Chmod(const std::string& path, mode_t mode) {
  ASSERT_EQ(::chmod(path.c_str(), mode), 0) << path;
}

void Chown(const std::string& path, uid_t owner, gid_t group) {
  ASSERT_EQ(::chown(path.c_str(), owner, group), 0) << path;
}

std::string Link(const Scratch& scratch, const std::string& name,
                 const std::string& target) {
  EXPECT_EQ(::symlink(target.c_str(), (scratch / name).c_str()), 0);
  return scratch / name;
}

std::string Fifo(const Scratch& scratch, const std::string& name) {
  EXPECT_EQ(::mkfifo((scratch / name).c_str(), 0600), 0);
  return scratch / name;
}

/// Runs something that must work, in a process of its own.
void Do(const std::function<void()>& work) {
  EXPECT_EQ(RunWithoutLeak(Child(), [&](const Told&) { work(); }).error, "");
}

/// The error that an ordinary user gets, with its type in front.
std::string ErrorAsOrdinaryUser(const std::function<void()>& work) {
  const Outcome outcome = RunWithoutLeak(Child(), [&](const Told&) {
    BecomeOrdinaryUser();
    work();
  });
  return outcome.error_type + ": " + outcome.error;
}

std::string ErrorOf(const std::function<void()>& work) {
  const Outcome outcome = RunWithoutLeak(Child(), [&](const Told&) { work(); });
  return outcome.error_type + ": " + outcome.error;
}

/// An error of ours that names the path and the system's reason.
testing::AssertionResult Blames(const std::string& error,
                                const std::string& path, int reason) {
  const bool good = error.starts_with("tov_err::Error: ") &&
                    error.find(path) != std::string::npos &&
                    error.find(std::strerror(reason)) != std::string::npos;
  return (good ? testing::AssertionSuccess() : testing::AssertionFailure())
         << "[" << error << "] about " << path;
}

testing::AssertionResult Blames(const std::string& error,
                                const std::string& path) {
  const bool good = error.starts_with("tov_err::Error: ") &&
                    error.find(path) != std::string::npos;
  return (good ? testing::AssertionSuccess() : testing::AssertionFailure())
         << "[" << error << "] about " << path;
}

std::string LongName() { return std::string(300, 'x'); }

/// A scratch directory in which everyone may look up names.
class OpenScratch : public Scratch {
 public:
  OpenScratch() { Chmod(Path(), 0755); }
  ~OpenScratch() {
    for (const std::string& name : List()) {
      const std::string path = *this / name;
      if (S_ISDIR(StatOf(path).st_mode)) Chmod(path, 0700);
    }
  }

  /// A directory that an ordinary user may neither search nor change.
  std::string MakeClosedDir(const std::string& name) const {
    const std::string path = MakeDir(name);
    Chmod(path, zan_cgi::testing::IsRoot() ? 0700 : 0000);
    return path;
  }
};

TEST(Exists, IsTrueForWhateverIsThere) {
  Scratch scratch;
  EXPECT_TRUE(tov_file::Exists(scratch.MakeFile("file")));
  EXPECT_TRUE(tov_file::Exists(scratch.Path()));
  EXPECT_TRUE(tov_file::Exists(Fifo(scratch, "fifo")));
  EXPECT_TRUE(tov_file::Exists(Link(scratch, "link", "file")));
}

TEST(Exists, IsFalseForWhatIsMissing) {
  Scratch scratch;
  scratch.MakeFile("file");
  EXPECT_FALSE(tov_file::Exists(scratch / "missing"));
  EXPECT_FALSE(tov_file::Exists(scratch / "missing/file"));
  EXPECT_FALSE(tov_file::Exists(scratch / "file/x"));
  EXPECT_FALSE(tov_file::Exists(Link(scratch, "dangling", "missing")));
  EXPECT_FALSE(tov_file::Exists(""));
}

TEST(Exists, ThrowsWhenItCannotTell) {
  OpenScratch scratch;
  const std::string hidden = scratch.MakeClosedDir("closed") + "/file";
  EXPECT_TRUE(Blames(ErrorAsOrdinaryUser([&] { tov_file::Exists(hidden); }),
                     hidden, EACCES));
  const std::string loop = Link(scratch, "loop", "loop");
  EXPECT_TRUE(Blames(ErrorOf([&] { tov_file::Exists(loop); }), loop, ELOOP));
  const std::string longer = scratch / LongName();
  EXPECT_TRUE(
      Blames(ErrorOf([&] { tov_file::Exists(longer); }), longer, ENAMETOOLONG));
}

TEST(RemoveFile, RemovesAFile) {
  Scratch scratch;
  tov_file::RemoveFile(scratch.MakeFile("file"));
  EXPECT_EQ(scratch.List(), Names{});
}

TEST(RemoveFile, RemovesALinkAndNotItsTarget) {
  Scratch scratch;
  scratch.MakeFile("file");
  tov_file::RemoveFile(Link(scratch, "link", "file"));
  tov_file::RemoveFile(Link(scratch, "dangling", "missing"));
  EXPECT_EQ(scratch.List(), Names{"file"});
}

TEST(RemoveFile, TakesAMissingFileForRemoved) {
  Scratch scratch;
  EXPECT_NO_THROW(tov_file::RemoveFile(scratch / "missing"));
  EXPECT_NO_THROW(tov_file::RemoveFile(scratch / "missing/file"));
}

TEST(RemoveFile, DoesNotRemoveADirectory) {
  Scratch scratch;
  const std::string directory = scratch.MakeDir("directory");
  EXPECT_TRUE(
      Blames(ErrorOf([&] { tov_file::RemoveFile(directory); }), directory));
  EXPECT_EQ(scratch.List(), Names{"directory"});
}

TEST(RemoveFile, ReportsWhatIsNotAllowed) {
  OpenScratch scratch;
  scratch.MakeDir("closed");
  const std::string file = scratch.MakeFile("closed/file");
  Chmod(scratch / "closed", 0555);
  EXPECT_TRUE(Blames(ErrorAsOrdinaryUser([&] { tov_file::RemoveFile(file); }),
                     file, EACCES));
  EXPECT_TRUE(IsThere(file));
}

using Parts = std::pair<std::string, std::string>;

TEST(SplitPath, CutsAtTheLastSlash) {
  EXPECT_EQ(tov_file::SplitPath("/a/b/c"), Parts("/a/b", "c"));
  EXPECT_EQ(tov_file::SplitPath("a/b"), Parts("a", "b"));
  EXPECT_EQ(tov_file::SplitPath("a/b/"), Parts("a/b", ""));
}

TEST(SplitPath, HasNoFolderWithoutASlash) {
  EXPECT_EQ(tov_file::SplitPath("a"), Parts("", "a"));
  EXPECT_EQ(tov_file::SplitPath(""), Parts("", ""));
}

TEST(SplitPath, KeepsTheRoot) {
  EXPECT_EQ(tov_file::SplitPath("/a"), Parts("/", "a"));
  EXPECT_EQ(tov_file::SplitPath("/"), Parts("/", ""));
}

TEST(ConcatPath, JoinsWithOneSlash) {
  EXPECT_EQ(tov_file::ConcatPath("/a", "b"), "/a/b");
  EXPECT_EQ(tov_file::ConcatPath("/a/", "b"), "/a/b");
  EXPECT_EQ(tov_file::ConcatPath("/a", "/b"), "/a/b");
  EXPECT_EQ(tov_file::ConcatPath("/a//", "//b"), "/a/b");
  EXPECT_EQ(tov_file::ConcatPath("a", "b/c"), "a/b/c");
}

TEST(ConcatPath, JoinsWithTheRoot) {
  EXPECT_EQ(tov_file::ConcatPath("/", "b"), "/b");
  EXPECT_EQ(tov_file::ConcatPath("/", "/b"), "/b");
}

TEST(ConcatPath, OfAnEmptyOperandIsTheOtherOne) {
  EXPECT_EQ(tov_file::ConcatPath("", "b"), "b");
  EXPECT_EQ(tov_file::ConcatPath("", "/b"), "/b");
  EXPECT_EQ(tov_file::ConcatPath("a", ""), "a");
  EXPECT_EQ(tov_file::ConcatPath("a/", ""), "a/");
  EXPECT_EQ(tov_file::ConcatPath("", ""), "");
}

TEST(RealPath, ResolvesDotsAndLinks) {
  Scratch scratch;
  scratch.MakeDir("a/b");
  Link(scratch, "link", "a/b");
  EXPECT_EQ(tov_file::RealPath(scratch / "a/./b//../b"), scratch / "a/b");
  EXPECT_EQ(tov_file::RealPath(scratch / "link"), scratch / "a/b");
  EXPECT_EQ(tov_file::RealPath(scratch / "link/.."), scratch / "a");
  EXPECT_EQ(tov_file::RealPath("/.."), "/");
}

TEST(RealPath, StartsFromTheCurrentDirectory) {
  Scratch scratch;
  scratch.MakeDir("a/b");
  const auto outcome =
      RunWithoutLeak(Child().WorkDir(scratch / "a"), [](const Told& told) {
        told("b", tov_file::RealPath("b"));
        told("dot", tov_file::RealPath("."));
        told("up", tov_file::RealPath("./.."));
        told("missing", tov_file::RealPath("missing"));
      });
  EXPECT_EQ(outcome.told.at("b"), scratch / "a/b");
  EXPECT_EQ(outcome.told.at("dot"), scratch / "a");
  EXPECT_EQ(outcome.told.at("up"), scratch.Path());
  EXPECT_EQ(outcome.told.at("missing"), scratch / "a/missing");
}

TEST(RealPath, TakesMissingComponentsAsTheyAreWritten) {
  Scratch scratch;
  scratch.MakeDir("a");
  Link(scratch, "link", "a");
  EXPECT_EQ(tov_file::RealPath(scratch / "a/x/y"), scratch / "a/x/y");
  EXPECT_EQ(tov_file::RealPath(scratch / "link/x"), scratch / "a/x");
}

TEST(RealPath, RemovesDotsBehindMissingComponents) {
  Scratch scratch;
  EXPECT_EQ(tov_file::RealPath(scratch / "x/./y"), scratch / "x/y");
  EXPECT_EQ(tov_file::RealPath(scratch / "x/../y"), scratch / "y");
  EXPECT_EQ(tov_file::RealPath(scratch / "x/y/.."), scratch / "x");
  EXPECT_EQ(tov_file::RealPath(scratch / "x/."), scratch / "x");
}

TEST(RealPath, GoesOnBehindWhatIsNoFolder) {
  Scratch scratch;
  scratch.MakeFile("file");
  EXPECT_EQ(tov_file::RealPath(scratch / "file/"), scratch / "file");
  EXPECT_EQ(tov_file::RealPath(scratch / "file/x"), scratch / "file/x");
  EXPECT_EQ(tov_file::RealPath(scratch / "file/.."), scratch.Path());
  Link(scratch, "dangling", "nowhere");
  EXPECT_EQ(tov_file::RealPath(scratch / "dangling/x"), scratch / "dangling/x");
}

TEST(RealPath, TakesManySlashesForOne) {
  Scratch scratch;
  EXPECT_EQ(tov_file::RealPath("//missing"), "/missing");
  EXPECT_EQ(tov_file::RealPath(scratch / "x//y//"), scratch / "x/y");
  EXPECT_EQ(tov_file::RealPath(scratch / "x//..//y"), scratch / "y");
  EXPECT_EQ(tov_file::RealPath("/missing/../../.."), "/");
}

TEST(RealPath, RefusesALoopOfLinks) {
  Scratch scratch;
  const std::string loop = Link(scratch, "loop", "loop");
  EXPECT_TRUE(Blames(ErrorOf([&] { tov_file::RealPath(loop); }), loop, ELOOP));
  EXPECT_TRUE(
      Blames(ErrorOf([&] { tov_file::RealPath(loop + "/x"); }), loop, ELOOP));
}

TEST(RealPath, RefusesAFolderThatMayNotBeSearched) {
  OpenScratch scratch;
  const std::string hidden = scratch.MakeClosedDir("closed") + "/file";
  EXPECT_TRUE(Blames(ErrorAsOrdinaryUser([&] { tov_file::RealPath(hidden); }),
                     hidden, EACCES));
}

TEST(RealPath, FailsInADirectoryThatIsGone) {
  Scratch scratch;
  const std::string error = ErrorOf([&] {
    const std::string directory = scratch.MakeDir("gone");
    EXPECT_EQ(::chdir(directory.c_str()), 0);
    EXPECT_EQ(::rmdir(directory.c_str()), 0);
    tov_file::RealPath(".");
  });
  EXPECT_TRUE(Blames(error, ".", ENOENT));
}

TEST(Info, KnowsADirectory) {
  Scratch scratch;
  EXPECT_TRUE(tov_file::Info(scratch.Path(), false).IsDir());
  EXPECT_FALSE(tov_file::Info(scratch.MakeFile("file"), false).IsDir());
  EXPECT_FALSE(tov_file::Info(Fifo(scratch, "fifo"), false).IsDir());
}

TEST(Info, FollowsLinksUnlessToldOtherwise) {
  Scratch scratch;
  const std::string link = Link(scratch, "link", scratch.Path());
  EXPECT_TRUE(tov_file::Info(link, false).IsDir());
  EXPECT_FALSE(tov_file::Info(link, true).IsDir());
}

TEST(Info, OfAMissingFileIsAnError) {
  Scratch scratch;
  const std::string missing = scratch / "missing";
  EXPECT_TRUE(Blames(ErrorOf([&] { tov_file::Info(missing, false); }), missing,
                     ENOENT));
  EXPECT_TRUE(
      Blames(ErrorOf([&] { tov_file::Info(missing, true); }), missing, ENOENT));
}

TEST(Info, OfADanglingLinkKnowsTheLinkOnly) {
  Scratch scratch;
  const std::string dangling = Link(scratch, "dangling", "missing");
  EXPECT_TRUE(Blames(ErrorOf([&] { tov_file::Info(dangling, false); }),
                     dangling, ENOENT));
  EXPECT_FALSE(tov_file::Info(dangling, true).IsDir());
}

TEST(MkDir, MakesADirectoryForItsOwnerOnly) {
  Scratch scratch;
  Do([&] {
    ::umask(0);
    tov_file::MkDir(scratch / "new", nullptr);
  });
  EXPECT_TRUE(std::filesystem::is_directory(scratch / "new"));
  EXPECT_EQ(ModeOf(scratch / "new"), 0700u);
}

TEST(MkDir, GivesItTheAttributesWhateverTheUmask) {
  Scratch scratch;
  Do([&] {
    ::umask(077);
    const Attrs attrs(02755);
    tov_file::MkDir(scratch / "new", &attrs);
  });
  EXPECT_EQ(ModeOf(scratch / "new"), 02755u);
}

TEST(MkDir, GivesItItsOwner) {
  if (!zan_cgi::testing::IsRoot()) GTEST_SKIP() << "needs root";
  Scratch scratch;
  const Attrs attrs(0750, 1234, 1235);
  tov_file::MkDir(scratch / "new", &attrs);
  EXPECT_EQ(OwnerOf(scratch / "new"), "1234:1235");
  EXPECT_EQ(ModeOf(scratch / "new"), 0750u);
}

TEST(MkDir, LeavesAnExistingDirectoryAsItIs) {
  Scratch scratch;
  scratch.MakeDir("old");
  Chmod(scratch / "old", 0751);
  const Attrs attrs(0700);
  tov_file::MkDir(scratch / "old", &attrs);
  tov_file::MkDir(scratch / "old", nullptr);
  EXPECT_EQ(ModeOf(scratch / "old"), 0751u);
}

TEST(MkDir, MakesNoParents) {
  Scratch scratch;
  const std::string path = scratch / "missing/new";
  EXPECT_TRUE(
      Blames(ErrorOf([&] { tov_file::MkDir(path, nullptr); }), path, ENOENT));
  EXPECT_EQ(scratch.List(), Names{});
}

TEST(MkDir, RefusesAnythingElseAtItsPlace) {
  Scratch scratch;
  const std::string dangling = Link(scratch, "dangling", "missing");
  for (const std::string& path :
       {scratch.MakeFile("file"), Fifo(scratch, "fifo"), dangling}) {
    EXPECT_TRUE(
        Blames(ErrorOf([&] { tov_file::MkDir(path, nullptr); }), path, EEXIST));
  }
  EXPECT_EQ(scratch.List(), (Names{"dangling", "fifo", "file"}));
}

TEST(MkDir, ReportsWhatIsNotAllowed) {
  OpenScratch scratch;
  Chmod(scratch.Path(), 0555);
  const std::string path = scratch / "new";
  EXPECT_TRUE(
      Blames(ErrorAsOrdinaryUser([&] { tov_file::MkDir(path, nullptr); }), path,
             EACCES));
  Chmod(scratch.Path(), 0755);
}

TEST(MkDir, LeavesNoneThatCannotBeGivenItsOwner) {
  OpenScratch scratch;
  Chmod(scratch.Path(), 0777);
  const Attrs of_root(0750, 0, 0);
  const std::string path = scratch / "new";
  EXPECT_TRUE(
      Blames(ErrorAsOrdinaryUser([&] { tov_file::MkDir(path, &of_root); }),
             path, EPERM));
  EXPECT_EQ(scratch.List(), Names{});
}

enum class Way {
  kRename,
  kCopy,
  kCopyByName,  ///< Where there are no files without a name.
};

/// Moves within a file system and across two.
class Move : public testing::TestWithParam<Way> {
 protected:
  void SetUp() override {
    if (Across() && StatOf(from_.Path()).st_dev == StatOf(to_.Path()).st_dev) {
      GTEST_SKIP() << "needs another file system at " << kOtherFileSystem;
    }
    has_no_unnamed_files = GetParam() == Way::kCopyByName;
    Chmod(from_.Path(), 0777);
    Chmod(to_.Path(), 0777);
  }
  void TearDown() override { has_no_unnamed_files = false; }

  static bool Across() { return GetParam() != Way::kRename; }
  std::string Target() const { return to_ / "target"; }

  Scratch from_;
  Scratch to_{Across() ? std::string(kOtherFileSystem)
                       : std::filesystem::temp_directory_path().string()};
};

std::string NameOf(const testing::TestParamInfo<Way>& way) {
  const std::map<Way, std::string> kNames = {
      {Way::kRename, "WithinAFileSystem"},
      {Way::kCopy, "AcrossFileSystems"},
      {Way::kCopyByName, "AcrossFileSystemsByName"}};
  return kNames.at(way.param);
}

INSTANTIATE_TEST_SUITE_P(File, Move,
                         testing::Values(Way::kRename, Way::kCopy,
                                         Way::kCopyByName),
                         NameOf);

TEST_P(Move, TakesTheContentAlong) {
  std::string content;
  while (content.size() < 3'000'000) content += std::to_string(content.size());
  const std::string source = from_.MakeFile("source", content);
  Do([&] { tov_file::Move(source, Target()); });
  EXPECT_TRUE(ReadFile(Target()) == content);
  EXPECT_FALSE(IsThere(source));
  EXPECT_EQ(to_.List(), Names{"target"});
}

TEST_P(Move, TakesAnEmptyFileAlong) {
  const std::string source = from_.MakeFile("source");
  Do([&] { tov_file::Move(source, Target()); });
  EXPECT_EQ(ReadFile(Target()), "");
  EXPECT_EQ(from_.List(), Names{});
}

TEST_P(Move, KeepsTheMode) {
  for (const mode_t mode : {0640u, 0400u, 0777u, 0000u}) {
    const std::string source = from_.MakeFile("source", "x");
    Chmod(source, mode);
    if (mode == 0 && Across() && !zan_cgi::testing::IsRoot()) continue;
    const std::string target = to_ / std::to_string(mode);
    Do([&] {
      ::umask(077);
      tov_file::Move(source, target);
    });
    EXPECT_EQ(ModeOf(target), mode);
  }
}

TEST_P(Move, KeepsTheOwnerAndMakesNoSetIdCopy) {
  if (!zan_cgi::testing::IsRoot()) GTEST_SKIP() << "needs root";
  const std::string source = from_.MakeFile("source", "x");
  Chown(source, 1234, 1235);
  Chmod(source, 06751);
  Do([&] { tov_file::Move(source, Target()); });
  EXPECT_EQ(OwnerOf(Target()), "1234:1235");
  EXPECT_EQ(ModeOf(Target()), Across() ? 0751u : 06751u);
}

TEST_P(Move, WorksWithoutStandardDescriptors) {
  const std::string source = from_.MakeFile("source", "x");
  const auto outcome =
      RunWithoutLeak(Child().Closed(0).Closed(1).Closed(2),
                     [&](const Told&) { tov_file::Move(source, Target()); });
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(ReadFile(Target()), "x");
}

TEST_P(Move, RefusesAnExistingTarget) {
  const std::string source = from_.MakeFile("source", "new");
  to_.MakeFile("target", "old");
  EXPECT_TRUE(Blames(ErrorOf([&] { tov_file::Move(source, Target()); }),
                     Target(), EEXIST));
  EXPECT_EQ(ReadFile(source), "new");
  EXPECT_EQ(ReadFile(Target()), "old");
  EXPECT_EQ(to_.List(), Names{"target"});
}

TEST_P(Move, RefusesADirectoryAsTarget) {
  const std::string source = from_.MakeFile("source", "new");
  to_.MakeDir("target");
  EXPECT_TRUE(
      Blames(ErrorOf([&] { tov_file::Move(source, Target()); }), Target()));
  EXPECT_EQ(ReadFile(source), "new");
  EXPECT_TRUE(std::filesystem::is_empty(Target()));
}

TEST_P(Move, RefusesALinkAtTheTarget) {
  const std::string source = from_.MakeFile("source", "new");
  const std::string secret = from_.MakeFile("secret", "secret");
  for (const std::string& victim : {secret, from_ / "missing"}) {
    Link(to_, "target", victim);
    EXPECT_TRUE(Blames(ErrorOf([&] { tov_file::Move(source, Target()); }),
                       Target(), EEXIST));
    EXPECT_EQ(to_.List(), Names{"target"});
    std::filesystem::remove(Target());
  }
  EXPECT_EQ(ReadFile(source), "new");
  EXPECT_EQ(ReadFile(secret), "secret");
  EXPECT_EQ(from_.List(), (Names{"secret", "source"}));
}

TEST_P(Move, RefusesASourceThatIsNoRegularFile) {
  from_.MakeFile("file", "x");
  for (const std::string& source :
       {Link(from_, "link", from_ / "file"), Link(from_, "dangling", "missing"),
        Fifo(from_, "fifo"), from_.MakeDir("directory")}) {
    const std::string error =
        ErrorOf([&] { tov_file::Move(source, Target()); });
    EXPECT_TRUE(Blames(error, source));
    EXPECT_TRUE(IsThere(source));
    EXPECT_EQ(to_.List(), Names{}) << source;
  }
  EXPECT_EQ(ReadFile(from_ / "file"), "x");
}

TEST_P(Move, ReportsAMissingSource) {
  const std::string source = from_ / "missing";
  EXPECT_TRUE(Blames(ErrorOf([&] { tov_file::Move(source, Target()); }), source,
                     ENOENT));
  EXPECT_EQ(to_.List(), Names{});
}

TEST_P(Move, ReportsAMissingTargetFolder) {
  const std::string source = from_.MakeFile("source", "x");
  const std::string target = to_ / "missing/target";
  EXPECT_TRUE(
      Blames(ErrorOf([&] { tov_file::Move(source, target); }), target, ENOENT));
  EXPECT_EQ(ReadFile(source), "x");
}

TEST_P(Move, ReportsATargetFolderThatMayNotBeChanged) {
  const std::string source = from_.MakeFile("source", "x");
  Chmod(to_.Path(), 0555);
  const std::string error =
      ErrorAsOrdinaryUser([&] { tov_file::Move(source, Target()); });
  EXPECT_TRUE(Blames(error, Target(), EACCES));
  Chmod(to_.Path(), 0755);
  EXPECT_EQ(ReadFile(source), "x");
  EXPECT_EQ(to_.List(), Names{});
}

TEST_P(Move, KeepsASourceWhoseFolderMayNotBeChanged) {
  const std::string source = from_.MakeFile("source", "x");
  if (zan_cgi::testing::IsRoot()) Chown(source, kNobody, kNobody);
  Chmod(from_.Path(), 0555);
  const std::string error =
      ErrorAsOrdinaryUser([&] { tov_file::Move(source, Target()); });
  Chmod(from_.Path(), 0755);
  EXPECT_TRUE(error.starts_with("tov_err::Error: ")) << error;
  EXPECT_EQ(ReadFile(source), "x");
  EXPECT_EQ(to_.List(), Names{});
}

class MoveAcross : public Move {};

INSTANTIATE_TEST_SUITE_P(File, MoveAcross,
                         testing::Values(Way::kCopy, Way::kCopyByName), NameOf);

TEST_P(MoveAcross, FailsWhenTheOwnerCannotBeKept) {
  if (!zan_cgi::testing::IsRoot()) GTEST_SKIP() << "needs root";
  const std::string source = from_.MakeFile("source", "x");
  Chown(source, 1234, 1235);
  Chmod(source, 0644);
  const std::string error =
      ErrorAsOrdinaryUser([&] { tov_file::Move(source, Target()); });
  EXPECT_TRUE(error.starts_with("tov_err::Error: ")) << error;
  EXPECT_EQ(ReadFile(source), "x");
  EXPECT_EQ(to_.List(), Names{});
}

TEST_P(MoveAcross, LosesNothingOnAFullDisk) {
  if (!zan_cgi::testing::IsRoot()) GTEST_SKIP() << "needs root";
  const std::string content(1'000'000, 'x');
  const std::string source = from_.MakeFile("source", content);
  const auto outcome = RunWithoutLeak(Child(), [&](const Told& told) {
    // Private to this process, so that nothing stays behind.
    if (::unshare(CLONE_NEWNS) != 0 ||
        ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("none", to_.Path().c_str(), "tmpfs", 0, "size=64k") != 0) {
      throw std::runtime_error("no private file system");
    }
    try {
      tov_file::Move(source, Target());
    } catch (const tov_err::Error& error) {
      told("error", std::string("tov_err::Error: ") + error.what());
    }
    told("left", std::to_string(to_.List().size()));
  });
  ASSERT_EQ(outcome.error, "");
  EXPECT_TRUE(Blames(outcome.told.at("error"), Target(), ENOSPC));
  EXPECT_EQ(outcome.told.at("left"), "0");
  EXPECT_TRUE(ReadFile(source) == content);
}

// As an account could do that owns the file by now, to have root copy a secret.
TEST_P(MoveAcross, DoesNotCopyALinkThatReplacesTheSource) {
  const std::string source = from_.MakeFile("source", "x");
  const std::string secret = from_.MakeFile("secret", "secret");
  const std::string error = ErrorOf([&] {
    renaming.before = [&] {
      if (renaming.calls > 1) return;
      std::filesystem::remove(source);
      std::filesystem::create_symlink(secret, source);
    };
    renaming.error = EXDEV;
    tov_file::Move(source, Target());
  });
  EXPECT_TRUE(std::filesystem::is_symlink(source)) << "nothing was replaced";
  EXPECT_TRUE(Blames(error, source));
  EXPECT_EQ(to_.List(), Names{});
}

TEST_P(MoveAcross, DoesNotCopyAnotherFileThatReplacesTheSource) {
  const std::string source = from_.MakeFile("source", "x");
  const std::string secret = from_.MakeFile("secret", "secret");
  const std::string error = ErrorOf([&] {
    renaming.before = [&] {
      if (renaming.calls > 1) return;
      std::filesystem::remove(source);
      std::filesystem::create_hard_link(secret, source);
    };
    renaming.error = EXDEV;
    tov_file::Move(source, Target());
  });
  EXPECT_TRUE(Blames(error, source));
  EXPECT_EQ(ReadFile(source), "secret");
  EXPECT_EQ(to_.List(), Names{});
}

TEST_P(MoveAcross, DoesNotWaitForAFifoThatReplacesTheSource) {
  const std::string source = from_.MakeFile("source", "x");
  const std::string error = ErrorOf([&] {
    renaming.before = [&] {
      if (renaming.calls > 1) return;
      std::filesystem::remove(source);
      ::mkfifo(source.c_str(), 0600);
    };
    renaming.error = EXDEV;
    tov_file::Move(source, Target());
  });
  EXPECT_TRUE(Blames(error, source));
  EXPECT_EQ(to_.List(), Names{});
}

TEST_P(Move, WithoutMemoryLeavesNothing) {
  std::string error;
  std::size_t allocations = 0;
  do {
    SCOPED_TRACE("allocation " + std::to_string(allocations));
    const std::string source = from_.MakeFile("source", "x");
    error = ErrorOf([&] {
      const std::string target = Target();
      support::FailAllocation(allocations + 1);
      tov_file::Move(source, target);
      support::FailAllocation(0);
    });
    if (error == ": ") break;
    EXPECT_TRUE(error.starts_with("std::bad_alloc: ")) << error;
    EXPECT_EQ(ReadFile(source), "x");
    EXPECT_EQ(to_.List(), Names{});
    ++allocations;
  } while (!HasFailure());
  EXPECT_EQ(ReadFile(Target()), "x");
  EXPECT_GE(allocations, Across() ? 3U : 0U);
}

/// A file system, or a kernel, whose rename cannot refuse to replace.
class MoveByLink : public testing::TestWithParam<int> {
 protected:
  std::string ErrorOfMove() {
    return ErrorOf([&] {
      renaming.error = GetParam();
      tov_file::Move(scratch_ / "source", scratch_ / "target");
      EXPECT_GT(renaming.calls, 0);
    });
  }

  Scratch scratch_;
};

INSTANTIATE_TEST_SUITE_P(File, MoveByLink, testing::Values(EINVAL, ENOSYS));

TEST_P(MoveByLink, TakesTheFileAlong) {
  scratch_.MakeFile("source", "x");
  const ino_t inode = StatOf(scratch_ / "source").st_ino;
  EXPECT_EQ(ErrorOfMove(), ": ");
  EXPECT_EQ(scratch_.List(), Names{"target"});
  EXPECT_EQ(StatOf(scratch_ / "target").st_ino, inode);
}

TEST_P(MoveByLink, RefusesAnExistingTarget) {
  scratch_.MakeFile("source", "new");
  scratch_.MakeFile("target", "old");
  EXPECT_TRUE(Blames(ErrorOfMove(), scratch_ / "target", EEXIST));
  EXPECT_EQ(ReadFile(scratch_ / "target"), "old");
  EXPECT_EQ(ReadFile(scratch_ / "source"), "new");
}

TEST_P(MoveByLink, RefusesALinkAtTheTarget) {
  scratch_.MakeFile("source", "new");
  Link(scratch_, "target", "missing");
  EXPECT_TRUE(Blames(ErrorOfMove(), scratch_ / "target", EEXIST));
  EXPECT_EQ(scratch_.List(), (Names{"source", "target"}));
}

TEST(SafeSet, SetsTheModeWhateverTheUmask) {
  Scratch scratch;
  const std::string file = scratch.MakeFile("file");
  Do([&] {
    ::umask(077);
    Attrs(0664).SafeSet(file, false);
  });
  EXPECT_EQ(ModeOf(file), 0664u);
}

TEST(SafeSet, SetsTheModeOfADirectory) {
  Scratch scratch;
  Do([&] { Attrs(0711).SafeSet(scratch.MakeDir("directory"), true); });
  EXPECT_EQ(ModeOf(scratch / "directory"), 0711u);
}

TEST(SafeSet, SetsTheOwnerBeforeTheMode) {
  if (!zan_cgi::testing::IsRoot()) GTEST_SKIP() << "needs root";
  Scratch scratch;
  const std::string file = scratch.MakeFile("file");
  // A change of the owner would take the special bits away again.
  Do([&] { Attrs(06755, 1234, 1235).SafeSet(file, true); });
  EXPECT_EQ(OwnerOf(file), "1234:1235");
  EXPECT_EQ(ModeOf(file), 06755u);
}

TEST(SafeSet, LeavesTheOwnerAloneWithoutOne) {
  if (!zan_cgi::testing::IsRoot()) GTEST_SKIP() << "needs root";
  Scratch scratch;
  const std::string file = scratch.MakeFile("file");
  Chown(file, 1234, 1235);
  Do([&] { Attrs(0640).SafeSet(file, true); });
  EXPECT_EQ(OwnerOf(file), "1234:1235");
  EXPECT_EQ(ModeOf(file), 0640u);
}

TEST(SafeSet, RefusesALink) {
  Scratch scratch;
  const std::string file = scratch.MakeFile("file");
  Chmod(file, 0600);
  for (const std::string& link :
       {Link(scratch, "link", "file"), Link(scratch, "dangling", "missing")}) {
    for (const bool must_exist : {false, true}) {
      EXPECT_TRUE(Blames(
          ErrorOf([&] { Attrs(0644).SafeSet(link, must_exist); }), link));
    }
  }
  EXPECT_EQ(ModeOf(file), 0600u);
}

TEST(SafeSet, GivesNoFileAwayThatHasMoreThanOneName) {
  const Scratch scratch;
  const std::string file = scratch.MakeFile("file");
  const std::string owner = OwnerOf(file);
  Chmod(file, 0600);
  std::filesystem::create_hard_link(file, scratch / "link");
  const std::string error = ErrorOf([&] {
    Attrs(0644, ::geteuid(), ::getegid()).SafeSet(scratch / "link", false);
  });
  EXPECT_NE(error.find(scratch / "link"), std::string::npos) << error;
  EXPECT_EQ(ModeOf(file), 0600u);
  EXPECT_EQ(OwnerOf(file), owner);

  Do([&] { Attrs(0640).SafeSet(scratch / "link", false); });
  EXPECT_EQ(ModeOf(file), 0640u) << "the owner is left alone";
}

TEST(SafeSet, LeavesAMissingFileUnlessItMustExist) {
  Scratch scratch;
  for (const std::string& path :
       {scratch / "missing", scratch / "missing/file"}) {
    Do([&] { Attrs(0644).SafeSet(path, false); });
    EXPECT_TRUE(Blames(ErrorOf([&] { Attrs(0644).SafeSet(path, true); }), path,
                       ENOENT));
  }
  EXPECT_EQ(scratch.List(), Names{});
}

TEST(SafeSet, DoesNotWaitForTheOtherEndOfAFifo) {
  Scratch scratch;
  const std::string fifo = Fifo(scratch, "fifo");
  Do([&] { Attrs(0644).SafeSet(fifo, false); });
  EXPECT_EQ(ModeOf(fifo), 0644u);
}

TEST(SafeSet, TakesNoTerminalForItsOwn) {
  if (!support::CanTakeTerminals()) GTEST_SKIP() << "needs terminals";
  EXPECT_FALSE(support::TakesTerminal(
      [](const std::string& path) { Attrs(0600).SafeSet(path, true); }));
}

TEST(SafeSet, WorksOnAFileThatItsOwnerMayNotRead) {
  OpenScratch scratch;
  Chmod(scratch.Path(), 0777);
  const std::string file = scratch / "file";
  const std::string error = ErrorAsOrdinaryUser([&] {
    ::close(::open(file.c_str(), O_CREAT | O_WRONLY, 0000));
    Attrs(0600).SafeSet(file, true);
  });
  EXPECT_EQ(error, ": ");
  EXPECT_EQ(ModeOf(file), 0600u);
}

TEST(SafeSet, ReportsWhatIsNotAllowed) {
  if (!zan_cgi::testing::IsRoot()) GTEST_SKIP() << "needs root";
  OpenScratch scratch;
  const std::string file = scratch.MakeFile("file");
  Chmod(file, 0644);
  EXPECT_TRUE(
      Blames(ErrorAsOrdinaryUser([&] { Attrs(0666).SafeSet(file, false); }),
             file, EPERM));
  EXPECT_EQ(ModeOf(file), 0644u);
}

TEST(SafeSet, WorksWithoutStandardDescriptors) {
  Scratch scratch;
  const std::string file = scratch.MakeFile("file");
  const auto outcome =
      RunWithoutLeak(Child().Closed(0).Closed(1).Closed(2),
                     [&](const Told&) { Attrs(0606).SafeSet(file, true); });
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(ModeOf(file), 0606u);
}

/// The name of a new temporary file.
std::string TmpName(const std::string& prefix) {
  return RunWithoutLeak(Child(),
                        [&](const Told& told) {
                          ::umask(0);
                          told("name", tov_file::Tmp(prefix).Name());
                        })
      .told.at("name");
}

TEST(Tmp, MakesAnEmptyFileForItsOwnerOnly) {
  Scratch scratch;
  const std::string name = TmpName(scratch / "upload");
  EXPECT_EQ(ModeOf(name), 0600u);
  EXPECT_TRUE(std::filesystem::is_regular_file(name));
  EXPECT_TRUE(std::filesystem::is_empty(name));
}

TEST(Tmp, AddsSixCharactersToThePrefix) {
  Scratch scratch;
  const std::string name = TmpName(scratch / "upload");
  EXPECT_TRUE(name.starts_with(scratch / "upload"));
  EXPECT_EQ(name.size(), (scratch / "upload").size() + 6);
  EXPECT_EQ(name.find('/', scratch.Path().size() + 1), std::string::npos);
}

TEST(Tmp, LeavesTheFileBehind) {
  Scratch scratch;
  const std::string name = tov_file::Tmp(scratch / "upload").Name();
  EXPECT_TRUE(IsThere(name));
}

TEST(Tmp, NeverMakesTwoFilesOfOneName) {
  Scratch scratch;
  for (int i = 0; i < 100; ++i) tov_file::Tmp tmp(scratch / "upload");
  EXPECT_EQ(scratch.List().size(), 100u);
}

TEST(Tmp, HasAFreshNameWhenTheFileCannotBeMade) {
  Scratch scratch;
  const std::string prefix = scratch / "missing/upload";
  const std::string one = TmpName(prefix);
  const std::string other = TmpName(prefix);
  for (const std::string& name : {one, other}) {
    EXPECT_TRUE(name.starts_with(prefix)) << name;
    EXPECT_EQ(name.size(), prefix.size() + 6) << name;
    EXPECT_EQ(name.find('X', prefix.size() + 5), std::string::npos) << name;
  }
  EXPECT_NE(one, other);
  EXPECT_EQ(scratch.List(), Names{});
  for (int i = 0; i < 100; ++i) {
    const std::string name = TmpName(prefix);
    EXPECT_EQ(name.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789",
                                     prefix.size()),
              std::string::npos);
  }
}

TEST(Tmp, HasAFreshNameInAFolderThatMayNotBeChanged) {
  OpenScratch scratch;
  Chmod(scratch.Path(), 0555);
  const auto outcome = RunWithoutLeak(Child(), [&](const Told& told) {
    BecomeOrdinaryUser();
    told("one", tov_file::Tmp(scratch / "upload").Name());
    told("other", tov_file::Tmp(scratch / "upload").Name());
  });
  EXPECT_TRUE(outcome.told.at("one").starts_with(scratch / "upload"));
  EXPECT_NE(outcome.told.at("one"), outcome.told.at("other"));
  EXPECT_EQ(scratch.List(), Names{});
}

TEST(Tmp, WorksWithoutStandardDescriptors) {
  Scratch scratch;
  const auto outcome = RunWithoutLeak(
      Child().Closed(0).Closed(1).Closed(2), [&](const Told& told) {
        told("name", tov_file::Tmp(scratch / "upload").Name());
      });
  EXPECT_TRUE(IsThere(outcome.told.at("name")));
}

}  // namespace

#define EXPORTED __attribute__((visibility("default")))

extern "C" EXPORTED int renameat2(int oldfd, const char* old, int newfd,
                                  const char* newp, unsigned flags) noexcept {
  ++renaming.calls;
  if (renaming.before) renaming.before();
  if (renaming.error == EXDEV && renaming.calls > 1) renaming.error = 0;
  if (renaming.error != 0) {
    errno = renaming.error;
    return -1;
  }
  return static_cast<int>(
      ::syscall(SYS_renameat2, oldfd, old, newfd, newp, flags));
}

// Under a name of its own, since it takes the mode like any other argument,
// which comes the same way.
extern "C" int OpenNamed(const char* file, int oflag,
                         mode_t mode) __asm__("open");

extern "C" EXPORTED int OpenNamed(const char* file, int oflag, mode_t mode) {
  if (has_no_unnamed_files && (oflag & O_TMPFILE) == O_TMPFILE) {
    errno = EOPNOTSUPP;
    return -1;
  }
  return static_cast<int>(::syscall(SYS_openat, AT_FDCWD, file, oflag, mode));
}

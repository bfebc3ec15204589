#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <tov/err.h>
#include <tov/file.h>
#include <unistd.h>
#include <zancgi/testing/child.h>
#include <zancgi/testing/identity.h>
#include <zancgi/testing/scratch.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "attributes.h"
#include "support/clean_run.h"
#include "support/mount.h"
#include "support/new_operator.h"
#include "support/terminal.h"

namespace {

using attributes::kOtherFileSystem;
using attributes::ModeOf;
using attributes::StatOf;
using support::RunWithoutLeak;
using tov_file::Attrs;
using zan_cgi::testing::BecomeOrdinaryUser;
using zan_cgi::testing::Child;
using zan_cgi::testing::Outcome;
using zan_cgi::testing::ReadFile;
using zan_cgi::testing::Reporter;
using zan_cgi::testing::Scratch;
using Names = std::vector<std::string>;

constexpr uid_t kNobody = 65534;

/// What an interposed renameat2(2) does instead of renaming; inactive at first.
struct {
  int error = 0;
  std::function<void()> before;
  int calls = 0;
} renaming;

/// Whether an interposed open(2) makes no files without a name.
bool has_no_unnamed_files = false;

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

/// The error of this in a process of its own, with its type in front.
std::string ErrorOf(const std::function<void()>& work,
                    const Child& child = Child()) {
  const Outcome outcome =
      RunWithoutLeak(child, [&](const Reporter&) { work(); });
  return outcome.error_type + ": " + outcome.error;
}

std::string ErrorAsOrdinaryUser(const std::function<void()>& work) {
  return ErrorOf([&] {
    BecomeOrdinaryUser();
    work();
  });
}

/// Runs something that must work.
void Do(const std::function<void()>& work, const Child& child = Child()) {
  EXPECT_EQ(ErrorOf(work, child), ": ");
}

Child WithoutStandardDescriptors() {
  return Child().Closed(0).Closed(1).Closed(2);
}

/// An error of ours that names the path and, unless it is 0, the system's
/// reason.
testing::AssertionResult Blames(const std::string& error,
                                const std::string& path, int reason = 0) {
  const bool good =
      error.starts_with("tov_err::Error: ") &&
      error.find(path) != std::string::npos &&
      (reason == 0 || error.find(std::strerror(reason)) != std::string::npos);
  return (good ? testing::AssertionSuccess() : testing::AssertionFailure())
         << "[" << error << "] about " << path;
}

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
  const Scratch scratch;
  for (const std::string& path :
       {scratch.MakeFile("file"), scratch.Path(), Fifo(scratch, "fifo"),
        Link(scratch, "link", "file")}) {
    EXPECT_TRUE(tov_file::Exists(path)) << path;
  }
  for (const std::string& path :
       {scratch / "missing", scratch / "missing/file", scratch / "file/x",
        Link(scratch, "dangling", "missing"), std::string()}) {
    EXPECT_FALSE(tov_file::Exists(path)) << path;
  }
}

TEST(Exists, ThrowsWhenItCannotTell) {
  OpenScratch scratch;
  const std::string hidden = scratch.MakeClosedDir("closed") + "/file";
  EXPECT_TRUE(Blames(ErrorAsOrdinaryUser([&] { tov_file::Exists(hidden); }),
                     hidden, EACCES));
  const std::string loop = Link(scratch, "loop", "loop");
  EXPECT_TRUE(Blames(ErrorOf([&] { tov_file::Exists(loop); }), loop, ELOOP));
  const std::string longer = scratch / std::string(300, 'x');
  EXPECT_TRUE(
      Blames(ErrorOf([&] { tov_file::Exists(longer); }), longer, ENAMETOOLONG));
}

TEST(RemoveFile, RemovesAFileOrALinkAndNotItsTarget) {
  const Scratch scratch;
  scratch.MakeFile("target");
  tov_file::RemoveFile(scratch.MakeFile("file"));
  tov_file::RemoveFile(Link(scratch, "link", "target"));
  tov_file::RemoveFile(Link(scratch, "dangling", "missing"));
  EXPECT_EQ(scratch.List(), Names{"target"});
}

TEST(RemoveFile, TakesAMissingFileForRemoved) {
  const Scratch scratch;
  EXPECT_NO_THROW(tov_file::RemoveFile(scratch / "missing"));
  EXPECT_NO_THROW(tov_file::RemoveFile(scratch / "missing/file"));
  EXPECT_NO_THROW(tov_file::RemoveFile(scratch.MakeFile("file") + "/file"));
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

TEST(SplitPath, CutsAtTheLastSlashAndKeepsTheRoot) {
  using Parts = std::pair<std::string, std::string>;
  for (const auto& [path, parts] : {std::pair("/a/b/c", Parts("/a/b", "c")),
                                    {"a/b", {"a", "b"}},
                                    {"a/b/", {"a/b", ""}},
                                    {"a", {"", "a"}},
                                    {"", {"", ""}},
                                    {"/a", {"/", "a"}},
                                    {"/", {"/", ""}}}) {
    EXPECT_EQ(tov_file::SplitPath(path), parts) << path;
  }
}

TEST(ConcatPath, JoinsWithOneSlash) {
  EXPECT_EQ(tov_file::ConcatPath("/a", "b"), "/a/b");
  EXPECT_EQ(tov_file::ConcatPath("/a/", "b"), "/a/b");
  EXPECT_EQ(tov_file::ConcatPath("/a", "/b"), "/a/b");
  EXPECT_EQ(tov_file::ConcatPath("/a//", "//b"), "/a/b");
  EXPECT_EQ(tov_file::ConcatPath("a", "b/c"), "a/b/c");
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

/// A folder with the folders "a/b", the file "file", and the links "link" to
/// "a/b", "to_a" to "a" and "dangling".
class RealPath : public testing::Test {
 protected:
  void SetUp() override {
    scratch_.MakeDir("a/b");
    scratch_.MakeFile("file");
    Link(scratch_, "link", "a/b");
    Link(scratch_, "to_a", "a");
    Link(scratch_, "dangling", "nowhere");
  }

  std::string Of(const std::string& path) const {
    return tov_file::RealPath(scratch_ / path);
  }

  Scratch scratch_;
};

TEST_F(RealPath, ResolvesDotsAndLinks) {
  EXPECT_EQ(Of("a/./b//../b"), scratch_ / "a/b");
  EXPECT_EQ(Of("link"), scratch_ / "a/b");
  EXPECT_EQ(Of("link/.."), scratch_ / "a");
  EXPECT_EQ(tov_file::RealPath("/.."), "/");
}

TEST_F(RealPath, StartsFromTheCurrentDirectory) {
  Do(
      [&] {
        EXPECT_EQ(tov_file::RealPath("b"), scratch_ / "a/b");
        EXPECT_EQ(tov_file::RealPath("."), scratch_ / "a");
        EXPECT_EQ(tov_file::RealPath("./.."), scratch_.Path());
        EXPECT_EQ(tov_file::RealPath("missing"), scratch_ / "a/missing");
      },
      Child().WorkDir(scratch_ / "a"));
}

TEST_F(RealPath, TakesMissingComponentsAsTheyAreWritten) {
  EXPECT_EQ(Of("a/x/y"), scratch_ / "a/x/y");
  EXPECT_EQ(Of("to_a/x"), scratch_ / "a/x");
  EXPECT_EQ(Of("dangling/x"), scratch_ / "dangling/x");
  EXPECT_EQ(Of("file/"), scratch_ / "file");
  EXPECT_EQ(Of("file/x"), scratch_ / "file/x");
}

TEST_F(RealPath, RemovesDotsAndSlashesBehindMissingComponents) {
  EXPECT_EQ(Of("x/./y"), scratch_ / "x/y");
  EXPECT_EQ(Of("x/../y"), scratch_ / "y");
  EXPECT_EQ(Of("x/y/.."), scratch_ / "x");
  EXPECT_EQ(Of("x/."), scratch_ / "x");
  EXPECT_EQ(Of("file/.."), scratch_.Path());
  EXPECT_EQ(tov_file::RealPath("//missing"), "/missing");
  EXPECT_EQ(Of("x//y//"), scratch_ / "x/y");
  EXPECT_EQ(Of("x//..//y"), scratch_ / "y");
  EXPECT_EQ(tov_file::RealPath("/missing/../../.."), "/");
}

TEST_F(RealPath, RefusesALoopOfLinks) {
  const std::string loop = Link(scratch_, "loop", "loop");
  EXPECT_TRUE(Blames(ErrorOf([&] { Of("loop"); }), loop, ELOOP));
  EXPECT_TRUE(Blames(ErrorOf([&] { Of("loop/x"); }), loop, ELOOP));
}

TEST_F(RealPath, RefusesAFolderThatMayNotBeSearched) {
  const OpenScratch scratch;
  const std::string hidden = scratch.MakeClosedDir("closed") + "/file";
  EXPECT_TRUE(Blames(ErrorAsOrdinaryUser([&] { tov_file::RealPath(hidden); }),
                     hidden, EACCES));
}

TEST_F(RealPath, FailsInADirectoryThatIsGone) {
  const std::string error = ErrorOf([&] {
    const std::string directory = scratch_.MakeDir("gone");
    EXPECT_EQ(::chdir(directory.c_str()), 0);
    EXPECT_EQ(::rmdir(directory.c_str()), 0);
    tov_file::RealPath(".");
  });
  EXPECT_TRUE(Blames(error, ".", ENOENT));
}

TEST(Info, KnowsADirectoryAndFollowsLinksUnlessToldOtherwise) {
  const Scratch scratch;
  const std::string link = Link(scratch, "link", scratch.Path());
  EXPECT_TRUE(tov_file::Info(scratch.Path(), false).IsDir());
  EXPECT_FALSE(tov_file::Info(scratch.MakeFile("file"), false).IsDir());
  EXPECT_FALSE(tov_file::Info(Fifo(scratch, "fifo"), false).IsDir());
  EXPECT_TRUE(tov_file::Info(link, false).IsDir());
  EXPECT_FALSE(tov_file::Info(link, true).IsDir());
}

TEST(Info, OfAMissingFileIsAnError) {
  const Scratch scratch;
  const std::string missing = scratch / "missing";
  const std::string dangling = Link(scratch, "dangling", "missing");
  for (const auto& [path, own_link] :
       {std::pair(missing, false), {missing, true}, {dangling, false}}) {
    EXPECT_TRUE(
        Blames(ErrorOf([p = path, own = own_link] { tov_file::Info(p, own); }),
               path, ENOENT));
  }
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
    if (Across() && !attributes::IsOtherFileSystemAnother()) {
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
  for (const std::string& whole : {content, std::string()}) {
    const std::string source = from_.MakeFile("source", whole);
    Do([&] { tov_file::Move(source, Target()); });
    EXPECT_TRUE(ReadFile(Target()) == whole);
    EXPECT_EQ(from_.List(), Names{});
    EXPECT_EQ(to_.List(), Names{"target"});
    std::filesystem::remove(Target());
  }
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
  Do([&] { tov_file::Move(source, Target()); }, WithoutStandardDescriptors());
  EXPECT_EQ(ReadFile(Target()), "x");
}

TEST_P(Move, RefusesAnExistingTarget) {
  const std::string source = from_.MakeFile("source", "new");
  const auto error = [&] {
    return ErrorOf([&] { tov_file::Move(source, Target()); });
  };
  to_.MakeFile("target", "old");
  EXPECT_TRUE(Blames(error(), Target(), EEXIST));
  EXPECT_EQ(ReadFile(Target()), "old");
  std::filesystem::remove(Target());
  to_.MakeDir("target");
  EXPECT_TRUE(Blames(error(), Target()));
  EXPECT_TRUE(std::filesystem::is_empty(Target()));
  EXPECT_EQ(ReadFile(source), "new");
  EXPECT_EQ(to_.List(), Names{"target"});
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

TEST_P(Move, ReportsWhatIsMissing) {
  const std::string missing = from_ / "missing";
  EXPECT_TRUE(Blames(ErrorOf([&] { tov_file::Move(missing, Target()); }),
                     missing, ENOENT));
  const std::string source = from_.MakeFile("source", "x");
  const std::string target = to_ / "missing/target";
  EXPECT_TRUE(
      Blames(ErrorOf([&] { tov_file::Move(source, target); }), target, ENOENT));
  EXPECT_EQ(ReadFile(source), "x");
  EXPECT_EQ(to_.List(), Names{});
}

TEST_P(Move, ReportsFoldersThatMayNotBeChanged) {
  const std::string source = from_.MakeFile("source", "x");
  if (zan_cgi::testing::IsRoot()) Chown(source, kNobody, kNobody);
  for (const auto& [folder, blamed] :
       {std::pair(&from_, source), std::pair(&to_, Target())}) {
    Chmod(folder->Path(), 0555);
    const std::string error =
        ErrorAsOrdinaryUser([&] { tov_file::Move(source, Target()); });
    Chmod(folder->Path(), 0777);
    EXPECT_TRUE(Blames(error, blamed, EACCES));
    EXPECT_EQ(ReadFile(source), "x");
    EXPECT_EQ(to_.List(), Names{});
  }
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
  Do([&] {
    support::MountPrivately(to_.Path(), "size=64k");
    try {
      tov_file::Move(source, Target());
      ADD_FAILURE() << "there was room";
    } catch (const tov_err::Error& error) {
      EXPECT_TRUE(Blames(std::string("tov_err::Error: ") + error.what(),
                         Target(), ENOSPC));
    }
    EXPECT_EQ(to_.List(), Names{});
  });
  EXPECT_TRUE(ReadFile(source) == content);
}

// As an account could do that owns the file by now, to have root copy a secret
// or wait for ever.
TEST_P(MoveAcross, CopiesNothingThatReplacesTheSource) {
  const std::string source = from_.MakeFile("source", "x");
  const std::string secret = from_.MakeFile("secret", "secret");
  const auto put_link = [&] {
    std::filesystem::create_symlink(secret, source);
  };
  const auto put_other_file = [&] {
    std::filesystem::create_hard_link(secret, source);
  };
  const auto put_fifo = [&] { ::mkfifo(source.c_str(), 0600); };
  struct Row {
    std::function<void()> put;
    mode_t type;
  };
  for (const Row& row : {Row{put_link, S_IFLNK}, Row{put_other_file, S_IFREG},
                         Row{put_fifo, S_IFIFO}}) {
    SCOPED_TRACE("file of type " + std::to_string(row.type));
    const std::string error = ErrorOf([&] {
      renaming.before = [&] {
        if (renaming.calls > 1) return;
        std::filesystem::remove(source);
        row.put();
      };
      renaming.error = EXDEV;
      tov_file::Move(source, Target());
    });
    EXPECT_EQ(StatOf(source).st_mode & S_IFMT, row.type);
    EXPECT_TRUE(Blames(error, source));
    EXPECT_EQ(to_.List(), Names{});
    std::filesystem::remove(source);
    from_.MakeFile("source", "x");
  }
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
  std::filesystem::remove(scratch_ / "target");
  Link(scratch_, "target", "missing");
  EXPECT_TRUE(Blames(ErrorOfMove(), scratch_ / "target", EEXIST));
  EXPECT_EQ(ReadFile(scratch_ / "source"), "new");
  EXPECT_EQ(scratch_.List(), (Names{"source", "target"}));
}

TEST(SafeSet, SetsTheModeWhateverTheUmask) {
  const Scratch scratch;
  for (const std::string& path :
       {scratch.MakeFile("file"), scratch.MakeDir("directory"),
        // Whose other end nobody has open.
        Fifo(scratch, "fifo")}) {
    Do([&] {
      ::umask(077);
      Attrs(0664).SafeSet(path, false);
    });
    EXPECT_EQ(ModeOf(path), 0664u) << path;
  }
}

TEST(SafeSet, SetsTheOwnerBeforeTheMode) {
  if (!zan_cgi::testing::IsRoot()) GTEST_SKIP() << "needs root";
  const Scratch scratch;
  const std::string file = scratch.MakeFile("file");
  // A change of the owner would take the special bits away again.
  Do([&] { Attrs(06755, 1234, 1235).SafeSet(file, true); });
  EXPECT_EQ(OwnerOf(file), "1234:1235");
  EXPECT_EQ(ModeOf(file), 06755u);
  Do([&] { Attrs(0640).SafeSet(file, true); });
  EXPECT_EQ(OwnerOf(file), "1234:1235") << "the owner is left alone";
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
  Do([&] { Attrs(0606).SafeSet(file, true); }, WithoutStandardDescriptors());
  EXPECT_EQ(ModeOf(file), 0606u);
}

/// The name of a new temporary file, and what of it is random.
struct NewName {
  std::string path;
  std::string random;
};

NewName TmpName(const std::string& prefix, const Child& child = Child()) {
  Outcome outcome = RunWithoutLeak(child, [&](const Reporter& report) {
    ::umask(0);
    report("name", tov_file::Tmp(prefix).Name());
  });
  const std::string path = outcome.reported["name"];
  EXPECT_TRUE(path.starts_with(prefix)) << path;
  return {path, path.substr(std::min(prefix.size(), path.size()))};
}

TEST(Tmp, MakesAnEmptyFileForItsOwnerOnlyAndLeavesItThere) {
  const Scratch scratch;
  const NewName name = TmpName(scratch / "upload");
  EXPECT_EQ(name.random.size(), 6U);
  EXPECT_EQ(name.random.find('/'), std::string::npos);
  EXPECT_EQ(ModeOf(name.path), 0600u);
  EXPECT_TRUE(std::filesystem::is_regular_file(name.path));
  EXPECT_TRUE(std::filesystem::is_empty(name.path));
}

TEST(Tmp, NeverMakesTwoFilesOfOneName) {
  const Scratch scratch;
  for (int i = 0; i < 100; ++i) tov_file::Tmp tmp(scratch / "upload");
  EXPECT_EQ(scratch.List().size(), 100u);
}

TEST(Tmp, HasAFreshNameWhenTheFileCannotBeMade) {
  const Scratch scratch;
  std::set<std::string> names;
  for (int i = 0; i < 100; ++i) {
    const std::string random = TmpName(scratch / "missing/upload").random;
    EXPECT_EQ(random.size(), 6U);
    EXPECT_EQ(random.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789"),
              std::string::npos)
        << random;
    names.insert(random);
  }
  EXPECT_EQ(names.size(), 100U);
  EXPECT_EQ(scratch.List(), Names{});
}

TEST(Tmp, HasAFreshNameInAFolderThatMayNotBeChanged) {
  const OpenScratch scratch;
  Chmod(scratch.Path(), 0555);
  Do([&] {
    BecomeOrdinaryUser();
    const std::string one = tov_file::Tmp(scratch / "upload").Name();
    EXPECT_TRUE(one.starts_with(scratch / "upload"));
    EXPECT_NE(one, tov_file::Tmp(scratch / "upload").Name());
  });
  EXPECT_EQ(scratch.List(), Names{});
}

TEST(Tmp, WorksWithoutStandardDescriptors) {
  const Scratch scratch;
  EXPECT_TRUE(
      IsThere(TmpName(scratch / "upload", WithoutStandardDescriptors()).path));
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

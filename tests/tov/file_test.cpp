#include <tov/err.h>
#include <tov/file.h>
#include <zancgi/testing/mount.h>

#include <cstring>
#include <set>
#include <tuple>

#include "support/file_calls.h"
#include "support/files.h"
#include "support/new_operator.h"
#include "support/terminal.h"
#include "support/test.h"

namespace support {
namespace {

using Work = std::function<void()>;

constexpr uid_t kNobody = 65534;

/// What watches the calls on files in the children, if anything.
FileCallWatcher watcher;

std::string OwnerOf(const std::string& path) {
  const struct stat found = StatOf(path);
  return std::to_string(found.st_uid) + ":" + std::to_string(found.st_gid);
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

/// The error of this in a process of its own, after its type.
std::string ErrorOf(const Work& work, const Child& child = Child()) {
  const Outcome outcome = RunWithoutLeak(child, [&](const Reporter&) {
    const Watch watch(watcher);
    work();
  });
  return outcome.error_type + ": " + outcome.error;
}

Work AsOrdinaryUser(const Work& work) {
  return [work] {
    BecomeOrdinaryUser();
    work();
  };
}

/// Runs something that must work.
void Do(const Work& work, const Child& child = Child()) {
  EXPECT_EQ(ErrorOf(work, child), ": ");
}

const Child kWithoutStandardDescriptors = Child().Closed(0).Closed(1).Closed(2);

/// Expects an error of ours that names the path and, unless it is 0, the
/// system's reason.
void ExpectBlame(const std::string& error, const std::string& path,
                 int reason) {
  EXPECT_TRUE(error.starts_with("tov_err::Error: ")) << error;
  EXPECT_NE(error.find(path), std::string::npos) << error << "\nof " << path;
  if (reason == 0) return;
  EXPECT_NE(error.find(std::strerror(reason)), std::string::npos) << error;
}

void ExpectFailure(const std::string& path, int reason, const Work& work) {
  ExpectBlame(ErrorOf(work), path, reason);
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

  /// A file in a directory that an ordinary user may neither search nor change.
  std::string HiddenFile() const {
    Chmod(MakeDir("closed"), IsRoot() ? 0700 : 0000);
    return *this / "closed/file";
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
  const OpenScratch scratch;
  const std::string hidden = scratch.HiddenFile();
  const std::string loop = Link(scratch, "loop", "loop");
  const std::string longer = scratch / std::string(300, 'x');
  ExpectFailure(hidden, EACCES,
                AsOrdinaryUser([&] { tov_file::Exists(hidden); }));
  ExpectFailure(loop, ELOOP, [&] { tov_file::Exists(loop); });
  ExpectFailure(longer, ENAMETOOLONG, [&] { tov_file::Exists(longer); });
}

TEST(RemoveFile, RemovesAFileOrALinkAndNotItsTarget) {
  const Scratch scratch;
  scratch.MakeFile("target");
  for (const std::string& path :
       {scratch.MakeFile("file"), Link(scratch, "link", "target"),
        Link(scratch, "dangling", "missing"), scratch / "missing",
        scratch / "missing/file", scratch / "target/file"}) {
    EXPECT_NO_THROW(tov_file::RemoveFile(path)) << path;
  }
  EXPECT_EQ(scratch.List(), Strings{"target"});
}

TEST(RemoveFile, ReportsADirectoryAndWhatIsNotAllowed) {
  const OpenScratch scratch;
  const std::string directory = scratch.MakeDir("closed");
  const std::string file = scratch.MakeFile("closed/file");
  Chmod(directory, 0555);
  ExpectFailure(directory, 0, [&] { tov_file::RemoveFile(directory); });
  ExpectFailure(file, EACCES,
                AsOrdinaryUser([&] { tov_file::RemoveFile(file); }));
  EXPECT_TRUE(IsThere(file));
}

using Paths = std::pair<std::string, std::string>;

TEST(SplitPath, CutsAtTheLastSlashAndKeepsTheRoot) {
  for (const auto& [path, parts] : {std::pair("/a/b/c", Paths("/a/b", "c")),
                                    {"a/b", {"a", "b"}},
                                    {"a/b/", {"a/b", ""}},
                                    {"a", {"", "a"}},
                                    {"", {"", ""}},
                                    {"/a", {"/", "a"}},
                                    {"/", {"/", ""}}}) {
    EXPECT_EQ(tov_file::SplitPath(path), parts) << path;
  }
}

TEST(ConcatPath, JoinsWithOneSlashUnlessAnOperandIsEmpty) {
  for (const auto& [operands, path] : {std::pair(Paths("/a", "b"), "/a/b"),
                                       {{"/a/", "b"}, "/a/b"},
                                       {{"/a", "/b"}, "/a/b"},
                                       {{"/a//", "//b"}, "/a/b"},
                                       {{"a", "b/c"}, "a/b/c"},
                                       {{"/", "b"}, "/b"},
                                       {{"/", "/b"}, "/b"},
                                       {{"", "b"}, "b"},
                                       {{"", "/b"}, "/b"},
                                       {{"a", ""}, "a"},
                                       {{"a/", ""}, "a/"},
                                       {{"", ""}, ""}}) {
    EXPECT_EQ(tov_file::ConcatPath(operands.first, operands.second), path);
  }
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

  Scratch scratch_;
};

TEST_F(RealPath, ResolvesLinksAndDotsAndKeepsMissingComponents) {
  for (const auto& [path, real] : {Paths("a/./b//../b", "a/b"),
                                   {"link", "a/b"},
                                   {"link/..", "a"},
                                   {"a/x/y", "a/x/y"},
                                   {"to_a/x", "a/x"},
                                   {"dangling/x", "dangling/x"},
                                   {"file/", "file"},
                                   {"file/x", "file/x"},
                                   {"x/./y", "x/y"},
                                   {"x/../y", "y"},
                                   {"x/y/..", "x"},
                                   {"x/.", "x"},
                                   {"a/x/../../file/..", ""},
                                   {"x//y//", "x/y"},
                                   {"x//..//y", "y"}}) {
    EXPECT_EQ(tov_file::RealPath(scratch_ / path),
              tov_file::ConcatPath(scratch_.Path(), real))
        << path;
  }
  EXPECT_EQ(tov_file::RealPath("/.."), "/");
  EXPECT_EQ(tov_file::RealPath("//missing"), "/missing");
  EXPECT_EQ(tov_file::RealPath("/missing/../../.."), "/");
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

TEST_F(RealPath, RefusesWhatCannotBeFollowed) {
  const std::string loop = Link(scratch_, "loop", "loop");
  ExpectFailure(loop, ELOOP, [&] { tov_file::RealPath(loop); });
  ExpectFailure(loop, ELOOP, [&] { tov_file::RealPath(loop + "/x"); });
  const OpenScratch scratch;
  const std::string hidden = scratch.HiddenFile();
  ExpectFailure(hidden, EACCES,
                AsOrdinaryUser([&] { tov_file::RealPath(hidden); }));
  // In a directory that is gone.
  ExpectFailure(".", ENOENT, [&] {
    const std::string directory = scratch_.MakeDir("gone");
    EXPECT_EQ(::chdir(directory.c_str()), 0);
    EXPECT_EQ(::rmdir(directory.c_str()), 0);
    tov_file::RealPath(".");
  });
}

TEST(Info, KnowsADirectoryAndFollowsLinksByDefault) {
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
  ExpectFailure(missing, ENOENT, [&] { tov_file::Info(missing, false); });
  ExpectFailure(missing, ENOENT, [&] { tov_file::Info(missing, true); });
  ExpectFailure(dangling, ENOENT, [&] { tov_file::Info(dangling, false); });
  EXPECT_FALSE(tov_file::Info(dangling, true).IsDir());
}

TEST(MkDir, GivesItTheAttributesOrItsOwnerAloneWhateverTheUmask) {
  const tov_file::Attrs attrs(02755);
  const Scratch scratch;
  const std::string path = scratch / "new";
  for (const auto& [given, mode] :
       {std::pair<const tov_file::Attrs*, mode_t>(nullptr, 0700),
        {&attrs, 02755}}) {
    Do([&, given = given] {
      ::umask(given == nullptr ? 0 : 077);
      tov_file::MkDir(path, given);
    });
    EXPECT_TRUE(fs::is_directory(path));
    EXPECT_EQ(ModeOf(path), mode);
    fs::remove(path);
  }
}

TEST(MkDir, GivesItItsOwner) {
  if (!IsRoot()) GTEST_SKIP() << "needs root";
  const Scratch scratch;
  const tov_file::Attrs attrs(0750, 1234, 1235);
  tov_file::MkDir(scratch / "new", &attrs);
  EXPECT_EQ(OwnerOf(scratch / "new"), "1234:1235");
  EXPECT_EQ(ModeOf(scratch / "new"), 0750u);
}

TEST(MkDir, LeavesAnExistingDirectoryAsItIs) {
  const Scratch scratch;
  Chmod(scratch.MakeDir("old"), 0751);
  const tov_file::Attrs attrs(0700);
  tov_file::MkDir(scratch / "old", &attrs);
  tov_file::MkDir(scratch / "old", nullptr);
  EXPECT_EQ(ModeOf(scratch / "old"), 0751u);
}

TEST(MkDir, MakesNoParentsAndRefusesAnythingElseAtItsPlace) {
  const Scratch scratch;
  const auto expect_failure = [](const std::string& path, int reason) {
    ExpectFailure(path, reason, [&] { tov_file::MkDir(path, nullptr); });
  };
  expect_failure(scratch / "missing/new", ENOENT);
  EXPECT_EQ(scratch.List(), Strings{});
  for (const std::string& path :
       {scratch.MakeFile("file"), Fifo(scratch, "fifo"),
        Link(scratch, "dangling", "missing")}) {
    expect_failure(path, EEXIST);
  }
  EXPECT_EQ(scratch.List(), (Strings{"dangling", "fifo", "file"}));
}

TEST(MkDir, LeavesNoneWhereItOrItsOwnerIsNotAllowed) {
  const OpenScratch scratch;
  const tov_file::Attrs of_root(0750, 0, 0);
  const std::string path = scratch / "new";
  Chmod(scratch.Path(), 0555);
  ExpectFailure(path, EACCES,
                AsOrdinaryUser([&] { tov_file::MkDir(path, nullptr); }));
  Chmod(scratch.Path(), 0777);
  ExpectFailure(path, EPERM,
                AsOrdinaryUser([&] { tov_file::MkDir(path, &of_root); }));
  EXPECT_EQ(scratch.List(), Strings{});
}

/// How a move is made.
enum class Way {
  kRename,
  kLink,  ///< On a file system that cannot rename without replacing.
  kLinkOldKernel,
  kCopy,
  kCopyByName,  ///< Where there are no files without a name.
};

/// Moves within a file system and across two.
class Move : public testing::TestWithParam<Way> {
 protected:
  void SetUp() override {
    const std::string lack = Across() ? WhyNoOtherFileSystem() : "";
    if (!lack.empty()) GTEST_SKIP() << lack;
    watcher = ErrorOfWay;
    Chmod(from_.Path(), 0777);
    Chmod(to_.Path(), 0777);
  }

  void TearDown() override { watcher = nullptr; }

  static int ErrorOfWay(const FileCall& call) {
    const bool renames = call.name == "renameat2";
    if (GetParam() == Way::kLink && renames) return EINVAL;
    if (GetParam() == Way::kLinkOldKernel && renames) return ENOSYS;
    const bool is_unnamed = call.name == "O_TMPFILE";
    return GetParam() == Way::kCopyByName && is_unnamed ? EOPNOTSUPP : 0;
  }

  static bool Across() { return GetParam() >= Way::kCopy; }
  std::string Target() const { return to_ / "target"; }
  Work MoveOf(const std::string& source) const {
    return [this, source] { tov_file::Move(source, Target()); };
  }

  Scratch from_;
  Scratch to_{Across() ? std::string(kOtherFileSystem)
                       : fs::temp_directory_path().string()};
};

std::string NameOf(const testing::TestParamInfo<Way>& way) {
  const std::map<Way, std::string> kNames = {
      {Way::kRename, "ByRename"},
      {Way::kLink, "ByLink"},
      {Way::kLinkOldKernel, "ByLinkOnAnOldKernel"},
      {Way::kCopy, "ByCopy"},
      {Way::kCopyByName, "ByCopyWithAName"}};
  return kNames.at(way.param);
}

INSTANTIATE_TEST_SUITE_P(File, Move,
                         testing::Values(Way::kRename, Way::kLink,
                                         Way::kLinkOldKernel, Way::kCopy,
                                         Way::kCopyByName),
                         NameOf);

TEST_P(Move, TakesTheContentAlong) {
  std::string content;
  while (content.size() < 3'000'000) content += std::to_string(content.size());
  for (const auto& [whole, child] : {std::pair(content, Child()),
                                     {"", Child()},
                                     {"x", kWithoutStandardDescriptors}}) {
    const std::string source = from_.MakeFile("source", whole);
    const ino_t inode = StatOf(source).st_ino;
    Do(MoveOf(source), child);
    EXPECT_TRUE(ReadFile(Target()) == whole);
    EXPECT_EQ(from_.List(), Strings{});
    EXPECT_EQ(to_.List(), Strings{"target"});
    EXPECT_TRUE(Across() || StatOf(Target()).st_ino == inode);
    fs::remove(Target());
  }
}

TEST_P(Move, KeepsTheMode) {
  for (const mode_t mode : {0640u, 0400u, 0777u, 0000u}) {
    const std::string source = from_.MakeFile("source", "x");
    Chmod(source, mode);
    if (mode == 0 && Across() && !IsRoot()) continue;
    Do([&] {
      ::umask(077);
      tov_file::Move(source, Target());
    });
    EXPECT_EQ(ModeOf(Target()), mode);
    fs::remove(Target());
  }
}

TEST_P(Move, KeepsTheOwnerAndMakesNoSetIdCopy) {
  if (!IsRoot()) GTEST_SKIP() << "needs root";
  const std::string source = from_.MakeFile("source", "x");
  Chown(source, 1234, 1235);
  Chmod(source, 06751);
  Do(MoveOf(source));
  EXPECT_EQ(OwnerOf(Target()), "1234:1235");
  EXPECT_EQ(ModeOf(Target()), Across() ? 0751u : 06751u);
}

TEST_P(Move, RefusesATargetThatIsThere) {
  const std::string source = from_.MakeFile("source", "new");
  const std::string secret = from_.MakeFile("secret", "secret");
  for (const Work& put : std::vector<Work>{
           [&] { to_.MakeFile("target", "older"); },
           [&] { to_.MakeDir("target"); }, [&] { Link(to_, "target", secret); },
           [&] { Link(to_, "target", from_ / "missing"); }}) {
    put();
    const struct stat before = StatOf(Target());
    ExpectFailure(Target(), EEXIST, MoveOf(source));
    EXPECT_EQ(StatOf(Target()).st_ino, before.st_ino);
    EXPECT_EQ(StatOf(Target()).st_size, before.st_size);
    EXPECT_EQ(to_.List(), Strings{"target"});
    fs::remove(Target());
  }
  EXPECT_EQ(ReadFile(source), "new");
  EXPECT_EQ(ReadFile(secret), "secret");
  EXPECT_EQ(from_.List(), (Strings{"secret", "source"}));
}

TEST_P(Move, RefusesASourceThatIsNoRegularFile) {
  from_.MakeFile("file", "x");
  for (const std::string& source :
       {Link(from_, "link", from_ / "file"), Link(from_, "dangling", "missing"),
        Fifo(from_, "fifo"), from_.MakeDir("directory")}) {
    ExpectFailure(source, 0, MoveOf(source));
    EXPECT_TRUE(IsThere(source));
    EXPECT_EQ(to_.List(), Strings{}) << source;
  }
  EXPECT_EQ(ReadFile(from_ / "file"), "x");
}

TEST_P(Move, ReportsWhatIsMissing) {
  ExpectFailure(from_ / "missing", ENOENT, MoveOf(from_ / "missing"));
  const std::string source = from_.MakeFile("source", "x");
  const std::string target = to_ / "missing/target";
  ExpectFailure(target, ENOENT, [&] { tov_file::Move(source, target); });
  EXPECT_EQ(ReadFile(source), "x");
  EXPECT_EQ(to_.List(), Strings{});
}

TEST_P(Move, ReportsFoldersThatMayNotBeChanged) {
  const std::string source = from_.MakeFile("source", "x");
  if (IsRoot()) Chown(source, kNobody, kNobody);
  for (const auto& [folder, blamed] :
       {std::pair(&from_, source), std::pair(&to_, Target())}) {
    Chmod(folder->Path(), 0555);
    const std::string error = ErrorOf(AsOrdinaryUser(MoveOf(source)));
    Chmod(folder->Path(), 0777);
    ExpectBlame(error, blamed, EACCES);
    EXPECT_EQ(ReadFile(source), "x");
    EXPECT_EQ(to_.List(), Strings{});
  }
}

class MoveAcross : public Move {};

INSTANTIATE_TEST_SUITE_P(File, MoveAcross,
                         testing::Values(Way::kCopy, Way::kCopyByName), NameOf);

TEST_P(MoveAcross, LosesNothingOnAFullDisk) {
  if (!IsRoot()) GTEST_SKIP() << "needs root";
  const std::string content(1'000'000, 'x');
  const std::string source = from_.MakeFile("source", content);
  Do([&] {
    MountPrivately(to_.Path(), "size=64k");
    try {
      tov_file::Move(source, Target());
      ADD_FAILURE() << "there was room";
    } catch (const tov_err::Error& error) {
      ExpectBlame(std::string("tov_err::Error: ") + error.what(), Target(),
                  ENOSPC);
    }
    EXPECT_EQ(to_.List(), Strings{});
  });
  EXPECT_TRUE(ReadFile(source) == content);
}

// As an account could do that owns the file by now, to have root copy a secret
// or wait for ever.
TEST_P(MoveAcross, CopiesNothingThatReplacesTheSource) {
  const std::string source = from_.MakeFile("source", "x");
  const std::string secret = from_.MakeFile("secret", "secret");
  const std::tuple<mode_t, int, Work> baits[] = {
      // To open what it points to can have effects, that of a tape for
      // instance.
      {S_IFLNK, ELOOP, [&] { fs::create_symlink(secret, source); }},
      {S_IFREG, 0, [&] { fs::create_hard_link(secret, source); }},
      {S_IFIFO, 0, [&] { ::mkfifo(source.c_str(), 0600); }}};
  for (const auto& [type, reason, put] : baits) {
    SCOPED_TRACE("file of type " + std::to_string(type));
    bool is_replaced = false;
    watcher = [&, put = put](const FileCall& call) {
      if (call.name != "renameat2" || is_replaced) return ErrorOfWay(call);
      is_replaced = true;
      fs::remove(source);
      put();
      return EXDEV;
    };
    ExpectFailure(source, reason, MoveOf(source));
    EXPECT_EQ(StatOf(source).st_mode & S_IFMT, type);
    EXPECT_EQ(to_.List(), Strings{});
    fs::remove(source);
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
    EXPECT_EQ(to_.List(), Strings{});
    ++allocations;
  } while (!HasFailure());
  EXPECT_EQ(ReadFile(Target()), "x");
  EXPECT_GE(allocations, Across() ? 3U : 0U);
}

Work SafeSet(const tov_file::Attrs& attrs, const std::string& path,
             bool must_exist) {
  return [=] { attrs.SafeSet(path, must_exist); };
}

TEST(SafeSet, SetsTheModeWhateverTheUmask) {
  const Scratch scratch;
  // Nobody has the FIFO's other end open.
  for (const std::string& path :
       {scratch.MakeFile("file"), scratch.MakeDir("directory"),
        Fifo(scratch, "fifo")}) {
    for (const Child& child : {Child(), kWithoutStandardDescriptors}) {
      Chmod(path, 0700);
      const auto set = [&] {
        ::umask(077);
        tov_file::Attrs(0664).SafeSet(path, false);
      };
      Do(set, child);
      EXPECT_EQ(ModeOf(path), 0664u) << path;
    }
  }
}

TEST(SafeSet, SetsTheOwnerBeforeTheMode) {
  if (!IsRoot()) GTEST_SKIP() << "needs root";
  const Scratch scratch;
  const std::string file = scratch.MakeFile("file");
  // A change of the owner would take the special bits away again.
  Do(SafeSet(tov_file::Attrs(06755, 1234, 1235), file, true));
  EXPECT_EQ(OwnerOf(file), "1234:1235");
  EXPECT_EQ(ModeOf(file), 06755u);
  Do(SafeSet(tov_file::Attrs(0640), file, true));
  EXPECT_EQ(OwnerOf(file), "1234:1235") << "the owner is left alone";
  EXPECT_EQ(ModeOf(file), 0640u);
}

TEST(SafeSet, RefusesALink) {
  const Scratch scratch;
  const std::string file = scratch.MakeFile("file");
  Chmod(file, 0600);
  for (const std::string& link :
       {Link(scratch, "link", "file"), Link(scratch, "dangling", "missing")}) {
    ExpectFailure(link, 0, SafeSet(tov_file::Attrs(0644), link, false));
    ExpectFailure(link, 0, SafeSet(tov_file::Attrs(0644), link, true));
  }
  EXPECT_EQ(ModeOf(file), 0600u);
}

TEST(SafeSet, GivesNoFileAwayThatHasMoreThanOneName) {
  const Scratch scratch;
  const std::string file = scratch.MakeFile("file");
  const std::string link = scratch / "link";
  const std::string owner = OwnerOf(file);
  Chmod(file, 0600);
  fs::create_hard_link(file, link);
  ExpectFailure(
      link, 0,
      SafeSet(tov_file::Attrs(0644, ::geteuid(), ::getegid()), link, false));
  EXPECT_EQ(ModeOf(file), 0600u);
  EXPECT_EQ(OwnerOf(file), owner);
  Do(SafeSet(tov_file::Attrs(0640), link, false));
  EXPECT_EQ(ModeOf(file), 0640u) << "the owner is left alone";
}

TEST(SafeSet, LeavesAMissingFileUnlessItMustExist) {
  const Scratch scratch;
  for (const std::string& path :
       {scratch / "missing", scratch / "missing/file"}) {
    Do(SafeSet(tov_file::Attrs(0644), path, false));
    ExpectFailure(path, ENOENT, SafeSet(tov_file::Attrs(0644), path, true));
  }
  EXPECT_EQ(scratch.List(), Strings{});
}

TEST(SafeSet, TakesNoTerminalForItsOwn) {
  if (!support::CanTakeTerminals()) GTEST_SKIP() << "needs terminals";
  EXPECT_FALSE(support::TakesTerminal([](const std::string& path) {
    tov_file::Attrs(0600).SafeSet(path, true);
  }));
}

TEST(SafeSet, WorksOnAFileThatItsOwnerMayNotRead) {
  const OpenScratch scratch;
  Chmod(scratch.Path(), 0777);
  const std::string file = scratch / "file";
  Do(AsOrdinaryUser([&] {
    ::close(::open(file.c_str(), O_CREAT | O_WRONLY, 0000));
    tov_file::Attrs(0600).SafeSet(file, true);
  }));
  EXPECT_EQ(ModeOf(file), 0600u);
}

TEST(SafeSet, ReportsWhatIsNotAllowed) {
  if (!IsRoot()) GTEST_SKIP() << "needs root";
  const OpenScratch scratch;
  const std::string file = scratch.MakeFile("file");
  Chmod(file, 0644);
  ExpectFailure(file, EPERM,
                AsOrdinaryUser(SafeSet(tov_file::Attrs(0666), file, false)));
  EXPECT_EQ(ModeOf(file), 0644u);
}

/// The path of a new temporary file.
std::string TmpName(const std::string& prefix, const Child& child = Child()) {
  Outcome outcome = RunWithoutLeak(child, [&](const Reporter& report) {
    ::umask(0);
    report("name", tov_file::Tmp(prefix).Name());
  });
  const std::string path = outcome.reported["name"];
  EXPECT_TRUE(path.starts_with(prefix)) << path;
  const testing::Matcher<std::string> random =
      testing::MatchesRegex("[A-Za-z0-9]{6}");
  EXPECT_TRUE(random.Matches(path.substr(prefix.size()))) << path;
  return path;
}

TEST(Tmp, MakesAnEmptyFileForItsOwnerOnlyAndLeavesItThere) {
  const Scratch scratch;
  for (const Child& child : {Child(), kWithoutStandardDescriptors}) {
    const std::string path = TmpName(scratch / "upload", child);
    EXPECT_EQ(ModeOf(path), 0600u);
    EXPECT_TRUE(fs::is_regular_file(path));
    EXPECT_TRUE(fs::is_empty(path));
  }
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
    names.insert(TmpName(scratch / "missing/upload"));
  }
  EXPECT_EQ(names.size(), 100U);
  EXPECT_EQ(scratch.List(), Strings{});
}

TEST(Tmp, HasAFreshNameInAFolderThatMayNotBeChanged) {
  const OpenScratch scratch;
  Chmod(scratch.Path(), 0555);
  Do(AsOrdinaryUser([&] {
    const std::string one = tov_file::Tmp(scratch / "upload").Name();
    EXPECT_TRUE(one.starts_with(scratch / "upload"));
    EXPECT_NE(one, tov_file::Tmp(scratch / "upload").Name());
  }));
  EXPECT_EQ(scratch.List(), Strings{});
}

}  // namespace
}  // namespace support

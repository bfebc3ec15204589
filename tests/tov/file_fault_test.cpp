// What happens when something fails, or somebody acts, between two calls on
// files.

#include <signal.h>
#include <tov/err.h>
#include <tov/file.h>
#include <zancgi/testing/mount.h>

#include <cstring>
#include <fstream>
#include <set>
#include <string_view>
#include <tuple>

#include "support/file_calls.h"
#include "support/files.h"
#include "support/test.h"

namespace support {
namespace {

/// What is copied in one piece.
constexpr std::size_t kPiece = 65536;

std::string Content() {
  std::string content;
  while (content.size() < 150'000) content += std::to_string(content.size());
  return content;
}

bool HasUnnamedFiles(const std::string& folder) {
  const int file = ::open(folder.c_str(), O_TMPFILE | O_WRONLY, 0600);
  return file >= 0 && ::close(file) == 0;
}

bool IsDraft(const std::string& name) {
  return testing::Matcher<std::string>(
             testing::MatchesRegex("\\.tov-[A-Za-z0-9]{6}"))
      .Matches(name);
}

/// Has the call of this number, from 0, fail or end the process.
FileCallWatcher At(int number, std::function<int()> deed) {
  return [=, count = 0](const FileCall& /*call*/) mutable {
    return count++ == number ? deed() : 0;
  };
}

/// Has the first call of this name fail.
FileCallWatcher FirstFails(const std::string& name, int error) {
  return [=, failed = false](const FileCall& call) mutable {
    const bool fails = !failed && call.name == name;
    failed = failed || fails;
    return fails ? error : 0;
  };
}

/// Does something before the first call of this name.
FileCallWatcher Before(const std::string& name, std::function<void()> deed) {
  return [=, done = false](const FileCall& call) mutable {
    if (!done && call.name == name) {
      done = true;
      deed();
    }
    return 0;
  };
}

int LetAll(const FileCall& /*call*/) { return 0; }

/// A move from one file system to another: onto a disk or into memory; by way
/// of a file without a name or of one with a name.
class CopyingMove : public testing::TestWithParam<std::tuple<bool, bool>> {
 protected:
  void SetUp() override {
    const std::string lack = WhyNoOtherFileSystem();
    if (!lack.empty()) GTEST_SKIP() << lack;
    if (!ByName() && !HasUnnamedFiles(Folder().Path())) {
      GTEST_SKIP() << "needs O_TMPFILE in " << Folder().Path();
    }
    MakeSource();
  }

  static bool OntoDisk() { return std::get<0>(GetParam()); }
  static bool ByName() { return std::get<1>(GetParam()); }

  const Scratch& Folder() const { return OntoDisk() ? disk_ : memory_; }
  const Scratch& SourceFolder() const { return OntoDisk() ? memory_ : disk_; }
  std::string Source() const { return SourceFolder() / "source"; }
  std::string Target() const { return Folder() / "target"; }

  void MakeSource() const { SourceFolder().MakeFile("source", content_); }

  /// Runs the move in a child, reports "drafts": files with a name that it
  /// made.
  Outcome Run(const FileCallWatcher& watcher) const {
    return Child().Run(
        [&](const Reporter& report) { RunHere(watcher, report); });
  }

  void RunHere(const FileCallWatcher& watcher, const Reporter& report,
               const std::string& target) const {
    int drafts = 0;
    report("drafts", "0");
    const Watch watch([&](const FileCall& call) {
      if (call.name == "mkostemp") report("drafts", std::to_string(++drafts));
      if (ByName() && call.name == "O_TMPFILE") return EOPNOTSUPP;
      return watcher(call);
    });
    tov_file::Move(Source(), target);
  }

  void RunHere(const FileCallWatcher& watcher, const Reporter& report) const {
    RunHere(watcher, report, Target());
  }

  static void ExpectCleanEnd(const Outcome& outcome) {
    EXPECT_EQ(outcome.status, 0) << outcome.standard_error;
    EXPECT_EQ(outcome.leaked_descriptors, Strings{});
  }

  /// The move has been refused, since the target was there by then.
  void ExpectTargetKept(const Outcome& outcome) const {
    ExpectCleanEnd(outcome);
    EXPECT_EQ(outcome.error, "cannot move '" + Source() + "' to '" + Target() +
                                 "': " + std::strerror(EEXIST));
    ExpectWay(outcome);
    EXPECT_EQ(ReadFile(Target()), "other");
    EXPECT_EQ(Leftovers(), Strings{});
    EXPECT_TRUE(fs::exists(Source()));
  }

  void ExpectMoved(const Outcome& outcome) const {
    ExpectCleanEnd(outcome);
    EXPECT_EQ(outcome.error, "");
    EXPECT_TRUE(ReadFile(Target()) == content_);
    EXPECT_EQ(Folder().List(), Strings{"target"});
    EXPECT_EQ(SourceFolder().List(), Strings{});
  }

  void ExpectMovedByItsWay(const Outcome& outcome) const {
    ExpectMoved(outcome);
    ExpectWay(outcome);
  }

  void ExpectNotMoved(const Outcome& outcome) const {
    ExpectCleanEnd(outcome);
    EXPECT_EQ(outcome.error_type, "tov_err::Error");
    EXPECT_EQ(Folder().List(), Strings{});
    EXPECT_TRUE(ReadFile(Source()) == content_);
  }

  /// Whether the copy was made by way of the kind of file that is wanted.
  void ExpectWay(const Outcome& outcome) const {
    EXPECT_EQ(outcome.reported.at("drafts"), ByName() ? "1" : "0");
  }

  void ExpectNothingLost() const {
    const bool has_target = fs::exists(Target());
    if (has_target) {
      EXPECT_TRUE(ReadFile(Target()) == content_);
    }
    if (!has_target || fs::exists(Source())) {
      EXPECT_TRUE(ReadFile(Source()) == content_);
    }
  }

  /// What is there besides the target.
  Strings Leftovers() const {
    Strings names = Folder().List();
    std::erase(names, "target");
    return names;
  }

  void StartAgain() const {
    for (const Scratch* scratch : {&disk_, &memory_}) {
      for (const std::string& name : scratch->List()) {
        fs::remove(*scratch / name);
      }
    }
    MakeSource();
  }

 private:
  const std::string content_ = Content();
  Scratch disk_;
  Scratch memory_{kOtherFileSystem};
};

std::string NameOf(
    const testing::TestParamInfo<std::tuple<bool, bool>>& information) {
  const auto [onto_disk, by_name] = information.param;
  return std::string(onto_disk ? "OntoDisk" : "IntoMemory") +
         (by_name ? "ByName" : "Unnamed");
}

INSTANTIATE_TEST_SUITE_P(File, CopyingMove,
                         testing::Combine(testing::Bool(), testing::Bool()),
                         NameOf);

TEST_P(CopyingMove, ShowsAFileMeanwhileOnlyWhereItMust) {
  Strings seen;
  const Outcome outcome = Child().Run([&](const Reporter& report) {
    RunHere(Before("write", [&] { seen = Folder().List(); }), report);
    ASSERT_EQ(seen.size(), ByName() ? 1U : 0U);
    if (ByName()) {
      EXPECT_TRUE(IsDraft(seen[0])) << seen[0];
    }
  });
  ExpectMovedByItsWay(outcome);
}

TEST_P(CopyingMove, TakesATargetWithoutAFolder) {
  const Outcome outcome =
      Child().WorkDir(Folder().Path()).Run([&](const Reporter& report) {
        RunHere(LetAll, report, "target");
      });
  ExpectMovedByItsWay(outcome);
}

TEST_P(CopyingMove, ThatIsKilledAtAnyCallLosesNothing) {
  int kills = 0;
  for (;; ++kills) {
    SCOPED_TRACE("before call " + std::to_string(kills));
    const Outcome outcome = Run(At(kills, [] { return ::raise(SIGKILL); }));
    if (outcome.status == 0) break;
    ASSERT_EQ(outcome.status, 128 + SIGKILL);
    ExpectNothingLost();
    const Strings left = Leftovers();
    ASSERT_LE(left.size(), ByName() ? 1U : 0U) << left[0];
    if (!left.empty()) {
      EXPECT_TRUE(IsDraft(left[0])) << left[0];
    }
    StartAgain();
  }
  EXPECT_GT(kills, 12);
}

TEST_P(CopyingMove, LeavesNothingWhateverCallFails) {
  std::set<std::string> errors;
  int calls = 0;
  for (bool failed = true; failed; ++calls) {
    SCOPED_TRACE("call " + std::to_string(calls));
    const Outcome outcome = Child().Run([&](const Reporter& report) {
      RunHere(At(calls,
                 [&] {
                   report("failed", "yes");
                   return EIO;
                 }),
              report);
    });
    failed = outcome.reported.contains("failed");
    if (outcome.error.empty()) {
      ExpectMoved(outcome);
    } else {
      ExpectNotMoved(outcome);
      errors.insert(outcome.error);
    }
    StartAgain();
  }
  EXPECT_GT(calls, 12);
  const std::string source = "'" + Source() + "'";
  const std::string move = "cannot move " + source;
  // An unnamed file that cannot be made or linked is replaced by a named one.
  std::set<std::string> expected = {
      move, move + " to '" + Target() + "'", "cannot open " + source,
      "cannot read " + source, "cannot remove " + source};
  for (const char* what :
       {"write", "set the owner of", "set the permissions of"}) {
    expected.insert(std::string("cannot ") + what + " '" + Target() + "'");
  }
  if (ByName()) expected.insert("cannot make a file beside '" + Target() + "'");
  std::set<std::string> with_reason;
  for (const std::string& error : expected) {
    with_reason.insert(error + ": " + std::strerror(EIO));
  }
  EXPECT_EQ(errors, with_reason);
}

TEST_P(CopyingMove, GoesOnAfterASignal) {
  for (const char* name : {"open", "O_TMPFILE", "read", "write"}) {
    SCOPED_TRACE(name);
    const Outcome outcome = Run(FirstFails(name, EINTR));
    ExpectMovedByItsWay(outcome);
    StartAgain();
  }
}

TEST_P(CopyingMove, RefusesASourceThatHasBecomeShorter) {
  for (const char* moment : {ByName() ? "mkostemp" : "O_TMPFILE", "write"}) {
    SCOPED_TRACE(moment);
    const Outcome outcome = Run(Before(
        moment, [&] { ASSERT_EQ(::truncate(Source().c_str(), kPiece), 0); }));
    EXPECT_EQ(outcome.error_type, "tov_err::Error");
    EXPECT_EQ(outcome.error,
              "'" + Source() + "' became shorter while it was moved");
    EXPECT_EQ(outcome.leaked_descriptors, Strings{});
    EXPECT_EQ(ReadFile(Source()).size(), kPiece);
    EXPECT_EQ(Folder().List(), Strings{});
    StartAgain();
  }
}

TEST_P(CopyingMove, RefusesATargetThatHasAppearedMeanwhile) {
  ExpectTargetKept(
      Run(Before("fsync", [&] { Folder().MakeFile("target", "other"); })));
}

TEST_P(CopyingMove, CopiesNoMoreThanThereWasAtTheBeginning) {
  ExpectMovedByItsWay(Run(Before("write", [&] {
    std::ofstream(Source(), std::ios::app) << "what comes later";
  })));
}

// Else the file would be lost: the copy would be taken back.
TEST_P(CopyingMove, IsDoneWhenSomebodyElseRemovesOrReplacesTheSource) {
  for (const char* moment : {"fsync", "unlink"}) {
    SCOPED_TRACE(moment);
    ExpectMoved(Run(Before(moment, [&] { fs::remove(Source()); })));
    StartAgain();
  }
  const Outcome outcome = Run(Before("fsync", [&] {
    fs::remove(Source());
    SourceFolder().MakeFile("source", "another");
  }));
  EXPECT_EQ(ReadFile(Source()), "another");
  fs::remove(Source());
  ExpectMoved(outcome);
}

std::set<int> OpenDescriptors() {
  std::set<int> open;
  for (int descriptor = 0; descriptor < 256; ++descriptor) {
    if (::fcntl(descriptor, F_GETFD) >= 0) open.insert(descriptor);
  }
  return open;
}

/// That others can neither inherit nor open it, nor take it for their input or
/// output.
void ExpectPrivate(int descriptor) {
  EXPECT_GT(descriptor, STDERR_FILENO);
  EXPECT_EQ(::fcntl(descriptor, F_GETFD), FD_CLOEXEC);
  struct stat file {};
  EXPECT_EQ(::fstat(descriptor, &file), 0);
  EXPECT_EQ(file.st_mode & 07777, 0600U);
}

TEST_P(CopyingMove, HasItsFilesForItself) {
  for (Child child : {Child(), Child().Closed(0).Closed(1).Closed(2)}) {
    fs::permissions(Source(), fs::perms{0600});
    const Outcome outcome = child.Run([&](const Reporter& report) {
      ::umask(0);
      const std::set<int> before = OpenDescriptors();
      std::size_t most = 0;
      RunHere(
          [&](const FileCall& call) {
            // These two move a fresh descriptor above the standard ones.
            if (call.name == "fcntl" || call.name == "close") return 0;
            SCOPED_TRACE("before " + std::string(call.name));
            const std::set<int> now = OpenDescriptors();
            most = std::max(most, now.size() - before.size());
            for (const int descriptor : now) {
              if (!before.contains(descriptor)) ExpectPrivate(descriptor);
            }
            return 0;
          },
          report);
      EXPECT_EQ(most, 2U);
    });
    ExpectMoved(outcome);
    StartAgain();
  }
}

class UnnamedCopy : public CopyingMove {};

INSTANTIATE_TEST_SUITE_P(File, UnnamedCopy,
                         testing::Combine(testing::Bool(),
                                          testing::Values(false)),
                         NameOf);

TEST_P(UnnamedCopy, GetsANameWhereThereAreNoUnnamedFiles) {
  for (const int error : {EOPNOTSUPP, EISDIR, ENOENT, EINVAL}) {
    SCOPED_TRACE(std::strerror(error));
    const Outcome outcome = Run(FirstFails("O_TMPFILE", error));
    ExpectMoved(outcome);
    EXPECT_EQ(outcome.reported.at("drafts"), "1");
    StartAgain();
  }
}

/// As it is without the capability to link by a descriptor.
int FailToLinkByDescriptor(const FileCall& call) {
  return call.name == "linkat" && call.path.empty() ? ENOENT : 0;
}

TEST_P(UnnamedCopy, IsLinkedByItsPathInProcWithoutTheCapability) {
  const Outcome outcome = Run(FailToLinkByDescriptor);
  ExpectMovedByItsWay(outcome);
}

TEST_P(UnnamedCopy, IsMadeAgainWithANameWhenItCannotBeLinked) {
  const Outcome outcome = Run(
      [](const FileCall& call) { return call.name == "linkat" ? ENOENT : 0; });
  ExpectMoved(outcome);
  EXPECT_EQ(outcome.reported.at("drafts"), "1");
}

TEST_P(UnnamedCopy, RefusesATargetThatAppearsAtTheLastMoment) {
  ExpectTargetKept(Run([&](const FileCall& call) {
    const int error = FailToLinkByDescriptor(call);
    if (error != 0) Folder().MakeFile("target", "other");
    return error;
  }));
}

// Others than root may need a file with a name.
TEST_P(UnnamedCopy, OrItsReplacementNeedsNoProc) {
  if (!IsRoot()) GTEST_SKIP() << "needs root";
  for (const bool is_root : {true, false}) {
    for (const Scratch* scratch : {&Folder(), &SourceFolder()}) {
      fs::permissions(scratch->Path(), fs::perms{0777});
    }
    const Outcome outcome = Child().Run([&](const Reporter& report) {
      MountPrivately("/proc", "size=4k");
      if (!is_root) {
        ASSERT_EQ(::chown(Source().c_str(), 65534, 65534), 0);
        BecomeOrdinaryUser();
      }
      RunHere(LetAll, report);
    });
    ExpectMoved(outcome);
    if (is_root) ExpectWay(outcome);
    StartAgain();
  }
}

// On a file system whose rename cannot refuse to replace, and which does not
// let the source be removed.
TEST(FailingMoveByLink, TakesTheNewNameBackAndReportsTheReason) {
  for (const int error_of_taking_back : {0, EIO}) {
    const Scratch scratch;
    const std::string source = scratch.MakeFile("source", "x");
    const std::string target = scratch / "target";
    const Outcome outcome =
        support::RunWithoutLeak(Child(), [&](const Reporter&) {
          const Watch watch([&](const FileCall& call) {
            if (call.name == "renameat2") return EINVAL;
            if (call.name != "unlink") return 0;
            return call.path == source ? EPERM : error_of_taking_back;
          });
          tov_file::Move(source, target);
        });
    EXPECT_EQ(outcome.error, "cannot move '" + source + "' to '" + target +
                                 "': " + std::strerror(EPERM));
    EXPECT_EQ(scratch.List(), error_of_taking_back == 0
                                  ? Strings{"source"}
                                  : (Strings{"source", "target"}));
  }
}

// An account puts something else in the place of a directory that root has just
// made in its home, for root to change the attributes of.
TEST(MkDirUnderAttack, ChangesNothingElse) {
  using Put =
      std::function<void(const std::string& victim, const std::string& path)>;
  for (const Put& put :
       {Put([](const std::string&victim, const std::string&path) {
          fs::create_directory(victim);
          fs::create_symlink(victim, path);
        }),
        Put([](const std::string&victim, const std::string&path) {
          std::ofstream{victim};
          fs::create_hard_link(victim, path);
        }),
        Put([](const std::string&victim, const std::string&path) {
          ASSERT_EQ(::mkfifo(victim.c_str(), 0600), 0);
          fs::create_hard_link(victim, path);
        })}) {
    const Scratch scratch;
    const std::string victim = scratch / "victim";
    const std::string path = scratch / "new";
    const Outcome outcome = Child().Run([&](const Reporter&) {
      // To open a FIFO can take for ever.
      ::alarm(10);
      const Watch watch(Before("open", [&] {
        fs::remove(path);
        put(victim, path);
        fs::permissions(victim, fs::perms{0700});
      }));
      const tov_file::Attrs attrs(0755);
      tov_file::MkDir(path, &attrs);
    });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.error,
              "cannot open '" + path + "': " + std::strerror(ENOTDIR));
    EXPECT_EQ(ModeOf(victim), 0700U);
  }
}

}  // namespace
}  // namespace support

// Homes that take an upload badly or not at all: on another file system, full,
// read-only, gone, a link, or with something of the upload's name in them.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <tov/file.h>
#include <unistd.h>
#include <zancgi/testing/child.h>
#include <zancgi/testing/identity.h>
#include <zancgi/testing/scratch.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "support/account.h"
#include "support/file_calls.h"
#include "support/hand_over.h"
#include "support/mount.h"

namespace {

namespace fs = std::filesystem;

using support::AttributesOf;
using support::FileCall;
using support::HandedOver;
using support::HandOver;
using support::Owners;
using zan_cgi::testing::Child;
using zan_cgi::testing::ReadFile;
using zan_cgi::testing::Told;
using Paths = std::map<std::string, std::string>;
using Strings = std::vector<std::string>;

/// Whom root becomes as an ordinary user.
constexpr uid_t kOrdinary = 65534;

/// Whether the error says what could not go where, and why.
testing::AssertionResult Says(const HandedOver& done, const Strings& paths,
                              int reason) {
  bool good = done.error_type == "tov_err::Error" &&
              done.error.find(std::strerror(reason)) != std::string::npos;
  for (const std::string& path : paths) {
    good = good && done.error.find("'" + path + "'") != std::string::npos;
  }
  return (good ? testing::AssertionSuccess() : testing::AssertionFailure())
         << done.error_type << ": " << done.error;
}

class HomeOfVisitor : public testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    if (Across() && !Owners::CanBeAcross()) {
      GTEST_SKIP() << "needs a second file system at /dev/shm";
    }
    owners_ = std::make_unique<Owners>(Across());
    upload_ = owners_->MakeUpload("upload", "content");
  }

  static bool Across() { return GetParam(); }
  std::string Home() const { return owners_->Home(); }
  std::string Target() const { return Home() + "/upload"; }

  /// Expects that the upload is where it was, whole.
  void ExpectKept(const HandedOver& done) const {
    EXPECT_EQ(done.paths, (Paths{{"a", upload_}}));
    EXPECT_EQ(owners_->InSpool(), Strings{"upload"});
    EXPECT_EQ(ReadFile(upload_), "content");
  }

  HandedOver HandOverUpload() const {
    return HandOver(*owners_, {{"a", upload_}});
  }

  std::unique_ptr<Owners> owners_;
  std::string upload_;
};

INSTANTIATE_TEST_SUITE_P(Across, HomeOfVisitor, testing::Bool());

TEST_P(HomeOfVisitor, TakesTheUpload) {
  const HandedOver done = HandOverUpload();
  EXPECT_EQ(done.error, "");
  EXPECT_EQ(done.paths, (Paths{{"a", Target()}}));
  EXPECT_EQ(ReadFile(Target()), "content");
  EXPECT_EQ(AttributesOf(Target()), owners_->AttributesAfter());
  EXPECT_EQ(owners_->InHome(), Strings{"upload"});
  EXPECT_EQ(owners_->InSpool(), Strings{});
}

TEST_P(HomeOfVisitor, ThatIsALinkTakesTheUploadWhereItLeads) {
  const std::string link = *owners_ / "link";
  fs::create_directory_symlink(Home(), link);
  owners_->MoveHome(link);
  const HandedOver done = HandOverUpload();
  EXPECT_EQ(done.error, "");
  EXPECT_EQ(done.paths, (Paths{{"a", link + "/upload"}}));
  EXPECT_EQ(ReadFile(Target()), "content");
  EXPECT_TRUE(fs::is_symlink(link));
}

TEST_P(HomeOfVisitor, ThatIsNoFolderRefuses) {
  const std::pair<int, void (*)(const std::string& home)> homes[] = {
      {ENOENT, [](const std::string& /*home*/) {}},
      {ENOENT,
       [](const std::string& home) { fs::create_symlink("missing", home); }},
      {ENOTDIR, [](const std::string& home) { std::ofstream(home) << "file"; }},
  };
  for (const auto& [reason, make] : homes) {
    fs::remove(Home());
    make(Home());
    const HandedOver done = HandOverUpload();
    EXPECT_TRUE(Says(done, {upload_, Target()}, reason));
    ExpectKept(done);
  }
  EXPECT_EQ(ReadFile(Home()), "file");
}

TEST_P(HomeOfVisitor, WithoutTheRightToWriteRefuses) {
  fs::permissions(Home(), fs::perms{0555});
  if (zan_cgi::testing::IsRoot()) {
    ASSERT_EQ(::chown(upload_.c_str(), kOrdinary, kOrdinary), 0);
  }
  const HandedOver done = HandOver(*owners_, {{"a", upload_}}, {}, [&] {
    zan_cgi::testing::BecomeOrdinaryUser();
    support::FakeAccount({"visitor", ::geteuid(), ::getegid(), Home()});
  });
  fs::permissions(Home(), fs::perms{0755});
  EXPECT_TRUE(Says(done, {Target()}, EACCES));
  ExpectKept(done);
  EXPECT_EQ(owners_->InHome(), Strings{});
}

/// What has the name of the upload already.
struct Taken {
  const char* name;
  void (*put)(const Owners& owners, const std::string& path);
};

void PrintTo(const Taken& taken, std::ostream* out) { *out << taken.name; }

const Taken kTaken[] = {
    {"File", [](const Owners& /*owners*/,
                const std::string& path) { std::ofstream(path) << "mine"; }},
    {"LinkToAFile",
     [](const Owners& owners, const std::string& path) {
       fs::create_symlink(owners.MakeUpload("other", "other"), path);
     }},
    {"LinkToAFolder",
     [](const Owners& owners, const std::string& path) {
       fs::create_directory_symlink(owners.Spool(), path);
     }},
    {"LinkToNothing",
     [](const Owners& owners, const std::string& path) {
       fs::create_symlink(owners.Spool() + "/new", path);
     }},
    {"Fifo",
     [](const Owners& /*owners*/, const std::string& path) {
       ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
     }},
    {"Folder", [](const Owners& /*owners*/,
                  const std::string& path) { fs::create_directory(path); }},
};

class NameInTheHome : public testing::TestWithParam<std::tuple<bool, Taken>> {
 protected:
  void SetUp() override {
    if (Across() && !Owners::CanBeAcross()) {
      GTEST_SKIP() << "needs a second file system at /dev/shm";
    }
  }

  static bool Across() { return std::get<0>(GetParam()); }
};

std::string NameOf(
    const testing::TestParamInfo<std::tuple<bool, Taken>>& test) {
  return std::string(std::get<1>(test.param).name) +
         (std::get<0>(test.param) ? "Across" : "");
}

INSTANTIATE_TEST_SUITE_P(Taken, NameInTheHome,
                         testing::Combine(testing::Bool(),
                                          testing::ValuesIn(kTaken)),
                         NameOf);

TEST_P(NameInTheHome, IsNeverReplacedNorFollowed) {
  const Owners owners(Across());
  const std::string upload = owners.MakeUpload("upload", "content");
  const std::string target = owners.Home() + "/upload";
  std::get<1>(GetParam()).put(owners, target);
  const Strings in_spool = owners.InSpool();
  const struct stat before = support::StatOf(target);

  const HandedOver done = HandOver(owners, {{"a", upload}});
  EXPECT_TRUE(Says(done, {upload, target}, EEXIST));
  EXPECT_EQ(done.paths, (Paths{{"a", upload}}));
  EXPECT_EQ(ReadFile(upload), "content");
  EXPECT_EQ(owners.InSpool(), in_spool);
  EXPECT_EQ(owners.InHome(), Strings{"upload"});
  const struct stat after = support::StatOf(target);
  EXPECT_EQ(after.st_ino, before.st_ino);
  EXPECT_EQ(after.st_mode, before.st_mode);
  EXPECT_EQ(after.st_size, before.st_size);
  EXPECT_EQ(after.st_mtim.tv_nsec, before.st_mtim.tv_nsec);
}

constexpr std::size_t kLarge = 1'000'000;

/// A child that hands over one large upload into a home across file systems.
class CopyIntoTheHome : public testing::Test {
 protected:
  void SetUp() override {
    if (!Owners::CanBeAcross()) {
      GTEST_SKIP() << "needs a second file system at /dev/shm";
    }
    owners_ = std::make_unique<Owners>(true);
    upload_ = owners_->MakeUpload("upload", std::string(kLarge, 'u'));
  }

  std::string Target() const { return owners_->Home() + "/upload"; }

  void ExpectSourceKept() const {
    EXPECT_TRUE(ReadFile(upload_) == std::string(kLarge, 'u'));
  }

  /// The status of a child that is killed while it writes the copy.
  int KillWhileItWrites(const support::FileCallWatcher& watcher) const {
    return Child()
        .Run([&](const Told&) {
          support::FakeAccount(owners_->Visitor());
          int writes = 0;
          support::WatchFileCalls([&](const FileCall& call) {
            if (call.name == "write" && ++writes == 3) ::raise(SIGKILL);
            return watcher(call);
          });
          tov_file::Move(upload_, Target());
        })
        .status;
  }

  std::unique_ptr<Owners> owners_;
  std::string upload_;
};

/// Fails the making of a file without a name, as file systems do that have
/// none.
int FailWithoutName(const FileCall& call) {
  return call.name == "O_TMPFILE" ? EOPNOTSUPP : 0;
}

TEST_F(CopyIntoTheHome, ThatIsKilledLeavesNothing) {
  EXPECT_EQ(KillWhileItWrites([](const FileCall& /*call*/) { return 0; }),
            128 + SIGKILL);
  ExpectSourceKept();
  EXPECT_EQ(owners_->InHome(), Strings{});
}

TEST_F(CopyIntoTheHome, ByNameThatIsKilledLeavesNoHalfFileUnderTheFinalName) {
  EXPECT_EQ(KillWhileItWrites(FailWithoutName), 128 + SIGKILL);
  ExpectSourceKept();
  // What is left was being written, and nobody else could read it.
  ASSERT_EQ(owners_->InHome().size(), 1U);
  const std::string draft = owners_->InHome().front();
  EXPECT_TRUE(draft.starts_with(".tov-")) << draft;
  EXPECT_EQ(AttributesOf(owners_->Home() + "/" + draft),
            owners_->AttributesBefore());
}

/// A call of the copy and an error that it may well have.
struct Fault {
  const char* call;
  int error;
};

const Fault kFaults[] = {
    {"open", EMFILE},  {"mkostemp", ENOSPC}, {"read", EIO},
    {"write", ENOSPC}, {"write", EDQUOT},    {"write", EFBIG},
    {"fchown", EPERM}, {"fchmod", EPERM},    {"fsync", EIO}};

/// Has the call fail once the copy has begun.
void Inject(const Fault& fault) {
  support::WatchFileCalls([fault,
                           copies = false](const FileCall& call) mutable {
    // Neither without a name nor, if that is tried then, with one.
    const bool fails = copies && (call.name == fault.call ||
                                  (call.name == "O_TMPFILE" &&
                                   fault.call == std::string_view("mkostemp")));
    copies = copies || call.name == "renameat2";
    return fails ? fault.error : 0;
  });
}

TEST_F(CopyIntoTheHome, ThatFailsInAnyCallLeavesNothingAndKeepsTheSource) {
  for (const Fault& fault : kFaults) {
    const HandedOver done =
        HandOver(*owners_, {{"a", upload_}}, {}, [&] { Inject(fault); });
    EXPECT_TRUE(Says(done, {}, fault.error)) << fault.call;
    EXPECT_EQ(done.paths, (Paths{{"a", upload_}})) << fault.call;
    EXPECT_EQ(owners_->InHome(), Strings{}) << fault.call;
    ExpectSourceKept();
  }
}

/// A home of a file system of its own, which only the child sees.
class MountedHome : public testing::Test {
 protected:
  void SetUp() override {
    if (!support::CanUseAccounts()) {
      GTEST_SKIP() << "needs root, with the right to mount";
    }
    upload_ = owners_.MakeUpload("upload", std::string(kLarge, 'u'));
  }

  std::string Target() const { return owners_.Home() + "/upload"; }

  HandedOver HandOverInto(const std::string& options, unsigned long flags) {
    return HandOver(owners_, {{"a", upload_}}, {}, [=, this] {
      support::MountPrivately(owners_.Home(), options, 0);
      if (flags != 0 && ::mount("none", owners_.Home().c_str(), nullptr,
                                MS_REMOUNT | flags, nullptr) != 0) {
        throw std::runtime_error("cannot mount anew");
      }
    });
  }

  Owners owners_;
  std::string upload_;
};

TEST_F(MountedHome, RefusesTheUploadWhereItIsFullOrReadOnly) {
  struct Mount {
    const char* options;
    unsigned long flags;
    int reason;
  };
  for (const auto& [options, flags, reason] :
       {Mount{"size=64k", 0, ENOSPC}, Mount{"size=4m", MS_RDONLY, EROFS}}) {
    const HandedOver done = HandOverInto(options, flags);
    EXPECT_TRUE(Says(done, {Target()}, reason));
    EXPECT_EQ(done.paths, (Paths{{"a", upload_}}));
    EXPECT_EQ(done.in_home, Strings{});
    EXPECT_TRUE(ReadFile(upload_) == std::string(kLarge, 'u'));
  }
  const HandedOver done = HandOverInto("size=4m", 0);
  EXPECT_EQ(done.error, "");
  EXPECT_EQ(done.paths, (Paths{{"a", Target()}}));
  EXPECT_EQ(done.in_home, Strings{"upload"});
  EXPECT_EQ(owners_.InSpool(), Strings{});
}

}  // namespace

// An account that attacks the hand-over of its uploads.
//
// Root gives a file in a sticky folder to an account and then moves it into the
// account's home. From the first step on the account owns the file, and it owns
// the home: it can exchange whatever lies under either name at any moment. Here
// it does so before each single call that the move consists of.

#include <grp.h>
#include <sys/wait.h>
#include <tov/file.h>

#include <ostream>
#include <sstream>
#include <tuple>

#include "support/file_calls.h"
#include "support/files.h"
#include "support/test.h"

namespace support {
namespace {

constexpr uid_t kAccount = 54321;
constexpr gid_t kGroup = 54322;
constexpr char kSecret[] = "secret";
/// Longer than what is copied in one piece.
constexpr std::size_t kSize = 100'000;

std::string Describe(const std::string& path) {
  struct stat found {};
  if (::lstat(path.c_str(), &found) != 0) return path + " is gone";
  std::ostringstream text;
  text << path << ' ' << found.st_uid << ':' << found.st_gid << ' ' << std::oct
       << found.st_mode << ' '
       << (S_ISREG(found.st_mode) ? ReadFile(path) : "");
  return text.str();
}

/// How a file is moved.
enum class Way {
  kRename,  ///< Within one file system.
  kLink,    ///< Within one that cannot rename without replacing.
  kCopy,    ///< From one to another.
  /// The same where there are no files without a name.
  kCopyByName,
};

constexpr Way kWays[] = {Way::kRename, Way::kLink, Way::kCopy,
                         Way::kCopyByName};

bool IsCopy(Way way) { return way == Way::kCopy || way == Way::kCopyByName; }

/// The folders "spool", which is as /tmp is, "vault", which is root's, and
/// "home", which is the account's.
class Place {
 public:
  explicit Place(bool across)
      : other_(across ? kOtherFileSystem : scratch_.Path()) {
    for (const Scratch* scratch : {&scratch_, &other_}) {
      fs::permissions(scratch->Path(), fs::perms{0755});
    }
    fs::permissions(scratch_.MakeDir("spool"), fs::perms{01777});
    Give(other_.MakeDir("home"));
    MakeVault(scratch_);
    MakeVault(other_);
    scratch_.MakeFile("spool/upload", std::string(kSize, 'u'));
    fs::permissions(Source(), fs::perms{0600});
  }

  std::string Spool() const { return scratch_ / "spool"; }
  std::string Source() const { return scratch_ / "spool/upload"; }
  std::string Home() const { return other_ / "home"; }
  std::string Target() const { return Home() + "/upload"; }
  /// On the file system of the source, and on that of the target.
  std::string Vault() const { return scratch_ / "vault"; }
  std::string HomeVault() const { return other_ / "vault"; }

  /// Where the file lies that the move makes beside its target; empty when
  /// there is none.
  std::string Draft() const {
    for (const auto& entry : fs::directory_iterator(Home())) {
      if (entry.path().filename().string().starts_with(".tov-")) {
        return entry.path();
      }
    }
    return "";
  }

  /// All that is root's, as it is.
  Strings RootsFiles() const {
    Strings files;
    for (const std::string& vault : {Vault(), HomeVault()}) {
      for (const auto& entry : fs::recursive_directory_iterator(vault)) {
        files.push_back(Describe(entry.path()));
      }
    }
    std::sort(files.begin(), files.end());
    return files;
  }

 private:
  static void MakeVault(const Scratch& scratch) {
    scratch.MakeDir("vault/folder");
    scratch.MakeDir("vault/closed");
    scratch.MakeFile("vault/program", "program");
    for (const char* secret : {"secret", "folder/upload", "closed/secret"}) {
      scratch.MakeFile(std::string("vault/") + secret, kSecret);
    }
    for (const auto& [name, mode] : {std::pair("folder", 0755),
                                     {"secret", 0600},
                                     {"folder/upload", 0600},
                                     {"program", 06755},
                                     // Kept from others by the folder only.
                                     {"closed", 0700},
                                     {"closed/secret", 0644}}) {
      fs::permissions(scratch / (std::string("vault/") + name),
                      static_cast<fs::perms>(mode));
    }
  }

  static void Give(const std::string& path) {
    ASSERT_EQ(::chown(path.c_str(), kAccount, kGroup), 0);
  }

  Scratch scratch_;
  Scratch other_;
};

/// What another process of the account does. Returns whether that worked.
bool AsAccount(const std::function<bool()>& deed) {
  const pid_t process = ::fork();
  if (process == 0) {
    const bool worked = ::setgroups(0, nullptr) == 0 && ::setgid(kGroup) == 0 &&
                        ::setuid(kAccount) == 0 && deed();
    ::_exit(worked ? 0 : 1);
  }
  int status = 1;
  return ::waitpid(process, &status, 0) == process && status == 0;
}

/// What the account puts in the place of a file.
struct Bait {
  const char* name;
  /// Returns whether that worked.
  bool (*put)(const char* path, const char* target);
  /// Of a link: below root's folder on the same file system.
  const char* target = "";
};

bool PutLink(const char* path, const char* target) {
  return ::symlink(target, path) == 0;
}

bool PutHardLink(const char* path, const char* target) {
  return ::link(target, path) == 0;
}

bool PutFile(const char* path, const char* /*target*/ = "") {
  const int file = ::open(path, O_CREAT | O_EXCL | O_WRONLY, 0644);
  return file >= 0 && ::write(file, "own", 3) == 3 && ::close(file) == 0;
}

void PrintTo(const Bait& bait, std::ostream* out) { *out << bait.name; }

const Bait kHardLinkToProgram = {"HardLinkToASetIdProgram", PutHardLink,
                                 "/program"};

const Bait kBaits[] = {
    {"LinkToASecret", PutLink, "/secret"},
    {"LinkToAFileInAClosedFolder", PutLink, "/closed/secret"},
    {"LinkToASetIdProgram", PutLink, "/program"},
    {"LinkToAFolder", PutLink, "/folder"},
    {"LinkToNothing", PutLink, "/new"},
    {"HardLinkToASecret", PutHardLink, "/secret"},
    // In the place of the file before the move has looked at it: a copy of the
    // program, on another file system, would outlive the program's own removal
    // or repair.
    kHardLinkToProgram,
    {"Fifo", [](auto path, auto) { return ::mkfifo(path, 0666) == 0; }},
    {"Folder", [](auto path, auto) { return ::mkdir(path, 0777) == 0; }},
    {"File", PutFile},
    {"Nothing", [](auto, auto) { return true; }},
};

/// As the account; a hard link by root where the kernel does not let the
/// account link to a file that it cannot write (fs.protected_hardlinks), which
/// not all do.
bool Put(const Bait& bait, const std::string& path, const std::string& vault) {
  const std::string target = vault + bait.target;
  const auto put = [&] { return bait.put(path.c_str(), target.c_str()); };
  return AsAccount(put) || (bait.put == PutHardLink && put());
}

/// Hands over as root while the account acts before the call of this number,
/// counted from the one after the first call named @p after. Reports the number
/// of "calls", and "done" if the account could do what it wanted.
Outcome Attack(const Place& place, Way way, int at, const std::string& after,
               const std::function<bool()>& deed) {
  return support::RunWithoutLeak(Child(), [&](const Reporter& report) {
    // A process that waits for the other end of a FIFO does so for ever.
    ::alarm(10);
    int calls = 0;
    bool counts = after.empty();
    const Watch watch([&](const FileCall& call) {
      if (counts && calls++ == at && deed()) report("done", "yes");
      counts = counts || call.name == after;
      report("calls", std::to_string(calls));
      if (way == Way::kLink && call.name == "renameat2") return EINVAL;
      const bool named = way == Way::kCopyByName && call.name == "O_TMPFILE";
      return named ? EOPNOTSUPP : 0;
    });
    tov_file::Attrs(0644, kAccount, kGroup).SafeSet(place.Source(), false);
    tov_file::Move(place.Source(), place.Target());
  });
}

/// Whether the account may read a file that lies in a folder of its own.
bool AccountMayRead(const struct stat& file) {
  if (file.st_uid == kAccount) return (file.st_mode & S_IRUSR) != 0;
  if (file.st_gid == kGroup) return (file.st_mode & S_IRGRP) != 0;
  return (file.st_mode & S_IROTH) != 0;
}

/// Expects that no file within the account's reach holds a secret or gives it
/// root's rights.
void ExpectNoGainIn(const std::string& folder) {
  for (const auto& entry : fs::directory_iterator(folder)) {
    const struct stat found = StatOf(entry.path());
    if (!S_ISREG(found.st_mode)) continue;
    const bool secret = ReadFile(entry.path()) == kSecret;
    EXPECT_FALSE(secret && AccountMayRead(found)) << entry.path();
    const bool copy = found.st_nlink == 1;
    EXPECT_FALSE(copy && found.st_uid == 0 &&
                 (found.st_mode & (S_ISUID | S_ISGID)) != 0)
        << entry.path();
  }
}

void ExpectNoGain(const Place& place, const Strings& roots_files) {
  EXPECT_EQ(place.RootsFiles(), roots_files);
  ExpectNoGainIn(place.Spool());
  ExpectNoGainIn(place.Home());
}

/// What the account exchanges, and from when on.
struct Aim {
  /// Where it is; empty while it is not there yet.
  std::string (Place::*path)() const;
  /// The account begins after this call; with the first one if empty.
  const char* after = "";
};

using Scenario = std::tuple<Way, Bait, Aim>;

std::string NameOf(const testing::TestParamInfo<Scenario>& info) {
  static const std::map<Way, std::string> kNames = {
      {Way::kRename, "Renaming"},
      {Way::kLink, "Linking"},
      {Way::kCopy, "Copying"},
      {Way::kCopyByName, "CopyingByName"}};
  return kNames.at(std::get<Way>(info.param)) + std::get<Bait>(info.param).name;
}

class MoveUnderAttack : public testing::TestWithParam<Scenario> {
 protected:
  void SetUp() override {
    if (!IsRoot()) GTEST_SKIP() << "needs root";
    const std::string lack = IsCopy(TheWay()) ? WhyNoOtherFileSystem() : "";
    if (!lack.empty()) GTEST_SKIP() << lack;
  }

  static Way TheWay() { return std::get<Way>(GetParam()); }
  static const Bait& TheBait() { return std::get<Bait>(GetParam()); }
  static const Aim& TheAim() { return std::get<Aim>(GetParam()); }

  static bool Exchange(const std::string& path, const Place& place) {
    if (path.empty()) return false;
    const bool gone = AsAccount(
        [&] { return ::unlink(path.c_str()) == 0 || errno == ENOENT; });
    const bool at_home = path.starts_with(place.Home());
    return gone &&
           Put(TheBait(), path, at_home ? place.HomeVault() : place.Vault());
  }
};

/// These baits at a place that moves in each of these ways lead to.
template <class Ways, class Baits>
auto Scenarios(const Ways& ways, const Baits& baits, const Aim& aim) {
  return testing::Combine(testing::ValuesIn(ways), testing::ValuesIn(baits),
                          testing::Values(aim));
}

INSTANTIATE_TEST_SUITE_P(AtSource, MoveUnderAttack,
                         Scenarios(kWays, kBaits, {&Place::Source}), NameOf);

// From when on the move knows which file it is to move.
INSTANTIATE_TEST_SUITE_P(AtKnownSource, MoveUnderAttack,
                         Scenarios(kWays, std::vector{kHardLinkToProgram},
                                   {&Place::Source, "lstat"}),
                         NameOf);

INSTANTIATE_TEST_SUITE_P(AtTarget, MoveUnderAttack,
                         Scenarios(kWays, kBaits, {&Place::Target}), NameOf);

INSTANTIATE_TEST_SUITE_P(AtDraft, MoveUnderAttack,
                         Scenarios(std::vector{Way::kCopyByName}, kBaits,
                                   {&Place::Draft}),
                         NameOf);

// The attack comes once before each call.
TEST_P(MoveUnderAttack, GivesNothingAway) {
  int calls = 1;
  int done = 0;
  for (int at = 0; at < calls; ++at) {
    SCOPED_TRACE("before call " + std::to_string(at));
    const Place place(IsCopy(TheWay()));
    const Strings roots_files = place.RootsFiles();
    const Outcome outcome = Attack(place, TheWay(), at, TheAim().after, [&] {
      return Exchange((place.*TheAim().path)(), place);
    });
    calls = std::max(calls, std::stoi(outcome.reported.at("calls")));
    done += outcome.reported.contains("done") ? 1 : 0;
    EXPECT_TRUE(outcome.error_type.empty() ||
                outcome.error_type == "tov_err::Error")
        << outcome.error_type << ": " << outcome.error;
    ExpectNoGain(place, roots_files);
  }
  EXPECT_GT(done, 0) << "the account had no opportunity";
}

}  // namespace
}  // namespace support

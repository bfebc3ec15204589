// Faults while a body is read and its uploads are stored: full disks, limits,
// directories that go away, bodies that end early, signals, missing standard
// descriptors. Nothing may be left behind.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zancgi/testing/child.h>
#include <zancgi/testing/identity.h>
#include <zancgi/testing/input.h>
#include <zancgi/testing/scratch.h>
#include <zancgi/zancgi.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <regex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/clean_run.h"
#include "support/form.h"
#include "support/mount.h"
#include "support/piece_input.h"
#include "support/system_calls.h"

namespace {

namespace fs = std::filesystem;
using support::CutInto;
using support::Field;
using support::kFormEnd;
using support::PieceInput;
using support::Post;
using support::RunCleanly;
using support::Upload;
using zan_cgi::Cgi;
using zan_cgi::testing::Child;
using zan_cgi::testing::Input;
using zan_cgi::testing::Outcome;
using zan_cgi::testing::Reporter;
using zan_cgi::testing::Scratch;
using Strings = std::vector<std::string>;
using Event = PieceInput::Event;

constexpr std::size_t kChunk = 65536;
constexpr char kWriteError[] = "error writing temporary file";

std::string Joined(const Strings& pieces) {
  std::string text;
  for (const std::string& piece : pieces) text += piece;
  return text;
}

Strings NamesIn(const std::string& folder) {
  Strings names;
  std::error_code missing;
  for (const auto& entry : fs::directory_iterator(folder, missing)) {
    names.push_back(entry.path().filename());
  }
  return names;
}

Strings OpenDescriptors() {
  Strings found;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    const fs::path target = fs::read_symlink(entry.path(), gone);
    if (!gone && !target.string().starts_with("/proc/")) {
      found.push_back(entry.path().filename().string() + " " + target.string());
    }
  }
  std::sort(found.begin(), found.end());
  return found;
}

bool HasChildProcesses() {
  return ::waitpid(-1, nullptr, WNOHANG) >= 0 || errno != ECHILD;
}

/// What a parse has come to, while its record still lived.
struct Result {
  std::string error;
  bool parsed = false;
  std::map<std::string, std::string> params;
  std::map<std::string, Cgi::Data::FileInfo> files;
  /// What those files held that were there.
  std::map<std::string, std::string> contents;
  /// What was in the temporary directory.
  Strings names;
};

/// Parses standard input into a record that is gone afterwards, and makes sure
/// that nothing else of it stays: no descriptor, no process and, unless said
/// otherwise, no file.
Result Parse(const std::string& folder, bool files_stay = false) {
  const Strings before = OpenDescriptors();
  Result result;
  {
    Cgi::Data record;
    record.tmp_dir = folder;
    std::string error;
    try {
      record.ParseInput();
    } catch (const std::runtime_error& caught) {
      error = caught.what();
    }
    result = {error, record.parsed,  record.params, record.files,
              {},    NamesIn(folder)};
    for (const auto& [name, file] : record.files) {
      std::error_code closed;
      if (fs::is_regular_file(file.path, closed)) {
        result.contents[name] = zan_cgi::testing::ReadFile(file.path);
      }
    }
  }
  const Strings after = OpenDescriptors();
  EXPECT_TRUE(
      std::includes(before.begin(), before.end(), after.begin(), after.end()));
  EXPECT_FALSE(HasChildProcesses());
  EXPECT_TRUE(files_stay || NamesIn(folder).empty());
  return result;
}

/// A process that serves a POST of these pieces. It gets them by PieceInput.
Child PostOf(const Strings& pieces) { return support::PostOf(Joined(pieces)); }

/// An upload could not be stored: the body is read and the flag is set.
void ExpectWriteError(const Result& result, const PieceInput& input) {
  EXPECT_EQ(result.error, kWriteError);
  EXPECT_TRUE(result.parsed);
  EXPECT_EQ(input.BytesUnread(), 0U);
}

/// The entry stays while the file has gone.
void ExpectEntryWithoutFile(const Result& result, const std::string& name) {
  ASSERT_TRUE(result.files.contains(name));
  EXPECT_NE(result.files.at(name).path, "");
  EXPECT_FALSE(result.contents.contains(name));
}

/// One upload whose data comes in full chunks of their own.
Strings LargeUpload(std::size_t chunks) {
  Strings pieces{support::UploadHead("u", "f")};
  for (std::size_t i = 0; i < chunks; ++i) {
    pieces.emplace_back(kChunk, static_cast<char>('a' + i % 26));
  }
  pieces.push_back(std::string("\r\n") + kFormEnd);
  return pieces;
}

std::string DataOf(const Strings& large_upload) {
  return Joined({large_upload.begin() + 1, large_upload.end() - 1});
}

using Check =
    std::function<void(const Result& result, const PieceInput& input)>;

/// Parses pieces, which a child gets by PieceInput.
Outcome ParsePieces(const Strings& pieces, const std::string& folder,
                    const Check& check, const PieceInput::Events& events = {},
                    Child child = {}) {
  child.Env("REQUEST_METHOD", "POST")
      .Env("CONTENT_TYPE", support::kForm)
      .Env("CONTENT_LENGTH", std::to_string(Joined(pieces).size()));
  return RunCleanly(child, [&](const Reporter&) {
    const PieceInput input(pieces, events);
    check(Parse(folder), input);
  });
}

/// Does something before the piece of one wait comes.
template <class Work>
PieceInput::Events Before(std::size_t when, const Work& work) {
  return [when, work](std::size_t wait) {
    if (wait == when) work();
    return Event::Piece;
  };
}

/// A file system of one megabyte of its own, in a child.
class SmallDisk {
 public:
  explicit SmallDisk(const Scratch& scratch,
                     const std::string& options = "size=1m")
      : top_(scratch.Path()) {
    support::MountPrivately(top_, options);
    fs::create_directory(Spool());
  }

  std::string Spool() const { return top_ + "/spool"; }

  /// Leaves this many bytes free, a multiple of the page size.
  void FillUpTo(off_t free_bytes) const {
    const std::string path = top_ + "/filler";
    std::ofstream filler(path, std::ios::binary);
    while (filler << std::string(4096, '#') << std::flush) {
    }
    filler.close();
    const auto size = static_cast<off_t>(fs::file_size(path));
    ASSERT_EQ(::truncate(path.c_str(), size - free_bytes), 0);
    EXPECT_EQ(FreeBytes(), static_cast<std::uint64_t>(free_bytes));
  }

  std::uint64_t FreeBytes() const {
    struct statfs64 found {};
    EXPECT_EQ(::statfs64(top_.c_str(), &found), 0);
    return found.f_bfree * static_cast<std::uint64_t>(found.f_bsize);
  }

 private:
  std::string top_;
};

class FullDisk : public testing::Test {
 protected:
  void SetUp() override {
    if (!zan_cgi::testing::IsRoot()) GTEST_SKIP() << "needs root";
  }

  /// Parses the pieces on a disk that has but this many bytes left when the
  /// piece of this wait comes.
  Outcome ParseOnFullDisk(const Strings& pieces, std::size_t wait,
                          off_t free_bytes, const Check& check) {
    return RunCleanly(PostOf(pieces), [&](const Reporter&) {
      const SmallDisk disk(scratch_);
      const PieceInput input(pieces,
                             Before(wait, [&] { disk.FillUpTo(free_bytes); }));
      const Result result = Parse(disk.Spool());
      check(result, input);
      EXPECT_GE(disk.FreeBytes(), static_cast<std::uint64_t>(free_bytes));
    });
  }

  Scratch scratch_;
};

TEST_F(FullDisk, IsNoticedAtEachWrite) {
  struct Row {
    Strings pieces;
    std::size_t wait;
    off_t free_bytes;
  };
  std::vector<Row> rows = {{{Upload("u", "f", "0123456789") + kFormEnd}, 0, 0},
                           // Part of a chunk still fits.
                           {LargeUpload(3), 2, 8192}};
  for (std::size_t wait = 1; wait <= 10; ++wait) {
    rows.push_back({LargeUpload(10), wait, 0});
  }
  for (const auto& [pieces, wait, free_bytes] : rows) {
    SCOPED_TRACE(testing::Message() << pieces.size() << " pieces, " << wait);
    const Outcome outcome =
        ParseOnFullDisk(pieces, wait, free_bytes,
                        [](const Result& result, const PieceInput& input) {
                          ExpectWriteError(result, input);
                          ExpectEntryWithoutFile(result, "f");
                          EXPECT_EQ(result.files.at("f").size, 0);
                          EXPECT_EQ(result.params.at("u"), "f");
                          EXPECT_EQ(result.names, Strings{});
                        });
    EXPECT_EQ(outcome.Logged(4), Strings{});
    EXPECT_EQ(outcome.Logged(3), Strings{});
  }
}

TEST_F(FullDisk, GetsItsSpaceBackAtOnce) {
  const Strings pieces = LargeUpload(8);
  RunCleanly(PostOf(pieces), [&](const Reporter& report) {
    const SmallDisk disk(scratch_);
    const PieceInput input(pieces, [&](std::size_t wait) {
      if (wait == 4) disk.FillUpTo(0);
      if (wait == 5) {
        // Three chunks had been written when the fourth failed.
        EXPECT_EQ(NamesIn(disk.Spool()), Strings{});
        EXPECT_EQ(disk.FreeBytes(), 3 * kChunk);
        report("looked", "");
      }
      return Event::Piece;
    });
    ExpectWriteError(Parse(disk.Spool()), input);
    EXPECT_EQ(input.Waits(), pieces.size());
  });
}

TEST_F(FullDisk, SparesTheFilesBefore) {
  const Strings pieces{
      Upload("u", "first", "one"), Upload("v", "second", "two"),
      Upload("w", "third", "three"), Upload("x", "fourth", "four") + kFormEnd};
  ParseOnFullDisk(pieces, 2, 0,
                  [](const Result& result, const PieceInput& input) {
                    ExpectWriteError(result, input);
                    EXPECT_EQ(result.contents.at("first"), "one");
                    EXPECT_EQ(result.files.at("first").size, 3);
                    EXPECT_EQ(result.contents.at("second"), "two");
                    EXPECT_EQ(result.files.at("second").size, 3);
                    ExpectEntryWithoutFile(result, "third");
                    EXPECT_EQ(result.names.size(), 2U);
                  });
}

TEST_F(FullDisk, IsNoErrorForAnUploadThatFits) {
  const Strings pieces = LargeUpload(2);
  ParseOnFullDisk(pieces, 1, 2 * kChunk,
                  [&](const Result& result, const PieceInput&) {
                    EXPECT_EQ(result.error, "");
                    EXPECT_EQ(result.contents.at("f"), DataOf(pieces));
                  });
}

TEST_F(FullDisk, LeavesWhatComesBehindTheBodyUnread) {
  const Strings body = LargeUpload(3);
  Strings pieces = body;
  pieces.back() += "more";
  RunCleanly(PostOf(body), [&](const Reporter&) {
    const SmallDisk disk(scratch_);
    const PieceInput input(pieces, Before(2, [&] { disk.FillUpTo(0); }));
    EXPECT_EQ(Parse(disk.Spool()).error, kWriteError);
    EXPECT_EQ(input.BytesUnread(), 4U);
  });
}

TEST_F(FullDisk, IsSeenBeforehandInABodyThatIsTooLarge) {
  const Strings pieces = LargeUpload(20);
  const Outcome outcome = RunCleanly(PostOf(pieces), [&](const Reporter&) {
    const SmallDisk disk(scratch_);
    const PieceInput input(pieces, [&](std::size_t) {
      EXPECT_EQ(NamesIn(disk.Spool()), Strings{});
      return Event::Piece;
    });
    const Result result = Parse(disk.Spool());
    ExpectWriteError(result, input);
    EXPECT_TRUE(result.files.empty());
  });
  EXPECT_EQ(outcome.Logged(4),
            Strings{"There is not enoght free space on '" + scratch_.Path() +
                    "/spool' to process a query"});
}

TEST_F(FullDisk, WithoutRoomForAnotherFileIsNoticed) {
  // The top, the spool, and no more.
  const Strings pieces{Upload("u", "f", "x") + kFormEnd};
  RunCleanly(PostOf(pieces), [&](const Reporter&) {
    const SmallDisk disk(scratch_, "size=1m,nr_inodes=2");
    const PieceInput input(pieces);
    const Result result = Parse(disk.Spool());
    ExpectWriteError(result, input);
    ExpectEntryWithoutFile(result, "f");
  });
}

void LimitFileSize(rlim_t most) {
  rlimit limit{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &limit), 0);
  limit.rlim_cur = std::min(most, limit.rlim_max);
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
}

/// Parses an upload of this size under a limit of the file size.
void ParseUnderLimit(const std::string& folder, std::size_t size,
                     std::size_t limit) {
  const std::string content(size, 'x');
  const std::string body = Upload("u", "f", content) + kFormEnd;
  ::setenv("CONTENT_LENGTH", std::to_string(body.size()).c_str(), 1);
  const PieceInput input(CutInto(body, kChunk));
  LimitFileSize(limit);
  const Result result = Parse(folder);
  LimitFileSize(RLIM_INFINITY);
  if (size > limit) {
    ExpectWriteError(result, input);
    ExpectEntryWithoutFile(result, "f");
  } else {
    EXPECT_EQ(result.error, "") << size << " bytes of " << limit;
    EXPECT_EQ(result.contents.at("f"), content);
  }
}

TEST(FileSizeLimit, WithItsSignalIgnoredOrHandledCountsAsAFullDisk) {
  const Scratch scratch;
  for (const sighandler_t handler : {SIG_IGN, sighandler_t{[](int) {}}}) {
    // Log lines are limited as well.
    RunCleanly(Post("").LogLevel(0), [&](const Reporter&) {
      ::signal(SIGXFSZ, handler);
      for (const std::size_t limit :
           {0UL, 1UL, 4095UL, 4096UL, 65'536UL, 100'000UL}) {
        ParseUnderLimit(scratch.Path(), limit, limit);
        ParseUnderLimit(scratch.Path(), limit + 1, limit);
      }
      for (std::size_t chunk = 0; chunk < 6; ++chunk) {
        ParseUnderLimit(scratch.Path(), 6 * kChunk, chunk * kChunk);
        ParseUnderLimit(scratch.Path(), 6 * kChunk, chunk * kChunk + 100);
      }
    });
  }
}

TEST(FileSizeLimit, KillsTheProcessUnlessItsSignalIsIgnored) {
  const Scratch scratch;
  const Outcome outcome = Post("").LogLevel(0).Run([&](const Reporter& report) {
    const rlimit no_core{0, 0};
    ::setrlimit(RLIMIT_CORE, &no_core);
    ::signal(SIGXFSZ, SIG_DFL);
    ParseUnderLimit(scratch.Path(), 100'000, 70'000);
    report("survived", "");
  });
  EXPECT_EQ(outcome.status, 128 + SIGXFSZ);
  EXPECT_FALSE(outcome.reported.contains("survived"));
  // Nobody is left to remove it.
  ASSERT_EQ(scratch.List().size(), 1U);
  EXPECT_TRUE(scratch.List()[0].starts_with("zantemp"));
}

/// What is done to the temporary directory in the child: before the body
/// comes, or before the piece with the upload does.
struct UnusableDirectory {
  const char* name;
  std::function<void(const std::string& spool)> at_start;
  std::function<void(const std::string& spool)> at_upload;
  /// What is then in the folder above, unless the directory itself stays.
  Strings left = {"spool"};
  bool needs_root = false;
};

void DoNothing(const std::string& /*spool*/) {}

void BecomeFile(const std::string& spool) {
  fs::remove(spool);
  std::ofstream(spool) << "kept";
}

/// Gives it a mode that counts for the process from then on.
auto GetMode(mode_t mode) {
  return [mode](const std::string& spool) {
    EXPECT_EQ(::chmod(spool.c_str(), mode), 0);
    zan_cgi::testing::BecomeOrdinaryUser();
  };
}

const UnusableDirectory kUnusableDirectories[] = {
    {"ThatGoesAwayBeforeTheFile",
     DoNothing,
     [](const std::string& spool) { fs::remove_all(spool); },
     {}},
    {"ThatBecomesAFile", DoNothing, BecomeFile},
    {"ThatIsARegularFile", BecomeFile, DoNothing},
    {"ThatIsReadOnly", GetMode(0555), DoNothing},
    {"ThatMayNotBeRead", GetMode(0), DoNothing},
    {"ThatMayNotBeSearched", GetMode(0600), DoNothing},
    {"ThatMayNotBeListedNorSearched", GetMode(0200), DoNothing},
    {"OnAReadOnlyFileSystem",
     [](const std::string& spool) {
       support::MountPrivately(spool, "size=1m", MS_RDONLY);
     },
     DoNothing,
     {"spool"},
     true}};

class Unusable : public testing::TestWithParam<UnusableDirectory> {};

INSTANTIATE_TEST_SUITE_P(Directory, Unusable,
                         testing::ValuesIn(kUnusableDirectories),
                         [](const auto& row) { return row.param.name; });

TEST_P(Unusable, IsAWriteError) {
  if (GetParam().needs_root && !zan_cgi::testing::IsRoot()) {
    GTEST_SKIP() << "needs root";
  }
  const Scratch scratch;
  ASSERT_EQ(::chmod(scratch.Path().c_str(), 0755), 0);
  const std::string spool = scratch.MakeDir("spool");
  Strings pieces = LargeUpload(3);
  pieces.insert(pieces.begin(), Field("a", "1"));
  RunCleanly(PostOf(pieces), [&](const Reporter&) {
    GetParam().at_start(spool);
    const PieceInput input(pieces,
                           Before(1, [&] { GetParam().at_upload(spool); }));
    const Result result = Parse(spool);
    ExpectWriteError(result, input);
    ExpectEntryWithoutFile(result, "f");
    EXPECT_EQ(result.params.at("a"), "1");
  });
  EXPECT_EQ(scratch.List(), GetParam().left);
  if (fs::is_regular_file(spool)) {
    EXPECT_EQ(zan_cgi::testing::ReadFile(spool), "kept");
  }
  ::chmod(spool.c_str(), 0700);
}

TEST(Directory, ThatGoesAwayInMidUploadIsNoError) {
  const Scratch scratch;
  const std::string spool = scratch.MakeDir("spool");
  const Outcome outcome = ParsePieces(
      LargeUpload(4), spool,
      [](const Result& result, const PieceInput&) {
        EXPECT_EQ(result.error, "");
        EXPECT_EQ(result.files.at("f").size, 4 * static_cast<int>(kChunk));
        ExpectEntryWithoutFile(result, "f");
      },
      Before(3, [&] { fs::remove_all(spool); }));
  EXPECT_EQ(outcome.Logged(4), Strings{});
}

TEST(Directory, ThatIsRenamedInMidUploadTakesTheFileAlong) {
  const Scratch scratch;
  const std::string spool = scratch.MakeDir("spool");
  const Strings pieces = LargeUpload(4);
  const Outcome outcome = ParsePieces(
      pieces, spool,
      [](const Result& result, const PieceInput&) {
        EXPECT_EQ(result.error, "");
      },
      Before(3, [&] { fs::rename(spool, scratch / "other"); }));
  ASSERT_EQ(NamesIn(scratch / "other").size(), 1U);
  EXPECT_EQ(zan_cgi::testing::ReadFile(
                scratch / ("other/" + NamesIn(scratch / "other")[0])),
            DataOf(pieces));
  EXPECT_EQ(outcome.Logged(4), Strings{});
}

TEST(Directory, ThatGoesAwayBetweenTwoFilesFailsTheSecond) {
  const Scratch scratch;
  const std::string spool = scratch.MakeDir("spool");
  ParsePieces(
      {Upload("u", "first", "1"), Upload("v", "second", "2") + kFormEnd}, spool,
      [](const Result& result, const PieceInput& input) {
        ExpectWriteError(result, input);
        ExpectEntryWithoutFile(result, "first");
        EXPECT_EQ(result.files.at("first").size, 1);
        ExpectEntryWithoutFile(result, "second");
        EXPECT_EQ(result.files.at("second").size, 0);
      },
      Before(1, [&] { fs::remove_all(spool); }));
}

TEST(Directory, ThatIsMissingHasTheBodyReadFirst) {
  const Scratch scratch;
  const std::string missing = scratch / "missing";
  const Strings pieces = LargeUpload(3);
  ParsePieces(pieces, missing,
              [&](const Result& result, const PieceInput& input) {
                EXPECT_EQ(result.error, "Cannot run statfs on " + missing);
                EXPECT_TRUE(result.parsed);
                EXPECT_TRUE(result.params.empty());
                EXPECT_TRUE(result.files.empty());
                EXPECT_EQ(input.BytesUnread(), 0U);
                EXPECT_EQ(input.Waits(), pieces.size());
              });
}

TEST(Directory, OnAnotherFileSystemIsAsGood) {
  struct stat here {};
  struct stat there {};
  const std::string other = "/dev/shm";
  if (::stat(".", &here) != 0 || ::stat(other.c_str(), &there) != 0 ||
      here.st_dev == there.st_dev || ::access(other.c_str(), W_OK) != 0) {
    GTEST_SKIP() << "needs another file system at " << other;
  }
  const Scratch scratch(other);
  const Strings pieces = LargeUpload(3);
  ParsePieces(
      pieces, scratch.Path(), [&](const Result& result, const PieceInput&) {
        EXPECT_EQ(result.error, "");
        EXPECT_EQ(result.contents.at("f"), DataOf(pieces));
        EXPECT_EQ(result.files.at("f").size, 3 * static_cast<int>(kChunk));
      });
}

/// A form with both kinds of parts, and the places in it.
const std::string kContent = "the content";
const std::string kFieldPart = Field("a", "1");
const std::string kUploadPart = Upload("u", "f", kContent);
const std::string kBody = kFieldPart + kUploadPart + Field("b", "2") + kFormEnd;
/// A body that ends here is parsed for ever: the first boundary has come, but
/// not both bytes that are skipped behind it.
bool EndsBehindTheFirstBoundary(std::size_t cut) {
  return cut == 4 || cut == 5;
}
/// Behind these bytes the field's value is complete.
const std::size_t kValueEnd = kFieldPart.size();
const std::size_t kDataBegin =
    kFieldPart.size() + support::UploadHead("u", "f").size();
const std::size_t kDataEnd = kDataBegin + kContent.size();
/// Behind these the upload is complete.
const std::size_t kSeparatorEnd = kDataEnd + 6;

/// What must be there of the upload when the body has ended behind this many
/// bytes, none of which can be taken for more than it is.
void ExpectUploadCutAt(const Result& result, std::size_t cut) {
  EXPECT_EQ(result.files.contains("f"), cut > kDataBegin);
  if (cut <= kDataBegin) return;
  EXPECT_EQ(result.contents.at("f"), kContent.substr(0, cut - kDataBegin));
  EXPECT_EQ(
      result.files.at("f").size,
      cut >= kSeparatorEnd ? static_cast<std::int64_t>(kContent.size()) : 0);
}

TEST(CutBody, FromAPipeIsAnErrorAtEveryByte) {
  const Scratch scratch;
  const Outcome outcome =
      RunCleanly(Post(std::to_string(kBody.size())), [&](const Reporter&) {
        for (std::size_t cut = 0; cut < kBody.size(); ++cut) {
          if (EndsBehindTheFirstBoundary(cut)) continue;
          SCOPED_TRACE(cut);
          Strings pieces;
          if (cut > 0) pieces.push_back(kBody.substr(0, cut));
          const PieceInput input(pieces);
          const Result result = Parse(scratch.Path());
          EXPECT_EQ(result.error, "Error reading STDIN");
          EXPECT_FALSE(result.parsed);
          EXPECT_EQ(result.params.contains("a"), cut >= kValueEnd);
          ExpectUploadCutAt(result, cut);
        }
      });
  // As often as the log says the same in one process.
  Strings expected(100, "Signal HUP received");
  expected.push_back(
      "further messages are dropped after 100 of \"Signal HUP received\"");
  Strings logged = outcome.Logged(4);
  ASSERT_GE(logged.size(), expected.size());
  logged.resize(expected.size());
  EXPECT_EQ(logged, expected);
}

TEST(CutBody, FromAPipeIsAnErrorAtEveryByteOfADrain) {
  RunCleanly(Post(std::to_string(kBody.size())).LogLevel(0),
             [&](const Reporter&) {
               for (std::size_t cut = 0; cut < kBody.size(); ++cut) {
                 SCOPED_TRACE(cut);
                 const PieceInput input(CutInto(kBody.substr(0, cut), 40));
                 const Result result = Parse("/nowhere/at/all");
                 EXPECT_EQ(result.error, "Error reading STDIN");
                 EXPECT_FALSE(result.parsed);
               }
             });
}

TEST(CutBody, InTheDrainAfterAWriteErrorIsAReadError) {
  const Scratch scratch;
  const std::string file = scratch.MakeFile("file");
  Strings pieces = LargeUpload(3);
  const Child child = PostOf(pieces);
  pieces.resize(3);
  RunCleanly(child, [&](const Reporter&) {
    const PieceInput input(pieces);
    const Result result = Parse(file);
    EXPECT_EQ(result.error, "Error reading STDIN");
    EXPECT_FALSE(result.parsed);
  });
}

void EndAfterProcessorTime(int microseconds) {
  const itimerval soon{{0, 0}, {0, microseconds}};
  ::setitimer(ITIMER_PROF, &soon, nullptr);
}

/// Whether a parse of this input goes on for 20 ms of processor time.
bool GoesOnForEver(const Input& input, std::size_t declared) {
  const Scratch scratch;
  const Outcome outcome = Post(std::to_string(declared))
                              .LogLevel(0)
                              .StandardInput(input)
                              .Run([&](const Reporter&) {
                                EndAfterProcessorTime(20'000);
                                Parse(scratch.Path());
                              });
  return outcome.status == 128 + SIGPROF;
}

TEST(CutBody, BehindTheFirstBoundaryIsParsedForEver) {
  for (const std::size_t cut : {4U, 5U}) {
    EXPECT_TRUE(EndsBehindTheFirstBoundary(cut));
    EXPECT_TRUE(GoesOnForEver(Input::Pipe(kBody.substr(0, cut)), kBody.size()))
        << cut;
  }
}

// That it is so at each byte is shown by EmptyRead in tests/plain.
TEST(CutBody, FromASocketOrAFileIsParsedForEverFromTheFirstByteOn) {
  for (const std::size_t cut :
       {std::size_t{1}, std::size_t{5}, std::size_t{30}, kValueEnd - 1,
        kValueEnd, kDataBegin, kDataBegin + 1, kDataEnd + 3, kSeparatorEnd,
        kBody.size() - 1}) {
    const std::string sent = kBody.substr(0, cut);
    EXPECT_TRUE(GoesOnForEver(Input::Socket(sent), kBody.size())) << cut;
    EXPECT_TRUE(GoesOnForEver(Input::File(sent), kBody.size())) << cut;
  }
}

TEST(CutBody, FromAFileIsAskedForAgainAndAgainWhereNothingElseCounts) {
  struct Row {
    Input input;
    const char* folder;
  };
  Row rows[] = {{Input::File(""), "/tmp"},
                {Input::Socket(""), "/tmp"},
                // A drain.
                {Input::File("12345"), "/nowhere/at/all"}};
  for (const Row& row : rows) {
    RunCleanly(Post("10").StandardInput(row.input), [&](const Reporter&) {
      int sleeps = 0;
      support::Replace({.sleep = [&](unsigned milliseconds) {
        EXPECT_EQ(milliseconds, 100U);
        if (++sleeps == 50) throw std::runtime_error("slept enough");
      }});
      EXPECT_EQ(Parse(row.folder, true).error, "slept enough");
    });
  }
}

/// Parses while the writer falls silent at one wait.
Result ParseFromSilentWriter(const std::string& folder, const Strings& pieces,
                             std::size_t silent) {
  const PieceInput input(pieces, [silent](std::size_t wait) {
    return wait < silent ? Event::Piece : Event::Silence;
  });
  const Result result = Parse(folder, true);
  EXPECT_EQ(result.error, "timeout");
  EXPECT_FALSE(result.parsed);
  EXPECT_EQ(::fcntl(STDIN_FILENO, F_GETFD), -1);
  EXPECT_EQ(input.Waits(), silent + 1);
  // There is no standard input any more.
  EXPECT_EQ(Parse(folder, true).error, "invalid polling request");
  return result;
}

TEST(SilentWriter, EndsTheParseAndADrainAtEachWait) {
  const Scratch scratch;
  const Strings pieces = CutInto(kBody, kValueEnd);
  for (const std::string& folder :
       {scratch.Path(), std::string("/nowhere/at/all")}) {
    for (std::size_t wait = 0; wait < pieces.size(); ++wait) {
      RunCleanly(PostOf(pieces), [&](const Reporter&) {
        ParseFromSilentWriter(folder, pieces, wait);
      });
      EXPECT_EQ(scratch.List(), Strings{});
    }
  }
}

TEST(SilentWriter, LeavesPartOfAFileForTheTearDown) {
  const Scratch scratch;
  const Strings pieces = LargeUpload(4);
  RunCleanly(PostOf(pieces), [&](const Reporter&) {
    const Result result = ParseFromSilentWriter(scratch.Path(), pieces, 3);
    EXPECT_EQ(result.contents.at("f"),
              std::string(kChunk, 'a') + std::string(kChunk, 'b'));
    EXPECT_EQ(result.files.at("f").size, 0);
    EXPECT_EQ(result.names.size(), 1U);
  });
  EXPECT_EQ(scratch.List(), Strings{});
}

TEST(SilentWriter, OverrulesAWriteError) {
  const Scratch scratch;
  const std::string file = scratch.MakeFile("file");
  const Strings pieces = LargeUpload(4);
  RunCleanly(PostOf(pieces),
             [&](const Reporter&) { ParseFromSilentWriter(file, pieces, 3); });
}

/// Each wait up to this one brings a piece, this one a signal.
PieceInput::Events SignalAt(std::size_t when) {
  return [when](std::size_t wait) {
    zan_cgi::testing::Mark("wait " + std::to_string(wait));
    return wait == when ? Event::Signal : Event::Piece;
  };
}

/// The form in pieces that end in each of the parser's states, and at its
/// places where nothing is pending.
const Strings kPieces{
    "preamble",
    "--XY\r\nContent-Disp",
    "osition: form-data; name=\"a\"\r\n\r\n",
    "1\r\nlonger val",
    "ue\r\n--XY\r\n",
    "Content-Disposition: form-data; name=\"u\"; filename=\"f\"\r\n\r\nthe ",
    "content",
    "\r\n--X",
    "Y\r\n" + Field("b", "2").substr(6),
    kFormEnd};

int Count(const Outcome& outcome, const std::regex& text) {
  return static_cast<int>(std::count_if(
      outcome.log.begin(), outcome.log.end(),
      [&](const auto& line) { return std::regex_match(line.text, text); }));
}

const std::regex kInterrupted(
    R"(zancgi_unix\.cpp:\d+ poll interrupted, trying again)");

/// The uninterrupted parse of kPieces.
void ExpectWholeForm(const Result& result) {
  EXPECT_EQ(result.error, "");
  EXPECT_TRUE(result.parsed);
  EXPECT_EQ(result.params,
            (std::map<std::string, std::string>{
                {"a", "1\nlonger value"}, {"b", "2"}, {"u", "f"}}));
  EXPECT_EQ(result.contents.at("f"), "the content");
  EXPECT_EQ(result.files.at("f").size, 11);
}

TEST(Signal, BeforeTheFirstPieceDoesNoHarm) {
  const Scratch scratch;
  for (const std::size_t signals : {0U, 1U}) {
    const Outcome outcome = RunCleanly(PostOf(kPieces), [&](const Reporter&) {
      const PieceInput input(kPieces,
                             signals > 0 ? SignalAt(0) : PieceInput::Events{});
      ExpectWholeForm(Parse(scratch.Path()));
      EXPECT_EQ(PieceInput::SignalsHandled(), static_cast<int>(signals));
      EXPECT_EQ(input.Waits(), kPieces.size() + signals);
    });
    EXPECT_EQ(Count(outcome, kInterrupted), static_cast<int>(signals));
  }
}

TEST(Signal, InALaterWaitMakesTheParseGoOnForEver) {
  // It counts as a read of nothing, after which no further read is tried.
  for (std::size_t when = 1; when < kPieces.size(); ++when) {
    const Scratch scratch;
    const Outcome outcome = PostOf(kPieces).Run([&](const Reporter&) {
      const PieceInput input(kPieces, [when](std::size_t wait) {
        if (wait == when) EndAfterProcessorTime(20'000);
        return SignalAt(when)(wait);
      });
      Parse(scratch.Path());
    });
    EXPECT_EQ(outcome.status, 128 + SIGPROF) << when;
    EXPECT_EQ(Count(outcome, kInterrupted), 1) << when;
    EXPECT_EQ(outcome.Logged(-1).back(), "wait " + std::to_string(when));
  }
}

TEST(Signal, DoesNotDisturbADrain) {
  const Strings pieces = CutInto(kBody, 40);
  for (std::size_t when = 0; when < pieces.size(); ++when) {
    const Outcome outcome = ParsePieces(
        pieces, "/nowhere/at/all",
        [&](const Result& result, const PieceInput& input) {
          EXPECT_EQ(result.error, "Cannot run statfs on /nowhere/at/all");
          EXPECT_TRUE(result.parsed);
          EXPECT_EQ(input.BytesUnread(), 0U);
          EXPECT_EQ(input.Waits(), pieces.size() + 1);
        },
        SignalAt(when));
    EXPECT_EQ(Count(outcome, kInterrupted), 1);
  }
}

TEST(Signal, DoesNotDisturbTheReadingAfterAWriteError) {
  const Scratch scratch;
  const std::string file = scratch.MakeFile("file");
  const Strings pieces{support::UploadHead("u", "f") + "d", "data", "data",
                       std::string("\r\n") + kFormEnd};
  for (std::size_t when = 2; when < pieces.size(); ++when) {
    const Outcome outcome = ParsePieces(
        pieces, file,
        [&](const Result& result, const PieceInput& input) {
          ExpectWriteError(result, input);
          EXPECT_EQ(input.Waits(), pieces.size() + 1);
        },
        SignalAt(when));
    EXPECT_EQ(Count(outcome, kInterrupted), 1);
  }
}

/// The standard descriptors of a set: "0 1" and the like.
std::string OpenStandardDescriptors() {
  std::string open;
  for (const int descriptor : {0, 1, 2}) {
    if (::fcntl(descriptor, F_GETFD) >= 0) open += std::to_string(descriptor);
  }
  return open;
}

/// A child that starts with these descriptors closed.
Child Without(const std::vector<int>& closed) {
  Child child;
  for (const int descriptor : closed) child.Closed(descriptor);
  return child;
}

TEST(StandardDescriptors, WithoutTheFirstThereIsNoBody) {
  for (const std::vector<int>& closed :
       {std::vector{0}, {0, 1}, {0, 2}, {0, 1, 2}}) {
    const Scratch scratch;
    RunCleanly(Without(closed).Env("CONTENT_LENGTH", "1000"),
               [&](const Reporter&) {
                 const std::string open = OpenStandardDescriptors();
                 const Result result = Parse(scratch.Path());
                 EXPECT_EQ(result.error, "invalid polling request");
                 EXPECT_FALSE(result.parsed);
                 EXPECT_TRUE(result.files.empty());
                 EXPECT_EQ(OpenStandardDescriptors(), open);
               });
  }
}

TEST(StandardDescriptors, AreNeverAnUploadsFile) {
  const Strings pieces = LargeUpload(3);
  const std::pair<std::vector<int>, std::string> sets[] = {
      {{1}, "02"}, {{2}, "01"}, {{1, 2}, "0"}};
  for (const auto& [closed, open] : sets) {
    const Scratch scratch;
    ParsePieces(
        pieces, scratch.Path(),
        [&, open = open](const Result& result, const PieceInput&) {
          EXPECT_EQ(result.error, "");
          EXPECT_EQ(result.contents.at("f"), DataOf(pieces));
          EXPECT_EQ(OpenStandardDescriptors(), open);
        },
        [&, open = open](std::size_t wait) {
          EXPECT_EQ(OpenStandardDescriptors(), open);
          // From the first data on the file is open.
          EXPECT_EQ(NamesIn(scratch.Path()).size(), wait > 1 ? 1U : 0U);
          return Event::Piece;
        },
        Without(closed));
  }
}

TEST(StandardDescriptors, AreNotNeededForAWriteError) {
  const Scratch scratch;
  ParsePieces(LargeUpload(2), scratch.MakeFile("file"), ExpectWriteError, {},
              Without({1, 2}));
}

/// Parses two uploads, "f" and "g", then lets the front end do something with
/// their paths before the record goes.
template <class Work>
Outcome EndRequestAfter(const Scratch& spool, const Work& work) {
  const std::string body =
      Upload("u", "f", "first") + Upload("v", "g", "second") + kFormEnd;
  const Input input = Input::Pipe(body);
  return RunCleanly(Post(std::to_string(body.size())).StandardInput(input),
                    [&](const Reporter& report) {
                      Cgi cgi("/bin/front", "panel");
                      cgi.SetTmpDir(spool.Path());
                      cgi.ParseQuery();
                      report("f", cgi.File("f"));
                      report("g", cgi.File("g"));
                      work(cgi.File("f"), cgi.File("g"));
                    });
}

std::string CannotRemove(const std::string& path) {
  return "failed to remove tamporary file '" + path + "'";
}

/// What has been put in an upload's place, and what stays of it.
struct Place {
  const char* name;
  std::function<void(const std::string& upload, const Scratch& store)> put;
  bool stays = false;
};

TEST(TearDown, RemovesWhatIsInAnUploadsPlaceAndTheOthers) {
  const Place places[] = {{"moved away",
                           [](const std::string& upload, const Scratch& store) {
                             fs::rename(upload, store / "kept");
                           }},
                          {"a directory",
                           [](const std::string& upload, const Scratch&) {
                             fs::remove(upload);
                             fs::create_directory(upload);
                           },
                           true},
                          {"a link, whose target stays",
                           [](const std::string& upload, const Scratch& store) {
                             fs::rename(upload, store / "kept");
                             fs::create_symlink(store / "kept", upload);
                           }}};
  for (const Place& place : places) {
    SCOPED_TRACE(place.name);
    const Scratch spool;
    const Scratch store;
    const Outcome outcome = EndRequestAfter(
        spool,
        [&](const std::string& f, const std::string&) { place.put(f, store); });
    const std::string upload = outcome.reported.at("f");
    if (place.stays) {
      EXPECT_EQ(outcome.Logged(4), Strings{CannotRemove(upload)});
      EXPECT_EQ(spool.List(), Strings{fs::path(upload).filename()});
    } else {
      EXPECT_EQ(outcome.Logged(4), Strings{});
      EXPECT_EQ(spool.List(), Strings{});
      EXPECT_EQ(zan_cgi::testing::ReadFile(store / "kept"), "first");
    }
  }
}

TEST(TearDown, WithoutTheRightToRemoveWarnsOfEach) {
  for (const mode_t mode : {0555U, 0U}) {
    const Scratch spool;
    ASSERT_EQ(::chmod(spool.Path().c_str(), 0777), 0);
    const Outcome outcome =
        EndRequestAfter(spool, [&](const std::string&, const std::string&) {
          EXPECT_EQ(::chmod(spool.Path().c_str(), mode), 0);
          zan_cgi::testing::BecomeOrdinaryUser();
        });
    EXPECT_EQ(outcome.Logged(4),
              (Strings{CannotRemove(outcome.reported.at("f")),
                       CannotRemove(outcome.reported.at("g"))}));
    EXPECT_EQ(::chmod(spool.Path().c_str(), 0700), 0);
    EXPECT_EQ(spool.List().size(), 2U);
  }
}

TEST(TearDown, RemovesTheFilesOfAParseThatWasGivenUp) {
  const Scratch scratch;
  const Strings pieces{Upload("u", "f", "whole"),
                       support::UploadHead("v", "g") + "in part"};
  RunCleanly(Post("1000"), [&](const Reporter&) {
    const PieceInput input(pieces);
    const Result result = Parse(scratch.Path());
    EXPECT_EQ(result.error, "Error reading STDIN");
    EXPECT_EQ(result.contents.at("f"), "whole");
    EXPECT_EQ(result.files.at("f").size, 5);
    EXPECT_EQ(result.contents.at("g"), "in part");
    EXPECT_EQ(result.files.at("g").size, 0);
    EXPECT_EQ(result.names.size(), 2U);
  });
}

TEST(TearDown, RemovesTheFilesOfAFieldThatIsRefused) {
  const Scratch scratch;
  const std::string body =
      Upload("u", "f", "x") + Field("a", std::string(262'145, 'y')) + kFormEnd;
  RunCleanly(Post(std::to_string(body.size())), [&](const Reporter&) {
    const PieceInput input(CutInto(body, kChunk));
    const Result result = Parse(scratch.Path());
    EXPECT_EQ(result.error, "Element value size must be less than 262144");
    EXPECT_EQ(result.names.size(), 1U);
  });
}

}  // namespace

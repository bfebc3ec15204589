// Faults while a body is read and its uploads are stored: full disks, limits,
// directories that go away, bodies that end early, signals, missing standard
// descriptors. Nothing may be left behind.

#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/vfs.h>

#include <fstream>
#include <regex>

#include "support/files.h"
#include "support/form.h"
#include "support/mount.h"
#include "support/piece_input.h"
#include "support/system_calls.h"
#include "support/test.h"

namespace support {
namespace {

using Event = PieceInput::Event;

constexpr std::size_t kChunk = 65536;
constexpr char kWriteError[] = "error writing temporary file";
constexpr char kNowhere[] = "/nowhere/at/all";

std::string Joined(const Strings& pieces) {
  std::string text;
  for (const std::string& piece : pieces) text += piece;
  return text;
}

/// What a parse has come to, while its record still lived.
struct Result {
  std::string error;
  bool parsed = false;
  Texts params;
  std::map<std::string, Cgi::Data::FileInfo> files;
  /// What those files held that were there.
  Texts contents;
  /// What was in the temporary directory.
  Strings names;
};

/// Parses standard input into a record that is gone afterwards, and makes sure
/// that no file of it stays, unless said otherwise.
Result Parse(const std::string& folder, bool files_stay = false) {
  Result result;
  {
    Cgi::Data record;
    record.tmp_dir = folder;
    try {
      record.ParseInput();
    } catch (const std::runtime_error& caught) {
      result.error = caught.what();
    }
    result.parsed = record.parsed;
    result.params = record.params;
    result.files = record.files;
    result.names = NamesIn(folder);
    for (const auto& [name, file] : record.files) {
      std::error_code closed;
      if (fs::is_regular_file(file.path, closed)) {
        result.contents[name] = ReadFile(file.path);
      }
    }
  }
  EXPECT_TRUE(files_stay || NamesIn(folder).empty());
  return result;
}

/// A process that serves a POST of these pieces. It gets them by PieceInput.
Child PostOf(const Strings& pieces) { return support::PostOf(Joined(pieces)); }

/// An upload could not be stored: the body is read and the flag is set.
void ExpectWriteError(const Result& result, const PieceInput& input,
                      std::size_t unread = 0) {
  EXPECT_EQ(result.error, kWriteError);
  EXPECT_TRUE(result.parsed);
  EXPECT_EQ(input.BytesUnread(), unread);
}

void ExpectReadError(const Result& result) {
  EXPECT_EQ(result.error, "Error reading STDIN");
  EXPECT_FALSE(result.parsed);
}

/// The entry stays while the file has gone.
void ExpectEntryWithoutFile(const Result& result, const std::string& name) {
  ASSERT_TRUE(result.files.contains(name));
  EXPECT_NE(result.files.at(name).path, "");
  EXPECT_FALSE(result.contents.contains(name));
}

/// The file is there, whole.
void ExpectFile(const Result& result, const std::string& name,
                const std::string& content) {
  ASSERT_TRUE(result.contents.contains(name));
  EXPECT_TRUE(result.contents.at(name) == content);
  EXPECT_EQ(result.files.at(name).size,
            static_cast<std::int64_t>(content.size()));
}

/// One upload whose data comes in full chunks of their own.
Strings LargeUpload(std::size_t chunks) {
  Strings pieces{UploadHead("u", "f")};
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

Outcome ParsePieces(const Strings& pieces, const std::string& folder,
                    const Check& check, const PieceInput::Events& events = {},
                    const std::vector<int>& closed = {}) {
  Child child = PostOf(pieces);
  for (const int descriptor : closed) child.Closed(descriptor);
  return RunCleanly(child, [&] {
    const PieceInput input(pieces, events);
    check(Parse(folder), input);
  });
}

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
  explicit SmallDisk(const Scratch& scratch, const std::string& options)
      : top_(scratch.Path()) {
    MountPrivately(top_, options);
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
    EXPECT_EQ(FreeBytes(), free_bytes);
  }

  off_t FreeBytes() const {
    struct statfs64 found {};
    EXPECT_EQ(::statfs64(top_.c_str(), &found), 0);
    return static_cast<off_t>(found.f_bfree) * found.f_bsize;
  }

 private:
  std::string top_;
};

class FullDisk : public testing::Test {
 protected:
  using DiskCheck = std::function<void(const Result&, const PieceInput&)>;
  using DiskEvent = std::function<void(std::size_t wait, const SmallDisk&)>;

  void SetUp() override {
    if (!IsRoot()) GTEST_SKIP() << "needs root";
  }

  /// Parses the pieces on a small disk, to which this happens at each wait.
  /// After the body come four more bytes.
  Outcome ParseOnDisk(const Strings& pieces, const DiskEvent& event,
                      const DiskCheck& check,
                      const std::string& options = "size=1m") {
    return RunCleanly(PostOf(pieces), [&] {
      const SmallDisk disk(scratch_, options);
      Strings sent = pieces;
      sent.back() += "more";
      const PieceInput input(sent, [&](std::size_t wait) {
        event(wait, disk);
        return Event::Piece;
      });
      check(Parse(disk.Spool()), input);
    });
  }

  /// The disk has but this many bytes left when the piece of this wait comes.
  static DiskEvent FullAt(std::size_t when, off_t free_bytes = 0) {
    return [=](std::size_t wait, const SmallDisk& disk) {
      if (wait == when) disk.FillUpTo(free_bytes);
    };
  }

  Scratch scratch_;
};

TEST_F(FullDisk, IsNoticedAtEachWrite) {
  struct Row {
    Strings pieces;
    std::size_t wait;
    off_t free_bytes = 0;
    const char* options = "size=1m";
  };
  const Strings small{Upload("u", "f", "0123456789") + kFormEnd};
  std::vector<Row> rows = {
      {small, 0},
      // Part of a chunk still fits.
      {LargeUpload(3), 2, 8192},
      // The top, the spool, and no more files.
      {small, SIZE_MAX, 0, "size=1m,nr_inodes=2"},
  };
  for (std::size_t wait = 1; wait <= 10; ++wait) {
    rows.push_back({LargeUpload(10), wait});
  }
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << row.pieces.size() << ", " << row.wait);
    const Outcome outcome = ParseOnDisk(
        row.pieces, FullAt(row.wait, row.free_bytes),
        [](const Result& result, const PieceInput& input) {
          ExpectWriteError(result, input, 4);
          ExpectEntryWithoutFile(result, "f");
          EXPECT_EQ(result.files.at("f").size, 0);
          EXPECT_EQ(result.params.at("u"), "f");
          EXPECT_EQ(result.names, Strings{});
        },
        row.options);
    EXPECT_EQ(outcome.Logged(4), Strings{});
    EXPECT_EQ(outcome.Logged(3), Strings{});
  }
}

TEST_F(FullDisk, GetsItsSpaceBackAtOnce) {
  const Strings pieces = LargeUpload(8);
  ParseOnDisk(
      pieces,
      [](std::size_t wait, const SmallDisk& disk) {
        if (wait == 4) disk.FillUpTo(0);
        if (wait != 5) return;
        // Three chunks had been written when the fourth failed.
        EXPECT_EQ(NamesIn(disk.Spool()), Strings{});
        EXPECT_EQ(disk.FreeBytes(), off_t{3 * kChunk});
      },
      [&](const Result& result, const PieceInput& input) {
        ExpectWriteError(result, input, 4);
        EXPECT_EQ(input.Waits(), pieces.size());
      });
}

TEST_F(FullDisk, KeepsTheFilesBefore) {
  ParseOnDisk(
      {Upload("u", "first", "one"), Upload("v", "second", "two"),
       Upload("w", "third", "three"), Upload("x", "fourth", "four") + kFormEnd},
      FullAt(2), [](const Result& result, const PieceInput& input) {
        ExpectWriteError(result, input, 4);
        ExpectFile(result, "first", "one");
        ExpectFile(result, "second", "two");
        ExpectEntryWithoutFile(result, "third");
        EXPECT_EQ(result.names.size(), 2U);
      });
}

TEST_F(FullDisk, IsNoErrorForAnUploadThatFits) {
  const Strings pieces = LargeUpload(2);
  ParseOnDisk(pieces, FullAt(1, 2 * kChunk),
              [&](const Result& result, const PieceInput&) {
                EXPECT_EQ(result.error, "");
                ExpectFile(result, "f", DataOf(pieces));
              });
}

TEST_F(FullDisk, IsDetectedFromTheContentLength) {
  const Outcome outcome = ParseOnDisk(
      LargeUpload(20),
      [](std::size_t, const SmallDisk& disk) {
        EXPECT_EQ(NamesIn(disk.Spool()), Strings{});
      },
      [](const Result& result, const PieceInput& input) {
        ExpectWriteError(result, input, 4);
        EXPECT_TRUE(result.files.empty());
      });
  EXPECT_EQ(outcome.Logged(4),
            Strings{"There is not enoght free space on '" + scratch_.Path() +
                    "/spool' to process a query"});
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
    ExpectFile(result, "f", content);
  }
}

TEST(FileSizeLimit, WithItsSignalIgnoredOrHandledCountsAsAFullDisk) {
  const Scratch scratch;
  for (const sighandler_t handler : {SIG_IGN, sighandler_t{[](int) {}}}) {
    // Log lines are limited as well.
    RunCleanly(Post("").LogLevel(0), [&] {
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

using Deed = std::function<void(const std::string& spool)>;

void DoNothing(const std::string& /*spool*/) {}

void BecomeFile(const std::string& spool) {
  fs::remove(spool);
  std::ofstream(spool) << "kept";
}

/// Gives it a mode that counts for the process from then on.
Deed GetMode(mode_t mode) {
  return [mode](const std::string& spool) {
    EXPECT_EQ(::chmod(spool.c_str(), mode), 0);
    BecomeOrdinaryUser();
  };
}

/// Expects a write error of a temporary directory to which these are done in
/// the child: before the body comes, and before the piece with the upload does.
/// @param left  what is then in the folder above, unless the directory stays
void ExpectUnusable(const Deed& at_start, const Deed& at_upload = DoNothing,
                    const Strings& left = {"spool"}) {
  const Scratch scratch;
  ASSERT_EQ(::chmod(scratch.Path().c_str(), 0755), 0);
  const std::string spool = scratch.MakeDir("spool");
  Strings pieces = LargeUpload(3);
  pieces.insert(pieces.begin(), Field("a", "1"));
  RunCleanly(PostOf(pieces), [&] {
    at_start(spool);
    const PieceInput input(pieces, Before(1, [&] { at_upload(spool); }));
    const Result result = Parse(spool);
    ExpectWriteError(result, input);
    ExpectEntryWithoutFile(result, "f");
    EXPECT_EQ(result.params.at("a"), "1");
  });
  EXPECT_EQ(scratch.List(), left);
  if (fs::is_regular_file(spool)) {
    EXPECT_EQ(ReadFile(spool), "kept");
  }
  ::chmod(spool.c_str(), 0700);
}

TEST(Directory, ThatCannotBeUsedIsAWriteError) {
  ExpectUnusable(DoNothing,
                 [](const std::string& spool) { fs::remove_all(spool); }, {});
  ExpectUnusable(DoNothing, BecomeFile);
  ExpectUnusable(BecomeFile);
  // Read-only; not to be read; searched; or either.
  for (const mode_t mode : {0555U, 0U, 0600U, 0200U}) {
    SCOPED_TRACE(mode);
    ExpectUnusable(GetMode(mode));
  }
}

TEST_F(FullDisk, ThatIsReadOnlyIsAWriteError) {
  ExpectUnusable([](const std::string& spool) {
    MountPrivately(spool, "size=1m", MS_RDONLY);
  });
}

TEST(Directory, ThatIsRemovedDuringAnUploadIsNoError) {
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

TEST(Directory, ThatIsRenamedDuringAnUploadTakesTheFileAlong) {
  const Scratch scratch;
  const std::string spool = scratch.MakeDir("spool");
  const std::string other = scratch / "other";
  const Strings pieces = LargeUpload(4);
  const Outcome outcome = ParsePieces(
      pieces, spool,
      [](const Result& result, const PieceInput&) {
        EXPECT_EQ(result.error, "");
      },
      Before(3, [&] { fs::rename(spool, other); }));
  ASSERT_EQ(NamesIn(other).size(), 1U);
  EXPECT_EQ(ReadFile(other + "/" + NamesIn(other)[0]), DataOf(pieces));
  EXPECT_EQ(outcome.Logged(4), Strings{});
}

TEST(Directory, ThatIsRemovedBetweenTwoUploadsFailsTheSecond) {
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

TEST(Directory, ThatIsMissingIsReportedAfterTheBodyIsRead) {
  const Strings pieces = LargeUpload(3);
  ParsePieces(pieces, kNowhere,
              [&](const Result& result, const PieceInput& input) {
                EXPECT_EQ(result.error,
                          std::string("Cannot run statfs on ") + kNowhere);
                EXPECT_TRUE(result.parsed);
                EXPECT_TRUE(result.params.empty());
                EXPECT_TRUE(result.files.empty());
                EXPECT_EQ(input.BytesUnread(), 0U);
                EXPECT_EQ(input.Waits(), pieces.size());
              });
}

TEST(Directory, OnAnotherFileSystemHoldsUploadsToo) {
  const std::string lack = WhyNoOtherFileSystem();
  if (!lack.empty()) GTEST_SKIP() << lack;
  const Scratch scratch(kOtherFileSystem);
  const Strings pieces = LargeUpload(3);
  ParsePieces(pieces, scratch.Path(),
              [&](const Result& result, const PieceInput&) {
                EXPECT_EQ(result.error, "");
                ExpectFile(result, "f", DataOf(pieces));
              });
}

/// A form with both kinds of parts, and the places in it.
const std::string kContent = "the content";
const std::string kFieldPart = Field("a", "1");
const std::string kBody =
    kFieldPart + Upload("u", "f", kContent) + Field("b", "2") + kFormEnd;
/// After these bytes the field's value is complete.
const std::size_t kValueEnd = kFieldPart.size();
const std::size_t kDataBegin = kValueEnd + UploadHead("u", "f").size();
const std::size_t kDataEnd = kDataBegin + kContent.size();
/// After these the upload is complete.
const std::size_t kSeparatorEnd = kDataEnd + 6;

/// A body that ends here is parsed for ever: the first boundary has come, but
/// not both bytes that are skipped after it.
bool EndsAfterTheFirstBoundary(std::size_t cut) { return cut == 4 || cut == 5; }

/// Expects what must be stored of the upload when the body ends after this many
/// bytes.
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
  const Outcome outcome = RunCleanly(PostOf({kBody}), [&] {
    for (std::size_t cut = 0; cut < kBody.size(); ++cut) {
      if (EndsAfterTheFirstBoundary(cut)) continue;
      SCOPED_TRACE(cut);
      const PieceInput input(CutInto(kBody.substr(0, cut), kChunk));
      const Result result = Parse(scratch.Path());
      ExpectReadError(result);
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
  RunCleanly(PostOf({kBody}).LogLevel(0), [&] {
    for (std::size_t cut = 0; cut < kBody.size(); ++cut) {
      SCOPED_TRACE(cut);
      const PieceInput input(CutInto(kBody.substr(0, cut), 40));
      ExpectReadError(Parse(kNowhere));
    }
  });
}

TEST(CutBody, InTheDrainAfterAWriteErrorIsAReadError) {
  const Scratch scratch;
  const std::string file = scratch.MakeFile("file");
  Strings pieces = LargeUpload(3);
  const Child child = PostOf(pieces);
  pieces.resize(3);
  RunCleanly(child, [&] {
    const PieceInput input(pieces);
    ExpectReadError(Parse(file));
  });
}

void EndAfterProcessorTime(int microseconds) {
  const itimerval soon{{0, 0}, {0, microseconds}};
  ::setitimer(ITIMER_PROF, &soon, nullptr);
}

/// Whether a parse of this part of kBody goes on for 20 ms of processor time.
bool GoesOnForEver(const Input& input) {
  const Scratch scratch;
  const Outcome outcome = PostOf({kBody}).LogLevel(0).StandardInput(input).Run(
      [&](const Reporter&) {
        EndAfterProcessorTime(20'000);
        Parse(scratch.Path());
      });
  return outcome.status == 128 + SIGPROF;
}

TEST(CutBody, AfterTheFirstBoundaryIsParsedForEver) {
  for (const std::size_t cut : {4U, 5U}) {
    EXPECT_TRUE(EndsAfterTheFirstBoundary(cut));
    EXPECT_TRUE(GoesOnForEver(Input::Pipe(kBody.substr(0, cut)))) << cut;
  }
}

// That it is so at each byte is shown by EmptyRead in tests/plain.
TEST(CutBody, FromASocketOrAFileIsParsedForEverFromTheFirstByteOn) {
  for (const std::size_t cut :
       {std::size_t{1}, std::size_t{5}, std::size_t{30}, kValueEnd - 1,
        kValueEnd, kDataBegin, kDataBegin + 1, kDataEnd + 3, kSeparatorEnd,
        kBody.size() - 1}) {
    const std::string sent = kBody.substr(0, cut);
    EXPECT_TRUE(GoesOnForEver(Input::Socket(sent))) << cut;
    EXPECT_TRUE(GoesOnForEver(Input::File(sent))) << cut;
  }
}

TEST(CutBody, FromAFileIsPolledForEver) {
  struct Row {
    Input input;
    const char* folder;
  };
  const Row rows[] = {{Input::File(""), "/tmp"},
                      {Input::Socket(""), "/tmp"},
                      // A drain.
                      {Input::File("12345"), kNowhere}};
  for (const Row& row : rows) {
    RunCleanly(Post("10"), row.input, [&] {
      int sleeps = 0;
      Replace({.sleep = [&](unsigned milliseconds) {
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
  for (const std::string& folder : {scratch.Path(), std::string(kNowhere)}) {
    for (std::size_t wait = 0; wait < pieces.size(); ++wait) {
      RunCleanly(PostOf(pieces),
                 [&] { ParseFromSilentWriter(folder, pieces, wait); });
      EXPECT_EQ(scratch.List(), Strings{});
    }
  }
}

TEST(SilentWriter, LeavesPartOfAFileForTheTearDown) {
  const Scratch scratch;
  const Strings pieces = LargeUpload(4);
  RunCleanly(PostOf(pieces), [&] {
    const Result result = ParseFromSilentWriter(scratch.Path(), pieces, 3);
    EXPECT_EQ(result.contents.at("f"),
              std::string(kChunk, 'a') + std::string(kChunk, 'b'));
    EXPECT_EQ(result.files.at("f").size, 0);
    EXPECT_EQ(result.names.size(), 1U);
  });
  EXPECT_EQ(scratch.List(), Strings{});
}

TEST(SilentWriter, IsReportedRatherThanAWriteError) {
  const Scratch scratch;
  const std::string file = scratch.MakeFile("file");
  const Strings pieces = LargeUpload(4);
  RunCleanly(PostOf(pieces), [&] { ParseFromSilentWriter(file, pieces, 3); });
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

std::ptrdiff_t CountInterrupted(const Outcome& outcome) {
  static const std::regex text(
      R"(zancgi_unix\.cpp:\d+ poll interrupted, trying again)");
  return std::count_if(
      outcome.log.begin(), outcome.log.end(),
      [&](const auto& line) { return std::regex_match(line.text, text); });
}

TEST(Signal, BeforeTheFirstPieceDoesNoHarm) {
  const Scratch scratch;
  for (const unsigned signals : {0U, 1U}) {
    const Outcome outcome = ParsePieces(
        kPieces, scratch.Path(),
        [&](const Result& result, const PieceInput& input) {
          EXPECT_EQ(result.error, "");
          EXPECT_TRUE(result.parsed);
          EXPECT_EQ(result.params,
                    (Texts{{"a", "1\nlonger value"}, {"b", "2"}, {"u", "f"}}));
          ExpectFile(result, "f", "the content");
          EXPECT_EQ(PieceInput::SignalsHandled(), static_cast<int>(signals));
          EXPECT_EQ(input.Waits(), kPieces.size() + signals);
        },
        signals > 0 ? SignalAt(0) : PieceInput::Events{});
    EXPECT_EQ(CountInterrupted(outcome), signals);
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
    EXPECT_EQ(CountInterrupted(outcome), 1) << when;
    EXPECT_EQ(outcome.Logged(-1).back(), "wait " + std::to_string(when));
  }
}

TEST(Signal, DoesNotDisturbADrain) {
  const Strings pieces = CutInto(kBody, 40);
  for (std::size_t when = 0; when < pieces.size(); ++when) {
    const Outcome outcome = ParsePieces(
        pieces, kNowhere,
        [&](const Result& result, const PieceInput& input) {
          EXPECT_NE(result.error, "");
          EXPECT_TRUE(result.parsed);
          EXPECT_EQ(input.BytesUnread(), 0U);
          EXPECT_EQ(input.Waits(), pieces.size() + 1);
        },
        SignalAt(when));
    EXPECT_EQ(CountInterrupted(outcome), 1);
  }
}

TEST(Signal, DoesNotDisturbTheReadingAfterAWriteError) {
  const Scratch scratch;
  const std::string file = scratch.MakeFile("file");
  const Strings pieces{UploadHead("u", "f") + "d", "data", "data",
                       std::string("\r\n") + kFormEnd};
  for (std::size_t when = 2; when < pieces.size(); ++when) {
    const Outcome outcome = ParsePieces(
        pieces, file,
        [&](const Result& result, const PieceInput& input) {
          ExpectWriteError(result, input);
          EXPECT_EQ(input.Waits(), pieces.size() + 1);
        },
        SignalAt(when));
    EXPECT_EQ(CountInterrupted(outcome), 1);
  }
}

/// Which standard descriptors are open: "01" and the like.
std::string OpenStandardDescriptors() {
  std::string open;
  for (const int descriptor : {0, 1, 2}) {
    if (::fcntl(descriptor, F_GETFD) >= 0) open += std::to_string(descriptor);
  }
  return open;
}

TEST(StandardDescriptors, WithoutStandardInputLeaveNoBodyToRead) {
  for (const std::vector<int>& others :
       {std::vector<int>{}, {1}, {2}, {1, 2}}) {
    const Scratch scratch;
    Child child = Post("1000").Closed(0);
    for (const int descriptor : others) child.Closed(descriptor);
    RunCleanly(child, [&] {
      const std::string open = OpenStandardDescriptors();
      const Result result = Parse(scratch.Path());
      EXPECT_EQ(result.error, "invalid polling request");
      EXPECT_FALSE(result.parsed);
      EXPECT_TRUE(result.files.empty());
      EXPECT_EQ(OpenStandardDescriptors(), open);
    });
  }
}

TEST(StandardDescriptors, AreNeverUsedForAnUpload) {
  const Strings pieces = LargeUpload(3);
  const std::pair<std::vector<int>, std::string> sets[] = {
      {{1}, "02"}, {{2}, "01"}, {{1, 2}, "0"}};
  for (const auto& [closed, open] : sets) {
    const Scratch scratch;
    ParsePieces(
        pieces, scratch.Path(),
        [&, open = open](const Result& result, const PieceInput&) {
          EXPECT_EQ(result.error, "");
          ExpectFile(result, "f", DataOf(pieces));
          EXPECT_EQ(OpenStandardDescriptors(), open);
        },
        [&, open = open](std::size_t wait) {
          EXPECT_EQ(OpenStandardDescriptors(), open);
          // From the first data on the file is open.
          EXPECT_EQ(NamesIn(scratch.Path()).size(), wait > 1 ? 1U : 0U);
          return Event::Piece;
        },
        closed);
  }
}

TEST(StandardDescriptors, AreNotNeededForAWriteError) {
  const Scratch scratch;
  ParsePieces(LargeUpload(2), scratch.MakeFile("file"),
              [](const Result& result, const PieceInput& input) {
                ExpectWriteError(result, input);
              },
              {}, {1, 2});
}

TEST(TearDown, RemovesWhateverHasReplacedAnUpload) {
  const std::string body =
      Upload("u", "f", "first") + Upload("v", "g", "second") + kFormEnd;
  for (const bool is_link : {false, true}) {
    const Scratch spool;
    const Scratch store;
    const Outcome outcome = RunCleanly(PostOf({body}), Input::Pipe(body), [&] {
      Cgi cgi("/bin/front", "panel");
      cgi.SetTmpDir(spool.Path());
      cgi.ParseQuery();
      fs::rename(cgi.File("f"), store / "kept");
      if (is_link) fs::create_symlink(store / "kept", cgi.File("f"));
    });
    EXPECT_EQ(outcome.Logged(4), Strings{});
    EXPECT_EQ(spool.List(), Strings{});
    EXPECT_EQ(ReadFile(store / "kept"), "first");
  }
}

/// A place that an upload cannot be removed from, and how it is made.
struct Place {
  const char* upload;
  void (*make)(const Scratch& scratch);
  const char* left;
};

TEST(TearDown, WarnsOfWhatItCannotRemoveAndGoesOn) {
  const Place places[] = {
      {"folder", [](const Scratch& scratch) { scratch.MakeDir("folder"); },
       "folder"},
      // Nobody can say whether there is a file.
      {"loop/file",
       [](const Scratch& scratch) {
         fs::create_symlink(scratch / "loop", scratch / "loop");
       },
       "loop"},
      {"locked/file",
       [](const Scratch& scratch) {
         scratch.MakeDir("locked");
         scratch.MakeFile("locked/file");
         ASSERT_EQ(::chmod((scratch / "locked").c_str(), 0555), 0);
       },
       "locked"},
  };
  for (const Place& place : places) {
    SCOPED_TRACE(place.upload);
    const Scratch scratch;
    ASSERT_EQ(::chmod(scratch.Path().c_str(), 0777), 0);
    place.make(scratch);
    const std::string last = scratch.MakeFile("last");
    const Outcome outcome = RunCleanly(Child(), [&] {
      BecomeOrdinaryUser();
      Cgi::Data request;
      request.files["a"].path = scratch / place.upload;
      request.files["b"].path = last;
    });
    EXPECT_EQ(outcome.Logged(4), Strings{"failed to remove tamporary file '" +
                                         (scratch / place.upload) + "'"});
    EXPECT_EQ(scratch.List(), Strings{place.left});
    EXPECT_EQ(fs::exists(scratch / "locked/file"),
              std::string(place.left) == "locked");
  }
}

TEST(TearDown, RemovesTheFilesOfAParseThatWasGivenUp) {
  const Scratch scratch;
  RunCleanly(Post("1000"), [&] {
    const PieceInput input(
        {Upload("u", "f", "whole"), UploadHead("v", "g") + "in part"});
    const Result result = Parse(scratch.Path());
    ExpectReadError(result);
    ExpectFile(result, "f", "whole");
    EXPECT_EQ(result.contents.at("g"), "in part");
    EXPECT_EQ(result.files.at("g").size, 0);
    EXPECT_EQ(result.names.size(), 2U);
  });
}

TEST(TearDown, RemovesTheFilesOfAFieldThatIsRefused) {
  const Scratch scratch;
  ParsePieces(CutInto(Upload("u", "f", "x") +
                          Field("a", std::string(262'145, 'y')) + kFormEnd,
                      kChunk),
              scratch.Path(), [](const Result& result, const PieceInput&) {
                EXPECT_EQ(result.error,
                          "Element value size must be less than 262144");
                EXPECT_EQ(result.names.size(), 1U);
              });
}

}  // namespace
}  // namespace support

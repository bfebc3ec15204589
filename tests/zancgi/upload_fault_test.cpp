// Faults while a body is read and its uploads are stored: full disks, limits,
// directories that go away, silent writers, missing standard descriptors.
// Nothing may be left behind. Bodies that end early, and reads and files that
// fail at any byte, are in tests/plain/rules_test.cpp.

#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/vfs.h>
#include <zancgi/testing/mount.h>

#include <fstream>

#include "support/files.h"
#include "support/form.h"
#include "support/piece_input.h"
#include "support/test.h"

namespace support {
namespace {

using Event = PieceInput::Event;

constexpr std::size_t kChunk = 65536;

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
};

/// Parses standard input into a record that is gone afterwards, and makes sure
/// that no file of it stays.
Result Parse(const std::string& folder) {
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
    for (const auto& [name, file] : record.files) {
      std::error_code closed;
      if (fs::is_regular_file(file.path, closed)) {
        result.contents[name] = ReadFile(file.path);
      }
    }
  }
  EXPECT_EQ(NamesIn(folder), Strings{});
  return result;
}

/// A process that serves a POST of these pieces. It gets them by PieceInput.
Child PostOf(const Strings& pieces) { return support::PostOf(Joined(pieces)); }

/// The upload "f" could not be stored: the body is read, the flag is set, and
/// the entry stays.
void ExpectWriteError(const Result& result, const PieceInput& input) {
  EXPECT_EQ(result.error, "error writing temporary file");
  EXPECT_TRUE(result.parsed);
  EXPECT_EQ(input.BytesUnread(), 0U);
  EXPECT_EQ(result.params.at("u"), "f");
  EXPECT_NE(result.files.at("f").path, "");
  EXPECT_EQ(result.files.at("f").size, 0);
  EXPECT_EQ(result.contents, Texts{});
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

template <class Work>
PieceInput::Events Before(std::size_t when, const Work& work) {
  return [when, work](std::size_t wait) {
    if (wait == when) work();
    return Event::Piece;
  };
}

/// Leaves this many bytes free of a file system of the process's own, a
/// multiple of the page size.
void FillUpTo(off_t free_bytes, const std::string& folder) {
  const std::string path = folder + "/filler";
  std::ofstream filler(path, std::ios::binary);
  while (filler << std::string(4096, '#') << std::flush) {
  }
  filler.close();
  const auto size = static_cast<off_t>(fs::file_size(path));
  ASSERT_EQ(::truncate(path.c_str(), size - free_bytes), 0);
  struct statfs64 found {};
  ASSERT_EQ(::statfs64(folder.c_str(), &found), 0);
  EXPECT_EQ(static_cast<off_t>(found.f_bfree) * found.f_bsize, free_bytes);
}

TEST(FullDisk, IsNoticedAtEachWrite) {
  if (!IsRoot()) GTEST_SKIP() << "needs root";
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
    const Scratch disk;
    const Outcome outcome = RunCleanly(PostOf(row.pieces), [&] {
      MountPrivately(disk.Path(), row.options);
      const auto fill = [&] { FillUpTo(row.free_bytes, disk.Path()); };
      const PieceInput input(row.pieces, Before(row.wait, fill));
      ExpectWriteError(Parse(disk.MakeDir("spool")), input);
    });
    EXPECT_EQ(outcome.Logged(4), Strings{});
    EXPECT_EQ(outcome.Logged(3), Strings{});
  }
}

TEST(FileSizeLimit, KillsTheProcessUnlessItsSignalIsIgnored) {
  const Scratch scratch;
  const Strings pieces = LargeUpload(2);
  const Outcome outcome =
      PostOf(pieces).LogLevel(0).Run([&](const Reporter& report) {
        constexpr rlimit kNoCore{0, 0};
        constexpr rlimit kOneChunk{kChunk, kChunk};
        ::setrlimit(RLIMIT_CORE, &kNoCore);
        ::setrlimit(RLIMIT_FSIZE, &kOneChunk);
        ::signal(SIGXFSZ, SIG_DFL);
        const PieceInput input(pieces);
        Parse(scratch.Path());
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

TEST(Directory, OnAReadOnlyDiskIsAWriteError) {
  if (!IsRoot()) GTEST_SKIP() << "needs root";
  ExpectUnusable([](const std::string& spool) {
    MountPrivately(spool, "size=1m", MS_RDONLY);
  });
}

TEST(Directory, ThatIsRenamedDuringAnUploadTakesTheFileAlong) {
  const Scratch scratch;
  const std::string spool = scratch.MakeDir("spool");
  const std::string other = scratch / "other";
  const Strings pieces = LargeUpload(4);
  const Outcome outcome = RunCleanly(PostOf(pieces), [&] {
    const auto rename = [&] { fs::rename(spool, other); };
    const PieceInput input(pieces, Before(3, rename));
    const Result result = Parse(spool);
    EXPECT_EQ(result.error, "");
    EXPECT_EQ(result.files.at("f").size, 4 * static_cast<int>(kChunk));
    EXPECT_EQ(result.contents, Texts{});
  });
  ASSERT_EQ(NamesIn(other).size(), 1U);
  EXPECT_EQ(ReadFile(other + "/" + NamesIn(other)[0]), DataOf(pieces));
  EXPECT_EQ(outcome.Logged(4), Strings{});
}

TEST(SilentWriter, EndsTheParseAndADrainAtEachWait) {
  const Scratch scratch;
  const std::string file = scratch.MakeFile("file");
  const std::string spool = scratch.MakeDir("spool");
  Strings pieces = LargeUpload(2);
  pieces.insert(pieces.begin(), Field("a", "1"));
  // The second directory cannot be examined, the third not be used.
  for (const std::string& folder : {spool, scratch / "missing", file}) {
    for (std::size_t silent = 0; silent < pieces.size(); ++silent) {
      SCOPED_TRACE(folder + ", " + std::to_string(silent));
      const std::size_t data = std::min<std::size_t>(silent, 2);
      const std::string stored =
          Joined({&pieces[data], &pieces[data] + (silent - data)});
      RunCleanly(PostOf(pieces), [&] {
        const PieceInput input(pieces, [silent](std::size_t wait) {
          return wait < silent ? Event::Piece : Event::Silence;
        });
        Result result = Parse(folder);
        EXPECT_EQ(result.error, "timeout");
        EXPECT_FALSE(result.parsed);
        EXPECT_EQ(result.contents["f"], folder == spool ? stored : "");
        EXPECT_EQ(result.files["f"].size, 0);
        EXPECT_EQ(::fcntl(STDIN_FILENO, F_GETFD), -1);
        EXPECT_EQ(input.Waits(), silent + 1);
        // There is no standard input any more.
        EXPECT_EQ(Parse(folder).error, "invalid polling request");
      });
    }
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

TEST(StandardDescriptors, ThatAreMissingAreNeverUsedForAnUpload) {
  const Strings pieces = LargeUpload(3);
  const std::pair<std::vector<int>, std::string> sets[] = {
      {{1}, "02"}, {{2}, "01"}, {{1, 2}, "0"}};
  for (const auto& [closed, open] : sets) {
    const Scratch scratch;
    Child child = PostOf(pieces);
    for (const int descriptor : closed) child.Closed(descriptor);
    RunCleanly(child, [&, open = open] {
      const PieceInput input(pieces, [&](std::size_t wait) {
        EXPECT_EQ(OpenStandardDescriptors(), open);
        // From the first data on the file is open.
        EXPECT_EQ(scratch.List().size(), wait > 1 ? 1U : 0U);
        return Event::Piece;
      });
      const Result result = Parse(scratch.Path());
      EXPECT_EQ(result.error, "");
      EXPECT_TRUE(result.contents.at("f") == DataOf(pieces));
      EXPECT_EQ(OpenStandardDescriptors(), open);
    });
  }
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

}  // namespace
}  // namespace support

// Bodies, names and files that are made to do harm. What is kept for
// compatibility stays what it is.

#include "support/fast_folder.h"
#include "support/files.h"
#include "support/form.h"
#include "support/piece_input.h"
#include "support/system_calls.h"
#include "support/test.h"

namespace support {
namespace {

using Look = std::function<void(const Cgi::Data& record)>;

/// Parses a body that comes in these pieces, in a folder that must be empty
/// afterwards. Each is sent at a wait of the parser, after a look at the
/// record.
Outcome ParsePieces(
    const Strings& pieces, const Look& check,
    const Look& before = [](const Cgi::Data&) {}, int log_level = 9) {
  const Scratch scratch(FastFolder());
  std::string body;
  for (const std::string& piece : pieces) body += piece;
  Outcome outcome = RunCleanly(PostOf(body).LogLevel(log_level), [&] {
    Cgi::Data record;
    record.tmp_dir = scratch.Path();
    const PieceInput input(pieces, [&](std::size_t) {
      before(record);
      return PieceInput::Event::Piece;
    });
    record.ParseInput();
    EXPECT_TRUE(record.parsed);
    check(record);
  });
  EXPECT_EQ(scratch.List(), Strings{});
  return outcome;
}

int OpenUploads() {
  int count = 0;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    const auto target = fs::read_symlink(entry.path(), gone);
    if (target.string().find("/zantemp") != std::string::npos) ++count;
  }
  return count;
}

TEST(ManyUploads, AreAsManyFilesAndOpenOneAtATime) {
  static constexpr std::size_t kCount = 15'000;
  // Pieces end in every part of an upload, but not between CR and LF.
  constexpr std::size_t kPerPiece = 100;
  Strings pieces(1);
  for (std::size_t i = 0; i < kCount; ++i) {
    const std::string number = std::to_string(i);
    const std::string upload =
        Upload("u" + number, "f" + number, number + " second");
    const std::size_t second = upload.find("second");
    pieces.back() += upload.substr(0, second);
    if (i % kPerPiece == 0) pieces.emplace_back();
    pieces.back() += upload.substr(second);
  }
  pieces.emplace_back(kFormEnd);
  int most = 0;
  ParsePieces(
      pieces,
      [&](const Cgi::Data& record) {
        EXPECT_EQ(record.params.size(), kCount);
        ASSERT_EQ(record.files.size(), kCount);
        std::map<std::string, int> paths;
        for (const auto& [name, file] : record.files) {
          ++paths[file.path];
          EXPECT_EQ("f" + ReadFile(file.path), name + " second");
        }
        EXPECT_EQ(paths.size(), kCount);
        EXPECT_EQ(most, 1);
      },
      [&](const Cgi::Data&) { most = std::max(most, OpenUploads()); }, 0);
}

/// Parses one upload while somebody puts something in the place of its file as
/// soon as that is made, which must be noticed.
void ParseWhileFileIsReplaced(
    const Scratch& scratch,
    const std::function<void(const std::string& path)>& put) {
  const std::string body = Upload("u", "f", "content") + kFormEnd;
  RunCleanly(PostOf(body), Input::Pipe(body), [&] {
    Replace({.mkostemp = [&](char* name, int flags) {
      const int descriptor = RealMkostemp(name, flags);
      ::unlink(name);
      put(name);
      return descriptor;
    }});
    Cgi::Data record;
    record.tmp_dir = scratch.Path();
    try {
      record.ParseInput();
      ADD_FAILURE() << "not noticed";
    } catch (const std::runtime_error& error) {
      EXPECT_STREQ(error.what(), "error writing temporary file");
    }
    char next;
    EXPECT_EQ(::read(STDIN_FILENO, &next, 1), 0);
  });
}

TEST(TemporaryFile, ReplacedByALinkIsNotFollowed) {
  const Scratch scratch;
  const Scratch other;
  const std::string target = other.MakeFile("target", "kept");
  ASSERT_EQ(::chmod(target.c_str(), 0644), 0);
  for (const std::string& aim : {target, other / "missing"}) {
    ParseWhileFileIsReplaced(scratch, [&](const std::string& path) {
      fs::create_symlink(aim, path);
    });
  }
  EXPECT_EQ(ReadFile(target), "kept");
  EXPECT_EQ(ModeOf(target), 0644U);
  EXPECT_EQ(other.List(), Strings{"target"});
  EXPECT_EQ(scratch.List(), Strings{});
}

TEST(TemporaryFile, ReplacedByAFifoIsNotWaitedFor) {
  const Scratch scratch;
  ParseWhileFileIsReplaced(scratch, [](const std::string& path) {
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  });
}

TEST(TemporaryFile, ReplacedByADirectoryIsLeftAlone) {
  const Scratch scratch;
  ParseWhileFileIsReplaced(
      scratch, [](const std::string& path) { fs::create_directory(path); });
  ASSERT_EQ(scratch.List().size(), 1U);
  EXPECT_TRUE(fs::is_directory(scratch / scratch.List()[0]));
}

TEST(Log, TakesNeitherFormatNorLineEndsFromTheClient) {
  // The last one comes in two reads.
  const std::pair<Strings, std::string> types[] = {
      {{"%n%s%1000000d%%"}, "%n%s%1000000d%%"},
      {{std::string("a\0b", 3)}, "a"},
      {{"a\r", "\nzancgi[1] core error: forged"},
       "a\\x0d\\x0azancgi[1] core error: forged"}};
  for (const auto& [sent, logged] : types) {
    Strings pieces = sent;
    pieces.front().insert(0, "--XY\r\nContent-Disposition: ");
    pieces.back() += std::string("; name=\"a\"\r\n\r\n1\r\n") + kFormEnd;
    const Outcome outcome = ParsePieces(pieces, [](const Cgi::Data& record) {
      EXPECT_TRUE(record.params.empty());
    });
    EXPECT_EQ(outcome.Logged(3), Strings{});
    const std::string end =
        " Ignoring unknown type of Content-Disposition: " + logged;
    const Strings lines = outcome.Logged(9);
    EXPECT_EQ(std::count_if(
                  lines.begin(), lines.end(),
                  [&](const std::string& line) { return line.ends_with(end); }),
              1)
        << logged;
  }
}

}  // namespace
}  // namespace support

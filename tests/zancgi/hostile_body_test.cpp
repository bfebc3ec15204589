// Bodies, names and files that are made to do harm. What is kept for
// compatibility stays what it is.

#include "support/fast_folder.h"
#include "support/files.h"
#include "support/form.h"
#include "support/piece_input.h"
#include "support/slow_content.h"
#include "support/system_calls.h"
#include "support/test.h"

namespace support {
namespace {

constexpr std::size_t kChunk = 65536;

/// A text again and again, up to this size.
std::string Repeated(const std::string& text, std::size_t size) {
  std::string result;
  while (result.size() < size) result += text;
  result.resize(size);
  return result;
}

using Check = std::function<void(const Cgi::Data& record)>;
using Look = std::function<void(std::size_t wait, const Cgi::Data& record)>;

void DoNothing(std::size_t /*wait*/, const Cgi::Data& /*record*/) {}

/// Parses a body that comes in these pieces. Each is sent at a wait of the
/// parser, after this was done.
Outcome ParsePieces(const Strings& pieces, const Scratch& scratch,
                    const Look& before, const Check& check, int log_level = 9,
                    const std::string& content_type = kForm) {
  std::string body;
  for (const std::string& piece : pieces) body += piece;
  return RunCleanly(PostOf(body, content_type).LogLevel(log_level), [&] {
    Cgi::Data record;
    record.tmp_dir = scratch.Path();
    const PieceInput input(pieces, [&](std::size_t wait) {
      before(wait, record);
      return PieceInput::Event::Piece;
    });
    record.ParseInput();
    EXPECT_TRUE(record.parsed);
    check(record);
  });
}

/// Parses the body in chunks that are as full as can be, in a folder that must
/// be empty afterwards.
Outcome Parse(const std::string& body, const Check& check, int log_level = 0,
              const std::string& content_type = kForm) {
  const Scratch scratch(FastFolder());
  Outcome outcome = ParsePieces(CutInto(body, kChunk), scratch, DoNothing,
                                check, log_level, content_type);
  EXPECT_EQ(scratch.List(), Strings{});
  return outcome;
}

std::string ManyUploads(std::size_t count) {
  std::string body;
  for (std::size_t i = 0; i < count; ++i) {
    const std::string number = std::to_string(i);
    body += Upload("u" + number, "f" + number, number);
  }
  return body + kFormEnd;
}

TEST(ManyUploads, AreAsManyFilesAndAreAllRemoved) {
  static constexpr std::size_t kCount = 15'000;
  Parse(ManyUploads(kCount), [](const Cgi::Data& record) {
    EXPECT_EQ(record.params.size(), kCount);
    ASSERT_EQ(record.files.size(), kCount);
    std::map<std::string, int> paths;
    for (const auto& [name, file] : record.files) {
      ++paths[file.path];
      EXPECT_EQ("f" + ReadFile(file.path), name);
    }
    EXPECT_EQ(paths.size(), kCount);
  });
}

TEST(ManyUploads, LogTwoLinesEach) {
  const Outcome one = Parse(
      ManyUploads(1), [](const Cgi::Data&) {}, 9);
  const Outcome many = Parse(
      ManyUploads(201), [](const Cgi::Data&) {}, 9);
  EXPECT_EQ(many.log.size(), one.log.size() + 400);
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

TEST(ManyUploads, AreOpenOneAtATime) {
  const Scratch scratch;
  // Pieces end in every part of an upload, but not between CR and LF.
  Strings pieces;
  for (int i = 0; i < 100; ++i) {
    const std::string upload =
        Upload("u", "f" + std::to_string(i), "first, second");
    const std::size_t second = upload.find("second");
    pieces.push_back(upload.substr(0, second));
    pieces.push_back(upload.substr(second));
  }
  pieces.emplace_back(kFormEnd);
  int most = 0;
  ParsePieces(
      pieces, scratch,
      [&](std::size_t, const Cgi::Data&) {
        most = std::max(most, OpenUploads());
      },
      [&](const Cgi::Data& record) {
        EXPECT_EQ(record.files.size(), 100U);
        EXPECT_EQ(most, 1);
      });
}

TEST(SameFileName, LeavesOneFileAtATime) {
  const Scratch scratch;
  Strings pieces;
  for (int i = 0; i < 200; ++i) {
    pieces.push_back(Upload("u", "f", std::to_string(i)));
  }
  pieces.emplace_back(kFormEnd);
  ParsePieces(
      pieces, scratch,
      [&](std::size_t wait, const Cgi::Data&) {
        EXPECT_EQ(scratch.List().size(), wait > 0 ? 1U : 0U);
      },
      [](const Cgi::Data& record) {
        EXPECT_EQ(record.files.size(), 1U);
        EXPECT_EQ(ReadFile(record.files.at("f").path), "199");
        EXPECT_EQ(record.files.at("f").size, 3);
      });
  EXPECT_EQ(scratch.List(), Strings{});
}

TEST(SameFileName, IgnoresAFailureToRemoveTheEarlierFile) {
  const Scratch scratch;
  const Outcome outcome = ParsePieces(
      {Upload("u", "f", "first"), Upload("v", "f", "second") + kFormEnd},
      scratch,
      [](std::size_t wait, const Cgi::Data& record) {
        if (wait != 1) return;
        fs::remove(record.files.at("f").path);
        fs::create_directory(record.files.at("f").path);
      },
      [](const Cgi::Data& record) {
        EXPECT_EQ(ReadFile(record.files.at("f").path), "second");
      });
  EXPECT_EQ(outcome.Logged(4), Strings{});
  EXPECT_EQ(outcome.Logged(3), Strings{});
  ASSERT_EQ(scratch.List().size(), 1U);
  EXPECT_TRUE(fs::is_directory(scratch / scratch.List()[0]));
}

void ExpectExactUpload(const std::string& boundary,
                       const std::string& content) {
  Parse(
      UploadBehindAChunk(boundary, content),
      [&](const Cgi::Data& record) {
        const auto& file = record.files.at("f");
        EXPECT_EQ(file.size, static_cast<std::int64_t>(content.size()));
        EXPECT_TRUE(ReadFile(file.path) == content);
      },
      0, "boundary=" + boundary);
}

TEST(SlowContent, IsStoredByteForByte) {
  for (const auto& [name, boundary] : SlowBoundaries()) {
    for (const std::string& text : SlowContents(boundary)) {
      SCOPED_TRACE(testing::Message() << testing::PrintToString(text)
                                      << ", boundary " << boundary);
      for (const std::string begin : {"", "\r"}) {
        const std::string content = begin + Repeated(text, 140'000) + "x";
        // What ends the content early is another matter.
        if (content.find("\r\n--" + boundary) == std::string::npos) {
          ExpectExactUpload(boundary, content);
        }
      }
    }
  }
}

TEST(Upload, BeginningWithALineEndIsExact) {
  for (const std::string begin : {"\r", "\n", "\r\n"}) {
    ExpectExactUpload("XY", begin + std::string(2'000'000, 'x'));
  }
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

/// What is logged of disposition types that are not known.
Strings LoggedTypes(const Outcome& outcome) {
  const std::string begin = "Ignoring unknown type of Content-Disposition: ";
  Strings types;
  for (const std::string& line : outcome.Logged(9)) {
    const std::size_t found = line.find(begin);
    if (found != std::string::npos) {
      types.push_back(line.substr(found + begin.size()));
    }
  }
  return types;
}

std::string LoggedType(const std::string& type) {
  const Strings types = LoggedTypes(Parse(
      "--XY\r\nContent-Disposition: " + type + "; name=\"a\"\r\n\r\n1\r\n" +
          kFormEnd,
      [](const Cgi::Data& record) { EXPECT_TRUE(record.params.empty()); }, 9));
  EXPECT_EQ(types.size(), 1U);
  return types.empty() ? "" : types[0];
}

TEST(Log, TakesNoFormatFromTheClient) {
  EXPECT_EQ(LoggedType("%n%s%1000000d%%"), "%n%s%1000000d%%");
}

TEST(Log, EndsATextOfTheClientAtAZeroByte) {
  EXPECT_EQ(LoggedType(std::string("a\0b", 3)), "a");
}

TEST(Log, CannotBeForgedByALineEndBetweenTwoReads) {
  const Scratch scratch;
  const Outcome outcome = ParsePieces(
      {"--XY\r\nContent-Disposition: a\r",
       std::string("\nzancgi[1] core error: forged\r\n\r\n1\r\n") + kFormEnd},
      scratch, DoNothing, [](const Cgi::Data&) {});
  EXPECT_EQ(LoggedTypes(outcome),
            Strings{"a\\x0d\\x0azancgi[1] core error: forged"});
  EXPECT_EQ(outcome.Logged(3), Strings{});
}

}  // namespace
}  // namespace support

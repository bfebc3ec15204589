// The body of a POST as a front end sees it, and what is settled before it is
// read: its length, the temporary directory, and whether there is room. What
// comes of each kind of body is in tests/plain/rules_test.cpp, and each call of
// the base library in tests/trace.

#include <sys/vfs.h>
#include <tov/err.h>
#include <zancgi/testing/mount.h>

#include <cctype>
#include <climits>
#include <iostream>
#include <memory>
#include <typeinfo>

#include "support/files.h"
#include "support/form.h"
#include "support/line_number.h"
#include "support/system_calls.h"
#include "support/test.h"

namespace support {
namespace {

/// With "FILE" in place of the temporary file that it names.
std::string WithoutFile(std::string text) {
  constexpr char kName[] = "/zantempXXXXXX";
  const std::size_t name = text.find("/zantemp");
  if (name == text.npos) return text;
  for (std::size_t i = name + sizeof("/zantemp") - 1;
       i < name + sizeof(kName) - 1; ++i) {
    if (i == text.size() || std::isalnum(text[i]) == 0) return text;
  }
  const std::size_t path = text.find_last_of(" '", name) + 1;
  return text.replace(path, name + sizeof(kName) - 1 - path, "FILE");
}

/// The log with "#" in place of line numbers and "FILE" of temporary files.
Strings Lines(const Outcome& outcome) {
  Strings lines;
  for (const LogLine& line : outcome.log) {
    const std::string text = WithoutFile(WithoutLineNumber(line.text));
    lines.push_back(std::to_string(line.level) + " " + text);
  }
  return lines;
}

/// The text of the std::runtime_error that ends this; empty without one.
std::string ErrorOf(const std::function<void()>& work) {
  try {
    work();
    return "";
  } catch (const std::runtime_error& error) {
    EXPECT_TRUE(typeid(error) == typeid(std::runtime_error));
    return error.what();
  }
}

TEST(Upload, IsAFileOfItsOwnUntilTheLastCopyOfTheRequestIsDestroyed) {
  const Scratch scratch;
  const std::string body =
      Upload("u", "b", "12345") + Upload("v", "a", "123") + kFormEnd;
  RunCleanly(PostOf(body), Input::Pipe(body), [&scratch] {
    auto first = std::make_unique<Cgi>("/bin/front", "panel");
    first->SetTmpDir(scratch.Path());
    auto second = std::make_unique<Cgi>(*first);
    EXPECT_EQ(first->File("a"), "");
    EXPECT_EQ(second->GetFileSize(), 8);
    Strings names;
    first->GetFileNames(names);
    EXPECT_EQ(names, (Strings{"a", "b"}));
    const auto is_new_file = ::testing::Matcher<std::string>(
        ::testing::MatchesRegex(scratch / "zantemp[A-Za-z0-9]{6}"));
    EXPECT_TRUE(is_new_file.Matches(first->File("a"))) << first->File("a");
    EXPECT_EQ(ReadFile(first->File("a")), "123");
    EXPECT_EQ(ModeOf(first->File("a")), 0700U);
    EXPECT_EQ(first->File("u"), "");
    first.reset();
    EXPECT_EQ(scratch.List().size(), 2U);
    second.reset();
    EXPECT_EQ(scratch.List(), Strings{});
  });
}

/// An answer to statfs64 of these numbers; all others differ from them.
auto Having(std::int64_t block_size, std::uint64_t blocks) {
  return [block_size, blocks](const char*, struct statfs64* found) {
    *found = {};
    found->f_bsize = block_size;
    found->f_frsize = 7;
    found->f_blocks = 11;
    found->f_bfree = blocks;
    found->f_bavail = 13;
    return 0;
  };
}

std::string SizeLine(const std::string& declared, const std::string& free) {
  return "9 zancgi.cpp:# query size '" + declared +
         "', free space in tmpdir '" + free + "'";
}

TEST(Upload, LogsEachStepInOrder) {
  const Scratch scratch;
  const std::string body = Upload("u", "f", "x") + kFormEnd;
  const std::string size = std::to_string(body.size());
  Child child = PostOf(body).Env("TMP", scratch.Path());
  const Outcome outcome = RunCleanly(child, Input::Pipe(body), [] {
    Replace({.read =
                 [](void* buffer, std::size_t most) {
                   Mark("read");
                   return RealRead(STDIN_FILENO, buffer, most);
                 },
             .statfs =
                 [](const char* path, struct statfs64* found) {
                   Mark(std::string("statfs ") + path);
                   return Having(1, 1000)(path, found);
                 }});
    Cgi::Data record;
    record.ParseInput();
    EXPECT_EQ(record.files.at("f").size, 1);
  });
  EXPECT_EQ(
      Lines(outcome),
      (Strings{"8 void zan_cgi::Cgi::Data::ParseCookies()",
               "8 void zan_cgi::Cgi::Data::ParseInput()",
               "9 zancgi.cpp:# POST boundary detected: true",
               "9 zancgi.cpp:# temp dir is empty, new temp dir '" +
                   scratch.Path() + "'",
               "-1 statfs " + scratch.Path(), SizeLine(size, "1000"), "-1 read",
               "8 ParseInput Creating new file FILE",
               "9 zancgi.cpp:# End of stdin parsing, stdin state EOF false, "
               "GOOD true, read " +
                   size + " of " + size + " chars",
               "9 zancgi.cpp:# dropping temporary file 'FILE'"}));
}

/// Parses a body after the front end has set a state of std::cin.
struct StreamRow {
  std::ios::iostate state;
  Input input;
  const char* declared;
  const char* folder;
  std::string error;
  std::string last_line;
};

TEST(StandardInputStream, InAnErrorStateEndsTheReading) {
  const std::string cut = "POST read failed: CONTENT_LENGTH=7, bytes read:3";
  const std::string line = "9 zancgi.cpp:# ";
  const std::string taken =
      line + "no boundaries in POST data, assuming GET format";
  const StreamRow rows[] = {
      {std::ios::badbit, Input::Pipe("a=1"), "7", "/tmp", cut, taken},
      {std::ios::failbit, Input::Pipe("a=1"), "7", "/tmp", cut, taken},
      {std::ios::eofbit, Input::Pipe("a=1"), "7", "/tmp", cut, taken},
      {std::ios::eofbit, Input::Pipe("a=1"), "3", "/tmp", "",
       line + "End of stdin parsing, stdin state EOF true, GOOD false, read 3 "
              "of 3 chars"},
      // A drain.
      {std::ios::eofbit, Input::SilentPipe(""), "10", "/nowhere",
       "Cannot run statfs on /nowhere",
       line + "query bytes read on throw '0' of '10'"}};
  for (const StreamRow& row : rows) {
    Child child = Post(row.declared, "");
    const Outcome outcome = RunCleanly(child.StandardInput(row.input), [&] {
      std::cin.setstate(row.state);
      Cgi::Data record;
      record.tmp_dir = row.folder;
      EXPECT_EQ(ErrorOf([&] { record.ParseInput(); }), row.error);
      EXPECT_TRUE(record.parsed);
      EXPECT_EQ(record.params["a"], row.error.starts_with("C") ? "" : "1");
    });
    EXPECT_EQ(Lines(outcome).back(), row.last_line);
  }
}

/// Does the work as the server of a POST.
Outcome Serve(const std::function<void()>& work) {
  return RunCleanly(Post(""), work);
}

TEST(ContentLength, IsRefusedAboveALimitWithoutReading) {
  struct Row {
    const char* method;
    const char* declared;
    long limit;
    const char* kilobytes;  ///< In the refusal; null when there is none.
  };
  const char* const most = "2147483647";
  const Row rows[] = {
      {"POST", "2048", 2048, nullptr},
      {"POST", "2048", 2047, "1"},
      {"POST", most, -1, "0"},
      {"POST", most, 1023, "0"},
      {"POST", most, 1024, "1"},
      {"POST", most, -1023, "0"},
      {"POST", most, -2049, "-2"},
      {"POST", most, 2'147'483'646, "2097151"},
      {"POST", most, LONG_MIN, "-9007199254740992"},
      // It is a number of 32 bits: a larger one never passes for a small one.
      {"POST", "4294967297", 2'147'483'646, "2097151"},
      {"POST", "99999999999999999999", 2'147'483'647, nullptr},
      {"POST", "-1", -1, nullptr},
      {"POST", "-1", -2, "0"},
      {"POST", "", 0, nullptr},
      {"POST", "", -1, "0"},
      {"POST", "5KB", 0, nullptr},
      // Other methods have no body.
      {"GET", most, LONG_MIN, nullptr},
      {"PUT", most, LONG_MIN, nullptr},
      {"post", most, LONG_MIN, nullptr},
      {"POSTS", most, LONG_MIN, nullptr},
      {"", most, LONG_MIN, nullptr}};
  RunCleanly(Post("3", ""), Input::Pipe("a=1"), [&] {
    Cgi cgi("/bin/front", "panel");
    for (const Row& row : rows) {
      ::setenv("REQUEST_METHOD", row.method, 1);
      ::setenv("CONTENT_LENGTH", row.declared, 1);
      const std::string text = "Post data too large. Max allowed length is ";
      EXPECT_EQ(ErrorOf([&] { cgi.CheckContentLength(row.limit); }),
                row.kilobytes == nullptr ? "" : text + row.kilobytes + "KB")
          << row.method << " " << row.declared << " " << row.limit;
    }
    ::setenv("REQUEST_METHOD", "POST", 1);
    ::setenv("CONTENT_LENGTH", "3", 1);
    EXPECT_EQ(cgi.Param("a"), "1");
  });
}

/// Checks a directory in a child that starts in this folder; reports its path
/// afterwards.
Outcome Check(const Scratch& scratch, const std::string& directory,
              const std::string& tmp = "") {
  Child child = Child().WorkDir(scratch.Path()).Env("TMP", tmp);
  return RunWithoutLeak(child, [&](const Reporter& report) {
    Cgi::Data record;
    record.tmp_dir = directory;
    try {
      record.CheckTmpDir();
      EXPECT_TRUE(fs::is_directory(record.tmp_dir));
    } catch (...) {
      report("tmp_dir", record.tmp_dir);
      throw;
    }
    report("tmp_dir", record.tmp_dir);
  });
}

TEST(TmpDir, IsUsedOrMadeAndKeepsItsSpelling) {
  struct Row {
    std::string set;
    std::string tmp;
    std::string used;
  };
  const Scratch scratch;
  ASSERT_EQ(::chmod(scratch.MakeDir("there").c_str(), 0751), 0);
  fs::create_directory_symlink(scratch / "there", scratch / "link");
  const Row rows[] = {{scratch / "there", "", scratch / "there"},
                      {"new", "", "new"},
                      {"there/../other", "", "there/../other"},
                      {"./there/", "", "./there/"},
                      {"link", "", "link"},
                      {"there", "unused", "there"},
                      {"", scratch / "of TMP", scratch / "of TMP"},
                      {"", "./relative", "./relative"},
                      {"", "", "tmp"}};
  for (const auto& [set, tmp, used] : rows) {
    const Outcome outcome = Check(scratch, set, tmp);
    EXPECT_EQ(outcome.error, "");
    EXPECT_EQ(outcome.reported.at("tmp_dir"), used);
  }
  EXPECT_EQ(ModeOf(scratch / "there"), 0751U);
  EXPECT_EQ(ModeOf(scratch / "new"), 0700U);
  EXPECT_EQ(scratch.List(), (Strings{"link", "new", "of TMP", "other",
                                     "relative", "there", "tmp"}));
}

TEST(TmpDir, MustBeADirectory) {
  const Scratch scratch;
  scratch.MakeFile("file");
  scratch.MakeFile("%s 'x'\n");
  fs::create_symlink("file", scratch / "link");
  ASSERT_EQ(::mkfifo((scratch / "fifo").c_str(), 0600), 0);
  for (const std::string name :
       {"file", "%s 'x'\n", "link", "fifo", "/dev/null"}) {
    for (const bool is_set : {true, false}) {
      const Outcome outcome =
          is_set ? Check(scratch, name) : Check(scratch, "", name);
      EXPECT_EQ(outcome.error_type, "std::runtime_error");
      EXPECT_EQ(outcome.error, "temp dir '" + name + "' is not a directory");
      EXPECT_EQ(outcome.reported.at("tmp_dir"), name);
    }
  }
}

TEST(TmpDir, ThatCannotBeMadeOrLookedAtIsAnError) {
  const Scratch scratch;
  scratch.MakeFile("file");
  fs::create_symlink("nowhere", scratch / "dangling");
  fs::create_symlink("loop", scratch / "loop");
  for (const std::string& name :
       {std::string(300, 'x'), std::string("no/parent"),
        std::string("dangling"), std::string("file/new"),
        std::string("loop")}) {
    const Outcome outcome = Check(scratch, name);
    EXPECT_EQ(outcome.error_type, "tov_err::Error");
    EXPECT_NE(outcome.error.find(name), std::string::npos) << outcome.error;
    EXPECT_EQ(outcome.reported.at("tmp_dir"), name);
  }
  EXPECT_EQ(scratch.List(), (Strings{"dangling", "file", "loop"}));
}

TEST(SetTmpDir, ChoosesTheDirectoryThatUploadsGoTo) {
  const Scratch scratch;
  scratch.MakeDir("cgi");
  const std::string late = scratch / "no/parent";
  const std::pair<std::function<void(Cgi & cgi)>, std::string> rows[] = {
      // A front end that chooses none has the default of the parser.
      {[](Cgi&) {}, "/tmp"},
      {[](Cgi& cgi) { cgi.SetTmpDir(""); }, "tmp"},
      {[&](Cgi& cgi) {
         cgi.SetTmpDir(scratch / "first");
         cgi.SetTmpDir(scratch / "second");
       },
       scratch / "second"},
      // The name is kept when the directory cannot be made.
      {[&](Cgi& cgi) {
         EXPECT_THROW(cgi.SetTmpDir(late), tov_err::Error);
         fs::create_directories(late);
       },
       late}};
  const std::string body = Upload("u", "f", "content") + kFormEnd;
  for (const auto& [choose, folder] : rows) {
    RunCleanly(PostOf(body), Input::Pipe(body),
               [&, choose = choose, folder = folder] {
                 Cgi cgi(scratch / "cgi/front", "panel");
                 choose(cgi);
                 cgi.ParseQuery();
                 const fs::path path = cgi.File("f");
                 EXPECT_EQ(path.parent_path(), folder);
                 EXPECT_EQ(ReadFile(path), "content");
               });
  }
  EXPECT_EQ(scratch.List(), (Strings{"cgi", "first", "no", "second", "tmp"}));
}

TEST(FreeSpace, IsThatOfAllFreeBlocksInUnsigned64Bits) {
  struct Row {
    std::int64_t block_size;
    std::uint64_t blocks;
    std::uint64_t bytes;
  };
  const Row rows[] = {{512, 3, 1536},
                      {4096, 0, 0},
                      {4096, 1'048'577, 4'294'971'392},
                      {1L << 20, 1UL << 43, 9'223'372'036'854'775'808U},
                      {1, UINT64_MAX, 18'446'744'073'709'551'615U}};
  Serve([&] {
    for (const auto& [block_size, blocks, bytes] : rows) {
      Replace({.statfs = Having(block_size, blocks)});
      EXPECT_EQ(Cgi::Data().FreeSpaceSize("/any"), bytes);
    }
    Replace({});
    // Nothing can be stored there.
    EXPECT_EQ(Cgi::Data().FreeSpaceSize("/proc"), 0U);
  });
}

TEST(FreeSpace, IsReadOnceFromTheUnchangedPathEvenIfThatFails) {
  const std::string path = "a/../b//";
  Serve([&] {
    for (const int error : {0, EIO, EINTR, EOVERFLOW}) {
      std::string asked;
      Replace({.statfs = [&](const char* of, struct statfs64* found) {
        asked += of;
        Having(1, 1)(of, found);
        errno = error;
        return error == 0 ? 0 : -1;
      }});
      EXPECT_EQ(ErrorOf([&] { Cgi::Data().FreeSpaceSize(path); }),
                error == 0 ? "" : "Cannot run statfs on " + path);
      EXPECT_EQ(asked, path);
    }
  });
}

TEST(FreeSpace, OfAFileSystemInMemoryIsItsSize) {
  if (!IsRoot()) GTEST_SKIP() << "needs root";
  const Scratch scratch;
  Serve([&scratch] {
    MountPrivately(scratch.Path(), "size=1m");
    Cgi::Data record;
    EXPECT_EQ(record.FreeSpaceSize(scratch.Path()), 1'048'576U);
    scratch.MakeFile("file", std::string(4096, 'x'));
    EXPECT_EQ(record.FreeSpaceSize(scratch / "file"), 1'044'480U);
  });
}

TEST(Room, IsComparedWithTheDeclaredLengthInUnsigned64Bits) {
  struct Row {
    std::string declared;
    std::uint64_t free_space;
    std::string size;
    bool is_enough;
  };
  const std::string most = "18446744073709551615";
  const Row rows[] = {
      {"1000", 1000, "1000", true},
      {"1000", 999, "1000", false},
      {"5000000000", 6'000'000'000, "5000000000", true},
      {"4294967297", 2, "4294967297", false},
      {"99999999999999999999", UINT64_MAX, "9223372036854775807", true},
      {"-1", UINT64_MAX - 1, most, false}};
  for (const auto& [declared, free_space, size, is_enough] : rows) {
    // The body ends before its first byte.
    const Outcome outcome =
        RunWithoutLeak(Post(declared), Input::Pipe(""), [&, free = free_space] {
          Replace({.statfs = Having(1, free)});
          Cgi::Data record;
          record.tmp_dir = "/any";
          record.ParseInput();
        });
    EXPECT_EQ(outcome.error, "Error reading STDIN");
    Strings expected{SizeLine(size, std::to_string(free_space))};
    if (!is_enough) {
      expected.emplace_back(
          "4 There is not enoght free space on '/any' to process a query");
    }
    Strings lines = Lines(outcome);
    std::erase_if(lines, [](const std::string& line) {
      return line.find("space") == std::string::npos;
    });
    EXPECT_EQ(lines, expected);
  }
}

}  // namespace
}  // namespace support

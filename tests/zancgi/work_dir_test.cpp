#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <zancgi/testing/child.h>
#include <zancgi/testing/scratch.h>
#include <zancgi/zancgi.h>

#include <cerrno>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

namespace {

using zan_cgi::Cgi;
using zan_cgi::testing::Child;
using zan_cgi::testing::Outcome;
using zan_cgi::testing::Scratch;
using zan_cgi::testing::Told;

enum class Chdir { Real, Marked, Refused };
Chdir chdir_mode = Chdir::Real;

std::string Construct(const std::string& program, const std::string& from) {
  Outcome outcome = Child().WorkDir(from).Run([&](const Told& told) {
    const Cgi cgi(program, "backend");
    told("where", std::filesystem::current_path().string());
  });
  EXPECT_EQ(outcome.error, "");
  return outcome.told["where"];
}

TEST(WorkDir, IsTheFolderAboveTheProgramsFolder) {
  const Scratch scratch;
  const std::string program = scratch.MakeDir("x/cgi") + "/front";
  EXPECT_EQ(Construct(program, "/"), scratch / "x");
  EXPECT_EQ(Construct("cgi/front", scratch / "x"), scratch / "x");
  EXPECT_EQ(Construct("front", scratch / "x/cgi"), scratch / "x");
  EXPECT_EQ(Construct("./front", scratch / "x/cgi"), scratch / "x");
  EXPECT_EQ(Construct("/front", scratch / "x"), "/");
}

TEST(WorkDir, OfAPathWithASlashAtItsEndIsTheFolderAboveIt) {
  const Scratch scratch;
  EXPECT_EQ(Construct(scratch.MakeDir("x/cgi") + "/", "/"), scratch / "x");
}

TEST(WorkDir, TakesABackslashForPartOfAName) {
  const Scratch scratch;
  scratch.MakeDir("x/cgi");
  EXPECT_EQ(Construct("cgi\\front", scratch / "x/cgi"), scratch / "x");
}

TEST(WorkDir, HasNoLinksInIt) {
  const Scratch scratch;
  scratch.MakeDir("real/cgi");
  std::filesystem::create_symlink(scratch / "real/cgi", scratch / "link");
  EXPECT_EQ(Construct(scratch / "link/front", "/"), scratch / "real");
}

TEST(WorkDir, IsEnteredAfterItWasLogged) {
  const Scratch scratch;
  const std::string program = scratch.MakeDir("x/cgi") + "/front";
  const Outcome outcome = Child().Run([&](const Told&) {
    chdir_mode = Chdir::Marked;
    const Cgi cgi(program, "backend");
  });
  ASSERT_EQ(outcome.log.size(), 3U);
  EXPECT_EQ(outcome.log[0].level, 8);
  EXPECT_EQ(outcome.log[1].level, 9);
  const std::regex line(
      "zancgi_unix\\.cpp:[0-9]+ set working directory to '(.*)'");
  std::smatch match;
  ASSERT_TRUE(std::regex_match(outcome.log[1].text, match, line))
      << outcome.log[1].text;
  EXPECT_EQ(match[1], scratch / "x");
  EXPECT_EQ(outcome.log[2],
            (zan_cgi::testing::LogLine{-1, "chdir " + scratch / "x"}));
}

TEST(WorkDir, ThatCannotBeEnteredIsNoError) {
  const Scratch scratch;
  const std::string program = scratch.MakeDir("x/cgi") + "/front";
  Outcome outcome = Child().WorkDir("/").Run([&](const Told& told) {
    chdir_mode = Chdir::Refused;
    const Cgi cgi(program, "backend");
    told("where", std::filesystem::current_path().string());
  });
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(outcome.told["where"], "/");
  EXPECT_EQ(outcome.Logged(9).size(), 1U);
}

TEST(WorkDir, OfAProgramThatIsNotThereIsNoError) {
  const Scratch scratch;
  EXPECT_EQ(Construct(scratch / "no/cgi/front", "/"), "/");
}

TEST(WorkDir, ThatCannotBeResolvedIsAnError) {
  const Scratch scratch;
  const std::string loop = scratch / "loop";
  std::filesystem::create_symlink(loop, loop);
  const Outcome outcome = Child().WorkDir("/").Run(
      [&](const Told&) { const Cgi cgi(loop + "/front", "backend"); });
  EXPECT_EQ(outcome.error_type, "tov_err::Error");
  EXPECT_NE(outcome.error.find(loop), std::string::npos);
  EXPECT_TRUE(outcome.Logged(9).empty());
}

TEST(WorkDir, OfAnEmptyProgramNameFailsAfterTheRecordIsBuilt) {
  const Outcome outcome =
      Child().Run([](const Told&) { const Cgi cgi("", "backend"); });
  EXPECT_EQ(outcome.error_type, "tov_err::AssertError");
  EXPECT_NE(outcome.error.find("passed binary name is empty"),
            std::string::npos);
  EXPECT_NE(
      outcome.error.find("void zan_cgi::Cgi::Data::SetWorkDir(const string&)"),
      std::string::npos);
  EXPECT_EQ(outcome.Logged(8), std::vector<std::string>{
                                   "void zan_cgi::Cgi::Data::ParseCookies()"});
  EXPECT_TRUE(outcome.Logged(9).empty());
}

}  // namespace

extern "C" int chdir(const char* path) {
  if (chdir_mode == Chdir::Refused) {
    errno = EACCES;
    return -1;
  }
  if (chdir_mode == Chdir::Marked)
    zan_cgi::testing::Mark(std::string("chdir ") + path);
  return static_cast<int>(::syscall(SYS_chdir, path));
}

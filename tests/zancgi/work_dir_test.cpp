#include "support/test.h"

namespace support {
namespace {

std::string Construct(const std::string& program, const std::string& from) {
  Outcome outcome = Child().WorkDir(from).Run([&](const Reporter& report) {
    const Cgi cgi(program, "backend");
    report("where", fs::current_path().string());
  });
  EXPECT_EQ(outcome.error, "");
  return outcome.reported["where"];
}

TEST(WorkDir, IsTheFolderAboveTheProgramsFolder) {
  const Scratch scratch;
  const std::string cgi = scratch.MakeDir("x/cgi");
  const std::string above = scratch / "x";
  fs::create_symlink(cgi, scratch / "link");
  struct Program {
    std::string path, from, folder;
  };
  for (const auto& [path, from, folder] :
       {Program{cgi + "/front", "/", above},
        {"cgi/front", above, above},
        {"front", cgi, above},
        {"./front", cgi, above},
        {"/front", above, "/"},
        {cgi + "/", "/", above},
        // Part of a name.
        {"cgi\\front", cgi, above},
        {scratch / "link/front", "/", above},
        // Nobody minds a program that is not there.
        {scratch / "no/cgi/front", "/", "/"}}) {
    EXPECT_EQ(Construct(path, from), folder) << path;
  }
}

TEST(WorkDir, ThatCannotBeResolvedIsAnError) {
  const Scratch scratch;
  const std::string loop = scratch / "loop";
  fs::create_symlink(loop, loop);
  const Outcome outcome = Child().WorkDir("/").Run(
      [&](const Reporter&) { const Cgi cgi(loop + "/front", "backend"); });
  EXPECT_EQ(outcome.error_type, "tov_err::Error");
  EXPECT_NE(outcome.error.find(loop), std::string::npos);
  EXPECT_TRUE(outcome.Logged(9).empty());
}

TEST(WorkDir, OfAnEmptyProgramNameFailsAfterTheRecordIsBuilt) {
  const Outcome outcome =
      Child().Run([](const Reporter&) { const Cgi cgi("", "backend"); });
  EXPECT_EQ(outcome.error_type, "tov_err::AssertError");
  EXPECT_NE(outcome.error.find("passed binary name is empty"),
            std::string::npos);
  EXPECT_NE(
      outcome.error.find("void zan_cgi::Cgi::Data::SetWorkDir(const string&)"),
      std::string::npos);
  EXPECT_EQ(outcome.Logged(8),
            Strings{"void zan_cgi::Cgi::Data::ParseCookies()"});
  EXPECT_TRUE(outcome.Logged(9).empty());
}

}  // namespace

}  // namespace support

#include "support/test.h"

namespace zan_cgi::testing {
namespace {

namespace fs = std::filesystem;

TEST(Scratch, RemovesFoldersThatATestHasLocked) {
  const Outcome outcome = Child().Run([](const Reporter& report) {
    BecomeOrdinaryUser();
    const Scratch scratch;
    report("path", scratch.Path());
    scratch.MakeDir("closed/inner");
    scratch.MakeFile("closed/inner/file");
    fs::permissions(scratch / "closed/inner", fs::perms{0555});
    fs::permissions(scratch / "closed", fs::perms::none);
  });
  EXPECT_EQ(outcome.status, 0) << outcome.standard_error;
  ASSERT_NE(outcome.reported.at("path"), "");
  EXPECT_FALSE(fs::exists(outcome.reported.at("path")));
}

TEST(Scratch, LeavesAloneWhatItsLinksPointTo) {
  const Outcome outcome = Child().Run([](const Reporter& report) {
    BecomeOrdinaryUser();
    const Scratch other;
    const std::string folder = other.MakeDir("folder");
    fs::permissions(folder, fs::perms{0500});
    {
      const Scratch scratch;
      fs::create_directory_symlink(folder, scratch / "link");
      fs::permissions(scratch.MakeDir("closed/inner"), fs::perms::none);
      scratch.MakeFile("closed/file");
      fs::permissions(scratch / "closed", fs::perms{0500});
    }
    const bool has_its_mode =
        fs::status(folder).permissions() == fs::perms{0500};
    report("left alone", has_its_mode ? "yes" : "no");
  });
  EXPECT_EQ(outcome.reported.at("left alone"), "yes");
}

}  // namespace
}  // namespace zan_cgi::testing

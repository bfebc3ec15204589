#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zancgi/testing/child.h>
#include <zancgi/testing/identity.h>
#include <zancgi/testing/scratch.h>
#include <zancgi/zancgi.h>

#include <filesystem>
#include <memory>
#include <regex>
#include <string>
#include <vector>

namespace {

using zan_cgi::Cgi;
using zan_cgi::testing::Child;
using zan_cgi::testing::Outcome;
using zan_cgi::testing::Scratch;
using zan_cgi::testing::Told;
using Strings = std::vector<std::string>;

/// Ends a record that holds these uploads, client name to path.
Outcome EndWith(const Child& child,
                const std::vector<std::pair<std::string, std::string>>& files) {
  return child.Run([&files](const Told&) {
    Cgi::Data request;
    for (const auto& [name, path] : files) request.files[name].path = path;
  });
}

TEST(TearDown, RemovesUploadsInOrderOfTheirNames) {
  const Scratch scratch;
  const Outcome outcome = EndWith(Child(), {{"b", scratch.MakeFile("1", "x")},
                                            {"B", scratch.MakeFile("2", "x")}});
  EXPECT_EQ(scratch.List(), Strings{});
  const Strings lines = outcome.Logged(9);
  ASSERT_EQ(lines.size(), 2U);
  const auto dropping = [](const std::string& path) {
    return std::regex("zancgi\\.cpp:[0-9]+ dropping temporary file '" + path +
                      "'");
  };
  EXPECT_TRUE(std::regex_match(lines[0], dropping(scratch / "2"))) << lines[0];
  EXPECT_TRUE(std::regex_match(lines[1], dropping(scratch / "1"))) << lines[1];
  EXPECT_TRUE(outcome.Logged(4).empty());
}

TEST(TearDown, SkipsAFileThatWasMovedAway) {
  const Scratch scratch;
  const Outcome outcome =
      EndWith(Child(), {{"a", scratch / "gone"}, {"b", ""}});
  EXPECT_TRUE(outcome.Logged(9).empty());
  EXPECT_TRUE(outcome.Logged(4).empty());
}

TEST(TearDown, WarnsOfWhatItCannotRemoveAndGoesOn) {
  const Scratch scratch;
  const std::string folder = scratch.MakeDir("folder");
  const std::string file = scratch.MakeFile("file");
  const Outcome outcome = EndWith(Child(), {{"a", folder}, {"b", file}});
  EXPECT_EQ(outcome.Logged(4),
            Strings{"failed to remove tamporary file '" + folder + "'"});
  EXPECT_EQ(scratch.List(), Strings{"folder"});
  EXPECT_EQ(outcome.Logged(9).size(), 2U);
}

TEST(TearDown, WarnsWhenItCannotTellWhetherAFileExists) {
  const Scratch scratch;
  const std::string loop = scratch / "loop";
  std::filesystem::create_symlink(loop, loop);
  const std::string file = scratch.MakeFile("file");
  const Outcome outcome = EndWith(Child(), {{"a", loop + "/x"}, {"b", file}});
  EXPECT_EQ(outcome.Logged(4),
            Strings{"failed to remove tamporary file '" + loop + "/x'"});
  EXPECT_EQ(scratch.List(), Strings{"loop"});
  EXPECT_EQ(outcome.status, 0);
}

TEST(TearDown, WithoutTheRightToRemoveWarns) {
  const Scratch scratch;
  ASSERT_EQ(::chmod(scratch.Path().c_str(), 0755), 0);
  const std::string folder = scratch.MakeDir("folder");
  const std::string file = scratch.MakeFile("folder/file");
  ASSERT_EQ(::chmod(folder.c_str(), 0555), 0);
  const Outcome outcome = Child().Run([&](const Told&) {
    if (zan_cgi::testing::IsRoot() && ::setuid(65534) != 0) ::_exit(96);
    Cgi::Data request;
    request.files["a"].path = file;
  });
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.Logged(4),
            Strings{"failed to remove tamporary file '" + file + "'"});
  EXPECT_TRUE(std::filesystem::exists(file));
}

TEST(TearDown, IsSilentBelowItsLevels) {
  const Scratch scratch;
  const Outcome outcome =
      EndWith(Child().LogLevel(3), {{"a", scratch.MakeDir("folder")}});
  EXPECT_EQ(outcome.standard_error, "");
}

TEST(TearDown, WaitsForTheLastOwner) {
  const Scratch scratch;
  const std::string file = scratch.MakeFile("file");
  const Outcome outcome = Child().Run([&](const Told& told) {
    std::shared_ptr<Cgi::Data> first(new Cgi::Data);
    first->files["a"].path = file;
    std::shared_ptr<Cgi::Data> second = first;
    first.reset();
    told("kept", std::filesystem::exists(file) ? "yes" : "no");
  });
  EXPECT_EQ(outcome.told.at("kept"), "yes");
  EXPECT_EQ(scratch.List(), Strings{});
}

}  // namespace

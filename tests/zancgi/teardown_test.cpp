// What the end of a request leaves when uploads cannot be removed.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zancgi/testing/child.h>
#include <zancgi/testing/identity.h>
#include <zancgi/testing/scratch.h>
#include <zancgi/zancgi.h>

#include <filesystem>
#include <string>
#include <vector>

namespace {

using zan_cgi::Cgi;
using zan_cgi::testing::Child;
using zan_cgi::testing::Outcome;
using zan_cgi::testing::Reporter;
using zan_cgi::testing::Scratch;
using Strings = std::vector<std::string>;

/// A place that an upload cannot be removed from, and how it is made.
struct Place {
  const char* upload;
  void (*make)(const Scratch& scratch);
  /// What is left in the folder.
  const char* left;
};

const Place kPlaces[] = {
    {"folder", [](const Scratch& scratch) { scratch.MakeDir("folder"); },
     "folder"},
    // Nobody can say whether there is a file.
    {"loop/file",
     [](const Scratch& scratch) {
       std::filesystem::create_symlink(scratch / "loop", scratch / "loop");
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

TEST(TearDown, WarnsOfWhatItCannotRemoveAndGoesOn) {
  for (const Place& place : kPlaces) {
    SCOPED_TRACE(place.upload);
    const Scratch scratch;
    ASSERT_EQ(::chmod(scratch.Path().c_str(), 0777), 0);
    place.make(scratch);
    const std::string last = scratch.MakeFile("last");
    const Outcome outcome = Child().Run([&](const Reporter&) {
      zan_cgi::testing::BecomeOrdinaryUser();
      Cgi::Data request;
      request.files["a"].path = scratch / place.upload;
      request.files["b"].path = last;
    });
    EXPECT_EQ(outcome.status, 0) << outcome.standard_error;
    EXPECT_EQ(outcome.Logged(4), Strings{"failed to remove tamporary file '" +
                                         (scratch / place.upload) + "'"});
    EXPECT_EQ(scratch.List(), Strings{place.left});
    EXPECT_EQ(std::filesystem::exists(scratch / "locked/file"),
              std::string(place.left) == "locked");
  }
}

}  // namespace

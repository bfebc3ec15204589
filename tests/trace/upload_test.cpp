// Requests with uploads, up to the removal of what is left of them.

#include <signal.h>
#include <sys/resource.h>

#include <fstream>

#include "support/form.h"
#include "support/record.h"
#include "support/test.h"
#include "trace/scenario.h"

namespace support::trace {
namespace {

/// A body with one upload.
const std::string kBody = Upload("u", "f", "content") + kFormEnd;

/// Whether the file of the first upload exists and is open.
void ReportFile() {
  const fs::path file = fs::absolute("spool/zantemp-1");
  std::string state = fs::exists(file) ? "made" : "missing";
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (fs::read_symlink(entry, gone) == file) state += ", open";
  }
  Result(state);
}

/// The entry of the upload "f", and whether the request is parsed.
void ReportUpload(Cgi& cgi) {
  const bool is_parsed = RecordOf(cgi).parsed;
  Result(cgi.File("f") + ", " + std::to_string(RecordOf(cgi).files["f"].size) +
         " bytes, " + (is_parsed ? "parsed" : "not parsed"));
}

/// Parses, and reports the upload even after an exception.
void ParseAndReport(Cgi& cgi) {
  Try([&] { cgi.ParseQuery(); });
  ReportUpload(cgi);
}

TEST(Upload, IsMadeProtectedAndRemoved) {
  const std::string body =
      Field("a", "b") + Upload("u", "f", "content") + kFormEnd;
  Script script = Post(body);
  script.effects["SafeSet"] = {ReportFile};
  script.effects["RemoveFile"] = {ReportFile};
  ExpectTrace(script, Serve([](Cgi& cgi) {
                ParseAndReport(cgi);
                ReportParams(cgi);
              }),
              Admission(body) + Making(1) + "= made, open\n" + End(body) + R"(
    = spool/zantemp-1, 7 bytes, parsed
    = a: b
    = u: f
  )" + Dropping("spool/zantemp-1") +
                  "= made");
}

TEST(Upload, HasAFileOfItsOwn) {
  const std::string body =
      Upload("u", "f", "first") + Upload("v", "e", "2") + kFormEnd;
  ExpectTrace(Post(body), Serve(ParseAndReport),
              Admission(body) + Making(1) + Making(2) + End(body) +
                  "= spool/zantemp-1, 5 bytes, parsed\n" +
                  Dropping("spool/zantemp-2") + Dropping("spool/zantemp-1"));
}

TEST(Upload, ThatCannotBeProtectedEndsTheParse) {
  Script script = Post(kBody);
  script.effects["SafeSet"] = {Fail("not permitted")};
  ExpectTrace(script, Serve([](Cgi& cgi) {
                ParseAndReport(cgi);
                ReportFile();
              }),
              Admission(kBody) + Making(1) + R"(
    throws tov_err::Error: not permitted
    = spool/zantemp-1, 0 bytes, not parsed
    = made
  )" + Dropping("spool/zantemp-1"));
}

/// The rest of the body is dropped by a further read of nothing.
const char kWriteError[] =
    "Sleep(100)\n"
    "throws std::runtime_error: error writing temporary file\n";

TEST(Upload, ThatCannotBeOpenedFailsAtItsFirstWrite) {
  Script script = Post(kBody);
  script.effects["Tmp"] = {[] { fs::remove("spool"); }};
  ExpectTrace(script, Serve(ParseAndReport),
              Admission(kBody) + Making(1) + "RemoveFile('spool/zantemp-1')\n" +
                  kWriteError +
                  "= spool/zantemp-1, 0 bytes, parsed\n"
                  "Exists('spool/zantemp-1')");
}

/// Makes the file of the upload as large as a file may be.
void FillTheDisk() {
  constexpr rlimit kLimit{1 << 20, 1 << 20};
  ::signal(SIGXFSZ, SIG_IGN);
  EXPECT_EQ(::truncate("spool/zantemp-1", 1 << 20), 0);
  EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &kLimit), 0);
}

TEST(Upload, ThatCannotBeWrittenIsClosedAndRemoved) {
  Script script = Post(kBody);
  script.effects["SafeSet"] = {FillTheDisk};
  script.effects["RemoveFile"] = {ReportFile};
  ExpectTrace(script, Serve(ParseAndReport),
              Admission(kBody) + Making(1) +
                  "RemoveFile('spool/zantemp-1')\n= made\n" + kWriteError +
                  "= spool/zantemp-1, 0 bytes, parsed\n"
                  "Exists('spool/zantemp-1')");
}

TEST(Upload, ThatCannotBeRemovedEitherEndsTheParse) {
  Script script = Post(kBody);
  script.effects["SafeSet"] = {FillTheDisk};
  script.effects["RemoveFile"] = {Fail("busy"), Fail("still busy")};
  ExpectTrace(
      script, Serve(ParseAndReport),
      Admission(kBody) + Making(1) + R"(
    RemoveFile('spool/zantemp-1')
    throws tov_err::Error: busy
    = spool/zantemp-1, 0 bytes, not parsed
  )" + Dropping("spool/zantemp-1") +
          "zancgi 4: failed to remove tamporary file 'spool/zantemp-1'");
}

const char kNoRoom[] =
    "zancgi 4: There is not enoght free space on 'spool' to process a query\n";

TEST(UploadWithoutRoom, IsNotStored) {
  Script script = Post(kBody);
  script.free_blocks = 0;
  ExpectTrace(
      script, Serve([](Cgi& cgi) {
        Try([&] { cgi.ParseQuery(); });
        ReportParams(cgi);
      }),
      Admission(kBody, {.free_space = "0"}) + kNoRoom + kWriteError + "= u: f");
}

TEST(FieldsWithoutRoom, AreReadWithAWarning) {
  const std::string body(513, 'x');
  Script script = Post(body, "");
  script.free_blocks = 1;
  ExpectTrace(script, Serve([](Cgi& cgi) { cgi.ParseQuery(); }),
              Admission(body, {.is_multipart = false, .free_space = "512"}) +
                  kNoRoom + R"(
    zancgi 9: [zancgi.cpp]:# appending 513 chars to buff
    zancgi 9: [zancgi.cpp]:# no boundaries in POST data, assuming GET format
  )" + End(body));
}

/// A request with the uploads "B", "a" and "c" at "spool/1" to "spool/3", of
/// which the second is not there.
void EndWithThreeUploads(Cgi& cgi) {
  auto& files = RecordOf(cgi).files;
  files["c"].path = "spool/3";
  files["B"].path = "spool/1";
  files["a"].path = "spool/2";
  for (const char* path : {"spool/1", "spool/3"}) std::ofstream(path).put('x');
}

TEST(TearDown, RemovesTheUploadsThatAreThere) {
  ExpectTrace(
      {}, Serve(EndWithThreeUploads),
      Dropping("spool/1") + "Exists('spool/2')\n" + Dropping("spool/3"));
}

TEST(TearDown, GoesOnAfterAFailureOfAnyType) {
  ExpectTrace(
      {.effects = {{"Exists", {nullptr, Throw(1)}}, {"RemoveFile", {Fail()}}}},
      Serve(EndWithThreeUploads), Dropping("spool/1") + R"(
    zancgi 4: failed to remove tamporary file 'spool/1'
    Exists('spool/2')
    zancgi 4: failed to remove tamporary file 'spool/2'
  )" + Dropping("spool/3"));
}

TEST(TearDown, WaitsForTheLastCopy) {
  ExpectTrace({}, Serve([](Cgi& cgi) {
                const Cgi copy = cgi;
                cgi = Cgi("cgi/front", "panel");
                EndWithThreeUploads(const_cast<Cgi&>(copy));
                Result("end");
              }),
              R"(
    zancgi 8: void zan_cgi::Cgi::Data::ParseCookies()
    RealPath('cgi/..')
    unix 9: [zancgi_unix.cpp]:# set working directory to '[cgi/..]'
    chdir [cgi/..]
    = end
  )" + Dropping("spool/1") +
                  "Exists('spool/2')\n" + Dropping("spool/3"));
}

}  // namespace
}  // namespace support::trace

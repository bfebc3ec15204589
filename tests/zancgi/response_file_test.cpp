#include <zancgi/response.h>
#include <zancgi/testing/response.h>
#include <zancgi/testing/system.h>

#include <cstdlib>
#include <ctime>

#include "support/standard_output.h"
#include "support/test.h"

namespace support {
namespace {

using zan_cgi::Response;
using Answer = zan_cgi::testing::Response;
using Variables = std::map<std::string, std::string>;

constexpr std::time_t kModified = 784'111'777;
constexpr char kModifiedText[] = "Sun, 06 Nov 1994 08:49:37 GMT";

void InChild(const std::function<void()>& check) { RunCleanly(Child(), check); }

void SetModified(const std::string& path, std::time_t seconds,
                 long nanoseconds = 123) {
  const timespec times[] = {{0, UTIME_OMIT}, {seconds, nanoseconds}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

/// A file that is open, with a known time of modification.
class OpenFile {
 public:
  explicit OpenFile(const std::string& content)
      : path_(scratch_.MakeFile("file", content)),
        file_(::open(path_.c_str(), O_RDONLY | O_CLOEXEC)) {
    SetModified(path_, kModified);
  }

  const std::string& Path() const { return path_; }
  int Get() const { return file_.Get(); }

  /// What is sent of it to a request with these variables.
  Answer Sent(const Variables& variables, Response response = Response()) {
    ::clearenv();
    ::setenv("REQUEST_METHOD", "GET", 1);
    for (const auto& [name, value] : variables) {
      ::setenv(name.c_str(), value.c_str(), 1);
    }
    return ParseResponse(
        OutputOf([&] { response.SendFile(Get(), "text/csv"); }));
  }

  std::string Tag() { return Sent({}).Header("ETag"); }

 private:
  Scratch scratch_;
  std::string path_;
  Descriptor file_;
};

TEST(File, IsSentWithItsMetadata) {
  InChild([] {
    OpenFile file("0123456789");
    const std::string tag = file.Tag();
    EXPECT_EQ(file.Sent({}).standard_output,
              std::string("Status: 200 OK\r\nContent-Type: text/csv\r\n") +
                  "Last-Modified: " + kModifiedText + "\r\nETag: " + tag +
                  "\r\nAccept-Ranges: bytes\r\nContent-Length: 10\r\n\r\n"
                  "0123456789");
  });
}

TEST(File, IsSentFromItsBeginningWhateverTheOffset) {
  InChild([] {
    const OpenFile file("0123456789");
    ASSERT_EQ(::lseek(file.Get(), 4, SEEK_SET), 4);
    EXPECT_EQ(OpenFile("01234").Sent({}).body, "01234");
    const std::string output =
        OutputOf([&] { Response().SendFile(file.Get(), "text/csv"); });
    EXPECT_TRUE(output.ends_with("\r\n\r\n0123456789")) << output;
    EXPECT_EQ(::lseek(file.Get(), 0, SEEK_CUR), 4);
  });
}

TEST(File, MayBeEmpty) {
  InChild([] {
    OpenFile file("");
    for (const char* const range : {"", "bytes=-1"}) {
      const Answer answer = file.Sent({{"HTTP_RANGE", range}});
      EXPECT_EQ(answer.status, 200);
      EXPECT_EQ(answer.Header("Content-Length"), "0");
      EXPECT_EQ(answer.body, "");
    }
    const Answer answer = file.Sent({{"HTTP_RANGE", "bytes=0-"}});
    EXPECT_EQ(answer.status, 416);
    EXPECT_EQ(answer.Header("Content-Range"), "bytes */0");
  });
}

TEST(File, OfAnyContentArrivesWhole) {
  InChild([] {
    std::string content;
    for (int i = 0; i < 1'000'000; ++i) content += static_cast<char>(i * 7);
    EXPECT_TRUE(OpenFile(content).Sent({}).body == content);
  });
}

TEST(ETag, ChangesWithTheFile) {
  InChild([] {
    OpenFile file("0123456789");
    const std::string tag = file.Tag();
    EXPECT_TRUE(tag.starts_with('"'));
    SetModified(file.Path(), kModified, 124);
    EXPECT_NE(file.Tag(), tag);
    SetModified(file.Path(), kModified + 1);
    EXPECT_NE(file.Tag(), tag);
    SetModified(file.Path(), kModified);
    EXPECT_EQ(file.Tag(), tag);
    ASSERT_EQ(::truncate(file.Path().c_str(), 9), 0);
    SetModified(file.Path(), kModified);
    EXPECT_NE(file.Tag(), tag);
    EXPECT_NE(OpenFile("0123456789").Tag(), tag);
  });
}

TEST(LastModified, IsNeverInTheFuture) {
  InChild([] {
    OpenFile file("a");
    SetModified(file.Path(), 4'000'000'000);
    const std::string future = file.Sent({}).Header("Last-Modified");
    EXPECT_EQ(future.find(" 2096 "), std::string::npos) << future;
    EXPECT_EQ(future.size(), std::size_t{29}) << future;
    SetModified(file.Path(), -1);
    EXPECT_EQ(file.Sent({}).Header("Last-Modified"),
              "Thu, 01 Jan 1970 00:00:00 GMT");
  });
}

TEST(Headers, ThatAreSetAreKept) {
  InChild([] {
    OpenFile file("0123456789");
    const auto response = [] {
      return Response()
          .Header("ETag", "\"mine\"")
          .Header("Content-Encoding", "gzip")
          .Header("last-modified", "Sat, 05 Nov 1994 08:49:37 GMT")
          .Header("Cache-Control", "no-cache")
          .Header("Accept-Ranges", "none")
          .Attachment("a");
    };
    EXPECT_EQ(file.Sent({}, response()).standard_output,
              "Status: 200 OK\r\nContent-Type: text/csv\r\nETag: \"mine\"\r\n"
              "Content-Encoding: gzip\r\n"
              "last-modified: Sat, 05 Nov 1994 08:49:37 GMT\r\n"
              "Cache-Control: no-cache\r\nAccept-Ranges: none\r\n"
              "Content-Disposition: attachment; filename=\"a\"\r\n"
              "Content-Length: 10\r\n\r\n0123456789");
    EXPECT_EQ(
        file.Sent({{"HTTP_IF_NONE_MATCH", "\"mine\""}}, response()).status,
        304);
    EXPECT_EQ(file.Sent({{"HTTP_IF_NONE_MATCH", "\"mine\""}},
                        Response().Header("ETag", "W/\"mine\""))
                  .status,
              304);
    EXPECT_EQ(
        file.Sent({{"HTTP_IF_MODIFIED_SINCE", "Sat, 05 Nov 1994 08:49:37 GMT"}},
                  response())
            .status,
        304);
  });
}

TEST(File, ThatTheClientHasIsNotSentAgain) {
  InChild([] {
    OpenFile file("0123456789");
    const std::string tag = file.Tag();
    const char* const kTags = "HTTP_IF_NONE_MATCH";
    const char* const kSince = "HTTP_IF_MODIFIED_SINCE";
    const std::pair<Variables, int> rows[] = {
        {{{kTags, tag}}, 304},
        {{{kTags, "W/" + tag}}, 304},
        {{{kTags, "\"a\", W/\"b\" ,," + tag + ",\"c\""}}, 304},
        {{{kTags, "*"}}, 304},
        {{{kTags, "\"*\""}}, 200},
        {{{kTags, "\"a\""}}, 200},
        {{{kTags, "\"a\", \"b"}}, 200},
        {{{kTags, tag.substr(1)}}, 200},
        {{{kTags, "\"" + tag}}, 200},
        {{{kTags, "w/" + tag}}, 200},
        {{{kTags, "garbage"}}, 200},
        {{{kTags, ","}}, 200},
        {{{kTags, "\"a\""}, {kSince, kModifiedText}}, 200},
        {{{kTags, tag}, {kSince, "Sat, 05 Nov 1994 08:49:37 GMT"}}, 304},
        {{{kSince, kModifiedText}}, 304},
        {{{kSince, "Sunday, 06-Nov-94 08:49:37 GMT"}}, 304},
        {{{kSince, "Sun Nov  6 08:49:37 1994"}}, 304},
        {{{kSince, "Sun, 06 Nov 1994 08:49:38 GMT"}}, 304},
        {{{kSince, "Fri, 31 Dec 9999 23:59:59 GMT"}}, 304},
        {{{kSince, "Sun, 06 Nov 1994 08:49:36 GMT"}}, 200},
        {{{kSince, "yesterday"}}, 200},
        {{{kTags, tag}, {"REQUEST_METHOD", "HEAD"}}, 304},
        {{{kTags, tag}, {"REQUEST_METHOD", "POST"}}, 200},
        {{{kTags, tag}, {"REQUEST_METHOD", "get"}}, 200},
        {{{kTags, tag}, {"HTTP_RANGE", "bytes=0-0"}}, 304}};
    for (const auto& [variables, status] : rows) {
      SCOPED_TRACE(::testing::PrintToString(variables));
      const Answer answer = file.Sent(variables);
      EXPECT_EQ(answer.status, status);
      if (status == 304) {
        EXPECT_EQ(answer.standard_output,
                  std::string("Status: 304 Not Modified\r\n") +
                      "Last-Modified: " + kModifiedText + "\r\nETag: " + tag +
                      "\r\nAccept-Ranges: bytes\r\n\r\n");
      } else {
        EXPECT_EQ(answer.Header("Content-Length"), "10");
      }
    }
  });
}

/// The part of "0123456789" that is sent for a range; "whole" for all of it and
/// "none" for status 416.
std::string PartSent(OpenFile& file, const Variables& variables) {
  const Answer answer = file.Sent(variables);
  EXPECT_EQ(answer.Header("Content-Length"),
            std::to_string(answer.body.size()));
  const std::string part = answer.Header("Content-Range");
  if (answer.status == 416) {
    EXPECT_EQ(part, "bytes */10");
    EXPECT_EQ(answer.reason, "Range Not Satisfiable");
    return "none" + answer.body;
  }
  if (answer.status == 206) {
    EXPECT_EQ(part, std::string("bytes ") + answer.body.front() + "-" +
                        answer.body.back() + "/10");
    return answer.body;
  }
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(part, "");
  EXPECT_EQ(answer.body, "0123456789");
  return "whole";
}

TEST(Range, IsOnePartOrTheWholeFile) {
  const std::string huge(30, '9');
  const std::pair<std::string, Strings> rows[] = {
      {"0", {"bytes=0-0"}},
      {"345", {"bytes=3-5"}},
      {"12", {"BYTES=1-2"}},
      {"78", {"bytes=007-08"}},
      {"9", {"bytes=9-9", "bytes=9-10", "bytes=-1"}},
      {"3456789", {"bytes=3-"}},
      {"56789", {"bytes=5-" + huge, "bytes=5-9223372036854775807"}},
      {"0123456789",
       {"bytes=0-9", "bytes=0-", "bytes=-10", "bytes=-11", "bytes=-" + huge}},
      {"none",
       {"bytes=10-", "bytes=10-20", "bytes=" + huge + "-", "bytes=-0",
        "bytes=9223372036854775807-9223372036854775807"}},
      {"whole", {"bytes=5-3",  "bytes=20-10", "bytes=0-0,2-2",
                 "bytes=0-0,", "bytes=",      "bytes=-",
                 "bytes=5",    "bytes=a-b",   "bytes=1-b",
                 "bytes=--1",  "bytes=1--2",  "bytes=+1-2",
                 "bytes= 1-2", "bytes=1 - 2", "bytes=0x1-2",
                 "bytes 1-2",  "bytes1-2",    "byte=1-2",
                 "items=1-2",  "1-2",         "",
                 "b"}}};
  InChild([&] {
    OpenFile file("0123456789");
    for (const auto& [part, ranges] : rows) {
      for (const std::string& range : ranges) {
        EXPECT_EQ(PartSent(file, {{"HTTP_RANGE", range}}), part) << range;
      }
    }
  });
}

TEST(Range, IsForAGetOfStatus200) {
  InChild([] {
    OpenFile file("0123456789");
    const std::string range = "bytes=3-5";
    EXPECT_EQ(
        PartSent(file, {{"REQUEST_METHOD", "POST"}, {"HTTP_RANGE", range}}),
        "whole");
    const Answer head =
        file.Sent({{"REQUEST_METHOD", "HEAD"}, {"HTTP_RANGE", range}});
    EXPECT_EQ(head.status, 200);
    EXPECT_EQ(head.Header("Content-Length"), "10");
    EXPECT_EQ(head.body, "");
    const Answer error = file.Sent(
        {{"HTTP_RANGE", range}, {"HTTP_IF_NONE_MATCH", "*"}}, Response(404));
    EXPECT_EQ(error.status, 404);
    EXPECT_EQ(error.body, "0123456789");
  });
}

TEST(IfRange, MustMatchTheCurrentFile) {
  InChild([] {
    OpenFile file("0123456789");
    const std::string tag = file.Tag();
    const std::pair<std::string, std::string> rows[] = {
        {tag, "345"},
        {kModifiedText, "345"},
        {"\"a\"", "whole"},
        {"W/" + tag, "whole"},
        {tag + ", \"a\"", "whole"},
        {"*", "whole"},
        {"Sun, 06 Nov 1994 08:49:38 GMT", "whole"},
        {"Sun, 06 Nov 1994 08:49:36 GMT", "whole"}};
    for (const auto& [condition, part] : rows) {
      SCOPED_TRACE(condition);
      EXPECT_EQ(PartSent(file, {{"HTTP_RANGE", "bytes=3-5"},
                                {"HTTP_IF_RANGE", condition}}),
                part);
    }
    const Answer weak = file.Sent(
        {{"HTTP_RANGE", "bytes=3-5"}, {"HTTP_IF_RANGE", "W/\"mine\""}},
        Response().Header("ETag", "W/\"mine\""));
    EXPECT_EQ(weak.status, 200);
  });
}

TEST(Range, ReachesTheEndOfALargeFile) {
  constexpr std::int64_t kSize = std::int64_t{5} << 30;
  InChild([] {
    OpenFile file("");
    ASSERT_EQ(::truncate(file.Path().c_str(), kSize - 3), 0);
    {
      const Descriptor end(
          ::open(file.Path().c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
      ASSERT_EQ(::write(end.Get(), "end", 3), 3);
    }
    const std::string size = std::to_string(kSize);
    const Answer head = file.Sent({{"REQUEST_METHOD", "HEAD"}});
    EXPECT_EQ(head.Header("Content-Length"), size);
    for (const std::string& range :
         {std::string("bytes=-4"),
          "bytes=" + std::to_string(kSize - 4) + "-"}) {
      const Answer part = file.Sent({{"HTTP_RANGE", range}});
      EXPECT_EQ(part.status, 206);
      EXPECT_EQ(part.Header("Content-Range"),
                "bytes 5368709116-5368709119/" + size);
      EXPECT_EQ(part.body, std::string("\0end", 4));
    }
  });
}

/// Expects that a descriptor is refused and that the answer can still be sent.
void ExpectRefused(int descriptor) {
  Response response;
  EXPECT_THROW(response.SendFile(descriptor, "text/csv"),
               std::invalid_argument);
  EXPECT_EQ(OutputOf([&] { response.Send(""); }),
            OutputOf([] { Response().Send(""); }));
}

TEST(SendFile, RefusesWhatIsNotAReadableFile) {
  InChild([] {
    const Scratch scratch;
    const std::string fifo = scratch / "fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const std::string path = scratch.MakeFile("file", "content");
    const std::pair<std::string, int> rows[] = {{fifo, O_RDWR},
                                                {scratch.Path(), O_RDONLY},
                                                {"/dev/null", O_RDONLY},
                                                {path, O_WRONLY},
                                                {path, O_PATH}};
    for (const auto& [name, flags] : rows) {
      SCOPED_TRACE(name);
      const Descriptor file(::open(name.c_str(), flags | O_CLOEXEC));
      ASSERT_TRUE(file);
      ExpectRefused(file.Get());
    }
    ExpectRefused(-1);
    ExpectRefused(1000);
  });
}

TEST(SendFile, RefusesATypeThatIsNoHeaderValue) {
  InChild([] {
    const OpenFile file("a");
    Response response;
    EXPECT_THROW(response.SendFile(file.Get(), "text/csv\r\nX: y"),
                 std::invalid_argument);
    EXPECT_EQ(OutputOf([&] { response.Send(""); }),
              OutputOf([] { Response().Send(""); }));
  });
}

}  // namespace
}  // namespace support

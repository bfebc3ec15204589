#include "plain/plain_parser.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace {

using plain::File;
using plain::Nothing;
using plain::Outcome;
using plain::Parse;
using plain::Request;
using Files = std::map<std::string, File>;
using Log = std::vector<std::pair<int, std::string>>;
using Params = std::map<std::string, std::string>;
using Strings = std::vector<std::string>;

constexpr const char* kEnd = "--X--\r\n";
constexpr const char* kUploadFailed = "error writing temporary file";
constexpr const char* kReadFailed = "Error reading STDIN";
constexpr const char* kLineTooLong =
    "Element value size must be less than 262144";
constexpr const char* kNoElementName =
    "On getting element value element name is empty";

/// The boundary is X.
Request Multipart(const std::string& body,
                  const std::vector<std::size_t>& reads = {}) {
  Request request;
  request.content_length = std::to_string(body.size());
  request.content_type = "multipart/form-data; boundary=X";
  request.tmp_dir = "/spool";
  request.input.bytes = body;
  request.input.reads = reads;
  return request;
}

Request QueryString(const std::string& body) {
  Request request = Multipart(body);
  request.content_type = "application/x-www-form-urlencoded";
  return request;
}

/// The first of these reads ends behind @p first, the next ones are as given.
std::vector<std::size_t> CutBehind(const std::string& first,
                                   std::vector<std::size_t> next = {}) {
  next.insert(next.begin(), first.size());
  return next;
}

std::string Head(const std::string& attributes) {
  return "--X\r\nContent-Disposition: form-data; " + attributes + "\r\n\r\n";
}

std::string FieldHead(const std::string& name) {
  return Head("name=\"" + name + "\"");
}

std::string FileHead(const std::string& name, const std::string& file) {
  return Head("name=\"" + name + "\"; filename=\"" + file + "\"");
}

std::string Field(const std::string& name, const std::string& value) {
  return FieldHead(name) + value + "\r\n";
}

std::string Upload(const std::string& name, const std::string& file,
                   const std::string& content) {
  return FileHead(name, file) + content + "\r\n";
}

File Kept(const std::string& content) {
  return {content, static_cast<std::int64_t>(content.size()), true};
}

/// Kept on disk, but its part has not ended.
File Begun(const std::string& content) { return {content, 0, true}; }

std::ptrdiff_t Logged(const Outcome& outcome, int level,
                      const std::string& text) {
  return std::count(outcome.log.begin(), outcome.log.end(),
                    std::pair(level, text));
}

// Fields.

TEST(PlainField, KeepsItsLinesJoinedByLf) {
  const Outcome outcome = Parse(Multipart(Field("a", "x\r\ny") + kEnd));
  EXPECT_EQ(outcome.params, (Params{{"a", "x\ny"}}));
  EXPECT_EQ(outcome.error, "");
  EXPECT_TRUE(outcome.parsed);
  EXPECT_FALSE(outcome.spins);
}

TEST(PlainField, ContinuesAnEarlierOneOfItsName) {
  EXPECT_EQ(Parse(Multipart(Field("a", "1") + Field("a", "2") + kEnd)).params,
            (Params{{"a", "1\n2"}}));
}

TEST(PlainField, LosesALastCharacterThatABareLfFollows) {
  EXPECT_EQ(Parse(Multipart(Field("a", "xy\nz") + kEnd)).params,
            (Params{{"a", "x\nz"}}));
}

TEST(PlainField, ThatIsEmptyHasOneEmptyLine) {
  EXPECT_EQ(Parse(Multipart(Field("a", "") + kEnd)).params,
            (Params{{"a", ""}}));
}

TEST(PlainField, EndsAtALineThatOnlyBeginsWithTheBoundary) {
  // The names and the state after the headers are those of the first part.
  EXPECT_EQ(Parse(Multipart(FieldHead("a") + "v\r\n--Xtra\r\n\r\nw\r\n" + kEnd))
                .params,
            (Params{{"a", "v\nw"}}));
}

TEST(PlainField, LosesALineThatDoesNotEnd) {
  const Outcome outcome = Parse(Multipart(FieldHead("a") + "1\r\n2"));
  EXPECT_EQ(outcome.params, (Params{{"a", "1"}}));
  EXPECT_EQ(outcome.error, "");
  EXPECT_TRUE(outcome.parsed);
}

TEST(PlainField, WithoutQuotesAroundItsNameIsIgnored) {
  const Outcome outcome =
      Parse(Multipart(Head("name=a") + "v\r\n" + Field("b", "w") + kEnd));
  EXPECT_EQ(outcome.params, (Params{{"b", "w"}}));
  EXPECT_EQ(Logged(outcome, 9,
                   "zancgi.cpp:# Element with empty name found. Ignoring."),
            1);
}

TEST(PlainField, NamedFilenameIsIgnored) {
  const Outcome outcome = Parse(Multipart(Field("filename", "v") + kEnd));
  EXPECT_EQ(outcome.params, Params{});
  EXPECT_EQ(outcome.files, Files{});
  EXPECT_EQ(Logged(outcome, 9,
                   "zancgi.cpp:# Filename not found in Content-Disposition. "
                   "Ignoring this part"),
            1);
}

TEST(PlainField, OfAnotherDispositionIsSkippedWhole) {
  const Outcome outcome = Parse(Multipart(
      "--X\r\nContent-Disposition: attachment; name=\"a\"\r\n\r\nv\r\n" +
      Field("b", "w") + kEnd));
  EXPECT_EQ(outcome.params, (Params{{"b", "w"}}));
  EXPECT_EQ(Logged(outcome, 9,
                   "zancgi.cpp:# Ignoring unknown type of "
                   "Content-Disposition: attachment"),
            1);
}

TEST(PlainField, OfAnotherDispositionSkipsItsFurtherHeaders) {
  EXPECT_EQ(Parse(Multipart("--X\r\nContent-Disposition: attachment\r\n"
                            "Content-Disposition: form-data; name=\"a\"\r\n"
                            "\r\nv\r\n" +
                            std::string(kEnd)))
                .params,
            Params{});
}

TEST(PlainField, WithoutANameIsIgnoredEvenAfterANamedOne) {
  EXPECT_EQ(
      Parse(Multipart(Field("a", "v") + Head("") + "w\r\n" + kEnd)).params,
      (Params{{"a", "v"}}));
}

TEST(PlainField, LogsADispositionUpToANul) {
  using namespace std::string_literals;
  EXPECT_EQ(Logged(Parse(Multipart("--X\r\nContent-Disposition: a\0b\r\n"s)), 9,
                   "zancgi.cpp:# Ignoring unknown type of "
                   "Content-Disposition: a"),
            1);
}

TEST(PlainField, TakesOtherHeadersWithoutEffect) {
  EXPECT_EQ(Parse(Multipart("--X\r\nContent-Type: text/plain\r\n"
                            "content-disposition: form-data; name=\"no\"\r\n"
                            "Content-Disposition:  form-data ;name=\"a\"\r\n"
                            "X: y\r\n\r\nv\r\n" +
                            std::string(kEnd)))
                .params,
            (Params{{"a", "v"}}));
}

TEST(PlainField, ReadsAttributesUpToAnEmptyOne) {
  EXPECT_EQ(
      Parse(Multipart(Head("name=\"a\";; name=\"b\"") + "v\r\n" + kEnd)).params,
      (Params{{"a", "v"}}));
  EXPECT_EQ(
      Parse(Multipart(Head("name=\"a\"; name2=\"b\"") + "v\r\n" + kEnd)).params,
      (Params{{"b", "v"}}));
}

TEST(PlainField, TakesANameUpToASemicolonEvenInQuotes) {
  EXPECT_EQ(Parse(Multipart(Head("name=\"a;b\"") + "v\r\n" + kEnd)).params,
            (Params{{"a", "v"}}));
}

TEST(PlainField, WithAnEmptyNameAfterAnotherFails) {
  const Outcome outcome = Parse(
      Multipart(Field("b", "w") + Head("name=\"a\"; name=\"\"") + "v\r\n"));
  EXPECT_EQ(outcome.error, kNoElementName);
  EXPECT_EQ(outcome.params, (Params{{"b", "w"}}));
  EXPECT_FALSE(outcome.parsed);
}

// The length of a field's line.

constexpr std::size_t kLongest = 262144;

TEST(PlainFieldLine, MayHaveTheLargestLengthButNotMore) {
  const std::string line(kLongest, 'v');
  EXPECT_EQ(Parse(Multipart(Field("a", line) + kEnd)).params,
            (Params{{"a", line}}));
  const Outcome outcome = Parse(Multipart(Field("a", line + "v") + kEnd));
  EXPECT_EQ(outcome.error, kLineTooLong);
  EXPECT_EQ(outcome.params, Params{});
  EXPECT_FALSE(outcome.parsed);
}

TEST(PlainFieldLine, CountsByItself) {
  const std::string line(kLongest, 'v');
  const Outcome outcome =
      Parse(Multipart(Field("a", line + "\r\n" + line) + kEnd));
  EXPECT_EQ(outcome.params, (Params{{"a", line + "\n" + line}}));
}

TEST(PlainFieldLine, IsRefusedBeforeItsEndIsSeen) {
  const std::string body = FieldHead("a") + std::string(1 << 20, 'v');
  const Outcome outcome = Parse(Multipart(body));
  EXPECT_EQ(outcome.error, kLineTooLong);
  // Four chunks, with the headers in them, hold less than the limit, five more.
  EXPECT_EQ(outcome.bytes_read, 5 * 65536U);
}

TEST(PlainFieldLine, IsRefusedAtTheEndOfAnyChunk) {
  const std::string head = FieldHead("a");
  const std::string body = head + std::string(1 << 20, 'v');
  const std::vector<std::size_t> reads{head.size(), 65536, 65536, 65536,
                                       65536,       1,     1};
  const Outcome outcome = Parse(Multipart(body, reads));
  EXPECT_EQ(outcome.error, kLineTooLong);
  EXPECT_EQ(outcome.bytes_read, head.size() + kLongest + 1);
}

TEST(PlainFieldLine, ThatIsTooLongAtTheEndOfTheBodyIsRefused) {
  EXPECT_EQ(
      Parse(Multipart(FieldHead("a") + std::string(kLongest + 1, 'v'))).error,
      kLineTooLong);
  EXPECT_EQ(Parse(Multipart(FieldHead("a") + std::string(kLongest, 'v'))).error,
            "");
}

TEST(PlainFieldLine, WithoutAnElementNameFailsForThatFirst) {
  const std::string head = Head("name=\"a\"; name=\"\"");
  EXPECT_EQ(
      Parse(Multipart(head + std::string(kLongest + 1, 'v') + "\r\n")).error,
      kNoElementName);
  EXPECT_EQ(Parse(Multipart(head + std::string(1 << 20, 'v'))).error,
            kNoElementName);
  EXPECT_EQ(Parse(Multipart(head + std::string(kLongest, 'v'))).error, "");
}

TEST(PlainFieldLine, OfTheHeadersHasNoLimit) {
  const std::string body = "--X\r\nX: " + std::string(1 << 20, 'v') +
                           Field("a", "v").replace(0, 3, "") + kEnd;
  EXPECT_EQ(Parse(Multipart(body)).params, (Params{{"a", "v"}}));
}

// Uploads.

TEST(PlainUpload, KeepsItsContent) {
  const Outcome outcome = Parse(Multipart(Upload("a", "f", "1\r\n2\n") + kEnd));
  EXPECT_EQ(outcome.params, (Params{{"a", "f"}}));
  EXPECT_EQ(outcome.files, (Files{{"f", Kept("1\r\n2\n")}}));
  EXPECT_EQ(outcome.error, "");
  EXPECT_TRUE(outcome.parsed);
}

TEST(PlainUpload, LogsTheFileBetweenStartAndEnd) {
  const std::string body = Upload("a", "f", "1") + kEnd;
  const std::string length = std::to_string(body.size());
  Request request = Multipart(body);
  request.free_space = 1000;
  EXPECT_EQ(Parse(request).log,
            (Log{{8, "void zan_cgi::Cgi::Data::ParseInput()"},
                 {9, "zancgi.cpp:# POST boundary detected: true"},
                 {9, "zancgi.cpp:# query size '" + length +
                         "', free space in tmpdir '1000'"},
                 {8, "ParseInput Creating new file FILE"},
                 {9,
                  "zancgi.cpp:# End of stdin parsing, stdin state EOF false, "
                  "GOOD true, read " +
                      length + " of " + length + " chars"}}));
}

TEST(PlainUpload, MayBeEmpty) {
  EXPECT_EQ(Parse(Multipart(Upload("a", "f", "") + kEnd)).files,
            (Files{{"f", Kept("")}}));
}

TEST(PlainUpload, WithItsFileNameFirstIsAField) {
  const Outcome outcome = Parse(
      Multipart(Head("filename=\"f\"; name=\"a\"") + "1\r\n2\r\n" + kEnd));
  EXPECT_EQ(outcome.params, (Params{{"a", "1\n2"}}));
  EXPECT_EQ(outcome.files, Files{});
}

TEST(PlainUpload, IsCutAtTheBoundaryInItsContent) {
  // "cd" is skipped as if it were the line's end.
  const Outcome outcome =
      Parse(Multipart(FileHead("a", "f") + "ab\r\n--Xcd\r\n"));
  EXPECT_EQ(outcome.files, (Files{{"f", Kept("ab")}}));
}

TEST(PlainUpload, ReplacesAnEarlierOneOfItsFileName) {
  const Outcome outcome = Parse(
      Multipart(Upload("a", "f", "first") + Upload("b", "f", "2nd") + kEnd));
  EXPECT_EQ(outcome.files, (Files{{"f", Kept("2nd")}}));
  EXPECT_EQ(outcome.params, (Params{{"a", "f"}, {"b", "f"}}));
}

TEST(PlainUpload, KeepsTheEarlierSizeUntilItsPartHasEnded) {
  Request request =
      Multipart(Upload("a", "f", "first") + FileHead("b", "f") + "2nd");
  request.content_length = std::to_string(request.input.bytes.size() + 1);
  const Outcome outcome = Parse(request);
  EXPECT_EQ(outcome.error, kReadFailed);
  EXPECT_EQ(outcome.files, (Files{{"f", {"2nd", 5, true}}}));
  EXPECT_FALSE(outcome.parsed);
}

TEST(PlainUpload, IsReplacedByWhatFollowsTheClosingBoundary) {
  EXPECT_EQ(Parse(Multipart(Upload("a", "f", "content") + kEnd + "rest")).files,
            (Files{{"f", Kept("rest")}}));
}

TEST(PlainUpload, ThatTheBodyEndsInIsKept) {
  // The possible separator at the end is not.
  const Outcome outcome =
      Parse(Multipart(FileHead("a", "f") + "content\r\n--"));
  EXPECT_EQ(outcome.files, (Files{{"f", Kept("content")}}));
  EXPECT_EQ(outcome.error, "");
}

TEST(PlainUpload, ThatAHangUpEndsStaysWithoutItsSize) {
  Request request = Multipart(FileHead("a", "f") + "content");
  request.content_length = "1000";
  const Outcome outcome = Parse(request);
  EXPECT_EQ(outcome.error, kReadFailed);
  EXPECT_EQ(outcome.files, (Files{{"f", Begun("content")}}));
  EXPECT_EQ(Logged(outcome, 4, "Signal HUP received"), 1);
  EXPECT_FALSE(outcome.parsed);
}

TEST(PlainUpload, TakesTheNamesThatAnEarlierPartLeft) {
  const Outcome outcome =
      Parse(Multipart(Upload("a", "f", "1") + Head("filename=\"g\"") + "2\r\n" +
                      Head("name=\"filename\"") + "3\r\n" + kEnd));
  EXPECT_EQ(outcome.params, (Params{{"a", "g"}, {"filename", "g"}}));
  EXPECT_EQ(outcome.files, (Files{{"f", Kept("1")}, {"g", Kept("3")}}));
}

TEST(PlainUpload, WithoutAFileNameForgetsAnEarlierPartsName) {
  const Outcome outcome =
      Parse(Multipart(Upload("a", "f", "1") + Upload("b", "", "2") +
                      Head("name=\"filename\"") + "3\r\n" + kEnd));
  EXPECT_EQ(outcome.params, (Params{{"a", "f"}}));
  EXPECT_EQ(outcome.files, (Files{{"f", Kept("1")}}));
}

// What a separator on the border of two chunks does to an upload.

TEST(PlainCarry, OfAChunkThatBeginsWithFileDataIsExact) {
  const std::string head = FileHead("a", "f");
  const Outcome outcome =
      Parse(Multipart(head + "ab\rcd\r\n" + kEnd, CutBehind(head, {3})));
  EXPECT_EQ(outcome.files, (Files{{"f", Kept("ab\rcd")}}));
}

TEST(PlainCarry, OfAChunkWithHeadersTakesOtherBytes) {
  // "ab" counts two, so the CR is taken from offset 2: "--X".
  const std::string first = FileHead("a", "f") + "ab\r";
  const Outcome outcome =
      Parse(Multipart(first + "cd\r\n" + kEnd, CutBehind(first)));
  EXPECT_EQ(outcome.files, (Files{{"f", Kept("abXcd")}}));
}

TEST(PlainCarry, OverThreeChunksTakesWhatAnEarlierOneLeft) {
  // The second chunk is the LF alone; the offset 1 still holds the "b".
  const std::string head = FileHead("a", "f");
  const Outcome outcome =
      Parse(Multipart(head + "ab\r\ncd\r\n" + kEnd, CutBehind(head, {3, 1})));
  EXPECT_EQ(outcome.files, (Files{{"f", Kept("ab\rbcd")}}));
}

TEST(PlainCarry, IsDroppedWhenTheSeparatorIsComplete) {
  const std::string first = FileHead("a", "f") + "ab\r\n-";
  const Outcome outcome = Parse(Multipart(
      first + "-X\r\n" + Field("b", "v").substr(5) + kEnd, CutBehind(first)));
  EXPECT_EQ(outcome.files, (Files{{"f", Kept("ab")}}));
  EXPECT_EQ(outcome.params, (Params{{"a", "f"}, {"b", "v"}}));
}

TEST(PlainCarry, IsWrittenWhenTheMatchBreaksAndBeginsAgain) {
  const std::string head = FileHead("a", "f");
  const Outcome outcome =
      Parse(Multipart(head + "ab\r\r\n" + kEnd, CutBehind(head, {3})));
  EXPECT_EQ(outcome.files, (Files{{"f", Kept("ab\r")}}));
}

TEST(PlainCarry, IsLostAtTheEndOfTheBody) {
  const std::string head = FileHead("a", "f");
  EXPECT_EQ(Parse(Multipart(head + "ab\r\n", CutBehind(head, {3}))).files,
            (Files{{"f", Kept("ab")}}));
}

TEST(PlainSkip, GoesOnInTheNextChunk) {
  for (const std::size_t rest : {0U, 1U, 2U}) {
    const std::string first = Upload("a", "f", "ab") + "--X";
    const std::string second = Field("b", "v").substr(3) + kEnd;
    const Outcome outcome = Parse(
        Multipart(first + second, CutBehind(first + second.substr(0, rest))));
    EXPECT_EQ(outcome.params, (Params{{"a", "f"}, {"b", "v"}})) << rest;
    EXPECT_EQ(outcome.files, (Files{{"f", Kept("ab")}})) << rest;
  }
}

TEST(PlainSkip, MayEndTheBody) {
  for (const char* rest : {"", "-", "--"}) {
    const std::string first = Upload("a", "f", "ab") + "--X";
    const Outcome outcome =
        Parse(Multipart(first + rest, CutBehind(first, {1, 1})));
    // A chunk of one byte is shorter than the skip, which a second one shows.
    EXPECT_EQ(outcome.spins, rest == std::string("--")) << rest;
    EXPECT_EQ(outcome.parsed, rest != std::string("--")) << rest;
  }
}

TEST(PlainSkip, BeyondTheNextChunkBeginsTheFileAnew) {
  const std::string first = Upload("a", "f", "ab") + "--X";
  const Outcome outcome =
      Parse(Multipart(first + "--\r\n", CutBehind(first, {1})));
  EXPECT_TRUE(outcome.spins);
  EXPECT_EQ(outcome.files, (Files{{"f", {"", 2, true}}}));
  EXPECT_EQ(Logged(outcome, 8, "ParseInput Creating new file FILE"), 2);
}

TEST(PlainSkip, SurvivesAReadOfNothing) {
  // Only a failed upload makes the parser read on after such a read. The skip
  // passes over the line end before the disposition, which would otherwise be
  // an empty line.
  const std::string head = FileHead("a", "f");
  const std::string file = "1\r\n--X";
  const std::string disposition =
      "\r\nContent-Disposition: form-data; name=\"b\"\r\n";
  Request request = Multipart(head + file + disposition + "\r\n" + "v\r\n");
  request.input.reads = {head.size(), file.size(), 0, disposition.size(), 2};
  request.files_open = false;
  const Outcome outcome = Parse(request);
  EXPECT_EQ(outcome.params, (Params{{"a", "f"}, {"b", "v"}}));
  EXPECT_EQ(outcome.error, kUploadFailed);
  EXPECT_EQ(outcome.sleeps, 1U);
}

// Uploads that fail.

/// The end of what the parser does with a body whose upload failed.
void ExpectFailedUpload(const Outcome& outcome) {
  EXPECT_EQ(outcome.error, kUploadFailed);
  EXPECT_TRUE(outcome.parsed);
  EXPECT_FALSE(outcome.spins);
}

TEST(PlainFailedUpload, OfAFileThatCannotBeMadeConsumesTheBody) {
  Request request = Multipart(Upload("a", "f", "content") + kEnd);
  request.files_open = false;
  const Outcome outcome = Parse(request);
  ExpectFailedUpload(outcome);
  EXPECT_EQ(outcome.params, (Params{{"a", "f"}}));
  EXPECT_EQ(outcome.files, (Files{{"f", File{}}}));
  EXPECT_EQ(outcome.bytes_read, request.input.bytes.size());
  // The rest of the chunk is dropped, by a pass that has nothing left to read.
  EXPECT_EQ(outcome.sleeps, 1U);
}

TEST(PlainFailedUpload, OfAnEmptyFileThatCannotBeMade) {
  Request request = Multipart(Upload("a", "f", "") + kEnd);
  request.files_open = false;
  ExpectFailedUpload(Parse(request));
}

TEST(PlainFailedUpload, BeforeAnyDataIsWrittenIsNotYetFound) {
  // The body ends with the headers.
  Request request = Multipart(FileHead("a", "f"));
  request.files_open = false;
  const Outcome outcome = Parse(request);
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(outcome.files, Files{});
  EXPECT_TRUE(outcome.parsed);
}

TEST(PlainFailedUpload, RemovesTheFileThatGrowsTooLarge) {
  const std::string body = Upload("a", "f", "12345678") + kEnd;
  Request request = Multipart(body);
  request.file_limit = 8;
  EXPECT_EQ(Parse(request).files, (Files{{"f", Kept("12345678")}}));
  request.file_limit = 7;
  const Outcome outcome = Parse(request);
  ExpectFailedUpload(outcome);
  EXPECT_EQ(outcome.files, (Files{{"f", File{}}}));
}

TEST(PlainFailedUpload, MayFailWithTheCarriedBytes) {
  const std::string head = FileHead("a", "f");
  Request request = Multipart(head + "ab\rc\r\n" + kEnd, CutBehind(head, {3}));
  request.file_limit = 2;
  const Outcome outcome = Parse(request);
  ExpectFailedUpload(outcome);
  EXPECT_EQ(outcome.files, (Files{{"f", File{}}}));
}

TEST(PlainFailedUpload, LeavesEarlierFilesAlone) {
  Request request =
      Multipart(Upload("a", "f", "1") + Upload("b", "g", "23") + kEnd);
  request.file_limit = 1;
  EXPECT_EQ(Parse(request).files, (Files{{"f", Kept("1")}, {"g", File{}}}));
}

TEST(PlainFailedUpload, KeepsTheSizeOfAnEarlierUploadOfItsName) {
  Request request =
      Multipart(Upload("a", "f", "1") + Upload("b", "f", "23") + kEnd);
  request.file_limit = 1;
  EXPECT_EQ(Parse(request).files, (Files{{"f", {"", 1, false}}}));
}

TEST(PlainFailedUpload, DropsTheRestOfEveryChunkFromThenOn) {
  // Each pass takes one line of a new chunk.
  const std::string file = FileHead("a", "f") + "1\r\n--X\r\n";
  const std::string disposition =
      "Content-Disposition: form-data; name=\"b\"\r\ndropped";
  const std::string value = "v\r\ndropped";
  Request request =
      Multipart(file + disposition + "\r\ndropped" + value + value);
  request.input.reads = {file.size(), disposition.size(), 9, value.size(),
                         value.size()};
  request.files_open = false;
  const Outcome outcome = Parse(request);
  ExpectFailedUpload(outcome);
  EXPECT_EQ(outcome.params, (Params{{"a", "f"}, {"b", "v\nv"}}));
  EXPECT_EQ(outcome.sleeps, 1U);
}

TEST(PlainFailedUpload, ReadsToTheEndWithoutAskingForNothing) {
  // The hang-up would turn a read with nothing left into another failure.
  Request request = Multipart(Upload("a", "f", "content") + kEnd);
  request.files_open = false;
  for (const bool hangs_up : {true, false}) {
    request.input.hangs_up = hangs_up;
    const Outcome outcome = Parse(request);
    ExpectFailedUpload(outcome);
    EXPECT_EQ(Logged(outcome, 4, "Signal HUP received"), 0);
  }
}

TEST(PlainFailedUpload, OfABodyThatEndsEarlyFailsToRead) {
  Request request = Multipart(Upload("a", "f", "content") + kEnd);
  request.content_length = "1000";
  request.files_open = false;
  const Outcome outcome = Parse(request);
  EXPECT_EQ(outcome.error, kReadFailed);
  EXPECT_FALSE(outcome.parsed);
  request.input.hangs_up = false;
  EXPECT_TRUE(Parse(request).spins);
}

// Room.

TEST(PlainRoom, NotSufficingLeavesFieldsAlone) {
  Request request = Multipart(Field("a", "v") + kEnd);
  request.free_space = request.input.bytes.size();
  EXPECT_EQ(Parse(request).log.size(), 4U);
  --request.free_space;
  const Outcome outcome = Parse(request);
  EXPECT_EQ(outcome.params, (Params{{"a", "v"}}));
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(Logged(outcome, 4,
                   "There is not enoght free space on '/spool' to process a "
                   "query"),
            1);
}

TEST(PlainRoom, NotSufficingFailsAnUpload) {
  Request request = Multipart(Upload("a", "f", "1") + kEnd);
  request.free_space = 1;
  const Outcome outcome = Parse(request);
  ExpectFailedUpload(outcome);
  EXPECT_EQ(outcome.params, (Params{{"a", "f"}}));
  EXPECT_EQ(outcome.files, Files{});
}

TEST(PlainRoom, NotSufficingFailsAnUploadWithoutNames) {
  for (const char* attributes :
       {"name=\"a\"; filename=\"\"", "name=\"filename\"", "filename=\"f\""}) {
    Request request = Multipart(Head(attributes) + "\r\n" + kEnd);
    request.free_space = 1;
    const Outcome outcome = Parse(request);
    ExpectFailedUpload(outcome);
    EXPECT_EQ(outcome.params, Params{}) << attributes;
    request.free_space = 1000;
    EXPECT_EQ(Parse(request).error, "") << attributes;
  }
}

TEST(PlainRoom, IsLookedForInTheTemporaryDirectory) {
  Request request = Multipart(kEnd);
  request.tmp_dir = "";
  EXPECT_EQ(Parse(request).tmp_dir, "/tmp");
  request.tmp = "/other";
  const Outcome outcome = Parse(request);
  EXPECT_EQ(outcome.tmp_dir, "/other");
  EXPECT_EQ(Logged(outcome, 9,
                   "zancgi.cpp:# temp dir is empty, new temp dir '/other'"),
            1);
  request.tmp_dir = "/spool";
  EXPECT_EQ(Parse(request).tmp_dir, "/spool");
}

TEST(PlainDrain, ReadsTheBodyBeforeTheErrorGoesOut) {
  Request request = Multipart(Field("a", "v") + kEnd, {10, 0, 5});
  request.free_space_fails = true;
  const std::string length = request.content_length;
  const Outcome outcome = Parse(request);
  EXPECT_EQ(outcome.error, "Cannot run statfs on /spool");
  EXPECT_EQ(outcome.params, Params{});
  EXPECT_EQ(outcome.bytes_read, request.input.bytes.size());
  EXPECT_EQ(outcome.sleeps, 1U);
  EXPECT_TRUE(outcome.parsed);
  EXPECT_EQ(
      outcome.log,
      (Log{{8, "void zan_cgi::Cgi::Data::ParseInput()"},
           {9, "zancgi.cpp:# POST boundary detected: true"},
           {9, "zancgi.cpp:# Reading query before processing thrown exception"},
           {9, "zancgi.cpp:# query bytes read on throw '" + length + "' of '" +
                   length + "'"}}));
}

TEST(PlainDrain, ThatFailsGivesItsOwnErrorAndSetsNoFlag) {
  Request request = Multipart("12345");
  request.content_length = "6";
  request.free_space_fails = true;
  const Outcome outcome = Parse(request);
  EXPECT_EQ(outcome.error, kReadFailed);
  EXPECT_FALSE(outcome.parsed);
  EXPECT_EQ(outcome.log.back(),
            std::pair(4, std::string("Signal HUP received")));
  request.input.hangs_up = false;
  EXPECT_TRUE(Parse(request).spins);
}

// The search for the first boundary.

TEST(PlainSeek, PassesOverAPreamble) {
  EXPECT_EQ(
      Parse(Multipart("preamble -- \r\n" + Field("a", "v") + kEnd)).params,
      (Params{{"a", "v"}}));
}

TEST(PlainSeek, DoesNotLookAtTheTwoBytesAfterTheBoundary) {
  EXPECT_EQ(Parse(Multipart("--X??" + Field("a", "v").substr(5) + kEnd)).params,
            (Params{{"a", "v"}}));
}

TEST(PlainSeek, DoesNotCompareAByteAgain) {
  for (const char* before : {"-", "--"}) {
    const Outcome outcome = Parse(Multipart(before + Field("a", "v")));
    EXPECT_EQ(Logged(outcome, 9,
                     "zancgi.cpp:# no boundaries in POST data, assuming GET "
                     "format"),
              1)
        << before;
  }
  // The third dash breaks the match; the last two begin it anew.
  EXPECT_EQ(Parse(Multipart("---" + Field("a", "v") + kEnd)).params,
            (Params{{"a", "v"}}));
}

TEST(PlainSeek, DoesNotFindABoundaryInTwoChunks) {
  const Outcome outcome = Parse(Multipart("--X=1&b=2", {2}));
  EXPECT_EQ(outcome.params, (Params{{"--X", "1"}, {"b", "2"}}));
  EXPECT_EQ(Logged(outcome, 9, "zancgi.cpp:# appending 2 chars to buff"), 1);
  EXPECT_EQ(Logged(outcome, 9, "zancgi.cpp:# appending 7 chars to buff"), 1);
}

TEST(PlainSeek, TakesTheBoundaryAsItStands) {
  Request request = Multipart("--\"X\"\r\n" + Field("a", "v").substr(5));
  request.content_type = "text/plain;boundary=\"X\";boundary=Y";
  EXPECT_EQ(Parse(request).params, (Params{{"a", "v"}}));
}

TEST(PlainSeek, DoesNotAppendToTheRawBodyOnceABoundaryWasSeen) {
  const Outcome outcome =
      Parse(Multipart(Head("") + "a=1", CutBehind(Head(""))));
  EXPECT_EQ(outcome.params, Params{});
  EXPECT_EQ(Logged(outcome, 9, "zancgi.cpp:# appending 3 chars to buff"), 0);
}

// The look-ahead at a chunk's end.

TEST(PlainLookAhead, DoesNotSeeALineEndInTwoChunks) {
  const std::string first = FieldHead("a") + "v\r";
  EXPECT_EQ(Parse(Multipart(first + "\nw\r\n" + kEnd, CutBehind(first))).params,
            (Params{{"a", "v\r\nw"}}));
}

TEST(PlainLookAhead, SeesWhatAnEarlierChunkLeft) {
  // Offset 4 of the buffer holds the LF of the first line, so that the last
  // byte of a chunk of four is taken for a CR, and the position goes beyond.
  const std::string head = FieldHead("a");
  const std::string body = head + "1234";
  const Outcome outcome = Parse(Multipart(body, CutBehind(head)));
  EXPECT_EQ(outcome.params, (Params{{"a", "123"}}));
  EXPECT_FALSE(outcome.spins);
  EXPECT_TRUE(Parse(Multipart(body + "5", CutBehind(head, {4}))).spins);
}

// A position beyond the chunk.

TEST(PlainPosition, BeyondTheLastChunkEndsTheParse) {
  for (const char* body : {"--X", "--X\r", "--X\r\n"}) {
    const Outcome outcome = Parse(Multipart(body));
    EXPECT_EQ(outcome.error, "") << body;
    EXPECT_TRUE(outcome.parsed) << body;
    EXPECT_EQ(outcome.sleeps, 0U) << body;
  }
}

TEST(PlainPosition, BeyondTheChunkOfTheBoundarySpins) {
  const std::string body = Field("a", "v") + kEnd;
  EXPECT_TRUE(Parse(Multipart(body, {3})).spins);
  EXPECT_TRUE(Parse(Multipart(body, {4})).spins);
  EXPECT_EQ(Parse(Multipart(body, {5})).params, (Params{{"a", "v"}}));
}

// Reads of nothing.

/// The lengths of the chunks that became part of a body without a boundary.
Strings Appended(const Outcome& outcome) {
  const std::string begin = "zancgi.cpp:# appending ";
  const std::string end = " chars to buff";
  Strings lengths;
  for (const auto& [level, line] : outcome.log) {
    if (!line.starts_with(begin) || !line.ends_with(end)) continue;
    const std::size_t size = line.size() - begin.size() - end.size();
    lengths.push_back(line.substr(begin.size(), size));
  }
  return lengths;
}

TEST(PlainReadOfNothing, BeforeAllOthersIsRepeated) {
  const Outcome outcome = Parse(Multipart(Field("a", "v") + kEnd, {0, 0, 0}));
  EXPECT_EQ(outcome.params, (Params{{"a", "v"}}));
  EXPECT_EQ(outcome.sleeps, 3U);
}

TEST(PlainReadOfNothing, InTheSearchForTheBoundarySpins) {
  const Outcome outcome = Parse(Multipart("a=1", {1, 0}));
  EXPECT_TRUE(outcome.spins);
  EXPECT_FALSE(outcome.parsed);
  EXPECT_EQ(outcome.sleeps, 1U);
}

TEST(PlainReadOfNothing, WithoutABoundaryDelaysTheBodyOnly) {
  Request request = QueryString("a=1&b=2");
  request.input.reads = {3, 0, 4};
  const Outcome outcome = Parse(request);
  EXPECT_FALSE(outcome.spins);
  EXPECT_EQ(outcome.error, "");
  EXPECT_TRUE(outcome.parsed);
  EXPECT_EQ(outcome.params, (Params{{"a", "1"}, {"b", "2"}}));
  EXPECT_EQ(outcome.bytes_read, 7U);
  EXPECT_EQ(outcome.sleeps, 1U);
  EXPECT_EQ(Appended(outcome), (Strings{"3", "0", "4"}));
}

TEST(PlainReadOfNothing, WithoutABoundaryMayComeAnyNumberOfTimes) {
  Request request = QueryString("a=1&b=2");
  request.input.reads = {0, 0, 1, 0, 0, 0, 5, 0, 1};
  const Outcome outcome = Parse(request);
  EXPECT_EQ(outcome.params, (Params{{"a", "1"}, {"b", "2"}}));
  EXPECT_EQ(outcome.sleeps, 6U);
  // An empty chunk at position 0 has been consumed already.
  EXPECT_EQ(Appended(outcome), (Strings{"1", "0", "5", "0", "1"}));
}

TEST(PlainReadOfNothing, WithoutABoundaryBeforeAHangUpFails) {
  Request request = QueryString("a=1");
  request.content_length = "4";
  request.input.reads = {3, 0};
  const Outcome outcome = Parse(request);
  EXPECT_EQ(outcome.error, kReadFailed);
  EXPECT_EQ(outcome.sleeps, 1U);
  EXPECT_EQ(Appended(outcome), (Strings{"3", "0"}));
}

TEST(PlainReadOfNothing, AtTheEndOfAFileWithoutABoundaryIsRepeatedForEver) {
  Request request = QueryString("a=1");
  request.content_length = "4";
  request.input.hangs_up = false;
  const Outcome outcome = Parse(request);
  EXPECT_TRUE(outcome.spins);
  EXPECT_EQ(Appended(outcome), (Strings{"3", "0"}));
}

TEST(PlainReadOfNothing, IsLoggedWhenASignalIsTheReason) {
  for (const auto& [nothing, lines] :
       {std::pair(Nothing::kRead, 0), std::pair(Nothing::kWouldBlock, 0),
        std::pair(Nothing::kSignal, 2)}) {
    Request request = QueryString("a=1");
    request.input.reads = {0, 1, 0, 2};
    request.input.nothing = nothing;
    const Outcome outcome = Parse(request);
    EXPECT_EQ(outcome.params, (Params{{"a", "1"}}));
    EXPECT_EQ(
        Logged(outcome, 9, "zancgi_unix.cpp:# poll interrupted, trying again"),
        lines);
  }
}

TEST(PlainReadOfNothing, CompletesALineOfAFieldAndSpins) {
  const std::string first = FieldHead("a") + "v";
  const Outcome outcome =
      Parse(Multipart(first + "w\r\n" + kEnd, CutBehind(first, {0})));
  EXPECT_TRUE(outcome.spins);
  EXPECT_TRUE(outcome.params.at("a").starts_with("v\n\n"));
  EXPECT_EQ(outcome.bytes_read, first.size());
}

TEST(PlainReadOfNothing, CompletesTheBoundaryLineThatEndsAField) {
  const std::string first = FieldHead("a") + "v\r\n--X";
  const Outcome outcome =
      Parse(Multipart(first + "--\r\n", CutBehind(first, {0})));
  EXPECT_TRUE(outcome.spins);
  EXPECT_TRUE(outcome.params.at("a").starts_with("v\n\n"));
}

TEST(PlainReadOfNothing, InFileDataSpins) {
  const std::string first = FileHead("a", "f") + "content";
  const Outcome outcome =
      Parse(Multipart(first + "\r\n" + kEnd, CutBehind(first, {0})));
  EXPECT_TRUE(outcome.spins);
  EXPECT_EQ(outcome.files, (Files{{"f", Begun("content")}}));
}

TEST(PlainReadOfNothing, BetweenHeadersAndDataMakesTheFileAndSpins) {
  const std::string head = FileHead("a", "f");
  Request request =
      Multipart(head + "content\r\n" + kEnd, CutBehind(head, {0}));
  const Outcome outcome = Parse(request);
  EXPECT_TRUE(outcome.spins);
  EXPECT_EQ(outcome.files, (Files{{"f", Begun("")}}));
  // When it cannot be made, the parser reads on.
  request.files_open = false;
  ExpectFailedUpload(Parse(request));
}

TEST(PlainReadOfNothing, ThatCompletesALineMayEndInAnError) {
  const std::string first = Head("name=\"a\"; name=\"\"") + "v";
  EXPECT_EQ(Parse(Multipart(first + "w", CutBehind(first, {0}))).error,
            kNoElementName);
}

TEST(PlainReadOfNothing, AtTheEndOfAFileThatIsTooShortSpins) {
  Request request = Multipart(Field("a", "v") + kEnd);
  request.content_length = "1000";
  request.input.hangs_up = false;
  EXPECT_TRUE(Parse(request).spins);
  request.input.bytes = "";
  EXPECT_TRUE(Parse(request).spins);
}

TEST(PlainReadOfNothing, AfterAFailedUploadGoesOn) {
  const std::string first = FileHead("a", "f") + "content";
  Request request = Multipart(first + "\r\n" + kEnd, CutBehind(first, {0, 0}));
  request.files_open = false;
  const Outcome outcome = Parse(request);
  ExpectFailedUpload(outcome);
  EXPECT_EQ(outcome.bytes_read, request.input.bytes.size());
}

// Bodies without parts.

TEST(PlainQueryString, IsWhatABodyWithoutBoundaryIsTakenFor) {
  const Outcome outcome = Parse(QueryString("a=%41+b&%62=c%3d"));
  EXPECT_EQ(outcome.params, (Params{{"a", "A b"}, {"%62", "c="}}));
  EXPECT_EQ(outcome.error, "");
  EXPECT_TRUE(outcome.parsed);
  EXPECT_EQ(
      outcome.log,
      (Log{{8, "void zan_cgi::Cgi::Data::ParseInput()"},
           {9, "zancgi.cpp:# POST boundary detected: false"},
           {9,
            "zancgi.cpp:# query size '16', free space in tmpdir "
            "'18446744073709551615'"},
           {9, "zancgi.cpp:# appending 16 chars to buff"},
           {9, "zancgi.cpp:# no boundaries in POST data, assuming GET format"},
           {9,
            "zancgi.cpp:# End of stdin parsing, stdin state EOF false, GOOD "
            "true, read 16 of 16 chars"}}));
}

TEST(PlainQueryString, HasPairsWithoutValuesAndNoneWithoutKeys) {
  EXPECT_EQ(Parse(QueryString("a&=1&&b=1=2&b=3&c=&=&")).params,
            (Params{{"a", ""}, {"b", "3"}, {"c", ""}}));
}

TEST(PlainQueryString, LeavesMalformedEscapesAlone) {
  EXPECT_EQ(Parse(QueryString("a=%4&b=%zz%&c=%%41&d=%00")).params,
            (Params{{"a", "%4"},
                    {"b", "%zz%"},
                    {"c", "%A"},
                    {"d", std::string(1, '\0')}}));
}

TEST(PlainQueryString, MayBeLong) {
  std::string body;
  for (int i = 0; i < 100000; ++i) body += "&a";
  EXPECT_EQ(Parse(QueryString(body)).params, (Params{{"a", ""}}));
  body = Head(body);
  std::replace(body.begin(), body.end(), '&', ';');
  EXPECT_EQ(Parse(Multipart(body)).params, Params{});
}

// The declared length.

TEST(PlainLength, OfZeroLeavesTheRequestUnparsed) {
  for (const char* length : {"0", "", "x", "12x", "-", "+", "1 2"}) {
    Request request = Multipart("a=1");
    request.content_length = length;
    request.tmp_dir = "";
    const Outcome outcome = Parse(request);
    EXPECT_FALSE(outcome.parsed) << length;
    EXPECT_EQ(outcome.bytes_read, 0U) << length;
    EXPECT_EQ(outcome.tmp_dir, "") << length;
    EXPECT_EQ(outcome.log, (Log{{8, "void zan_cgi::Cgi::Data::ParseInput()"},
                                {9, "zancgi.cpp:# CONTENT_LENGTH=0"}}))
        << length;
  }
}

TEST(PlainLength, EndsTheBody) {
  for (const char* length : {"3", " +3 ", "03"}) {
    Request request = QueryString("a=1&b=2");
    request.content_length = length;
    const Outcome outcome = Parse(request);
    EXPECT_EQ(outcome.params, (Params{{"a", "1"}})) << length;
    EXPECT_EQ(outcome.bytes_read, 3U) << length;
  }
}

TEST(PlainLength, BelowZeroMakesTheReadFail) {
  Request request = Multipart("a=1", {0});
  for (const char* length :
       {"-1", "-9223372036854775808", "-99999999999999999999"}) {
    request.content_length = length;
    const Outcome outcome = Parse(request);
    EXPECT_EQ(outcome.error, kReadFailed) << length;
    EXPECT_EQ(Logged(outcome, 3, "error reading stdin, code 14"), 1) << length;
    EXPECT_EQ(outcome.sleeps, 1U) << length;
    EXPECT_EQ(outcome.bytes_read, 0U) << length;
  }
  request.input.bytes = "";
  const Outcome outcome = Parse(request);
  EXPECT_EQ(outcome.error, kReadFailed);
  EXPECT_EQ(Logged(outcome, 4, "Signal HUP received"), 1);
}

TEST(PlainLength, BelowZeroIsALargeOneForTheRoom) {
  Request request = Multipart("a=1");
  request.content_length = "-2";
  request.free_space = 1000;
  const Outcome outcome = Parse(request);
  EXPECT_EQ(Logged(outcome, 9,
                   "zancgi.cpp:# query size '18446744073709551614', free space "
                   "in tmpdir '1000'"),
            1);
  EXPECT_EQ(Logged(outcome, 4,
                   "There is not enoght free space on '/spool' to process a "
                   "query"),
            1);
}

TEST(PlainLength, BelowZeroLeavesNothingToDrain) {
  Request request = Multipart("a=1");
  request.content_length = "-4294967301";
  request.free_space_fails = true;
  const Outcome outcome = Parse(request);
  EXPECT_EQ(outcome.error, "Cannot run statfs on /spool");
  EXPECT_TRUE(outcome.parsed);
  // Only the low 32 bits are shown.
  EXPECT_EQ(outcome.log.back(),
            std::pair(9, std::string("zancgi.cpp:# query bytes read on throw "
                                     "'0' of '-5'")));
}

TEST(PlainLength, OutOfRangeIsTheNearestOne) {
  Request request = Multipart("a=1");
  request.content_length = "9223372036854775808";
  EXPECT_EQ(Logged(Parse(request), 9,
                   "zancgi.cpp:# query size '9223372036854775807', free space "
                   "in tmpdir '18446744073709551615'"),
            1);
}

}  // namespace

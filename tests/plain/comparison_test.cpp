// Compares the library's parser of POST bodies with the plain one: for random
// bodies, and for bodies cut at every place.

#include <gtest/gtest.h>
#include <zancgi/testing/child.h>
#include <zancgi/testing/scratch.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "plain/body_maker.h"
#include "plain/plain_parser.h"
#include "plain/product.h"
#include "support/clean_run.h"
#include "support/fast_folder.h"
#include "support/form.h"
#include "support/variable.h"

namespace plain {
namespace {

using support::Field;
using support::kForm;
using support::kFormEnd;
using support::Part;
using support::Upload;
using zan_cgi::testing::Child;
using zan_cgi::testing::Scratch;

#ifdef __SANITIZE_ADDRESS__
constexpr std::size_t kRandomCases = 20'000;
#else
constexpr std::size_t kRandomCases = 200'000;
#endif
constexpr std::size_t kShards = 4;
/// Of this number of cases that never end, one is verified.
constexpr std::size_t kSpinSample = 100;

using Counts = std::map<std::string, std::size_t>;

/// Compares one case after the other, and counts.
class Comparison {
 public:
  Comparison(const Scratch& scratch, Counts& counts)
      : scratch_(scratch), counts_(counts) {}

  /// Does nothing after a failure: one report of a difference is enough.
  void Check(const Request& request) {
    if (testing::Test::HasFailure()) return;
    ++counts_["cases"];
    const Outcome plain = Parse(request);
    if (plain.spins) {
      if (counts_["spins"]++ % spin_sample == 0) CheckSpin(request);
      return;
    }
    if (plain.error.empty() && !plain.files.empty()) ++counts_["uploads"];
    if (!plain.error.empty()) ++counts_["errors"];
    // Cases that end although some reads return nothing.
    if (plain.sleeps > 0) ++counts_["pauses"];
    const std::string difference = Difference(plain, RunProduct(request));
    EXPECT_EQ(difference, "") << Describe(request);
    EXPECT_EQ(scratch_.List(), std::vector<std::string>())
        << "left behind by " << Describe(request);
  }

  std::size_t spin_sample = kSpinSample;

 private:
  void CheckSpin(const Request& request) {
    EXPECT_TRUE(ProductSpins(request)) << Describe(request);
    for (const std::string& left : scratch_.List()) {
      std::filesystem::remove(scratch_ / left);
    }
  }

  const Scratch& scratch_;
  Counts& counts_;
};

/// Runs a comparison in a child with a time limit for any number of cases, and
/// returns its counts.
template <class Body>
Counts Compare(const Body& body) {
  const Scratch scratch(support::FastFolder());
  const auto outcome =
      support::RunCleanly(Child().TimeLimit(std::chrono::hours(1)),
                          [&](const zan_cgi::testing::Reporter& report) {
                            Counts counts;
                            Comparison comparison(scratch, counts);
                            body(comparison, scratch.Path());
                            for (const auto& [what, count] : counts) {
                              report(what, std::to_string(count));
                            }
                          });
  Counts counts;
  for (const auto& [what, count] : outcome.reported) {
    counts[what] = std::stoul(count);
  }
  return counts;
}

class RandomBodies : public testing::TestWithParam<std::size_t> {};

TEST_P(RandomBodies, AreParsedAlike) {
  const std::size_t cases =
      support::NumberInVariable("ZANCGI_RANDOM_CASES", kRandomCases) / kShards;
  const std::size_t seed =
      support::NumberInVariable("ZANCGI_RANDOM_SEED", 20261121) * kShards +
      GetParam();
  Counts counts =
      Compare([&](Comparison& comparison, const std::string& folder) {
        BodyMaker maker(seed, folder);
        for (std::size_t i = 0; i < cases; ++i) comparison.Check(maker.Make());
      });
  std::cout << counts["cases"] << " cases from seed " << seed << ": "
            << counts["uploads"] << " with uploads, " << counts["errors"]
            << " with errors, " << counts["pauses"]
            << " with reads of nothing, " << counts["spins"]
            << " without an end\n";
  // Otherwise the bodies would prove little.
  EXPECT_GT(counts["uploads"], cases / 10);
  EXPECT_GT(counts["errors"], cases / 50);
  EXPECT_GT(counts["pauses"], cases / 100);
  EXPECT_GT(counts["spins"], cases / 1000);
}

INSTANTIATE_TEST_SUITE_P(Shard, RandomBodies,
                         testing::Range(std::size_t{0}, kShards));

struct NamedBody {
  const char* name;
  std::string content_type;
  std::string bytes;
};

/// Short enough for every pair of cuts.
const NamedBody kShortBodies[] = {
    {"Field", kForm, Field("a", "1") + kFormEnd},
    {"Upload", kForm,
     Part("name=\"u\"; filename=\"f\"\r\nContent-Type: text/plain", "x\r\n-y") +
         kFormEnd},
    {"QueryString", "application/x-www-form-urlencoded", "a=1&b=%41+c&=x&d"},
    {"EmptyUpload", kForm, Upload("u", "f", "") + kFormEnd},
    {"BoundaryWithCr", "multipart/form-data; boundary=\rX",
     "--\rX\r\nContent-Disposition: form-data; name=\"u\"; filename=\"f\"\r\n"
     "\r\n\r\n--\r\r\n--\rX--\r\n"},
};

const NamedBody kBodies[] = {
    {"TwoFields", kForm, Field("a", "1\r\n2") + Field("a", "3") + kFormEnd},
    {"Mixed", kForm,
     Field("a", "1") + Upload("u", "f", "\r\n\r\n--X\r--XY\n") +
         Field("b", "") + Upload("v", "g", "last") + kFormEnd},
    {"SameFileName", kForm,
     Upload("u", "f", "first") + Upload("v", "f", "second") + kFormEnd},
    {"EmptyFileInput", kForm, Upload("u", "", "") + Field("a", "1") + kFormEnd},
    {"Preamble", kForm, "preamble\r\n" + Field("a", "1") + kFormEnd + "end"},
    {"OtherDisposition", kForm,
     "--XY\r\nContent-Disposition: attachment; filename=\"x\"\r\n\r\nskipped"
     "\r\n" +
         Field("a", "1") + kFormEnd},
    {"AfterTheEnd", kForm,
     Upload("u", "f", "data") + kFormEnd + Upload("u", "f", "more") + kFormEnd},
    {"ManySeparatorBeginnings", kForm,
     Upload("u", "f", "\r\r\n\r\n-\r\n--\r\n--X\r\n--X\r\n--XX\r") + kFormEnd},
};

void PrintTo(const NamedBody& body, std::ostream* out) { *out << body.name; }

std::string NameOf(const testing::TestParamInfo<NamedBody>& info) {
  return info.param.name;
}

Request ToRequest(const NamedBody& body, const std::string& folder) {
  Request request;
  request.content_length = std::to_string(body.bytes.size());
  request.content_type = body.content_type;
  request.tmp_dir = folder;
  request.input.bytes = body.bytes;
  return request;
}

class CutBody : public testing::TestWithParam<NamedBody> {};

TEST_P(CutBody, IsParsedAlikeWithOneCut) {
  Counts counts =
      Compare([](Comparison& comparison, const std::string& folder) {
        Request request = ToRequest(GetParam(), folder);
        comparison.Check(request);
        for (std::size_t at = 1; at < request.input.bytes.size(); ++at) {
          request.input.reads = {at};
          comparison.Check(request);
        }
      });
  EXPECT_EQ(counts["cases"], GetParam().bytes.size());
}

TEST_P(CutBody, IsParsedAlikeInPiecesOfOneSize) {
  Compare([](Comparison& comparison, const std::string& folder) {
    Request request = ToRequest(GetParam(), folder);
    const std::size_t size = request.input.bytes.size();
    for (std::size_t piece = 1; piece < size; ++piece) {
      request.input.reads.assign(size / piece, piece);
      comparison.Check(request);
    }
  });
}

TEST_P(CutBody, IsParsedAlikeWhenItEndsEarly) {
  Counts counts =
      Compare([](Comparison& comparison, const std::string& folder) {
        const Request whole = ToRequest(GetParam(), folder);
        for (std::size_t at = 0; at < whole.input.bytes.size(); ++at) {
          Request request = whole;
          request.input.bytes.resize(at);
          comparison.Check(request);
          request.content_length = std::to_string(at);
          comparison.Check(request);
        }
      });
  EXPECT_EQ(counts["cases"], 2 * GetParam().bytes.size());
}

TEST_P(CutBody, IsParsedAlikeWithAnEmptyRead) {
  Compare([](Comparison& comparison, const std::string& folder) {
    comparison.spin_sample = 10;
    Request request = ToRequest(GetParam(), folder);
    for (std::size_t at = 0; at <= request.input.bytes.size(); ++at) {
      request.input.reads = {at, 0};
      if (at == 0) request.input.reads.pop_back();
      comparison.Check(request);
    }
  });
}

INSTANTIATE_TEST_SUITE_P(Short, CutBody, testing::ValuesIn(kShortBodies),
                         NameOf);
INSTANTIATE_TEST_SUITE_P(Long, CutBody, testing::ValuesIn(kBodies), NameOf);

class ShortBody : public testing::TestWithParam<NamedBody> {};

TEST_P(ShortBody, IsParsedAlikeWithTwoCuts) {
  Compare([](Comparison& comparison, const std::string& folder) {
    Request request = ToRequest(GetParam(), folder);
    const std::size_t size = request.input.bytes.size();
    for (std::size_t first = 1; first < size; ++first) {
      for (std::size_t second = 1; second < size - first; ++second) {
        request.input.reads = {first, second};
        comparison.Check(request);
      }
    }
  });
}

INSTANTIATE_TEST_SUITE_P(, ShortBody, testing::ValuesIn(kShortBodies), NameOf);

/// Returns one empty read before the first bytes, two after them, and one after
/// the second bytes.
std::vector<std::size_t> Paused(std::size_t first, std::size_t second) {
  return {0, first, 0, 0, second, 0};
}

class ReadOfNothing : public testing::TestWithParam<Nothing> {};

TEST_P(ReadOfNothing, WithoutABoundaryDelaysTheBodyOnly) {
  Counts counts =
      Compare([](Comparison& comparison, const std::string& folder) {
        for (NamedBody body : {kShortBodies[2], kShortBodies[1]}) {
          body.content_type = "application/x-www-form-urlencoded";
          Request request = ToRequest(body, folder);
          request.input.nothing = GetParam();
          const std::size_t size = request.input.bytes.size();
          for (std::size_t first = 1; first < size; ++first) {
            for (std::size_t second = 1; second <= size - first; ++second) {
              request.input.reads = Paused(first, second);
              comparison.Check(request);
            }
          }
        }
      });
  EXPECT_EQ(counts["pauses"], counts["cases"]);
}

INSTANTIATE_TEST_SUITE_P(, ReadOfNothing,
                         testing::Values(Nothing::kRead, Nothing::kWouldBlock,
                                         Nothing::kSignal));

TEST(EmptyRead, MakesTheParserSpinAtEachPlace) {
  Counts counts =
      Compare([](Comparison& comparison, const std::string& folder) {
        comparison.spin_sample = 1;
        Request request = ToRequest(kShortBodies[0], folder);
        for (std::size_t at = 1; at < request.input.bytes.size(); ++at) {
          request.input.reads = {at, 0};
          comparison.Check(request);
        }
      });
  EXPECT_EQ(counts["spins"], kShortBodies[0].bytes.size() - 1);
}

}  // namespace
}  // namespace plain

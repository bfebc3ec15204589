// Compares the library's Form with the plain one: by rules, for random forms,
// and for forms cut at every place.

#include <chrono>
#include <cstdlib>
#include <initializer_list>
#include <random>

#include "plain/form_maker.h"
#include "plain/form_product.h"
#include "plain/form_rows.h"
#include "plain/plain_form.h"
#include "support/fast_folder.h"
#include "support/test.h"
#include "support/variable.h"

namespace plain {
namespace {

using namespace support;  // NOLINT(google-build-using-namespace)

#ifdef __SANITIZE_ADDRESS__
constexpr std::size_t kRandomForms = 20'000;
#else
constexpr std::size_t kRandomForms = 100'000;
#endif
constexpr std::size_t kShards = 4;

/// Runs a body in a child with a folder for uploads and a time limit for any
/// number of forms.
void InChild(const std::function<void(const std::string& folder)>& body) {
  const Scratch scratch(FastFolder());
  RunCleanly(Child().LogLevel(0).TimeLimit(std::chrono::hours(1)),
             [&](const Reporter&) { body(scratch.Path()); });
}

/// The status of two refusals may differ: a form that breaks a rule and exceeds
/// a limit may be refused for either.
void ExpectAlike(const PlainForm& product, const PlainForm& plain,
                 const FormRequest& request) {
  if (product.status != 0 && plain.status != 0) return;
  EXPECT_EQ(product, plain) << Describe(request);
}

class FormRules : public testing::TestWithParam<FormTable> {};

TEST_P(FormRules, HoldForThePlainParser) {
  ExpectRows(GetParam(), ParsePlainForm);
}

TEST_P(FormRules, HoldForTheLibraryHoweverTheBodyArrives) {
  InChild([&](const std::string& folder) {
    for (const std::size_t size :
         std::initializer_list<std::size_t>{1, 2, 7, 65536}) {
      SCOPED_TRACE(size);
      ExpectRows(GetParam(), [&](const FormRequest& request) {
        return ReadByProduct(request, folder, Always(size));
      });
    }
  });
}

INSTANTIATE_TEST_SUITE_P(, FormRules, testing::ValuesIn(FormTables()),
                         NameOfTable);

class RandomForms : public testing::TestWithParam<std::size_t> {};

TEST_P(RandomForms, AreReadAlike) {
  const std::size_t count =
      NumberInVariable("ZANCGI_RANDOM_CASES", kRandomForms) / kShards;
  const std::size_t seed =
      NumberInVariable("ZANCGI_RANDOM_SEED", 20261122) * kShards + GetParam();
  InChild([&](const std::string& folder) {
    FormMaker maker(seed);
    std::mt19937_64 random(seed);
    for (std::size_t i = 0; i < count && !testing::Test::HasFailure(); ++i) {
      const FormRequest request = maker.Make();
      // Usually small pieces, but every size up to the largest.
      const auto sizes = [&] {
        return 1 + random() % (std::size_t{1} << random() % 17);
      };
      ExpectAlike(ReadByProduct(request, folder, sizes),
                  ParsePlainForm(request), request);
    }
  });
}

INSTANTIATE_TEST_SUITE_P(Shard, RandomForms,
                         testing::Range(std::size_t{0}, kShards));

// Otherwise the comparison would prove little.
TEST(MadeForms, AreOfAllKinds) {
  constexpr std::size_t kForms = 20'000;
  FormMaker maker(20261122);
  std::size_t with_fields = 0;
  std::size_t with_uploads = 0;
  std::map<int, std::size_t> by_status;
  for (std::size_t i = 0; i < kForms; ++i) {
    const PlainForm form = ParsePlainForm(maker.Make());
    ++by_status[form.status];
    if (!form.fields.empty()) ++with_fields;
    if (!form.uploads.empty()) ++with_uploads;
  }
  EXPECT_GT(by_status[0], kForms / 2);
  EXPECT_GT(by_status[400], kForms / 10);
  EXPECT_GT(by_status[413], kForms / 20);
  EXPECT_GT(by_status[415], kForms / 500);
  EXPECT_GT(with_fields, kForms / 3);
  EXPECT_GT(with_uploads, kForms / 5);
}

/// The rows whose bodies are small and no shorter than declared.
std::vector<FormRequest> SmallBodies() {
  constexpr std::size_t kLongest = 400;
  std::vector<FormRequest> bodies;
  for (const FormTable& table : FormTables()) {
    for (const FormRow& row : table.rows) {
      const FormRequest& request = row.request;
      const auto size = static_cast<std::int64_t>(request.body.size());
      if (request.method != "POST" || request.body.size() > kLongest) continue;
      if (request.declared_length == size) bodies.push_back(request);
    }
  }
  return bodies;
}

TEST(SmallForms, AreReadAlikeHoweverTheyAreCutInTwoOrThree) {
  InChild([](const std::string& folder) {
    const std::vector<FormRequest> bodies = SmallBodies();
    EXPECT_GT(bodies.size(), 100U);
    for (const FormRequest& request : bodies) {
      const PlainForm whole = ReadByProduct(request, folder, Always(65536));
      for (std::size_t cut = 1; cut < request.body.size(); ++cut) {
        for (const std::size_t second : {std::size_t{1}, std::size_t{65536}}) {
          std::size_t reads = 0;
          const auto sizes = [&] {
            ++reads;
            return reads == 1 ? cut : reads == 2 ? second : 65536;
          };
          ASSERT_EQ(ReadByProduct(request, folder, sizes), whole)
              << "cut after " << cut << " and " << second << ": "
              << Describe(request);
        }
      }
    }
  });
}

TEST(SmallForms, AreRefusedWhenTheyEndEarly) {
  InChild([](const std::string& folder) {
    for (FormRequest request : SmallBodies()) {
      if (ParsePlainForm(request).status != 0) continue;
      while (!request.body.empty()) {
        request.body.pop_back();
        ASSERT_EQ(ReadByProduct(request, folder, Always(65536)).status, 400)
            << Describe(request);
      }
    }
  });
}

// The declared length is cut as well, so only a missing closing boundary shows
// that something is missing.
TEST(SmallForms, AreReadAlikeWhenTheyAreShorter) {
  InChild([](const std::string& folder) {
    for (FormRequest request : SmallBodies()) {
      while (!request.body.empty()) {
        request.body.pop_back();
        --request.declared_length;
        ExpectAlike(ReadByProduct(request, folder, Always(65536)),
                    ParsePlainForm(request), request);
        if (testing::Test::HasFailure()) return;
      }
    }
  });
}

}  // namespace
}  // namespace plain

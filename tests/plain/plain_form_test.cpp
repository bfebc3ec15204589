// The plain parser of forms: rule by rule, and forms made by chance of which is
// known what they hold.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <map>

#include "plain/form_maker.h"
#include "plain/form_rows.h"
#include "plain/plain_form.h"

namespace plain {
namespace {

constexpr std::size_t kMadeForms = 20'000;
constexpr std::uint64_t kSeed = 20261122;

class FormRules : public testing::TestWithParam<FormTable> {};

TEST_P(FormRules, HoldForThePlainParser) {
  ExpectRows(GetParam(), [](const FormRequest& request) {
    return ParsePlainForm(request);
  });
}

INSTANTIATE_TEST_SUITE_P(, FormRules, testing::ValuesIn(FormTables()),
                         NameOfTable);

TEST(MadeForms, HoldWhatTheirMakerKnows) {
  FormMaker maker(kSeed);
  for (std::size_t i = 0; i < kMadeForms && !testing::Test::HasFailure(); ++i) {
    const MadeForm made = maker.Make();
    if (!made.known) continue;
    EXPECT_EQ(ParsePlainForm(made.request), *made.known)
        << testing::PrintToString(made.request.content_type) << "\n"
        << testing::PrintToString(made.request.query) << "\n"
        << testing::PrintToString(made.request.body);
  }
}

// Or a comparison of two parsers would prove little.
TEST(MadeForms, AreOfAllKinds) {
  FormMaker maker(kSeed);
  std::size_t with_fields = 0;
  std::size_t with_uploads = 0;
  std::size_t taken_in_doubt = 0;
  std::size_t refused_in_doubt = 0;
  std::map<int, std::size_t> by_status;
  for (std::size_t i = 0; i < kMadeForms; ++i) {
    const MadeForm made = maker.Make();
    const PlainForm form = ParsePlainForm(made.request);
    ++by_status[form.status];
    if (!form.fields.empty()) ++with_fields;
    if (!form.uploads.empty()) ++with_uploads;
    if (!made.known) {
      ++(form.status == 0 ? taken_in_doubt : refused_in_doubt);
    }
  }
  EXPECT_GT(by_status[0], kMadeForms / 2);
  EXPECT_GT(by_status[400], kMadeForms / 10);
  EXPECT_GT(by_status[413], kMadeForms / 20);
  EXPECT_GT(by_status[415], kMadeForms / 500);
  EXPECT_GT(with_fields, kMadeForms / 3);
  EXPECT_GT(with_uploads, kMadeForms / 5);
  EXPECT_GT(taken_in_doubt, kMadeForms / 20);
  EXPECT_GT(refused_in_doubt, kMadeForms / 10);
}

}  // namespace
}  // namespace plain

// The plain parser of forms: rule by rule, and forms made by chance of which is
// known what they hold.

#include <gtest/gtest.h>

#include "plain/form_rows.h"
#include "plain/plain_form.h"

namespace plain {
namespace {

class FormRules : public testing::TestWithParam<FormTable> {};

TEST_P(FormRules, HoldForThePlainParser) {
  ExpectRows(GetParam(), [](const FormRequest& request) {
    return ParsePlainForm(request);
  });
}

INSTANTIATE_TEST_SUITE_P(, FormRules, testing::ValuesIn(FormTables()),
                         NameOfTable);

}  // namespace
}  // namespace plain

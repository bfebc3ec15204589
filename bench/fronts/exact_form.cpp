// The workload "form" with zan_cgi::Form.

#include <zancgi/form.h>
#include <zancgi/zancgi.h>

#include <exception>

#include "../field_summary.h"
#include "answer.h"

int main(int /*argc*/, char** argv) try {
  zan_cgi::Cgi cgi(argv[0], "bench");
  zan_cgi::Form::Limits limits;
  limits.values = 32 * 1024 * 1024;
  limits.parts = 1000000;
  const zan_cgi::Form form(cgi, limits);
  bench::FieldSummary fields;
  for (const zan_cgi::Form::Field& field : form.fields()) {
    fields.Add(field.value);
  }
  return bench::Answer().Add(fields.Line()).Send();
} catch (const std::exception&) {
  return 1;
}

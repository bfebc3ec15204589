#include "plain/form_product.h"

#include <gtest/gtest-printers.h>
#include <poll.h>
#include <sys/types.h>
#include <zancgi/form.h>
#include <zancgi/testing/scratch.h>

#include <algorithm>
#include <filesystem>
#include <ostream>
#include <stdexcept>
#include <string_view>

#include "support/system_calls.h"
#include "support/variable.h"

namespace plain {
namespace {

using testing::PrintToString;

zan_cgi::Form::Limits LimitsOf(const PlainLimits& plain) {
  zan_cgi::Form::Limits limits;
  limits.body = plain.body;
  limits.value = plain.value;
  limits.values = plain.values;
  limits.parts = plain.parts;
  limits.header = plain.header;
  return limits;
}

PlainForm WhatIsIn(const zan_cgi::Form& form) {
  PlainForm plain;
  for (const auto& [name, value] : form.fields()) {
    plain.fields.push_back({name, value});
  }
  for (const zan_cgi::Form::Upload& upload : form.uploads()) {
    std::string content = zan_cgi::testing::ReadFile(form.Path(upload));
    if (upload.size != static_cast<std::int64_t>(content.size())) {
      throw std::runtime_error("the size of an upload is wrong");
    }
    plain.uploads.push_back(
        {upload.field, upload.name, upload.type, std::move(content)});
  }
  return plain;
}

PlainForm ReadForm(const FormRequest& request, const std::string& folder) {
  zan_cgi::Cgi cgi("/usr/bin/front", "");
  cgi.SetTmpDir(folder);
  try {
    return WhatIsIn(zan_cgi::Form(cgi, LimitsOf(request.limits)));
  } catch (const zan_cgi::FormError& error) {
    return {error.status(), {}, {}};
  }
}

}  // namespace

void PrintTo(const PlainForm& form, std::ostream* out) {
  *out << form.status;
  for (const PlainField& field : form.fields) {
    *out << " " << PrintToString(field.name) << "="
         << PrintToString(field.value);
  }
  for (const PlainUpload& upload : form.uploads) {
    *out << " " << PrintToString(upload.field) << ":"
         << PrintToString(upload.name) << " (" << PrintToString(upload.type)
         << ")=" << PrintToString(upload.content);
  }
}

std::string Describe(const FormRequest& request) {
  return request.method + " " + PrintToString(request.content_type) + " " +
         PrintToString(request.query) + " " +
         std::to_string(request.declared_length) + " " +
         PrintToString(request.body);
}

PlainForm ReadByProduct(const FormRequest& request, const std::string& folder,
                        const ReadSizes& sizes) {
  support::SetVariable("REQUEST_METHOD", request.method);
  support::SetVariable("CONTENT_TYPE", request.content_type);
  support::SetVariable("QUERY_STRING", request.query);
  support::SetVariable("CONTENT_LENGTH",
                       std::to_string(request.declared_length));
  std::string_view to_read = request.body;
  support::Replace({
      .poll =
          [](pollfd* entries, nfds_t /*count*/, int /*milliseconds*/) {
            entries[0].revents = POLLIN;
            return 1;
          },
      .read =
          [&](void* buffer, std::size_t size) {
            const std::size_t count = to_read.copy(static_cast<char*>(buffer),
                                                   std::min(size, sizes()));
            to_read.remove_prefix(count);
            return static_cast<ssize_t>(count);
          },
  });
  // Cgi changes the current directory.
  const std::filesystem::path work_dir = std::filesystem::current_path();
  PlainForm form = ReadForm(request, folder);
  std::filesystem::current_path(work_dir);
  support::Replace({});
  if (!std::filesystem::is_empty(folder)) {
    throw std::runtime_error("the file of an upload was not removed");
  }
  return form;
}

}  // namespace plain

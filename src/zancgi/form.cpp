#include <zancgi/form.h>
#include <zancgi/zancgi.h>

#include <tov/env.h>

#include <algorithm>
#include <functional>
#include <map>
#include <optional>
#include <string_view>
#include <type_traits>
#include <utility>

#include "body_reader.h"
#include "confinement.h"
#include "form_collector.h"
#include "form_contents.h"
#include "header_words.h"
#include "http_text.h"
#include "multipart.h"
#include "upload_spool.h"
#include "urlencoded_form.h"

namespace zan_cgi {

// Limits.

void FormCollector::ThrowTooManyParts() const {
  throw FormError(413, "the form has more than " +
                           std::to_string(limits_.parts) +
                           " fields and uploads");
}

void FormCollector::ThrowValueTooLong() const {
  throw FormError(413, "a value of the form is longer than " +
                           std::to_string(limits_.value) + " bytes");
}

void FormCollector::ThrowTooMuchText() const {
  throw FormError(413,
                  "the names and values of the form together are longer than " +
                      std::to_string(limits_.values) + " bytes");
}

// Reading the form.

namespace {

using Files = std::map<std::string, Cgi::Data::FileInfo>;

/// Returns the directory for the uploads of a request.
std::string UploadDirectory(const Cgi::Data& request) {
  if (!request.tmp_dir.empty()) return request.tmp_dir;
  if (const char* const home = AccountHome()) return home;
  const std::string directory = tov_env::GetEnv("TMP");
  return directory.empty() ? "/tmp" : directory;
}

void ReadQueryString(FormCollector& form) {
  UrlencodedParser(form).Take(tov_env::GetEnv("QUERY_STRING"), true);
}

void ReadUrlencoded(BodyReader& body, FormCollector& form) {
  UrlencodedParser parser(form);
  while (body.ReadMore()) {
    body.Consume(parser.Take(body.Unread(), false));
  }
  parser.Take(body.Unread(), true);
}

[[noreturn]] void RefuseBoundary() {
  throw FormError(400, "the form announces no valid boundary");
}

/// RFC 2046 section 5.1.1.
bool IsBoundary(std::string_view text) {
  constexpr std::size_t kLongest = 70;
  return !text.empty() && text.size() <= kLongest && text.back() != ' ' &&
         std::none_of(text.begin(), text.end(), IsControl);
}

/// Returns the boundary that a media type announces.
std::string AnnouncedBoundary(std::string_view type) {
  std::optional<std::string> boundary;
  ParameterReader parameters(type, Escapes::kAll);
  while (parameters.Next()) {
    if (!parameters.Is("boundary")) continue;
    if (boundary) RefuseBoundary();
    boundary = std::move(parameters.value());
  }
  if (!parameters.IsComplete()) {
    throw FormError(400, "the media type of the form is malformed");
  }
  if (!boundary || !IsBoundary(*boundary)) RefuseBoundary();
  return *std::move(boundary);
}

void ReadBodyForm(BodyReader& body, FormCollector& form) {
  const std::string type = tov_env::GetEnv("CONTENT_TYPE");
  const std::string_view media_type = FirstWord(type);
  body.TakeLength(form.limits().body);
  if (EqualWithoutCase(media_type, "multipart/form-data")) {
    MultipartParser(body, form, AnnouncedBoundary(type)).Parse();
  } else if (EqualWithoutCase(media_type,
                              "application/x-www-form-urlencoded")) {
    ReadUrlencoded(body, form);
  } else if (body.length() > 0 || !Trimmed(type).empty()) {
    throw FormError(415, "the type of the body is none of a form");
  }
}

void ReadForm(BodyReader& body, FormCollector& form) {
  const std::string method = tov_env::GetEnv("REQUEST_METHOD");
  if (method == "GET" || method == "HEAD") {
    ReadQueryString(form);
  } else {
    ReadBodyForm(body, form);
  }
}

/// Returns the key of an upload in the record: the name that the client sent,
/// with a number appended if another upload has that name.
/// @param numbers  the last number appended to each name
std::string FreeKey(const std::string& name, const Files& files,
                    std::map<std::string, int>& numbers) {
  if (!files.contains(name)) return name;
  int& number = numbers.try_emplace(name, 1).first->second;
  for (;;) {
    std::string key = name + " (" + std::to_string(++number) + ")";
    if (!files.contains(key)) return key;
  }
}

/// Stores the form in the request record.
void Publish(FormCollector& collected, Cgi::Data& request) {
  collected.spool().Publish();
  std::vector<std::string> paths = collected.spool().Paths();
  FormContents& form = AttachForm(request);
  form.fields = std::move(collected.fields());
  form.uploads = std::move(collected.uploads());
  Files files;
  std::map<std::string, int> numbers;
  for (std::size_t i = 0; i < paths.size(); ++i) {
    const Form::Upload& upload = form.uploads[i];
    form.keys.push_back(FreeKey(upload.name, files, numbers));
    files[form.keys.back()] = {std::move(paths[i]), upload.size};
  }
  // Nothing below can fail. The record owns the files from here on.
  request.files.swap(files);
  form.owes_params = true;
  collected.spool().Release();
}

/// Calls a function with the body and returns its result. If it throws,
/// destroys its objects first and then drops the rest of the body.
template <class Function>
auto ReadOrDrain(int idle, const Function& read) {
  BodyReader body(idle);
  try {
    return read(body);
  } catch (...) {
    body.Drain();
    throw;
  }
}

}  // namespace

Form::Form(Cgi& cgi) : Form(cgi, Limits()) {}

Form::Form(Cgi& cgi, const Limits& limits) {
  Cgi::Data& request = *cgi.data_;
  if (request.parsed) {
    throw std::logic_error(
        "the input has been parsed already: make the Form, once, before "
        "anything asks for parameters or uploads");
  }
  // Marked first, so that after a failure nothing else parses the rest.
  request.parsed = true;
  ReadOrDrain(limits.idle, [&](BodyReader& body) {
    FormCollector form(limits, UploadDirectory(request));
    ReadForm(body, form);
    Publish(form, request);
  });
  request_ = cgi.data_;
}

Form::Form(const Form&) noexcept = default;
Form& Form::operator=(const Form&) noexcept = default;
Form::~Form() = default;

// Results.

bool Form::Has(const std::string& name) const {
  const std::vector<Field>& all = fields();
  return std::any_of(all.begin(), all.end(),
                     [&](const Field& field) { return field.name == name; });
}

std::string Form::Value(const std::string& name) const {
  for (const Field& field : fields()) {
    if (field.name == name) return field.value;
  }
  return "";
}

std::vector<std::string> Form::Values(const std::string& name) const {
  std::vector<std::string> values;
  for (const Field& field : fields()) {
    if (field.name == name) values.push_back(field.value);
  }
  return values;
}

const std::vector<Form::Field>& Form::fields() const noexcept {
  return FormOf(*request_).fields;
}

const std::vector<Form::Upload>& Form::uploads() const noexcept {
  return FormOf(*request_).uploads;
}

namespace {

bool IsAlike(const Form::Upload& a, const Form::Upload& b) {
  return a.field == b.field && a.name == b.name && a.type == b.type &&
         a.size == b.size;
}

/// Whether the object is an element of the list and not a copy.
bool IsIn(const std::vector<Form::Upload>& uploads,
          const Form::Upload& upload) {
  // The operator < is undefined for pointers into different objects; std::less
  // is not.
  const std::less<> is_before;
  const Form::Upload* const begin = uploads.data();
  return !is_before(&upload, begin) &&
         is_before(&upload, begin + uploads.size());
}

/// Returns the index of an upload, or of the first one with equal members.
std::size_t IndexOf(const Form::Upload& upload,
                    const std::vector<Form::Upload>& uploads) {
  if (IsIn(uploads, upload)) {
    return static_cast<std::size_t>(&upload - uploads.data());
  }
  const auto found = std::find_if(
      uploads.begin(), uploads.end(),
      [&](const Form::Upload& other) { return IsAlike(other, upload); });
  if (found == uploads.end()) {
    throw std::invalid_argument("the upload is not one of this form's");
  }
  return static_cast<std::size_t>(found - uploads.begin());
}

}  // namespace

std::string Form::Path(const Upload& upload) const {
  const std::size_t index = IndexOf(upload, uploads());
  return request_->files.find(FormOf(*request_).keys[index])->second.path;
}

// Bodies that are no forms.

std::string ReadBody(std::int64_t limit) {
  return ReadOrDrain(Form::Limits().idle, [&](BodyReader& body) {
    body.TakeLength(limit);
    std::string text;
    while (body.ReadMore()) {
      text.append(body.Unread());
      body.Consume(body.Unread().size());
    }
    return text;
  });
}

}  // namespace zan_cgi

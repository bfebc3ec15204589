/// @file
/// Private: collects the contents of a form within its limits.
#ifndef ZANCGI_FORM_COLLECTOR_H
#define ZANCGI_FORM_COLLECTOR_H

#include <zancgi/form.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "upload_spool.h"

namespace zan_cgi {

/// Collects fields and uploads in the order sent. Checks each limit before it
/// allocates memory.
class FormCollector {
 public:
  FormCollector(const Form::Limits& limits, std::string upload_directory)
      : limits_(limits), spool_(std::move(upload_directory)) {}

  /// @throws FormError  413 when there are too many parts
  void BeginPart() {
    if (parts_ == limits_.parts) ThrowTooManyParts();
    ++parts_;
  }

  /// Appends to a value.
  /// @throws FormError  413
  void Append(std::string& value, std::string_view more) {
    if (more.size() > limits_.value ||
        value.size() > limits_.value - more.size()) {
      ThrowValueTooLong();
    }
    CountText(more.size());
    value.append(more);
  }

  /// Counts bytes toward the limit of all names and values together.
  /// @throws FormError  413
  void CountText(std::size_t size) {
    if (size > limits_.values - text_size_) ThrowTooMuchText();
    text_size_ += size;
  }

  void AddField(std::string name, std::string value) {
    fields_.push_back({std::move(name), std::move(value)});
  }

  void AddUpload(Form::Upload upload) { uploads_.push_back(std::move(upload)); }

  const Form::Limits& limits() const { return limits_; }
  UploadSpool& spool() { return spool_; }

  std::vector<Form::Field>& fields() { return fields_; }
  std::vector<Form::Upload>& uploads() { return uploads_; }

 private:
  [[noreturn]] void ThrowTooManyParts() const;
  [[noreturn]] void ThrowValueTooLong() const;
  [[noreturn]] void ThrowTooMuchText() const;

  const Form::Limits& limits_;
  std::size_t parts_ = 0;
  std::size_t text_size_ = 0;
  std::vector<Form::Field> fields_;
  std::vector<Form::Upload> uploads_;
  UploadSpool spool_;
};

}  // namespace zan_cgi

#endif

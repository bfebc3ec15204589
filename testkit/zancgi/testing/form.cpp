#include <zancgi/testing/form.h>

#include <algorithm>
#include <cstddef>
#include <stdexcept>

namespace zan_cgi::testing {
namespace {

std::string Escaped(const std::string& name) {
  std::string escaped;
  for (const char byte : name) {
    if (byte == '"') {
      escaped += "%22";
    } else if (byte == '\r') {
      escaped += "%0D";
    } else if (byte == '\n') {
      escaped += "%0A";
    } else {
      escaped += byte;
    }
  }
  return escaped;
}

std::string WithCrLf(const std::string& text) {
  std::string normal;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] == '\r' || text[at] == '\n') {
      normal += "\r\n";
      if (text.compare(at, 2, "\r\n") == 0) ++at;
    } else {
      normal += text[at];
    }
  }
  return normal;
}

std::string Disposition(const std::string& name) {
  return "Content-Disposition: form-data; name=\"" + Escaped(WithCrLf(name)) +
         "\"";
}

}  // namespace

Form& Form::Field(const std::string& name, const std::string& value) {
  items_.emplace_back(WithCrLf(name), WithCrLf(value));
  return Part(Disposition(name) + "\r\n\r\n" + WithCrLf(value));
}

Form& Form::File(const std::string& name, const std::string& file_name,
                 const std::string& content, const std::string& content_type) {
  items_.emplace_back(WithCrLf(name), WithCrLf(file_name));
  return Part(Disposition(name) + "; filename=\"" + Escaped(file_name) +
              "\"\r\nContent-Type: " + content_type + "\r\n\r\n" + content);
}

Form& Form::EmptyFile(const std::string& name) { return File(name, "", ""); }

Form& Form::Part(const std::string& text) {
  parts_.push_back(text);
  return *this;
}

std::string Form::Boundary() const {
  std::string boundary = "----ZancgiTesting";
  const auto holds = [&](const std::string& part) {
    return part.find(boundary) != std::string::npos;
  };
  while (std::any_of(parts_.begin(), parts_.end(), holds)) boundary += 'X';
  return boundary;
}

std::string Form::Body() const {
  const std::string line = "--" + Boundary();
  std::string body;
  for (const std::string& part : parts_) {
    body.append(line).append("\r\n").append(part).append("\r\n");
  }
  return body + line + "--\r\n";
}

std::string Form::ContentType() const {
  return "multipart/form-data; boundary=" + Boundary();
}

Items Form::UrlEncodedItems() const {
  if (items_.size() != parts_.size()) {
    throw std::logic_error("a part that was added as it is has no items");
  }
  return items_;
}

}  // namespace zan_cgi::testing

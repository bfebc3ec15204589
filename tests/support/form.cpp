#include "support/form.h"

namespace support {

std::string Head(const std::string& attributes) {
  return "--XY\r\nContent-Disposition: form-data; " + attributes + "\r\n\r\n";
}

std::string FieldHead(const std::string& name) {
  return Head("name=\"" + name + "\"");
}

std::string UploadHead(const std::string& name, const std::string& file_name) {
  return Head("name=\"" + name + "\"; filename=\"" + file_name + "\"");
}

std::string Part(const std::string& attributes, const std::string& content) {
  return Head(attributes) + content + "\r\n";
}

std::string Field(const std::string& name, const std::string& value) {
  return FieldHead(name) + value + "\r\n";
}

std::string Upload(const std::string& name, const std::string& file_name,
                   const std::string& content) {
  return UploadHead(name, file_name) + content + "\r\n";
}

Child Post(const std::string& declared_length,
           const std::string& content_type) {
  return Child()
      .Env("REQUEST_METHOD", "POST")
      .Env("CONTENT_TYPE", content_type)
      .Env("CONTENT_LENGTH", declared_length);
}

Child PostOf(const std::string& body, const std::string& content_type,
             Child child) {
  return child.Env("REQUEST_METHOD", "POST")
      .Env("CONTENT_TYPE", content_type)
      .Env("CONTENT_LENGTH", std::to_string(body.size()));
}

}  // namespace support

#include "support/form.h"

namespace support {

std::string Part(const std::string& attributes, const std::string& content) {
  return "--XY\r\nContent-Disposition: form-data; " + attributes + "\r\n\r\n" +
         content + "\r\n";
}

std::string Field(const std::string& name, const std::string& value) {
  return Part("name=\"" + name + "\"", value);
}

std::string Upload(const std::string& name, const std::string& file_name,
                   const std::string& content) {
  return Part("name=\"" + name + "\"; filename=\"" + file_name + "\"", content);
}

Child Post(const std::string& declared_length,
           const std::string& content_type) {
  Child child;
  child.Env("REQUEST_METHOD", "POST")
      .Env("CONTENT_TYPE", content_type)
      .Env("CONTENT_LENGTH", declared_length);
  return child;
}

}  // namespace support

/// @file
/// Multipart forms (RFC 7578) with the boundary "XY", and requests that send
/// them.
#ifndef ZANCGI_TESTS_SUPPORT_FORM_H
#define ZANCGI_TESTS_SUPPORT_FORM_H

#include <zancgi/testing/child.h>

#include <string>

namespace support {

using zan_cgi::testing::Child;

/// The content type that announces the boundary.
inline constexpr char kForm[] = "multipart/form-data; boundary=XY";
/// The content type of a form without a boundary.
inline constexpr char kEncoded[] = "application/x-www-form-urlencoded";
/// The closing boundary line, after the last part.
inline constexpr char kFormEnd[] = "--XY--\r\n";

/// A part up to its content, with a disposition line of these attributes.
std::string Head(const std::string& attributes);
std::string FieldHead(const std::string& name);
std::string UploadHead(const std::string& name, const std::string& file_name);
/// The same with the content, and the line end that closes it.
std::string Part(const std::string& attributes, const std::string& content);
std::string Field(const std::string& name, const std::string& value);
std::string Upload(const std::string& name, const std::string& file_name,
                   const std::string& content);

/// A process that serves a POST which declares this many bytes.
Child Post(const std::string& declared_length,
           const std::string& content_type = kForm);
/// This process, made to serve a POST of this body.
Child PostOf(const std::string& body, const std::string& content_type = kForm,
             Child child = Child());

}  // namespace support

#endif

// What is small is defined here where no header defines it.
#ifndef SITE_INLINE
#define SITE_DEFINES_SMALL
#endif

#include <tov/site.h>

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace str {

std::string GetWord(std::string& text, char delimiter) {
  return GetWord(text, std::string(1, delimiter));
}

std::string GetWord(std::string& text, const std::string& delimiter) {
  const std::size_t end = text.find(delimiter);
  std::string word = text.substr(0, end);
  text = end == std::string::npos ? "" : text.substr(end + delimiter.size());
  return word;
}

std::string RGetWord(std::string& text, char delimiter) {
  const std::size_t end = text.rfind(delimiter);
  std::string word = end == std::string::npos ? text : text.substr(end + 1);
  text.erase(end == std::string::npos ? 0 : end);
  return word;
}

std::string Trim(const std::string& text) {
  constexpr const char* kWhite = " \t\r\n\v\f";
  const std::size_t begin = text.find_first_not_of(kWhite);
  if (begin == std::string::npos) return "";
  return text.substr(begin, text.find_last_not_of(kWhite) + 1 - begin);
}

std::string Append(const std::string& text, const std::string& part,
                   const std::string& separator) {
  return text.empty() ? part : text + separator + part;
}

int Int(const std::string& text) { return static_cast<int>(Int64(text)); }
std::int64_t Int64(const std::string& text) {
  return std::strtol(text.c_str(), nullptr, 10);
}
std::string Str(int value) { return std::to_string(value); }
std::string Str(long value) { return std::to_string(value); }

namespace url {

std::string Decode(const std::string& text) {
  std::string plain;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%') {
      plain += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
      i += 2;
    } else {
      plain += text[i] == '+' ? ' ' : text[i];
    }
  }
  return plain;
}

std::string Encode(const std::string& text) {
  std::string encoded;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    char escape[4] = {c};
    if (std::isalnum(byte) == 0) {
      std::snprintf(escape, sizeof(escape), "%%%02X", unsigned{byte});
    }
    encoded += escape;
  }
  return encoded;
}

}  // namespace url
}  // namespace str

namespace tov_env {

std::string GetEnv(const std::string& name) {
  const char* const value = std::getenv(name.c_str());
  return value == nullptr ? "" : value;
}

void GetAllEnvs(std::map<std::string, std::string>& variables) {
  for (char** entry = ::environ; *entry != nullptr; ++entry) {
    std::string value = *entry;
    const std::string name = str::GetWord(value, '=');
    variables[name] = value;
  }
}

}  // namespace tov_env

void tov_err::AssertError::Raise(const char*, int, const char*,
                                 const std::string& message) {
  std::fprintf(stderr, "site: assertion: %s\n", message.c_str());
}

void tov_log::Module::Write(Level level, const char* format, ...) {
  std::fprintf(stderr, "site: %s %d: ", name_.c_str(), static_cast<int>(level));
  va_list arguments;
  va_start(arguments, format);
  std::vfprintf(stderr, format, arguments);
  va_end(arguments);
  std::fputc('\n', stderr);
}

namespace tov_xml {

std::string XmlNode::GetProp(const char* name) const {
  std::string rest = tag_;
  str::GetWord(rest, std::string(" ") + name + "=\"");
  return str::GetWord(rest, '"');
}

bool Xml::LoadFromString(const std::string& text) {
  text_ = text;
  return !text.empty();
}

XmlNode Xml::GetNode(const std::string& path) const {
  const std::string name = path.substr(path.rfind('/') + 1);
  const std::size_t begin = text_.find("<" + name + " ");
  if (begin == std::string::npos) return XmlNode("");
  return XmlNode(text_.substr(begin, text_.find('>', begin) - begin));
}

}  // namespace tov_xml

namespace tov_file {

[[noreturn]] static void Fail(const std::string& what) {
  throw tov_err::Error("site: cannot " + what);
}

bool Exists(const std::string& path) {
  return ::access(path.c_str(), F_OK) == 0;
}

void RemoveFile(const std::string& path) { ::unlink(path.c_str()); }

std::pair<std::string, std::string> SplitPath(const std::string& path) {
  std::string folder = path;
  const std::string name = str::RGetWord(folder, '/');
  return {folder, name};
}

std::string ConcatPath(const std::string& folder, const std::string& name) {
  return folder + "/" + name;
}

std::string RealPath(const std::string& path) {
  char* const real = ::realpath(path.c_str(), nullptr);
  const std::string copy = real == nullptr ? path : real;
  std::free(real);
  return copy;
}

Info::Info(const std::string& path, bool) {
  struct stat status {};
  is_dir_ = ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

void Attrs::SafeSet(const std::string& path, bool) const {
  if (owner_ != ~0U && ::chown(path.c_str(), owner_, group_) != 0) {
    Fail("give " + path + " away");
  }
  if (::chmod(path.c_str(), static_cast<mode_t>(mode_)) != 0) {
    Fail("set the mode of " + path);
  }
}

void MkDir(const std::string& path, const Attrs*) {
  if (::mkdir(path.c_str(), 0700) != 0) Fail("make " + path);
}

void Move(const std::string& from, const std::string& to) {
  if (std::rename(from.c_str(), to.c_str()) != 0) Fail("move " + from);
}

Tmp::Tmp(const std::string& prefix)
    : name_(prefix + "-site-" + std::to_string(::getpid())) {}

}  // namespace tov_file

void tov_proc::Sleep(unsigned milliseconds) { ::usleep(milliseconds * 1000); }

namespace tov_client {

/// As many connections as "SITE_FAILURES" says come to nothing.
std::unique_ptr<Protocol> Connect(const std::string& name, bool) {
  static int failures = str::Int(tov_env::GetEnv("SITE_FAILURES"));
  if (failures-- > 0) throw tov_err::Error("site: no connection to " + name);
  return std::make_unique<Protocol>();
}

void Protocol::SendEnv(const std::string& line) { sent_ += line + ";"; }

void Protocol::RequestComplete() {
  answer_ = "dropped<?xml version=\"1.0\"?><doc>";
  answer_ += "<user name=\"alice\" level=\"7\"/><sent>" + sent_ + "</sent>";
  answer_ += std::string(5000, ' ') + "</doc>";
}

unsigned long Protocol::GetAnswer(char* buffer, unsigned long size) {
  const std::size_t count = answer_.copy(buffer, size, taken_);
  taken_ += count;
  return count;
}

}  // namespace tov_client

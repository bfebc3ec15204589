/// @file
/// A base library, another one than ours. <tov/err.h> and the others lead here.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <map>
#include <memory>
#include <string>
#include <utility>

// What is small is defined here, either for all or once, in site.cpp.
#ifdef SITE_INLINE
#define SITE_FUNCTION inline
#define SITE_DEFINES_SMALL
#else
#define SITE_FUNCTION
#endif

namespace site {

/// Makes each class larger than any that it could be taken for.
struct Room {
  unsigned char bytes[512] = {};
};

}  // namespace site

namespace str {

std::string GetWord(std::string& text, char delimiter);
std::string GetWord(std::string& text, const std::string& delimiter);
std::string RGetWord(std::string& text, char delimiter);
std::string Trim(const std::string& text);
std::string Append(const std::string& text, const std::string& part,
                   const std::string& separator);
int Int(const std::string& text);
std::int64_t Int64(const std::string& text);
std::string Str(int value);
std::string Str(long value);

template <class Out>
void Split(std::string text, const std::string& separator, Out& out) {
  while (!text.empty()) {
    const std::string word = GetWord(text, separator);
    if (!word.empty()) out.insert(out.end(), Trim(word));
  }
}

namespace url {

std::string Decode(const std::string& text);
std::string Encode(const std::string& text);

}  // namespace url
}  // namespace str

namespace tov_env {

std::string GetEnv(const std::string& name);
void GetAllEnvs(std::map<std::string, std::string>& variables);

}  // namespace tov_env

namespace tov_proc {

void Sleep(unsigned milliseconds);

}  // namespace tov_proc

namespace tov_err {

/// No std::runtime_error.
class Error : public std::exception {
 public:
  explicit Error(std::string text) : text_(std::move(text)) {}
  const char* what() const noexcept override { return text_.c_str(); }

 private:
  site::Room room_;
  std::string text_;
};

class Value : public Error {
 public:
  Value(const std::string& name, const std::string& value);
  ~Value() override;

 private:
  site::Room room_;
};

class Missed : public Error {
 public:
  Missed(const std::string& name, const std::string& value);
  ~Missed() override;

 private:
  site::Room room_;
};

/// Reports, and lets the caller go on.
class AssertError : public Error {
 public:
  static void Raise(const char* file, int line, const char* function,
                    const std::string& message);
};

}  // namespace tov_err

namespace tov_log {

/// Numbers alone: the names are each library's own.
enum Level : int {};

class Module {
 public:
  Module(const char* name, const char* group);
  bool Check(Level level);
  void Write(Level level, const char* format, ...);

 private:
  site::Room room_;
  std::string name_;
};

}  // namespace tov_log

namespace tov_xml {

/// A copy of an element's tag.
class XmlNode {
 public:
  operator bool() const;
  std::string GetProp(const char* name) const;

 private:
  friend class Xml;
  explicit XmlNode(std::string tag) : tag_(std::move(tag)) {}

  site::Room room_;
  std::string tag_;
};

/// The text of a document.
class Xml {
 public:
  Xml();
  ~Xml();
  bool LoadFromString(const std::string& text);
  XmlNode GetNode(const std::string& path) const;

 private:
  site::Room room_;
  std::string text_;
};

}  // namespace tov_xml

namespace tov_file {

bool Exists(const std::string& path);
void RemoveFile(const std::string& path);
std::pair<std::string, std::string> SplitPath(const std::string& path);
std::string ConcatPath(const std::string& folder, const std::string& name);
std::string RealPath(const std::string& path);

class Info {
 public:
  Info(const std::string& path, bool own_link);
  bool IsDir() const;

 private:
  site::Room room_;
  bool is_dir_;
};

class Attrs {
 public:
  Attrs(int mode);
  Attrs(int mode, unsigned owner, unsigned group);
  void SafeSet(const std::string& path, bool strict = true) const;

 private:
  site::Room room_;
  int mode_;
  unsigned owner_;
  unsigned group_;
};

void MkDir(const std::string& path, const Attrs* attrs = nullptr);
void Move(const std::string& from, const std::string& to);

/// A name alone: no file is made.
class Tmp {
 public:
  Tmp(const std::string& prefix);
  const std::string& Name() const;

 private:
  site::Room room_;
  std::string name_;
};

}  // namespace tov_file

namespace tov_client {

/// A back end within: it answers with what it was sent.
class Protocol {
 public:
  /// What comes first in the table of virtual functions is not what comes first
  /// in ours.
  virtual const char* Kind() const { return "echo"; }
  virtual ~Protocol() = default;

  void SendEnv(const std::string& line);
  void RequestComplete();
  unsigned long GetAnswer(char* buffer, unsigned long size);

 private:
  site::Room room_;
  std::string sent_;
  std::string answer_;
  std::size_t taken_ = 0;
};

std::unique_ptr<Protocol> Connect(const std::string& name, bool again = true);

}  // namespace tov_client

#ifdef SITE_DEFINES_SMALL
namespace tov_err {

SITE_FUNCTION Value::Value(const std::string& name, const std::string& value)
    : Error("site: bad " + name + " [" + value + "]") {}
SITE_FUNCTION Value::~Value() = default;
SITE_FUNCTION Missed::Missed(const std::string& name, const std::string& value)
    : Error("site: no " + name + " [" + value + "]") {}
SITE_FUNCTION Missed::~Missed() = default;

}  // namespace tov_err

SITE_FUNCTION tov_log::Module::Module(const char* name, const char* group)
    : name_(std::string(name) + "/" + group) {}
SITE_FUNCTION bool tov_log::Module::Check(Level level) {
  const char* const threshold = std::getenv("SITE_LOG");
  return threshold != nullptr && level <= std::strtol(threshold, nullptr, 10);
}

SITE_FUNCTION tov_xml::XmlNode::operator bool() const { return !tag_.empty(); }
SITE_FUNCTION tov_xml::Xml::Xml() : text_("nothing yet") {}
SITE_FUNCTION tov_xml::Xml::~Xml() { text_.clear(); }

namespace tov_file {

SITE_FUNCTION Attrs::Attrs(int mode) : mode_(mode), owner_(~0U), group_(~0U) {}
SITE_FUNCTION Attrs::Attrs(int mode, unsigned owner, unsigned group)
    : mode_(mode), owner_(owner), group_(group) {}
SITE_FUNCTION bool Info::IsDir() const { return is_dir_; }
SITE_FUNCTION const std::string& Tmp::Name() const { return name_; }

}  // namespace tov_file
#endif

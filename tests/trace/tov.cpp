#include <tov/client.h>
#include <tov/env.h>
#include <tov/err.h>
#include <tov/file.h>
#include <tov/log.h>
#include <tov/proc.h>
#include <tov/str.h>
#include <tov/xml.h>

#include <sys/stat.h>
#include <unistd.h>
#include <zancgi/testing/log.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <regex>
#include <utility>

#include "trace/script.h"

namespace support::trace {
namespace {

/// Null until Follow(): the log's modules are made before main().
constinit Script* script = nullptr;
constinit bool is_recording = false;

std::string WithoutLineEnds(std::string text) {
  for (const auto& [end, written] : {std::pair('\n', "\\n"), {'\r', "\\r"}}) {
    for (std::size_t at; (at = text.find(end)) != std::string::npos;) {
      text.replace(at, 1, written);
    }
  }
  return text;
}

/// Runs the effect that the script has for this call.
void Affect(const std::string& function) {
  if (!is_recording) return;
  std::vector<Effect>& effects = script->effects[function];
  if (effects.empty()) return;
  const Effect effect = effects.front();
  effects.erase(effects.begin());
  if (effect) effect();
}

void Enter(const std::string& function, const std::string& line) {
  Note(line);
  Affect(function);
}

std::string Written(const std::string& text) { return "'" + text + "'"; }
std::string Written(const char* text) { return Written(std::string(text)); }
std::string Written(char letter) { return Written(std::string(1, letter)); }
std::string Written(bool truth) { return truth ? "true" : "false"; }
std::string Written(unsigned long number) { return std::to_string(number); }
std::string Written(unsigned number) { return std::to_string(number); }
std::string Written(const tov_file::Attrs* attributes) {
  return attributes == nullptr ? "nullptr" : "attributes";
}

/// Enters a function.
/// @param object  what it is called of, with a dot; empty for nothing
template <class... Arguments>
void EnterOf(const std::string& object, const std::string& function,
             const Arguments&... arguments) {
  std::string line = object + function + "(";
  [[maybe_unused]] const char* separator = "";
  ((line.append(separator).append(Written(arguments)), separator = ", "), ...);
  Enter(function, line + ")");
}

template <class... Arguments>
void EnterFree(const std::string& function, const Arguments&... arguments) {
  EnterOf("", function, arguments...);
}

std::string InBrackets(const std::string& text) { return "[" + text + "]"; }

/// The name of a module's source unit. The unit that reads the cookies uses its
/// module first.
std::string NameOf(const tov_log::Module* module) {
  static const tov_log::Module* const first = module;
  return module == first ? "zancgi" : "unix";
}

/// The last Check(), until a line is written.
struct LastCheck {
  const tov_log::Module* module = nullptr;
  int level = -1;
};
constinit LastCheck last_check;

/// The node that was looked up last.
std::string looked_up;

constexpr unsigned kNobody = ~0U;

std::string AttrsOf(int mode, unsigned owner, unsigned group) {
  char octal[16];
  std::snprintf(octal, sizeof(octal), "%04o", static_cast<unsigned>(mode));
  const std::string owners =
      owner == kNobody ? "" : ", " + Written(owner) + ", " + Written(group);
  return std::string("Attrs(") + octal + owners + ")";
}

/// The line number in "source:line" at the beginning becomes "#".
std::string WithoutLineNumber(const std::string& text) {
  static const std::regex number("^([^: ]+):[0-9]+ ");
  return std::regex_replace(text, number, "$1:# ");
}

/// Real files lie in the test's own folder.
void DemandOwn(const std::string& path) {
  if (path.starts_with("/")) throw std::logic_error(path + " is not ours");
}

}  // namespace

void Follow(Script& what) { script = &what; }

void Start() {
  is_recording = true;
  Note(kStart);
}

void Note(const std::string& line) {
  static int count = 0;
  if (!is_recording) return;
  zan_cgi::testing::Mark(WithoutLineEnds(line));
  // The product loops for ever.
  if (++count == 1000) ::_exit(97);
}

}  // namespace support::trace

namespace trace = support::trace;

using trace::Enter;
using trace::EnterFree;
using trace::EnterOf;
using trace::InBrackets;
using trace::script;

namespace str {

std::string GetWord(std::string& text, char delimiter) {
  return GetWord(text, std::string(1, delimiter));
}

std::string GetWord(std::string& text, const std::string& delimiter) {
  const std::size_t end = std::min(text.find(delimiter), text.size());
  const std::string word = text.substr(0, end);
  text.erase(0, end + delimiter.size());
  return word;
}

std::string RGetWord(std::string& text, char delimiter) {
  EnterFree("RGetWord", text, delimiter);
  const std::string word = text.substr(text.rfind(delimiter) + 1);
  text.resize(text.size() - word.size() - 1);
  return word;
}

std::string Trim(const std::string& text) {
  const std::size_t begin = std::min(text.find_first_not_of(' '), text.size());
  return text.substr(begin, text.find_last_not_of(' ') + 1 - begin);
}

/// The separator also stands after an empty text.
std::string Append(const std::string& text, const std::string& part,
                   const std::string& separator) {
  EnterFree("Append", text, part, separator);
  return text + separator + part;
}

int Int(const std::string& text) {
  EnterFree("Int", text);
  return std::atoi(text.c_str());
}

std::int64_t Int64(const std::string& text) {
  EnterFree("Int64", text);
  return std::atol(text.c_str());
}

std::string Str(int number) { return InBrackets(std::to_string(number)); }
std::string Str(long number) { return InBrackets(std::to_string(number)); }

namespace url {

std::string Decode(const std::string& text) {
  if (text.find_first_of("+%") == std::string::npos) return text;
  trace::Affect("Decode");
  return InBrackets(text);
}

std::string Encode(const std::string& text) {
  EnterFree("Encode", text);
  return InBrackets(text);
}

}  // namespace url
}  // namespace str

namespace tov_env {

std::string GetEnv(const std::string& name) {
  const auto variable = script->environment.find(name);
  return variable == script->environment.end() ? "" : variable->second;
}

void GetAllEnvs(std::map<std::string, std::string>& variables) {
  EnterFree("GetAllEnvs");
  variables = script->environment;
}

}  // namespace tov_env

namespace tov_err {

Value::Value(const std::string& name, const std::string& value)
    : Error("Value(\"" + name + "\", \"" + value + "\")") {}
Value::~Value() = default;

Missed::Missed(const std::string& name, const std::string& value)
    : Error("Missed(\"" + name + "\", \"" + value + "\")") {}
Missed::~Missed() = default;

/// Returns, unless the script throws.
void AssertError::Raise(const char* file, int /*line*/, const char* function,
                        const std::string& message) {
  const std::string path = file;
  EnterFree("Raise", path.substr(path.rfind('/') + 1), function, message);
}

}  // namespace tov_err

namespace tov_log {

Module::Module(const char* name, const char* group) {
  EnterFree("Module", name, group);
}

Module::~Module() { EnterFree("~Module"); }

bool Module::Check(Level level) {
  trace::NameOf(this);
  trace::last_check = {this, level};
  // It is free to call what it likes.
  errno = 0;
  return script->logs;
}

void Module::Write(Level level, const char* format, ...) {
  char text[1000];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof(text), format, arguments);
  va_end(arguments);
  const bool is_checked =
      trace::last_check.module == this && trace::last_check.level == level;
  trace::last_check = {};
  trace::Note(trace::NameOf(this) + ' ' + std::to_string(level) + ": " +
              trace::WithoutLineNumber(text) +
              (is_checked ? "" : " UNCHECKED"));
}

}  // namespace tov_log

namespace tov_xml {

Xml::Xml() = default;
Xml::~Xml() = default;

bool Xml::LoadFromString(const std::string& text) {
  EnterFree("LoadFromString", text);
  trace::looked_up = "";
  text_ = text;
  return true;
}

/// Knows elements by the end of the path alone.
XmlNode Xml::GetNode(const std::string& path) const {
  if (std::exchange(trace::looked_up, path) != path) EnterFree("GetNode", path);
  std::string rest = text_;
  str::GetWord(rest, "<" + path.substr(path.rfind('/') + 1) + " ");
  return XmlNode(rest.empty() ? "" : path + "\n" + rest);
}

XmlNode::operator bool() const { return !tag_.empty(); }

std::string XmlNode::GetProp(const char* name) const {
  std::string rest = tag_;
  EnterOf(str::GetWord(rest, '\n') + ".", "GetProp", name);
  rest = str::GetWord(rest, '>');
  str::GetWord(rest, std::string(name) + "=\"");
  return str::GetWord(rest, '"');
}

}  // namespace tov_xml

namespace tov_file {

bool Exists(const std::string& path) {
  EnterFree("Exists", path);
  return ::access(path.c_str(), F_OK) == 0;
}

void RemoveFile(const std::string& path) {
  EnterFree("RemoveFile", path);
  trace::DemandOwn(path);
  ::unlink(path.c_str());
}

std::pair<std::string, std::string> SplitPath(const std::string& path) {
  const std::size_t slash = path.rfind('/') + 1;
  return {path.substr(0, slash), InBrackets(path.substr(slash))};
}

std::string ConcatPath(const std::string& folder, const std::string& name) {
  EnterFree("ConcatPath", folder, name);
  return folder + "/" + name;
}

/// Of a path that cannot be entered.
std::string RealPath(const std::string& path) {
  EnterFree("RealPath", path);
  return InBrackets(path);
}

Info::Info(const std::string& path, bool own_link) : is_dir_(false) {
  EnterFree("Info", path, own_link);
  struct stat status {};
  is_dir_ = ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

bool Info::IsDir() const { return is_dir_; }

Attrs::Attrs(int mode) : Attrs(mode, trace::kNobody, trace::kNobody) {}

Attrs::Attrs(int mode, unsigned owner, unsigned group)
    : mode_(mode), owner_(owner), group_(group) {
  Enter("Attrs", trace::AttrsOf(mode, owner, group));
}

/// Changes nothing.
void Attrs::SafeSet(const std::string& path, bool strict) const {
  EnterOf(trace::AttrsOf(mode_, owner_, group_) + ".", "SafeSet", path, strict);
}

void MkDir(const std::string& path, const Attrs* attrs) {
  EnterFree("MkDir", path, attrs);
  trace::DemandOwn(path);
  ::mkdir(path.c_str(), 0700);
}

void Move(const std::string& from, const std::string& to) {
  EnterFree("Move", from, to);
  trace::DemandOwn(to);
  std::rename(from.c_str(), to.c_str());
}

/// Makes no file.
Tmp::Tmp(const std::string& prefix) {
  static int number = 0;
  EnterFree("Tmp", prefix);
  name_ = prefix + "-" + std::to_string(++number);
}

const std::string& Tmp::Name() const { return name_; }

}  // namespace tov_file

namespace tov_proc {

void Sleep(unsigned milliseconds) { EnterFree("Sleep", milliseconds); }

}  // namespace tov_proc

namespace tov_client {
namespace {

class Conversation : public Protocol {
 public:
  Conversation() = default;
  ~Conversation() override { trace::Note("~Protocol()"); }
  Conversation(const Conversation&) = delete;
  Conversation& operator=(const Conversation&) = delete;
};

}  // namespace

std::unique_ptr<Protocol> Connect(const std::string& name, bool again) {
  EnterFree("Connect", name, again);
  return std::make_unique<Conversation>();
}

void Protocol::SendEnv(const std::string& line) { EnterFree("SendEnv", line); }

void Protocol::RequestComplete() {
  EnterFree("RequestComplete");
  if (script->answers.empty()) return;
  answer_ = script->answers.front();
  script->answers.erase(script->answers.begin());
}

unsigned long Protocol::GetAnswer(char* buffer, unsigned long size) {
  EnterFree("GetAnswer", size);
  const std::size_t end = answer_.find('\n', taken_);
  const std::size_t line = end == std::string::npos ? end : end + 1 - taken_;
  const std::size_t count = answer_.copy(buffer, std::min(size, line), taken_);
  taken_ += count;
  return count;
}

}  // namespace tov_client

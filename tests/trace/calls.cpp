#include "trace/calls.h"

#include <cxxabi.h>
#include <tov/client.h>
#include <tov/err.h>
#include <tov/file.h>
#include <tov/log.h>
#include <tov/proc.h>
#include <tov/str.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iomanip>
#include <ios>
#include <memory>
#include <sstream>
#include <string_view>
#include <typeinfo>

#include "support/line_number.h"
#include "support/switch_calls.h"

namespace support::trace {
namespace {

/// Null while nothing is recorded.
constinit Scene* scene = nullptr;
constinit bool is_logging = false;

/// The last Check(), until a line is written.
constinit std::pair<const tov_log::Module*, int> checked = {};

void Note(std::string line) {
  static int count = 0;
  if (scene == nullptr) return;
  for (std::size_t end; (end = line.find('\n')) != line.npos;) {
    line.replace(end, 1, "\\n");
  }
  zan_cgi::testing::Mark(line);
  // Otherwise a product that loops would never end.
  if (++count == 1000) ::_exit(97);
}

/// Records a call and runs the effect that the scene has for it.
void EnterAs(const std::string& line) {
  Note(line);
  if (scene == nullptr) return;
  std::vector<Effect>& effects = scene->effects[line];
  if (effects.empty()) return;
  const Effect effect = effects.front();
  effects.erase(effects.begin());
  if (effect) effect();
}

template <class Value>
void Write(const Value& value, std::ostream& line) {
  if constexpr (std::is_convertible_v<const Value&, std::string_view>) {
    line << std::quoted(std::string_view(value), '\'');
  } else {
    line << value;
  }
}

template <class... Arguments>
void Enter(const char* function, const Arguments&... arguments) {
  std::ostringstream line;
  line << std::boolalpha << function << "(";
  [[maybe_unused]] const char* separator = "";
  ((line << std::exchange(separator, ", "), Write(arguments, line)), ...);
  EnterAs(line.str() + ")");
}

std::string NameOf(const std::exception& error) {
  const std::unique_ptr<char, decltype(&std::free)> name(
      abi::__cxa_demangle(typeid(error).name(), nullptr, nullptr, nullptr),
      &std::free);
  return name.get();
}

Strings CallsOf(Scene given, const std::function<void(Cgi&)>& work, bool logs) {
  const Scratch folder;
  folder.MakeDir("spool");
  const Input input = Input::File(given.input);
  const Outcome outcome =
      RunCleanly(given.child.WorkDir(folder.Path()).StandardInput(input), [&] {
        auto cgi = std::make_unique<Cgi>("cgi/front", "panel");
        const Recording system(
            {.accounts = {{"alice", 1001, 1002, "."}}, .free_blocks = 1000});
        scene = &given;
        is_logging = logs;
        Try([&] { work(*cgi); });
        cgi.reset();
        scene = nullptr;
      });
  return outcome.Logged(-1);
}

}  // namespace

void ExpectCalls(const Scene& given, const std::function<void(Cgi&)>& work,
                 const std::string& expected) {
  Strings lines;
  std::istringstream text(expected);
  for (std::string line; std::getline(text >> std::ws, line);) {
    lines.push_back(line);
  }
  EXPECT_EQ(CallsOf(given, work, true), lines);
  SCOPED_TRACE("with the log switched off");
  std::erase_if(
      lines, [](const std::string& line) { return line.starts_with("log "); });
  EXPECT_EQ(CallsOf(given, work, false), lines);
}

void Try(const std::function<void()>& work) {
  try {
    work();
  } catch (const std::exception& error) {
    Note("throws " + NameOf(error) + ": " + error.what());
  }
}

void Result(const std::string& text) { Note("= " + text); }

}  // namespace support::trace

using support::trace::Enter;

/// The separator also stands after an empty text.
std::string str::Append(const std::string& text, const std::string& part,
                        const std::string& separator) {
  Enter("Append", text, part, separator);
  return text + separator + part;
}

/// Returns, unless the scene has it throw.
void tov_err::AssertError::Raise(const char* file, int /*line*/,
                                 const char* function,
                                 const std::string& message) {
  const std::string source = support::fs::path(file).filename();
  Enter("Raise", source, function, message);
}

void tov_proc::Sleep(unsigned milliseconds) { Enter("Sleep", milliseconds); }

namespace tov_log {

bool Module::Check(Level level) {
  support::trace::checked = {this, level};
  // Any base library may change it.
  errno = 0;
  return support::trace::is_logging;
}

void Module::Write(Level level, const char* format, ...) {
  char text[1000];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof(text), format, arguments);
  va_end(arguments);
  const std::pair<const Module*, int> last =
      std::exchange(support::trace::checked, {});
  const bool is_checked = last.first == this && last.second == level;
  support::trace::Note("log " + std::to_string(level) + ": " +
                       support::WithoutLineNumber(text) +
                       (is_checked ? "" : " UNCHECKED"));
}

}  // namespace tov_log

namespace tov_file {

bool Exists(const std::string& path) {
  Enter("Exists", path);
  return ::access(path.c_str(), F_OK) == 0;
}

void RemoveFile(const std::string& path) {
  Enter("RemoveFile", path);
  ::unlink(path.c_str());
}

std::string ConcatPath(const std::string& folder, const std::string& name) {
  Enter("ConcatPath", folder, name);
  return folder + "/" + name;
}

/// Of a path that cannot be entered.
std::string RealPath(const std::string& path) {
  Enter("RealPath", path);
  return "[" + path + "]";
}

Info::Info(const std::string& path, bool own_link) {
  Enter("Info", path, own_link);
  struct stat status {};
  ::lstat(path.c_str(), &status);
  mode_ = status.st_mode;
}

/// Changes nothing.
void Attrs::SafeSet(const std::string& path, bool must_exist) const {
  std::ostringstream attributes;
  attributes << '0' << std::oct << mode_ << std::dec;
  if (sets_owner_) attributes << ' ' << owner_ << ':' << group_;
  Enter("SafeSet", path, attributes.str(), must_exist);
}

void MkDir(const std::string& path, const Attrs* attrs) {
  Enter("MkDir", path, attrs);
  ::mkdir(path.c_str(), 0700);
}

void Move(const std::string& from, const std::string& to) {
  Enter("Move", from, to);
  std::rename(from.c_str(), to.c_str());
}

/// Makes no file.
Tmp::Tmp(const std::string& prefix) : name_(prefix + "-1") {
  Enter("Tmp", prefix);
}

}  // namespace tov_file

namespace tov_client {

class Protocol::Wire {
 public:
  std::istringstream answer;
  int calls = 0;
};

Protocol::Protocol(std::unique_ptr<Wire> wire) : wire_(std::move(wire)) {}

Protocol::~Protocol() { support::trace::Note("~Protocol()"); }

std::unique_ptr<Protocol> Connect(const std::string& name, bool reserved) {
  Enter("Connect", name, reserved);
  return std::unique_ptr<Protocol>(
      new Protocol(std::make_unique<Protocol::Wire>()));
}

void Protocol::SendEnv(const std::string& line) { Enter("SendEnv", line); }

void Protocol::RequestComplete() {
  Enter("RequestComplete");
  support::Strings& answers = support::trace::scene->answers;
  wire_->answer.str(answers.front());
  answers.erase(answers.begin());
}

unsigned long Protocol::GetAnswer(char* buffer, unsigned long size) {
  support::trace::EnterAs("GetAnswer(" + std::to_string(size) + ") " +
                          std::to_string(++wire_->calls));
  char* end = buffer;
  while (end < buffer + size && wire_->answer.get(*end)) {
    if (*end++ == '\n') break;
  }
  return static_cast<unsigned long>(end - buffer);
}

}  // namespace tov_client

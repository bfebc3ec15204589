#include "trace/scenario.h"

#include <cxxabi.h>
#include <tov/err.h>

#include <cstdlib>
#include <exception>
#include <iterator>
#include <memory>
#include <regex>
#include <sstream>
#include <typeinfo>

#include "support/switch_calls.h"

namespace support::trace {
namespace {

using Lines = std::vector<std::string>;

const char kAnyOrder[] = "| ";

/// Other calls of the system are open.
bool IsListed(const std::string& line) {
  static const std::regex open(
      "(fchdir|getgrouplist|gethostbyname|setgroups|stat|"
      "__nss_configure_lookup) .*|statfs /");
  return !std::regex_match(line, open);
}

bool IsOfTheLog(const std::string& line) {
  return line.starts_with("zancgi ") || line.starts_with("unix ") ||
         // Gives words for a line.
         line.starts_with("pam_strerror ");
}

Lines LinesOf(const std::string& text) {
  Lines lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream >> std::ws, line);) {
    lines.push_back(line);
  }
  return lines;
}

Lines TraceOf(Script script, const Act& act) {
  const Scratch folder;
  folder.MakeDir("spool");
  const Input input = Input::File(script.input);
  const Outcome outcome =
      Child()
          .WorkDir(folder.Path())
          .StandardInput(input)
          .Run([&](const Reporter&) {
            const support::Recording recording(
                {.accounts = {{"alice", 1001, 1002, "."}, {"root", 0, 0, "."}},
                 .failures = script.failures,
                 .free_blocks = script.free_blocks});
            Follow(script);
            act();
          });
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(outcome.status, 0) << outcome.standard_error;
  for (const std::string& descriptor : outcome.leaked_descriptors) {
    // A standard input that the act has put in the place of ours.
    EXPECT_TRUE(descriptor.starts_with("0 ")) << descriptor;
  }
  Lines trace;
  for (const LogLine& line : outcome.log) {
    if (line.text == kStart) {
      trace.clear();
    } else if (IsListed(line.text)) {
      trace.push_back(line.text);
    }
  }
  return trace;
}

std::string Joined(const Lines& lines) {
  std::string text;
  for (const std::string& line : lines) text += line + "\n";
  return text;
}

/// Brings the calls that may come in any order into that of their texts.
/// @param like  the lines that say which these are
Lines Settled(Lines lines, const Lines& like) {
  const auto is_open = [](const std::string& line) {
    return line.starts_with(kAnyOrder);
  };
  if (lines.size() < like.size()) return lines;
  for (auto end = like.begin(); end != like.end();) {
    const auto begin = std::find_if(end, like.end(), is_open);
    end = std::find_if_not(begin, like.end(), is_open);
    std::sort(lines.begin() + (begin - like.begin()),
              lines.begin() + (end - like.begin()));
  }
  return lines;
}

void ExpectLines(Lines trace, const Lines& expected) {
  Lines plain = expected;
  for (std::string& line : plain) {
    if (line.starts_with(kAnyOrder)) line.erase(0, sizeof(kAnyOrder) - 1);
  }
  trace = Settled(std::move(trace), expected);
  plain = Settled(std::move(plain), expected);
  EXPECT_EQ(Joined(trace), Joined(plain));
}

std::string NameOf(const std::exception& error) {
  const std::unique_ptr<char, decltype(&std::free)> name(
      abi::__cxa_demangle(typeid(error).name(), nullptr, nullptr, nullptr),
      &std::free);
  return name.get();
}

}  // namespace

void ExpectTrace(const Script& script, const Act& act,
                 const std::string& expected) {
  Lines lines = LinesOf(expected);
  ExpectLines(TraceOf(script, act), lines);
  Script silent = script;
  silent.logs = false;
  std::erase_if(lines, IsOfTheLog);
  SCOPED_TRACE("with the log switched off");
  ExpectLines(TraceOf(silent, act), lines);
}

Act Serve(const std::function<void(Cgi&)>& work) {
  return [work] {
    Cgi cgi("cgi/front", "panel");
    Start();
    Try([&] { work(cgi); });
  };
}

void Try(const Act& work) {
  try {
    work();
  } catch (const std::exception& error) {
    Note("throws " + NameOf(error) + ": " + error.what());
  } catch (...) {
    Note("throws something else");
  }
}

void Result(const std::string& text) { Note("= " + text); }

void ReportParams(Cgi& cgi) {
  Lines names;
  cgi.GetParams(names);
  for (const std::string& name : names) Result(name + ": " + cgi.Param(name));
}

Script Get(const std::string& query) {
  return {.environment = {{"REQUEST_METHOD", "GET"}, {"QUERY_STRING", query}}};
}

Script Post(const std::string& body, const std::string& content_type) {
  return {.environment = {{"REQUEST_METHOD", "POST"},
                          {"CONTENT_TYPE", content_type},
                          {"CONTENT_LENGTH", std::to_string(body.size())},
                          {"TMP", "spool"}},
          .input = body};
}

std::string Admission(const std::string& body, const Admitted& admitted) {
  const std::string size = std::to_string(body.size());
  const std::string& spool = admitted.spool;
  std::string text = R"(
    zancgi 8: void zan_cgi::Cgi::Data::ParseQuery()
    zancgi 8: void zan_cgi::Cgi::Data::ParseInput()
)";
  text += "Int64('" + size + "')\n";
  text += "zancgi 9: [zancgi.cpp]:# POST boundary detected: ";
  text += admitted.is_multipart ? "true\n" : "false\n";
  text += "zancgi 9: [zancgi.cpp]:# temp dir is empty, new temp dir '" + spool +
          "'\nstatfs " + spool + "\n";
  if (admitted.free_space.empty()) return text;
  return text + "zancgi 9: [zancgi.cpp]:# query size '" + size +
         "', free space in tmpdir '" + admitted.free_space + "'\n";
}

std::string Making(int number) {
  const std::string path = "spool/zantemp-" + std::to_string(number);
  return "ConcatPath('spool', 'zantemp')\n"
         "Tmp('spool/zantemp')\n"
         "zancgi 8: ParseInput Creating new file " +
         path + "\nAttrs(0700)\nAttrs(0700).SafeSet('" + path + "', false)\n";
}

std::string Dropping(const std::string& path) {
  const std::string quoted = "'" + path + "'";
  return "Exists(" + quoted +
         ")\nzancgi 9: [zancgi.cpp]:# dropping temporary file " + quoted +
         "\nRemoveFile(" + quoted + ")\n";
}

std::string End(const std::string& body) {
  const std::string size = std::to_string(body.size());
  return "zancgi 9: [zancgi.cpp]:# End of stdin parsing, stdin state EOF "
         "false, "
         "GOOD true, read " +
         size + " of " + size + " chars\n";
}

Effect Fail(const std::string& text) { return Throw(tov_err::Error(text)); }

}  // namespace support::trace

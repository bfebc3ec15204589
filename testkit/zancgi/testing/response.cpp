#include <zancgi/testing/log.h>
#include <zancgi/testing/response.h>

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <initializer_list>
#include <ostream>

namespace zan_cgi::testing {
namespace {

constexpr char kBlanks[] = " \t";

std::string Trimmed(const std::string& text) {
  const std::size_t begin = text.find_first_not_of(kBlanks);
  if (begin == std::string::npos) return "";
  return text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

bool IsSame(const std::string& name, const std::string& other) {
  return ::strcasecmp(name.c_str(), other.c_str()) == 0;
}

bool IsFieldName(const std::string& name) {
  const std::string others = "!#$%&'*+-.^_`|~";
  return !name.empty() && std::all_of(name.begin(), name.end(), [&](char byte) {
    return std::isalnum(static_cast<unsigned char>(byte)) != 0 ||
           others.find(byte) != std::string::npos;
  });
}

/// Splits the output into fields and body.
void TakeFields(Response& response) {
  const std::string& text = response.standard_output;
  for (std::size_t at = 0;;) {
    const std::size_t end = text.find('\n', at);
    if (end == std::string::npos) {
      response.malformed = "no empty line after the header";
      return;
    }
    std::string line = text.substr(at, end - at);
    at = end + 1;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty()) {
      response.body = text.substr(at);
      return;
    }
    const std::size_t colon = line.find(':');
    if (colon == std::string::npos || !IsFieldName(line.substr(0, colon))) {
      response.malformed = "no header field: '" + line + "'";
      return;
    }
    response.fields.emplace_back(line.substr(0, colon),
                                 Trimmed(line.substr(colon + 1)));
  }
}

/// Checks the requirements of RFC 3875 section 6.3.
void CheckFields(Response& response) {
  for (const char* name : {"Content-Type", "Location", "Status"}) {
    if (response.Headers(name).size() > 1) {
      response.malformed = std::string("more than one field ") + name;
    }
  }
  if (response.Headers("Location").empty() &&
      response.Headers("Content-Type").empty()) {
    const bool needs_none =
        response.body.empty() && !response.Headers("Status").empty();
    if (!needs_none) response.malformed = "neither Content-Type nor Location";
  }
}

void TakeStatus(Response& response) {
  if (response.Headers("Status").empty()) {
    response.status = response.Headers("Location").empty() ? 200 : 302;
    return;
  }
  const std::string status = response.Header("Status");
  const std::size_t end = status.find_first_not_of("0123456789");
  const bool is_code = std::min(end, status.size()) == 3 &&
                       (end == std::string::npos || status[end] == ' ');
  if (!is_code) {
    response.malformed = "no status: '" + status + "'";
    return;
  }
  response.status = std::stoi(status);
  response.reason = Trimmed(status.substr(3));
}

std::string Listed(const std::vector<std::string>& names) {
  std::string list;
  for (const std::string& name : names) list += " '" + name + "'";
  return list;
}

}  // namespace

std::string Response::Header(const std::string& name) const {
  const std::vector<std::string> values = Headers(name);
  return values.empty() ? "" : values.front();
}

std::vector<std::string> Response::Headers(const std::string& name) const {
  std::vector<std::string> values;
  for (const auto& [key, value] : fields) {
    if (IsSame(key, name)) values.push_back(value);
  }
  return values;
}

std::string Response::Cookie(const std::string& name) const {
  for (const std::string& value : Headers("Set-Cookie")) {
    const std::string pair = value.substr(0, value.find(';'));
    const std::size_t equals = pair.find('=');
    if (equals != std::string::npos &&
        Trimmed(pair.substr(0, equals)) == name) {
      return Trimmed(pair.substr(equals + 1));
    }
  }
  return "";
}

std::vector<std::string> Response::Logged(int level) const {
  return TextsOf(log, level);
}

std::string Response::Complaints() const {
  std::string complaints;
  const auto complain = [&](const std::string& text) {
    complaints += complaints.empty() ? text : "; " + text;
  };
  if (timed_out) {
    complain("its time was up");
  } else if (exit_status != 0) {
    complain("exit status " + std::to_string(exit_status));
  }
  if (!malformed.empty()) complain(malformed);
  if (!left_files.empty()) complain("files left:" + Listed(left_files));
  if (!left_processes.empty()) {
    complain("processes left:" + Listed(left_processes));
  }
  return complaints;
}

void PrintTo(const Response& response, std::ostream* out) {
  const std::string complaints = response.Complaints();
  *out << "status " << response.status << ' ' << response.reason;
  if (!complaints.empty()) *out << ", " << complaints;
  *out << "\nstandard output:\n"
       << response.standard_output << "\nstandard error:\n"
       << response.standard_error << '\n';
}

Response ParseResponse(const std::string& standard_output) {
  Response response;
  response.standard_output = standard_output;
  TakeFields(response);
  if (response.malformed.empty()) CheckFields(response);
  if (response.malformed.empty()) TakeStatus(response);
  return response;
}

}  // namespace zan_cgi::testing

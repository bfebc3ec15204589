#include "support/record.h"

#include <map>
#include <memory>
#include <sstream>

namespace support {
namespace {

using zan_cgi::Cgi;

void Describe(const std::string& name,
              const std::map<std::string, std::string>& values,
              std::ostream& text) {
  for (const auto& [key, value] : values) {
    text << name << " '" << key << "' is '" << value << "'\n";
  }
}

}  // namespace

Cgi::Data& RecordOf(Cgi& cgi) {
  // A Cgi has this member only, and no virtual functions.
  return **reinterpret_cast<std::shared_ptr<Cgi::Data>*>(&cgi);
}

std::string Describe(const Cgi::Data& record) {
  std::ostringstream text;
  text << "service '" << record.tov_name << "'\n";
  text << "directory '" << record.tmp_dir << "'\n";
  Describe("cookie", record.cookies, text);
  Describe("parameter", record.params, text);
  for (const auto& [name, file] : record.files) {
    text << "file '" << name << "' at '" << file.path << "', " << file.size
         << " bytes\n";
  }
  text << (record.parsed ? "parsed\n" : "not parsed\n");
  text << (record.authorized ? "authorized\n" : "not authorized\n");
  const Cgi::AuthInfo& session = record.auth_info;
  text << "session '" << session.auth << "' of '" << session.name << "', '"
       << session.lang_rest << "', '" << session.lang_word << "', level "
       << session.level << ", method " << session.method << "\n";
  text << "from '" << record.remote_addr << "' to '" << record.server_addr
       << "'\n";
  return text.str();
}

}  // namespace support

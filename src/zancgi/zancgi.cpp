#include <zancgi/zancgi.h>

#include <tov/client.h>
#include <tov/env.h>
#include <tov/err.h>
#include <tov/file.h>
#include <tov/log.h>
#include <tov/str.h>
#include <tov/xml.h>

#include <stdexcept>
#include <utility>

#include "item_walk.h"
#include "log_levels.h"

namespace zan_cgi {
namespace {

using StringMap = std::map<std::string, std::string>;

tov_log::Module log("zancgi", "core");

constexpr int kAttempts = 4;
constexpr unsigned long kAnswerPiece = 1024;

/// The base name of this file, for log lines that tell where they come from.
std::string SourceName() { return tov_file::SplitPath(__FILE__).second; }

void TraceEntry(const char* signature) {
  if (log.Check(kTrace)) log.Write(kTrace, "%s", signature);
}

std::string ValueOrEmpty(const StringMap& values, const std::string& name) {
  const auto found = values.find(name);
  return found == values.end() ? std::string() : found->second;
}

template <class Value>
void ListKeys(const std::map<std::string, Value>& map,
              std::vector<std::string>& keys) {
  keys.clear();
  for (const auto& entry : map) keys.push_back(entry.first);
}

/// Joins the values of a repeated parameter. Appends in place: a name that
/// comes a hundred thousand times must not copy its value as often.
void AddParameter(StringMap& params, const std::string& name,
                  const std::string& value) {
  const auto [entry, inserted] = params.try_emplace(name, value);
  if (!inserted) entry->second.append(", ").append(value);
}

void RemoveUpload(const std::string& path) {
  if (!tov_file::Exists(path)) return;
  if (log.Check(kDebug)) {
    log.Write(kDebug, "%s:%d dropping temporary file '%s'",
              SourceName().c_str(), __LINE__, path.c_str());
  }
  tov_file::RemoveFile(path);
}

void WarnOfUploadLeft(const std::string& path) noexcept {
  try {
    if (log.Check(kWarning)) {
      // "tamporary" stays as it is: administrators search for this text.
      log.Write(kWarning, "failed to remove tamporary file '%s'", path.c_str());
    }
  } catch (...) {
    // Nobody is left to be told.
  }
}

bool Contains(const std::string& text, const char* part) {
  return text.find(part) != std::string::npos;
}

bool IsForwarded(const std::string& name) {
  const auto begins_with = [&name](const char* prefix, std::size_t size) {
    return name.compare(0, size, prefix) == 0;
  };
  return begins_with("HTTP_", 5) ||
         (begins_with("REQUEST_", 8) && name != "REQUEST_METHOD") ||
         begins_with("SERVER_", 7) || begins_with("REMOTE_", 7) ||
         name == "HTTPS";
}

/// The environment that the back end gets to see. It always sees a GET of the
/// composed query, whatever the browser has sent.
StringMap BackendEnvironment(const std::string& query) {
  StringMap all;
  tov_env::GetAllEnvs(all);
  StringMap forwarded;
  for (auto& [name, value] : all) {
    if (IsForwarded(name)) forwarded.emplace(name, std::move(value));
  }
  forwarded["REQUEST_METHOD"] = "GET";
  forwarded["QUERY_STRING"] = query;
  return forwarded;
}

/// Adds output format, session and "sfrom" to a query. That an item is there
/// already is decided by a plain search: "layout=1" counts as "out=", which
/// front ends rely on. Values are added without encoding, likewise.
void CompleteQuery(const Cgi::Data& request, std::string& query) {
  if (!Contains(query, "out=")) {
    query = str::Append(query, "out=xml", "&");
  }
  // A session from the cookie travels inside the forwarded HTTP_COOKIE.
  const Cgi::AuthInfo& session = request.auth_info;
  if (session.method == Cgi::AuthInfo::AuthParams &&
      !Contains(query, "auth=")) {
    if (session.auth.empty()) throw tov_err::Value("auth", "");
    query = str::Append(query, "auth=" + session.auth, "&");
  }
  const auto sfrom = request.params.find("sfrom");
  if (!Contains(query, "sfrom=") && sfrom != request.params.end()) {
    query = str::Append(query, "sfrom=" + sfrom->second, "&");
  }
}

std::string ReadAnswer(tov_client::Protocol& connection) {
  std::string answer;
  char piece[kAnswerPiece];
  for (;;) {
    const unsigned long count = connection.GetAnswer(piece, kAnswerPiece);
    if (count == 0) return answer;
    answer.append(piece, count);
  }
}

void DropTextBeforeXml(std::string& answer) {
  const std::size_t declaration = answer.find("<?xml");
  if (declaration != std::string::npos) answer.erase(0, declaration);
}

/// One attempt: a connection of its own, closed again however it ends.
std::string Exchange(const std::string& tov_name, const StringMap& environment,
                     const std::string& query) {
  const std::unique_ptr<tov_client::Protocol> connection =
      tov_client::Connect(tov_name, false);
  for (const auto& [name, value] : environment) {
    std::string line = name;
    line.append("=").append(value);
    connection->SendEnv(line);
  }
  connection->RequestComplete();
  std::string answer = ReadAnswer(*connection);
  if (Contains(query, "out=xml")) DropTextBeforeXml(answer);
  return answer;
}

void ThrowUnlessConfirmed(const tov_xml::Xml& answer,
                          const std::string& tov_name) {
  // The error first: an answer that holds both is a refusal.
  const tov_xml::XmlNode error = answer.GetNode("/doc/error");
  if (error) {
    if (error.GetProp("type") == "access") {
      throw std::runtime_error("You do not authorized for this operation");
    }
    throw std::runtime_error("unknown authorization error");
  }
  if (!answer.GetNode("/doc/user")) {
    throw std::runtime_error("bad answer from '" + tov_name + "'");
  }
}

void TakeLanguage(std::string cookie, Cgi::AuthInfo& session) {
  if (!Contains(cookie, ":")) return;
  session.lang_word = str::RGetWord(cookie, ':');
  session.lang_rest = cookie;
}

}  // namespace

Cgi::Data::Data() {
  ParseCookies();
  // As it was forwarded: neither split at commas nor trimmed.
  remote_addr = tov_env::GetEnv("HTTP_X_FORWARDED_FOR");
  if (remote_addr.empty()) remote_addr = tov_env::GetEnv("REMOTE_ADDR");
  server_addr = tov_env::GetEnv("SERVER_ADDR");
}

Cgi::Data::~Data() {
  for (const auto& entry : files) {
    const std::string& path = entry.second.path;
    try {
      RemoveUpload(path);
    } catch (...) {
      WarnOfUploadLeft(path);
    }
  }
}

void Cgi::Data::ParseQuery() {
  TraceEntry("void zan_cgi::Cgi::Data::ParseQuery()");
  const std::string method = tov_env::GetEnv("REQUEST_METHOD");
  if (method != "GET") {
    throw std::runtime_error("bad request method '" + method + "'");
  }
  ParseQueryString(tov_env::GetEnv("QUERY_STRING"));
}

void Cgi::Data::ParseQueryString(std::string query) {
  TraceEntry("void zan_cgi::Cgi::Data::ParseQueryString(std::string)");
  if (parsed) {
    if (log.Check(kWarning)) {
      log.Write(kWarning, "attempt to reparse GET query");
    }
    return;
  }
  for (ItemWalk items(query, '&'); !items.AtEnd();) {
    std::string rest = items.Next();
    std::string value = str::GetWord(rest, '&');
    if (value.empty()) continue;
    // Split before decoding: an encoded "&" or "=" is data.
    const std::string name = str::url::Decode(str::GetWord(value, '='));
    if (!name.empty()) {
      AddParameter(params, name, str::url::Decode(value));
    } else if (!value.empty() && log.Check(kWarning)) {
      log.Write(kWarning, "Key name is empty, value = '%s'", value.c_str());
    }
  }
  parsed = true;
}

void Cgi::Data::ParseCookies() {
  TraceEntry("void zan_cgi::Cgi::Data::ParseCookies()");
  std::vector<std::string> pieces;
  str::Split(tov_env::GetEnv("HTTP_COOKIE"), ";", pieces);
  for (std::string& piece : pieces) {
    const std::string name = str::GetWord(piece, '=');
    // Unlike a parameter, the last cookie of a name counts.
    cookies[name] = piece;
  }
}

Cgi::Cgi(const std::string& binary_name, const std::string& tov_name)
    : data_(std::shared_ptr<Data>(new Data)) {
  data_->tov_name = tov_name;
  data_->SetWorkDir(binary_name);
}

std::string Cgi::Param(const std::string& name) {
  if (!data_->parsed) data_->ParseQuery();
  return ValueOrEmpty(data_->params, name);
}

std::string Cgi::Cookie(const std::string& name) {
  return ValueOrEmpty(data_->cookies, name);
}

std::string Cgi::File(const std::string& name) const {
  const auto found = data_->files.find(name);
  return found == data_->files.end() ? std::string() : found->second.path;
}

std::int64_t Cgi::GetFileSize() const {
  if (!data_->parsed) data_->ParseQuery();
  std::int64_t size = 0;
  for (const auto& entry : data_->files) size += entry.second.size;
  return size;
}

void Cgi::GetParams(std::vector<std::string>& names) const {
  if (!data_->parsed) data_->ParseQuery();
  ListKeys(data_->params, names);
}

void Cgi::GetFileNames(std::vector<std::string>& names) const {
  if (!data_->parsed) data_->ParseQuery();
  ListKeys(data_->files, names);
}

void Cgi::ParseQuery() {
  if (!data_->parsed) {
    data_->ParseQuery();
  } else if (log.Check(kWarning)) {
    log.Write(kWarning, "CGI already parsed input");
  }
}

std::string Cgi::Query(std::string query) {
  const std::string& tov_name = data_->tov_name;
  if (tov_name.empty()) throw tov_err::Missed("tovname", "");
  CompleteQuery(*data_, query);
  const StringMap environment = BackendEnvironment(query);
  if (log.Check(kQuery)) {
    log.Write(kQuery, "cgi.Query('%s') tov '%s'", query.c_str(),
              tov_name.c_str());
  }
  for (int attempts = kAttempts;;) {
    try {
      return Exchange(tov_name, environment, query);
    } catch (const tov_err::Error&) {
      if (--attempts == 0) throw;
    }
  }
}

std::string Cgi::Query(const std::map<std::string, std::string>& params) {
  std::string query;
  for (const auto& [name, value] : params) {
    std::string item = name;
    item.append("=").append(str::url::Encode(value));
    query = str::Append(query, item, "&");
  }
  return Query(query);
}

void Cgi::SetTovName(const std::string& name) { data_->tov_name = name; }

void Cgi::Authorize(AuthInfo::AuthMethod method) {
  const std::string& tov_name = data_->tov_name;
  AuthInfo& session = data_->auth_info;
  if (tov_name.empty()) throw tov_err::Missed("tovname", "");

  const bool looks_in_cookie =
      method == AuthInfo::AuthAny || method == AuthInfo::AuthCookie;
  const bool looks_in_params =
      method == AuthInfo::AuthAny || method == AuthInfo::AuthParams;
  if (session.auth.empty() && looks_in_cookie) {
    session.auth = Cookie(tov_name + "ses5");
  }
  if (session.auth.empty() && looks_in_params) {
    if (log.Check(kDebug)) {
      log.Write(kDebug, "%s:%d session cookie not found, trying params",
                SourceName().c_str(), __LINE__);
    }
    session.auth = Param("auth");
    session.method = AuthInfo::AuthParams;
  } else {
    // Also for a session that is known from an earlier call, and for a missing
    // cookie where only the cookie counts: kept for compatibility. The back end
    // then answers for an empty session.
    if (log.Check(kDebug)) {
      log.Write(kDebug, "%s:%d session cookie found", SourceName().c_str(),
                __LINE__);
    }
    session.method = AuthInfo::AuthCookie;
  }

  tov_xml::Xml answer;
  answer.LoadFromString(Query("func=whoami&out=xml"));
  ThrowUnlessConfirmed(answer, tov_name);
  const tov_xml::XmlNode user = answer.GetNode("/doc/user");
  session.name = user.GetProp("name");
  session.level = str::Int(user.GetProp("level"));
  TakeLanguage(Cookie(tov_name + "lang5"), session);
  data_->authorized = true;
}

const Cgi::AuthInfo& Cgi::auth() const {
  if (!data_->authorized) throw std::runtime_error("not authorized");
  return data_->auth_info;
}

}  // namespace zan_cgi

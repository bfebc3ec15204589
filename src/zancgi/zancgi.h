/// @file
/// libzancgi: one HTTP request as seen by the CGI front end of a web
/// administration interface (RFC 3875).
///
/// A front end makes one zan_cgi::Cgi and asks everything through it. One
/// request is served in one thread; nothing here is locked.
#ifndef ZANCGI_ZANCGI_H
#define ZANCGI_ZANCGI_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#define ZANCGI_API __attribute__((visibility("default")))

namespace zan_cgi {

/// One request: its parameters, cookies and uploads, its conversation with the
/// back-end service, and its authorization.
///
/// Copies share one request record, which lives as long as the last of them.
/// Strings are byte strings; no encoding is assumed. Besides what is said
/// below, every operation may throw std::bad_alloc.
class ZANCGI_API Cgi {
 public:
  /// Who is calling, as the back end said.
  struct AuthInfo {
    /// Where the session id is looked for, and where it was found.
    enum AuthMethod : std::int32_t {
      AuthAny = 0,     ///< The session cookie first, then the parameter "auth".
      AuthCookie = 1,  ///< The session cookie.
      AuthParams = 2   ///< The parameter "auth".
    };

    std::string auth;             ///< The session id.
    std::string name;             ///< The user's name.
    std::string lang_rest;        ///< The language cookie before its last ":".
    std::string lang_word;        ///< The language cookie behind its last ":".
    std::int32_t level = 0;       ///< The user's access level.
    AuthMethod method = AuthAny;  ///< Where the session id was found.
  };

  class Data;

  /// Reads the cookies and addresses of the request and makes the folder above
  /// the program's folder the current directory.
  ///
  /// A current directory that cannot be entered is no error.
  /// @param binary_name  path of the front end's program, usually argv[0]
  /// @param tov_name     name of the back-end service; may be empty
  /// @throws tov_err::AssertError when @p binary_name is empty
  /// @throws tov_err::Error when the program's folder cannot be resolved
  Cgi(const std::string& binary_name, const std::string& tov_name);

  /// Returns the value of a request parameter; empty when there is none.
  ///
  /// The values of a repeated parameter are joined by ", ". Parses the input
  /// first if that has not happened yet.
  /// @throws std::runtime_error as ParseQuery()
  std::string Param(const std::string& name);

  /// Returns the value of a cookie, just as it was sent (RFC 6265 section
  /// 5.4); empty when there is none. Of cookies with one name the last counts.
  std::string Cookie(const std::string& name);

  /// Returns the path of an uploaded file; empty when there is none.
  ///
  /// Never parses the input: before the first parse there are no files.
  /// @param name  the file's name as the client sent it (the value of the form
  ///   field's parameter)
  std::string File(const std::string& name) const;

  /// Returns the size of all uploaded files together, in bytes. Parses the
  /// input first if that has not happened yet.
  /// @throws std::runtime_error as ParseQuery()
  std::int64_t GetFileSize() const;

  /// Replaces the contents of @p names by the names of all parameters, in
  /// ascending byte order. Parses the input first if that has not happened yet.
  /// @throws std::runtime_error as ParseQuery()
  void GetParams(std::vector<std::string>& names) const;

  /// Replaces the contents of @p names by the names of all uploaded files, as
  /// the client sent them, in ascending byte order. Parses the input first if
  /// that has not happened yet.
  /// @throws std::runtime_error as ParseQuery()
  void GetFileNames(std::vector<std::string>& names) const;

  /// Parses the request's input, once; a further call only writes a warning.
  /// @throws std::runtime_error "bad request method '...'" unless
  ///   `REQUEST_METHOD` is GET; the input then stays unparsed
  void ParseQuery();

  /// Sends a query to the back-end service and returns its whole answer.
  ///
  /// Adds "out=xml" unless the query names an output format, the session id as
  /// "auth=" if it came from the parameters, and the request's parameter
  /// "sfrom" as far as it has been parsed. Values are added as they are, not
  /// encoded. Of an answer in XML, everything before "<?xml" is dropped. A
  /// failing back end is tried four times without a pause, so a query may be
  /// carried out more than once. Waits for as long as the back end takes.
  /// @param query  items "name=value", encoded and joined by "&"
  /// @throws tov_err::Missed when the service has no name
  /// @throws tov_err::Value when the session should have come from the
  ///   parameters but did not
  /// @throws tov_err::Error of the fourth attempt when all have failed
  std::string Query(std::string query);

  /// The same for a map of parameters, sent in ascending byte order of their
  /// names. Values are URL-encoded, names are not.
  std::string Query(const std::map<std::string, std::string>& params);

  /// Changes the name of the back-end service. It is checked by the next
  /// Query() or Authorize() only.
  void SetTovName(const std::string& name);

  /// Finds the session id and asks the back end whose session it is.
  ///
  /// The session cookie is named after the service, with "ses5" behind; the
  /// language cookie likewise with "lang5". Session id and method keep their
  /// new values even when the call fails.
  /// @param method  where to look for the session id. AuthCookie asks the back
  ///   end even without a cookie. Once a session id is known, a further call
  ///   uses it again and takes it for one from the cookie.
  /// @throws tov_err::Missed when the service has no name
  /// @throws tov_err::Value when no session id was found, except for AuthCookie
  /// @throws tov_err::Error when the back end cannot be reached
  /// @throws std::runtime_error "You do not authorized for this operation" when
  ///   the back end refuses access, "unknown authorization error" when it
  ///   reports another error, "bad answer from '...'" when its answer is none
  void Authorize(AuthInfo::AuthMethod method);

  /// Returns what the last successful Authorize() has found. The reference is
  /// valid as long as a copy of this object lives.
  /// @throws std::runtime_error "not authorized" before the first success
  const AuthInfo& auth() const;

 private:
  std::shared_ptr<Data> data_;
};

/// The request record behind a Cgi, for tests and debuggers. A front end has
/// no need of it.
class ZANCGI_API Cgi::Data {
 public:
  /// An uploaded file.
  struct FileInfo {
    std::string path;       ///< Where the upload's bytes lie now.
    std::int64_t size = 0;  ///< How many there are.
  };

  /// Reads cookies and addresses from the environment.
  Data();

  /// Removes the uploaded files that still exist at their recorded paths. A
  /// failure is a warning in the log.
  virtual ~Data();

  Data(const Data&) = delete;
  Data& operator=(const Data&) = delete;

  /// Parses the input by request method, also when that was done before.
  /// @throws std::runtime_error "bad request method '...'"
  void ParseQuery();

  /// Fills #params from a query string, once per record.
  void ParseQueryString(std::string query);

  /// Fills #cookies from `HTTP_COOKIE`.
  void ParseCookies();

  /// Makes the folder above the folder of @p binary_name the current directory.
  /// @throws tov_err::AssertError when @p binary_name is empty
  void SetWorkDir(const std::string& binary_name);

  std::string tov_name;  ///< Name of the back-end service.
  std::string tmp_dir;   ///< Where uploads are spooled.
  std::map<std::string, std::string> cookies;  ///< Value by name.
  std::map<std::string, std::string> params;   ///< Value by name.
  std::map<std::string, FileInfo> files;       ///< Upload by client file name.
  bool parsed = false;                         ///< The input has been parsed.
  bool authorized = false;  ///< auth_info is confirmed by the back end.
  AuthInfo auth_info;       ///< The caller's session.
  std::string remote_addr;  ///< The caller's address, as forwarded.
  std::string server_addr;  ///< The server's address.
};

}  // namespace zan_cgi

#endif

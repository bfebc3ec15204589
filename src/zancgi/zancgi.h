/// @file
/// libzancgi: one HTTP request as seen by the CGI front end of a web
/// administration interface (RFC 3875).
///
/// Each request needs one zan_cgi::Cgi, which gives access to everything else.
/// Use it in one thread: nothing here is locked.
#ifndef ZANCGI_ZANCGI_H
#define ZANCGI_ZANCGI_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#if defined(_GLIBCXX_USE_CXX11_ABI) && !_GLIBCXX_USE_CXX11_ABI
#error "libzancgi needs C++11's std::string: use -D_GLIBCXX_USE_CXX11_ABI=1"
#endif

/// Components of the version.
/// @{
#define ZANCGI_VERSION_MAJOR 1
#define ZANCGI_VERSION_MINOR 1
#define ZANCGI_VERSION_PATCH 0
/// @}

/// The version as one number for comparisons: 1002003 is version 1.2.3.
#define ZANCGI_VERSION                                            \
  (ZANCGI_VERSION_MAJOR * 1000000 + ZANCGI_VERSION_MINOR * 1000 + \
   ZANCGI_VERSION_PATCH)

/// The version as text.
#define ZANCGI_VERSION_STRING                               \
  ZANCGI_DOTTED(ZANCGI_VERSION_MAJOR, ZANCGI_VERSION_MINOR, \
                ZANCGI_VERSION_PATCH)
/// Helpers of ZANCGI_VERSION_STRING.
/// @{
#define ZANCGI_DOTTED(major, minor, patch) \
  ZANCGI_QUOTED(major) "." ZANCGI_QUOTED(minor) "." ZANCGI_QUOTED(patch)
#define ZANCGI_QUOTED(number) #number
/// @}

/// Exports a symbol from libzancgi.so.
#define ZANCGI_API __attribute__((visibility("default")))

struct pam_message;
struct pam_response;

namespace zan_cgi {

/// One request: its parameters, cookies and uploads, its queries to the
/// back-end service, and its authorization.
///
/// Copies share one request record, which exists as long as any of them.
/// Strings are byte strings; no encoding is assumed. Every operation may throw
/// std::bad_alloc.
class ZANCGI_API Cgi {
 public:
  /// The caller, as reported by the back end.
  struct AuthInfo {
    /// Where to look for the session id, and where it was found.
    enum AuthMethod : std::int32_t {
      AuthAny = 0,     ///< The session cookie first, then the parameter "auth".
      AuthCookie = 1,  ///< The session cookie.
      AuthParams = 2   ///< The parameter "auth".
    };

    std::string auth;             ///< The session id.
    std::string name;             ///< The user's name.
    std::string lang_rest;        ///< The language cookie before its last ":".
    std::string lang_word;        ///< The language cookie after its last ":".
    std::int32_t level = 0;       ///< The user's access level.
    AuthMethod method = AuthAny;  ///< Where the session id was found.
  };

  class Data;

  /// Reads the cookies and addresses of the request and makes the parent of the
  /// program's folder the current directory.
  ///
  /// It is not an error if that directory cannot be entered.
  /// @param binary_name  path of the front end's program, usually argv[0]
  /// @param tov_name     name of the back-end service; may be empty
  /// @throws tov_err::AssertError when @p binary_name is empty
  /// @throws tov_err::Error when the program's folder cannot be resolved
  Cgi(const std::string& binary_name, const std::string& tov_name);

  /// Returns the value of a request parameter; empty if there is none.
  ///
  /// The values of a repeated parameter are joined by ", " in a query string
  /// and by LF in a multipart form. In any other body the last value counts,
  /// and names are not decoded. Parses the input first if that has not happened
  /// yet.
  /// @throws std::runtime_error as ParseQuery()
  std::string Param(const std::string& name);

  /// Returns the value of a cookie as it was sent (RFC 6265 section 5.4); empty
  /// if there is none. If several cookies have the same name, the last counts.
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

  /// Parses the request's input, once; a further call only logs a warning.
  ///
  /// The input of a GET is its query string. The input of a POST is its body: a
  /// multipart form (RFC 7578) or, without a boundary, a query string. Uploads
  /// are written to the temporary directory during parsing. A POST with a
  /// declared length of 0 stays unparsed, and the next access tries again.
  ///
  /// Some bodies are parsed without end, using the processor or sleeping, and
  /// some forms give wrong results; docs/security.md lists both.
  /// @throws std::runtime_error "bad request method '...'" unless
  ///   `REQUEST_METHOD` is GET or POST; the input then stays unparsed. Of a
  ///   POST: what Data::ParseInput() throws
  void ParseQuery();

  /// Reads a piece of the request's body from standard input, for front ends
  /// that use the body without parsing it.
  ///
  /// Waits up to 30 seconds for input.
  /// @param buffer  receives the bytes; owned by the caller
  /// @param length  the largest number of bytes to read
  /// @returns the number of bytes read; 0 if nothing was read but a further
  ///   call may succeed (after a signal, or at the end of the input without a
  ///   hang-up); -1 if the writer has gone or reading failed
  /// @throws std::runtime_error "timeout" when nothing came in time, after
  ///   which standard input is closed; "polling error: ..." or "invalid polling
  ///   request" when waiting fails
  long Read(char* buffer, long length);

  /// Sets the directory for uploads and makes it if it is missing. Call it
  /// before the input is parsed.
  ///
  /// The directory should belong to this program alone, with mode 0700, or be
  /// sticky and not listable (mode 1733). Anybody who may rename files in it
  /// can exchange an upload. Anybody who can list it, as everybody can list
  /// /tmp, can read an upload while Su() hands it over.
  /// @param dir  the directory; if empty, the value of `TMP`, or without that
  ///   "tmp" below the current directory. The parents must exist.
  /// @throws std::runtime_error "temp dir '...' is not a directory"
  /// @throws tov_err::Error when it cannot be made. The name is kept in either
  ///   case.
  void SetTmpDir(const std::string& dir);

  /// Refuses a POST body with too large a declared length. Call it before the
  /// input is parsed; without it there is no limit.
  /// @param maxLength  the largest accepted length, in bytes. A declared length
  ///   above 2147483647 counts as 2147483647, so a limit of 2147483647 or more
  ///   has no effect.
  /// @throws std::runtime_error "Post data too large. Max allowed length is
  ///   ...KB", in whole units of 1024 bytes
  void CheckContentLength(long maxLength);

  /// Sends a query to the back-end service and returns its whole answer.
  ///
  /// Adds "out=xml" unless the query names an output format, the session id as
  /// "auth=" if it came from the parameters, and the parameter "sfrom" if the
  /// input has been parsed and contains it. These values are added without
  /// encoding. Everything before "<?xml" is removed from an XML answer. If the
  /// back end fails, the query is sent up to four times without a pause, so it
  /// may be executed more than once. Waits for the back end without a time
  /// limit. Call it before Su().
  /// @param query  items "name=value", encoded and joined by "&"
  /// @throws tov_err::Missed when the service has no name
  /// @throws tov_err::Value when the session id should be in the parameters but
  ///   is missing
  /// @throws tov_err::Error of the fourth attempt when all have failed
  /// @throws std::runtime_error "the back end cannot be asked from inside an
  ///   account's folder" when the process is confined to a folder that others
  ///   than root control; nothing is sent then
  std::string Query(std::string query);

  /// The same for a map of parameters, sent in ascending byte order of their
  /// names. Values are URL-encoded; names are not.
  std::string Query(const std::map<std::string, std::string>& params);

  /// Changes the name of the back-end service. The next Query() or Authorize()
  /// checks it.
  void SetTovName(const std::string& name);

  /// Finds the session id and verifies it with the back end.
  ///
  /// The session cookie has the name of the service with "ses5" appended, the
  /// language cookie with "lang5". Session id and method keep their new values
  /// even if the call fails.
  /// @param method  where to look for the session id. With AuthCookie the back
  ///   end is queried even without a cookie. A further call reuses a known
  ///   session id and treats it as one from the cookie.
  /// @throws tov_err::Missed when the service has no name
  /// @throws tov_err::Value when no session id was found, except for AuthCookie
  /// @throws tov_err::Error when the back end cannot be reached
  /// @throws std::runtime_error "You do not authorized for this operation" when
  ///   the back end refuses access, "unknown authorization error" when it
  ///   reports another error, "bad answer from '...'" when its answer is
  ///   invalid; as Query()
  void Authorize(AuthInfo::AuthMethod method);

  /// Returns the result of the last successful Authorize(). The reference is
  /// valid while any copy of this object exists.
  /// @throws std::runtime_error "not authorized" before the first success
  const AuthInfo& auth() const;

  /// Makes this process a system account for the rest of its life and hands the
  /// uploads over to it. Needs root's rights. Call it once, after the input is
  /// parsed and before a second thread starts. Every folder above the account's
  /// home must belong to root.
  ///
  /// The uploads get the account's owner and group and mode 0644, and are moved
  /// into its home folder under their temporary names; File() returns their new
  /// paths. The uploads that are still there when the last copy of this object
  /// is destroyed are removed. Then the process takes the account's groups,
  /// group and user, and enters @p dir. It keeps its session keyring.
  ///
  /// The result is not checked: without the rights to switch, the process
  /// continues as the user that it was. Compare ids, groups and capabilities
  /// afterwards, as docs/guide.md does. For root, uploads stay where they are,
  /// and both flags are ignored.
  ///
  /// After any exception except "failed to get pw entry", the request must end:
  /// part of the switch may have been made, and nothing is undone.
  /// @param user        login name of the account
  /// @param dir         the directory to enter. Confined: an absolute path in
  ///   the home folder as the new root. A relative path would start from the
  ///   current directory, which is still outside. Unconfined: a path in the
  ///   home folder, with or without a leading slash; empty for the home folder.
  ///   For root: any path; empty for root's home folder.
  /// @param use_chroot  make the home folder the process's root directory
  ///   (chroot(2)). Safe only if every component of the home's path is owned by
  ///   root and writable by no one else.
  /// @param use_pam     open and close a PAM session of service "login". A
  ///   failure there is only a warning in the log.
  /// @throws std::runtime_error "failed to get pw entry" when there is no such
  ///   account; "failed to chroot to users home folder" when the home cannot be
  ///   entered, confined or not; "no such directory '...'" when @p dir cannot
  ///   be entered; "it is not your folder" when @p dir lies outside the home;
  ///   "stat error" when that cannot be checked
  /// @throws tov_err::Error when an upload cannot be handed over; the process
  ///   has then not switched
  void Su(const std::string& user, const std::string& dir, bool use_chroot,
          bool use_pam);

 private:
  friend class Form;
  // BecomeAccount() removes the uploads when it fails.
  friend class AccountSwitch;

  std::shared_ptr<Data> data_;
};

/// The request record of a Cgi, for tests and debuggers. Front ends do not need
/// it.
class ZANCGI_API Cgi::Data {
 public:
  /// An uploaded file.
  struct FileInfo {
    std::string path;       ///< Current path of the upload.
    std::int64_t size = 0;  ///< Its size in bytes.
  };

  /// Reads cookies and addresses from the environment.
  Data();

  /// Removes the uploaded files that still exist at their recorded paths. A
  /// failure is only a warning in the log.
  virtual ~Data();

  Data(const Data&) = delete;
  Data& operator=(const Data&) = delete;

  /// Parses the input by request method. If it has been parsed already, only
  /// logs a warning.
  /// @throws std::runtime_error "bad request method '...'"
  void ParseQuery();

  /// Fills #params from a query string, once per record.
  void ParseQueryString(std::string query);

  /// Fills #params and #files from the body of a POST (RFC 7578), once per
  /// record.
  ///
  /// A line of a field's value is limited to 262144 bytes. Line ends become LF,
  /// and the values of a repeated field are joined by LF. Uploads with the same
  /// client file name share one entry, of which the last counts. Without a
  /// boundary the body is a query string. The memory for uploads does not
  /// depend on their size.
  /// @throws std::runtime_error "error writing temporary file", after the body
  ///   has been read, when an upload could not be stored; "Error reading STDIN"
  ///   and "POST read failed: CONTENT_LENGTH=..., bytes read:..." when the body
  ///   ends early; "Element value size must be less than 262144" and "On
  ///   getting element value element name is empty" for a form with such a
  ///   value; what Read() and FreeSpaceSize() throw
  void ParseInput();

  /// Cgi::Read().
  long Read(char* buffer, long length);

  /// Sets #tmp_dir to the default if it is empty, and makes the directory if it
  /// is missing.
  /// @throws std::runtime_error "temp dir '...' is not a directory"
  /// @throws tov_err::Error when it cannot be made
  void CheckTmpDir();

  /// Returns how many bytes are free in the file system of @p path, including
  /// those reserved for the superuser.
  /// @throws std::runtime_error "Cannot run statfs on ..."
  std::uint64_t FreeSpaceSize(const std::string& path);

  /// The first half of Cgi::Su(): hands #files over to an account and records
  /// their new paths.
  /// @param user        login name of the account
  /// @param dir         not used: uploads always go to the home folder
  /// @param use_chroot  record the paths as seen from the new root
  /// @throws std::runtime_error "failed to get pw entry"
  /// @throws tov_err::Error when an upload cannot be handed over. Earlier
  ///   uploads have been handed over by then; this one keeps its recorded path,
  ///   and later ones are unchanged.
  void DoChownFiles(const std::string& user, const std::string& dir,
                    bool use_chroot);

  /// The second half of Cgi::Su(): makes the process the account.
  /// @throws std::runtime_error as Cgi::Su()
  void DoSu(const std::string& user, const std::string& dir, bool use_chroot,
            bool use_pam);

  /// Fills #cookies from `HTTP_COOKIE`.
  void ParseCookies();

  /// Makes the parent of the folder of @p binary_name the current directory.
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

/// Conversation function for PAM, see pam_conv(3). Answers every message, of
/// any style, with the same text.
/// @param num_msg      the number of messages
/// @param msg          the messages; not read
/// @param resp         receives the answers, allocated with malloc(3); owned by
///   the caller
/// @param appdata_ptr  the text, ended by a zero byte
/// @returns PAM_SUCCESS; PAM_CONV_ERR without a text or a message; PAM_BUF_ERR
///   without memory. On an error nothing is allocated.
ZANCGI_API int myconv(int num_msg, const pam_message** msg, pam_response** resp,
                      void* appdata_ptr);

}  // namespace zan_cgi

#endif

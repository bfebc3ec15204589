#include <zancgi/zancgi.h>

#include <tov/client.h>
#include <tov/env.h>
#include <tov/err.h>
#include <tov/file.h>
#include <tov/log.h>
#include <tov/proc.h>
#include <tov/str.h>
#include <tov/xml.h>

#include <algorithm>
#include <cstdlib>
#include <istream>
#include <memory>
#include <new>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "boundary_search.h"
#include "confinement.h"
#include "disposition.h"
#include "field_cursor.h"
#include "form_contents.h"
#include "layout.h"  // IWYU pragma: keep
#include "line_assembly.h"
#include "log_line.h"
#include "map_filler.h"
#include "separator_scan.h"
#include "standard_input.h"
#include "upload_file.h"

namespace zan_cgi {
namespace {

using StringMap = std::map<std::string, std::string>;

tov_log::Module log("zancgi", "core");

void TraceEntry(const char* signature) { ZANCGI_LOG(kTrace, "%s", signature); }

std::string ValueOrEmpty(const StringMap& values, const std::string& name) {
  const auto found = values.find(name);
  return found == values.end() ? std::string() : found->second;
}

/// Returns the parameters of a request that have been parsed so far.
const StringMap& ParamsOf(Cgi::Data& request) {
  PayParams(request);
  return request.params;
}

bool Contains(const std::string& text, const char* part) {
  return text.find(part) != std::string::npos;
}

}  // namespace

// The request record: its lifetime and accessors.

namespace {

void RemoveUpload(const std::string& path) {
  if (!tov_file::Exists(path)) return;
  ZANCGI_LOG_HERE(kDebug, "dropping temporary file '%s'", path.c_str());
  tov_file::RemoveFile(path);
}

void WarnOfUploadLeft(const std::string& path) noexcept {
  try {
    // "tamporary" is misspelled on purpose: administrators search for this
    // text.
    ZANCGI_LOG(kWarning, "failed to remove tamporary file '%s'", path.c_str());
  } catch (...) {
    // The log is the last resort; nothing else can report the failure.
  }
}

template <class Value>
void ListKeys(const std::map<std::string, Value>& map,
              std::vector<std::string>& keys) {
  keys.clear();
  keys.reserve(map.size());
  for (const auto& entry : map) keys.push_back(entry.first);
}

}  // namespace

Cgi::Data::Data() {
  ParseCookies();
  // Stored as forwarded: not split at commas and not trimmed.
  remote_addr = tov_env::GetEnv("HTTP_X_FORWARDED_FOR");
  if (remote_addr.empty()) remote_addr = tov_env::GetEnv("REMOTE_ADDR");
  server_addr = tov_env::GetEnv("SERVER_ADDR");
}

Cgi::Data::~Data() {
  DetachForm(*this);
  for (const auto& entry : files) {
    const std::string& path = entry.second.path;
    try {
      RemoveUpload(path);
    } catch (...) {
      WarnOfUploadLeft(path);
    }
  }
}

void Cgi::Data::CheckTmpDir() {
  if (tmp_dir.empty()) tmp_dir = tov_env::GetEnv("TMP");
  // For compatibility, this default differs from the one in the parser.
  if (tmp_dir.empty()) tmp_dir = "tmp";
  if (!tov_file::Exists(tmp_dir)) {
    tov_file::MkDir(tmp_dir, nullptr);
  } else if (!tov_file::Info(tmp_dir, false).IsDir()) {
    throw std::runtime_error("temp dir '" + tmp_dir + "' is not a directory");
  }
}

Cgi::Cgi(const std::string& binary_name, const std::string& tov_name)
    : data_(std::shared_ptr<Data>(new Data)) {
  data_->tov_name = tov_name;
  data_->SetWorkDir(binary_name);
}

void Cgi::SetTmpDir(const std::string& dir) {
  data_->tmp_dir = dir;
  data_->CheckTmpDir();
}

std::string Cgi::Param(const std::string& name) {
  if (!data_->parsed) data_->ParseQuery();
  return ValueOrEmpty(ParamsOf(*data_), name);
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
  ListKeys(ParamsOf(*data_), names);
}

void Cgi::GetFileNames(std::vector<std::string>& names) const {
  if (!data_->parsed) data_->ParseQuery();
  ListKeys(data_->files, names);
}

// The query string and the cookies.

void Cgi::Data::ParseQueryString(std::string query) {
  TraceEntry("void zan_cgi::Cgi::Data::ParseQueryString(std::string)");
  if (parsed) {
    ZANCGI_LOG(kWarning, "attempt to reparse GET query");
    return;
  }
  MapFiller filler(params);
  for (FieldCursor items(query, '&'); !items.AtEnd();) {
    std::string rest = items.Next();
    std::string value = str::GetWord(rest, '&');
    if (value.empty()) continue;
    // Split before decoding: an encoded "&" or "=" is data.
    const std::string name = str::url::Decode(str::GetWord(value, '='));
    if (!name.empty()) {
      filler.Join(name, ", ", str::url::Decode(value));
    } else if (!value.empty()) {
      ZANCGI_LOG(kWarning, "Key name is empty, value = '%s'", value.c_str());
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
    // Unlike with parameters, the last cookie of a name counts.
    cookies[name] = piece;
  }
}

// Parsing, and the limit of a body's length.

void Cgi::Data::ParseQuery() {
  TraceEntry("void zan_cgi::Cgi::Data::ParseQuery()");
  const std::string method = tov_env::GetEnv("REQUEST_METHOD");
  if (method == "GET") {
    ParseQueryString(tov_env::GetEnv("QUERY_STRING"));
  } else if (method == "POST") {
    ParseInput();
  } else {
    throw std::runtime_error("bad request method '" + method + "'");
  }
}

void Cgi::ParseQuery() {
  if (!data_->parsed) {
    data_->ParseQuery();
  } else {
    ZANCGI_LOG(kWarning, "CGI already parsed input");
  }
}

void Cgi::CheckContentLength(long maxLength) {
  if (tov_env::GetEnv("REQUEST_METHOD") != "POST") return;
  const int length = str::Int(tov_env::GetEnv("CONTENT_LENGTH"));
  if (length > maxLength) {
    throw std::runtime_error("Post data too large. Max allowed length is " +
                             str::Str(maxLength / 1024) + "KB");
  }
}

// The body of a POST.

namespace {

constexpr std::uint64_t kLargestChunk = 65536;
constexpr int kLongestLine = 262144;
constexpr unsigned kEmptyReadPauseMs = 100;

bool IsInputGood() {
  const std::istream* const input = StandardInput();
  return input == nullptr || input->good();
}

bool IsInputAtEnd() {
  const std::istream* const input = StandardInput();
  return input != nullptr && input->eof();
}

const char* TrueOrFalse(bool value) { return value ? "true" : "false"; }

/// Returns the boundary as it stands in the body: "--" and the value in the
/// content type, quotes included. The media type itself is not checked.
std::string AnnouncedBoundary() {
  std::string type = tov_env::GetEnv("CONTENT_TYPE");
  str::GetWord(type, "boundary=");
  std::string boundary = "--" + str::GetWord(type, ';');
  ZANCGI_LOG_HERE(kDebug, "POST boundary detected: %s",
                  TrueOrFalse(boundary.size() > 2));
  return boundary;
}

struct FreeMemory {
  void operator()(char* memory) const { std::free(memory); }
};
using ZeroedBuffer = std::unique_ptr<char[], FreeMemory>;

/// Allocates zeroed memory. Pages that a small body does not use cost nothing.
ZeroedBuffer MakeZeroedBuffer(std::size_t size) {
  ZeroedBuffer buffer(static_cast<char*>(std::calloc(size, 1)));
  if (!buffer) throw std::bad_alloc();
  return buffer;
}

/// Parses the body of one POST and fills the request record.
///
/// The code uses three terms: the boundary is "--" and the value in the content
/// type; the separator, which ends a file, is CR LF and the boundary; a
/// delimiter separates words, such as ";".
///
/// The parser goes over the chunks of the body with four states. Each state is
/// a method that consumes what it can of the current chunk. Every byte of the
/// result is part of our promise, even where it is odd: front ends and stored
/// forms depend on it. The next chunk is read only from a position at the end
/// of the last one, so some bodies are never parsed to their end. These cases
/// stay:
/// - With an announced boundary, a read of no bytes after the first chunk
///   leaves the chunk empty and the position unchanged.
/// - When the parser searches for a boundary, the first or one after an ignored
///   part, and it ends in the chunk's last two bytes, the position moves beyond
///   the chunk.
/// - The skip after a file does the same when the next chunk is shorter than
///   the skip.
/// - Before the first byte, in a body without a boundary, and while a body is
///   drained, reads of no bytes are repeated without end, with a pause after
///   each.
///
/// A front end can end the first three with a limit of processor time and
/// memory. Only a limit of real time, such as alarm(2), ends the last.
class BodyParser {
 public:
  /// @param length    the declared length of the body, not 0
  /// @param boundary  "--" and the announced value
  BodyParser(Cgi::Data& request, std::int64_t length,
             const std::string& boundary)
      : request_(request),
        params_(request.params),
        length_(length),
        capacity_(std::min(static_cast<std::uint64_t>(length), kLargestChunk)),
        boundary_(boundary),
        closing_boundary_(boundary + "--"),
        // The look-ahead reads the byte after a full chunk. A carry may copy
        // from beyond a short chunk, but never from beyond a full one, because
        // some chunk has held the whole boundary.
        chunk_(MakeZeroedBuffer(capacity_ + 1)),
        separator_("\r\n" + boundary),
        carry_(separator_.size() + 1, '\0') {}

  void Parse() {
    try {
      Prepare();
    } catch (...) {
      AfterFailedPreparation();
      throw;
    }
    // An error in this loop leaves the rest of the body unread and the record
    // unparsed. The upload's file is closed, and the record removes it. The
    // descriptor is read without std::cin, whose state only the front end can
    // change. The state is checked for compatibility.
    do {
      Pass();
    } while (IsInputGood() && HasMore());
    Finish();
  }

 private:
  enum class State { kSeekBoundary, kPartHeaders, kFieldValue, kFileData };
  enum class AfterHeaders { kNone, kFieldValue, kFileData };

  void Prepare() {
    std::string& directory = request_.tmp_dir;
    if (directory.empty()) {
      directory = tov_env::GetEnv("TMP");
      if (directory.empty()) directory = "/tmp";
      ZANCGI_LOG_HERE(kDebug, "temp dir is empty, new temp dir '%s'",
                      directory.c_str());
    }
    CheckFreeSpace();
    // Cannot happen, because the boundary begins with "--". Kept as a guard.
    if (boundary_.empty()) {
      throw std::runtime_error("Boundary definition not found");
    }
  }

  /// A lack of space is not an error yet, because a form without files needs
  /// none.
  void CheckFreeSpace() {
    const auto needed = static_cast<std::uint64_t>(length_);
    const std::uint64_t free = request_.FreeSpaceSize(request_.tmp_dir);
    ZANCGI_LOG_HERE(kDebug, "query size '%llu', free space in tmpdir '%llu'",
                    static_cast<unsigned long long>(needed),
                    static_cast<unsigned long long>(free));
    if (needed <= free) return;
    is_short_of_space_ = true;
    // "enoght" is misspelled on purpose: administrators search for this text.
    ZANCGI_LOG(kWarning,
               "There is not enoght free space on '%s' to process a query",
               request_.tmp_dir.c_str());
  }

  /// Reads the body before the request fails, because the web server expects
  /// that.
  void AfterFailedPreparation() {
    ZANCGI_LOG_HERE(kDebug, "Reading query before processing thrown exception");
    const std::int64_t count = Drain();
    ZANCGI_LOG_HERE(kDebug, "query bytes read on throw '%d' of '%d'",
                    static_cast<int>(count), static_cast<int>(length_));
    request_.parsed = true;
  }

  std::int64_t Drain() {
    std::int64_t count = 0;
    while (count < length_ && IsInputGood()) count += ReadAfter(count);
    return count;
  }

  /// Reads the next chunk of a body after @p total bytes.
  std::int64_t ReadAfter(std::int64_t total) {
    const long wanted =
        std::min(length_ - total, static_cast<std::int64_t>(capacity_));
    // Without a byte left to read, a wait would last until the time limit.
    const long count = wanted == 0 ? 0 : request_.Read(chunk_.get(), wanted);
    if (count < 0) throw std::runtime_error("Error reading STDIN");
    if (count == 0) tov_proc::Sleep(kEmptyReadPauseMs);
    return count;
  }

  bool HasMore() const {
    return position_ < size_ || static_cast<std::uint64_t>(total_) <
                                    static_cast<std::uint64_t>(length_);
  }

  void Pass() {
    // After an upload has failed, the rest of each chunk is dropped.
    if ((position_ == size_ || has_upload_failed_) && !ReadChunk()) return;
    switch (state_) {
      case State::kSeekBoundary:
        return SeekBoundary();
      case State::kPartHeaders:
        if (CompleteLine()) TakeHeader();
        return;
      case State::kFieldValue:
        if (CompleteLine()) TakeValueLine();
        return;
      case State::kFileData:
        return TakeFileData();
    }
  }

  bool ReadChunk() {
    size_ = static_cast<std::size_t>(ReadAfter(total_));
    // Kept for compatibility: the position stays beyond the empty chunk. With
    // an announced boundary, nothing is read after that.
    if (size_ == 0) return false;
    total_ += static_cast<std::int64_t>(size_);
    position_ = std::exchange(skip_, 0);
    return true;
  }

  bool CompleteLine() {
    if (ExtendLine(chunk_.get(), size_, position_, line_)) return true;
    // Limits the memory for a line that never ends.
    if (state_ == State::kFieldValue && IsLineTooLong()) CheckValueLine();
    return false;
  }

  void GoToChunkEnd() { position_ = std::max(position_, size_); }

  void SeekBoundary() {
    if (!IsBoundaryAnnounced()) {
      // Also moves back from beyond an empty chunk, so that the next one is
      // read.
      position_ = size_;
    } else if (FindBoundary()) {
      return;
    } else {
      GoToChunkEnd();
    }
    if (!has_seen_boundary_) KeepRawChunk();
  }

  bool FindBoundary() {
    line_.clear();
    const std::size_t end =
        FindBoundaryEnd(boundary_, chunk_.get(), size_, position_);
    if (end == std::string::npos) return false;
    // Skips the CR LF unchecked. In the last two bytes of a chunk this moves
    // beyond its end, and the skip does not continue in the next chunk.
    position_ = end + 2;
    has_seen_boundary_ = true;
    state_ = State::kPartHeaders;
    return true;
  }

  bool IsBoundaryAnnounced() const { return boundary_.size() > 2; }

  /// Until a boundary is found, the body may be a query string.
  void KeepRawChunk() {
    ZANCGI_LOG_HERE(kDebug, "appending %d chars to buff",
                    static_cast<int>(size_));
    if (raw_body_.empty()) raw_body_.reserve(RawBodyReserve());
    raw_body_.append(chunk_.get(), size_);
  }

  /// Returns how much memory to reserve for the body. Without a reserve,
  /// growing would cost more than the parsing. The limit keeps a client from
  /// claiming gigabytes by a mere Content-Length.
  std::size_t RawBodyReserve() const {
    constexpr std::uint64_t kMostOnTrust = std::uint64_t{16} << 20;
    return std::min(static_cast<std::uint64_t>(length_), kMostOnTrust);
  }

  void TakeHeader() {
    constexpr std::string_view kDisposition = "Content-Disposition: ";
    if (line_.empty()) {
      EnterAfterHeaders();
    } else if (line_.starts_with(kDisposition)) {
      TakeDisposition(line_.substr(kDisposition.size()));
    }
    // Other headers, including the part's content type, have no effect.
    line_.clear();
  }

  void EnterAfterHeaders() {
    switch (after_headers_) {
      case AfterHeaders::kNone:
        state_ = State::kSeekBoundary;
        return;
      case AfterHeaders::kFieldValue:
        state_ = State::kFieldValue;
        return;
      case AfterHeaders::kFileData:
        state_ = State::kFileData;
        return;
    }
  }

  void TakeDisposition(const std::string& value) {
    Disposition disposition(value);
    const std::string type = disposition.Next();
    if (type != "form-data") {
      ZANCGI_LOG_HERE(kDebug,
                      "Ignoring unknown type of Content-Disposition: %s",
                      type.c_str());
      state_ = State::kSeekBoundary;
      return;
    }
    after_headers_ = AfterHeaders::kNone;
    // Kept for compatibility: attributes count in the order sent, so a name
    // after a file name turns the part into a field with the file's content. An
    // empty attribute, as between ";;", ends the list.
    for (;;) {
      const std::string attribute = disposition.Next();
      if (attribute.empty()) break;
      TakeAttribute(attribute);
    }
    if (after_headers_ == AfterHeaders::kFileData) AnnounceFile();
  }

  /// Kept for compatibility: only the beginning of an attribute is compared, so
  /// "names" and "filename*" count, too. A part without a name or file name
  /// keeps the previous one.
  void TakeAttribute(const std::string& attribute) {
    if (attribute.starts_with("name")) {
      SetElementName(QuotedValue(attribute));
      if (element_name_.empty()) {
        ZANCGI_LOG_HERE(kDebug, "Element with empty name found. Ignoring.");
      } else {
        // Kept for compatibility: a field named "filename" cannot be sent.
        after_headers_ = element_name_ == "filename"
                             ? AfterHeaders::kFileData
                             : AfterHeaders::kFieldValue;
      }
    } else if (attribute.starts_with("filename")) {
      SetFileName(QuotedValue(attribute));
      after_headers_ = AfterHeaders::kFileData;
    }
  }

  void SetElementName(std::string name) {
    element_ = nullptr;
    element_name_ = std::move(name);
  }

  void SetFileName(std::string name) {
    upload_ = nullptr;
    named_in_ = nullptr;
    file_name_ = std::move(name);
  }

  /// Returns the parameter of the element name; a new one gets the given value.
  /// The parameter is looked up once per name sent, because a long name may
  /// have a value of as many lines.
  MapFiller::Place Element(const std::string& value) {
    if (element_ != nullptr) return {element_, false};
    const MapFiller::Place place = params_.FindOrInsert(element_name_, value);
    element_ = place.value;
    return place;
  }

  /// Returns the entry of the client's file name, looked up once per name sent.
  Cgi::Data::FileInfo& Upload() {
    if (upload_ == nullptr) upload_ = &request_.files[file_name_];
    return *upload_;
  }

  /// Stores the client's file name as the element's value. If many parts repeat
  /// the name, it is copied only once: the element of such parts is "filename",
  /// to which no field is ever joined.
  void NameFileInElement() {
    const auto [value, is_new] = Element(file_name_);
    if (!is_new && value != named_in_) *value = file_name_;
    named_in_ = value;
  }

  void AnnounceFile() {
    // Kept for compatibility: this comes before the check of the names, so an
    // empty file input also fails the request.
    if (is_short_of_space_) has_upload_failed_ = true;
    if (file_name_.empty() || element_name_.empty()) {
      ZANCGI_LOG_HERE(
          kDebug,
          "Filename not found in Content-Disposition. Ignoring this part");
      after_headers_ = AfterHeaders::kNone;
    } else {
      NameFileInElement();
    }
  }

  /// Kept for compatibility: the limit applies to a line, not to the value.
  bool IsLineTooLong() const {
    return line_.size() > std::size_t{kLongestLine};
  }

  void CheckValueLine() const {
    if (element_name_.empty()) {
      throw std::runtime_error(
          "On getting element value element name is empty");
    }
    if (IsLineTooLong()) {
      throw std::runtime_error("Element value size must be less than " +
                               str::Str(kLongestLine));
    }
  }

  void TakeValueLine() {
    CheckValueLine();
    if (line_.starts_with(boundary_) || line_.starts_with(closing_boundary_)) {
      state_ = State::kPartHeaders;
    } else {
      JoinToElement();
    }
    line_.clear();
  }

  /// Joins the lines of a value, and the values of a repeated field.
  void JoinToElement() {
    const auto [value, is_new] = Element(line_);
    if (!is_new) value->append("\n").append(line_);
  }

  void TakeFileData() {
    if (!file_.IsOpen() && !has_upload_failed_) CreateFile();
    const char* const begin = chunk_.get() + std::min(position_, size_);
    const SeparatorScan::Result found =
        separator_.Scan(begin, chunk_.get() + size_);
    // The match of earlier chunks broke, so those bytes are data.
    if (found.match_is_broken && carried_ > 0) WriteCarry();
    const auto scanned = static_cast<std::size_t>(found.end - begin);
    const std::size_t count = scanned - (separator_.matched() - carried_);
    WriteFileData(begin, count);
    if (found.is_complete) {
      EndFile(static_cast<std::size_t>(found.end - chunk_.get()));
    } else {
      CarryMatch(count);
      GoToChunkEnd();
    }
  }

  void CreateFile() {
    const std::string& path = MakeFile();
    ZANCGI_LOG(kTrace, "%s Creating new file %s", "ParseInput", path.c_str());
    file_.Open(path);
    IgnoreErrorsUnlessOpened(file_.IsOpen(), [&path] {
      tov_file::Attrs(0700).SafeSet(path, false);
    });
    file_size_ = 0;
  }

  /// Makes a file and its entry, and returns the path in the entry. If the
  /// entry cannot be made, the file is removed, because nothing else would
  /// remove it.
  ///
  /// If two uploads have the same client file name, the later one counts. The
  /// entry keeps the earlier size until the new upload is complete.
  const std::string& MakeFile() {
    const tov_file::Tmp made(tov_file::ConcatPath(request_.tmp_dir, "zantemp"));
    try {
      std::string other = made.Name();
      std::string& path = Upload().path;
      path.swap(other);
      if (!other.empty()) RemoveIfPossible(other);
      return path;
    } catch (...) {
      RemoveIfPossible(made.Name());
      throw;
    }
  }

  /// Best effort: a file that remains must not fail the request, nor hide an
  /// earlier error.
  static void RemoveIfPossible(const std::string& path) noexcept {
    try {
      tov_file::RemoveFile(path);
    } catch (...) {
      // The file remains.
    }
  }

  /// Runs an action on the upload's file. If the file could not be opened, a
  /// failure is ignored: the first write reports it, after the whole body has
  /// been read.
  template <class Action>
  static void IgnoreErrorsUnlessOpened(bool was_opened, const Action& action) {
    try {
      action();
    } catch (...) {
      if (was_opened) throw;
    }
  }

  void WriteCarry() {
    WriteFileData(carry_.data(), carried_);
    carried_ = 0;
  }

  void WriteFileData(const char* data, std::size_t count) {
    file_size_ += static_cast<std::int64_t>(count);
    if (has_upload_failed_) return;
    file_.Write(data, count);
    if (!file_.IsBad()) return;
    const bool was_opened = file_.IsOpen();
    file_.Close();
    IgnoreErrorsUnlessOpened(was_opened,
                             [this] { tov_file::RemoveFile(Upload().path); });
    has_upload_failed_ = true;
  }

  /// Keeps the beginning of a separator at the end of the chunk: it is data
  /// unless the separator continues in the next chunk.
  ///
  /// Kept for compatibility: the bytes are copied from where they would be if
  /// the scan and the separator had both begun with the chunk. That is the
  /// wrong place for file data that follows the headers in the same chunk, and
  /// for a separator that spans three chunks. If the match then breaks, the
  /// wrong bytes are written.
  void CarryMatch(std::size_t count) {
    for (; carried_ < separator_.matched(); ++carried_) {
      carry_[carried_] = chunk_.get()[count + carried_];
    }
  }

  /// @param end  the position after the separator
  void EndFile(std::size_t end) {
    separator_.Restart();
    carried_ = 0;
    // Skips the CR LF, or the "--" of the last boundary, unchecked.
    position_ = end + 2;
    if (position_ > size_) {
      skip_ = position_ - size_;
      position_ = size_;
    }
    state_ = State::kPartHeaders;
    if (file_.IsOpen()) StoreFile();
  }

  void StoreFile() {
    file_.Close();
    Upload().size = file_size_;
  }

  void Finish() {
    if (!has_seen_boundary_) TakeRawBody();
    if (file_.IsOpen()) StoreFile();
    request_.parsed = true;
    if (has_upload_failed_) {
      throw std::runtime_error("error writing temporary file");
    }
    if (length_ > total_) {
      throw std::runtime_error(
          "POST read failed: CONTENT_LENGTH=" + str::Str(length_) +
          ", bytes read:" + str::Str(total_));
    }
    ZANCGI_LOG_HERE(kDebug,
                    "End of stdin parsing, stdin state EOF %s, GOOD %s, read "
                    "%u of %u chars",
                    TrueOrFalse(IsInputAtEnd()), TrueOrFalse(IsInputGood()),
                    static_cast<unsigned>(total_),
                    static_cast<unsigned>(length_));
  }

  /// Parses the body as a query string. Unlike there, keys are not decoded, and
  /// the last value of a key counts.
  void TakeRawBody() {
    ZANCGI_LOG_HERE(kDebug, "no boundaries in POST data, assuming GET format");
    for (FieldCursor items(raw_body_, '&'); !items.AtEnd();) {
      std::string rest = items.Next();
      std::string value = str::GetWord(rest, '&');
      const std::string key = str::GetWord(value, '=');
      if (!key.empty()) params_.Set(key, str::url::Decode(value));
    }
  }

  Cgi::Data& request_;
  MapFiller params_;              ///< Fills the request's parameters.
  const std::int64_t length_;     ///< Declared length of the body.
  const std::uint64_t capacity_;  ///< The largest chunk.
  const std::string boundary_;
  const std::string closing_boundary_;

  ZeroedBuffer chunk_;        ///< Bytes of earlier chunks stay in it.
  std::size_t size_ = 0;      ///< Length of the chunk.
  std::size_t position_ = 0;  ///< Where to continue; may be beyond its end.
  std::size_t skip_ = 0;      ///< How much of the next one to skip.
  std::int64_t total_ = 0;    ///< Bytes read so far.

  State state_ = State::kSeekBoundary;
  AfterHeaders after_headers_ = AfterHeaders::kNone;
  bool has_seen_boundary_ = false;
  bool is_short_of_space_ = false;
  bool has_upload_failed_ = false;
  std::string line_;
  std::string element_name_;
  std::string* element_ = nullptr;         ///< Its parameter, once looked up.
  std::string file_name_;                  ///< As the client sent it.
  Cgi::Data::FileInfo* upload_ = nullptr;  ///< Its entry, once looked up.
  /// The parameter that was last set to the file name.
  std::string* named_in_ = nullptr;
  std::string raw_body_;

  UploadFile file_;
  std::int64_t file_size_ = 0;
  SeparatorScan separator_;
  std::string carry_;
  std::size_t carried_ = 0;  ///< How much of #carry_ is in use.
};

}  // namespace

void Cgi::Data::ParseInput() {
  TraceEntry("void zan_cgi::Cgi::Data::ParseInput()");
  if (parsed) {
    ZANCGI_LOG(kWarning, "attempt to reparse POST query");
    return;
  }
  const std::int64_t length = str::Int64(tov_env::GetEnv("CONTENT_LENGTH"));
  if (length == 0) {
    ZANCGI_LOG_HERE(kDebug, "CONTENT_LENGTH=0");
    return;
  }
  BodyParser(*this, length, AnnouncedBoundary()).Parse();
}

long Cgi::Read(char* buffer, long length) {
  return data_->Read(buffer, length);
}

// Queries to the back end.

namespace {

/// Throws unless the back end may be queried. In a folder of an account, the
/// account could replace the back end's socket by its own, receive the
/// visitor's session and answer that the visitor is root.
void RequireBackEnd(const std::string& tov_name) {
  if (tov_name.empty()) throw tov_err::Missed("tovname", "");
  if (IsInsideAccountsFolder()) {
    throw std::runtime_error(
        "the back end cannot be asked from inside an account's folder");
  }
}

bool IsForwarded(const std::string& name) {
  return name.starts_with("HTTP_") ||
         (name.starts_with("REQUEST_") && name != "REQUEST_METHOD") ||
         name.starts_with("SERVER_") || name.starts_with("REMOTE_") ||
         name == "HTTPS";
}

/// Returns the environment for the back end. It always describes a GET of the
/// composed query, whatever the browser sent.
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

/// Adds output format, session and "sfrom" to a query. A plain search decides
/// whether an item exists: "layout=1" counts as "out=". Values are added
/// without encoding. Front ends depend on both.
void AddImplicitItems(Cgi::Data& request, std::string& query) {
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
  const StringMap& params = ParamsOf(request);
  const auto sfrom = params.find("sfrom");
  if (!Contains(query, "sfrom=") && sfrom != params.end()) {
    query = str::Append(query, "sfrom=" + sfrom->second, "&");
  }
}

std::string ReadAnswer(tov_client::Protocol& connection) {
  std::string answer;
  char piece[1024];
  for (;;) {
    const unsigned long count = connection.GetAnswer(piece, sizeof(piece));
    if (count == 0) return answer;
    answer.append(piece, count);
  }
}

void DropTextBeforeXml(std::string& answer) {
  const std::size_t declaration = answer.find("<?xml");
  if (declaration != std::string::npos) answer.erase(0, declaration);
}

/// Makes one attempt with a connection of its own, which is always closed.
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

}  // namespace

void Cgi::SetTovName(const std::string& name) { data_->tov_name = name; }

std::string Cgi::Query(std::string query) {
  const std::string& tov_name = data_->tov_name;
  RequireBackEnd(tov_name);
  AddImplicitItems(*data_, query);
  const StringMap environment = BackendEnvironment(query);
  ZANCGI_LOG(kQuery, "cgi.Query('%s') tov '%s'", query.c_str(),
             tov_name.c_str());
  constexpr int kAttempts = 4;
  for (int attempt = 1;; ++attempt) {
    try {
      return Exchange(tov_name, environment, query);
    } catch (const tov_err::Error&) {
      if (attempt == kAttempts) throw;
    }
  }
}

std::string Cgi::Query(const std::map<std::string, std::string>& params) {
  std::string query;
  for (const auto& [name, value] : params) {
    std::string item = name;
    item.append("=").append(str::url::Encode(value));
    // The base library decides how an empty query is joined. After that the
    // items are appended in place, because str::Append() would copy the query
    // each time.
    if (query.empty()) {
      query = str::Append(query, item, "&");
    } else {
      query.append("&").append(item);
    }
  }
  return Query(std::move(query));
}

// Authorization.

namespace {

/// Stores the session id and its source in the record. An id from an earlier
/// call is kept.
void FindSession(Cgi& cgi, Cgi::AuthInfo::AuthMethod method,
                 Cgi::Data& record) {
  using Auth = Cgi::AuthInfo;
  Auth& session = record.auth_info;
  const auto looks_in = [&](Auth::AuthMethod place) {
    return session.auth.empty() && (method == Auth::AuthAny || method == place);
  };
  if (looks_in(Auth::AuthCookie)) {
    session.auth = cgi.Cookie(record.tov_name + "ses5");
  }
  if (looks_in(Auth::AuthParams)) {
    ZANCGI_LOG_HERE(kDebug, "session cookie not found, trying params");
    session.auth = cgi.Param("auth");
    session.method = Auth::AuthParams;
  } else {
    // Kept for compatibility: this also applies to a session from an earlier
    // call, and to a missing cookie if only the cookie counts. The back end
    // then decides about an empty session.
    ZANCGI_LOG_HERE(kDebug, "session cookie found");
    session.method = Auth::AuthCookie;
  }
}

void ThrowUnlessConfirmed(const tov_xml::Xml& answer,
                          const std::string& tov_name) {
  // The error comes first: an answer with both is a refusal.
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

void TakeUser(const tov_xml::XmlNode& user, Cgi::AuthInfo& session) {
  session.name = user.GetProp("name");
  session.level = str::Int(user.GetProp("level"));
}

void TakeLanguage(std::string cookie, Cgi::AuthInfo& session) {
  if (!Contains(cookie, ":")) return;
  session.lang_word = str::RGetWord(cookie, ':');
  session.lang_rest = cookie;
}

}  // namespace

void Cgi::Authorize(AuthInfo::AuthMethod method) {
  RequireBackEnd(data_->tov_name);
  FindSession(*this, method, *data_);
  tov_xml::Xml answer;
  answer.LoadFromString(Query("func=whoami&out=xml"));
  ThrowUnlessConfirmed(answer, data_->tov_name);
  TakeUser(answer.GetNode("/doc/user"), data_->auth_info);
  TakeLanguage(Cookie(data_->tov_name + "lang5"), data_->auth_info);
  data_->authorized = true;
}

const Cgi::AuthInfo& Cgi::auth() const {
  if (!data_->authorized) throw std::runtime_error("not authorized");
  return data_->auth_info;
}

}  // namespace zan_cgi

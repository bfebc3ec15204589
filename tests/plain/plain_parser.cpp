#include "plain/plain_parser.h"

#include <algorithm>
#include <stdexcept>
#include <string_view>

#include "plain/plain_words.h"

namespace plain {
namespace {

/// Thrown when what follows would never end.
struct GoesOnForEver {};

/// Once a read has found the end of a file, every further one does.
constexpr unsigned kMaxReadsAtEnd = 50;

/// Standard input as it is given by an Input instead of a descriptor. The input
/// and the outcome must outlive it.
class StandardInput {
 public:
  /// Counts the bytes and writes the log lines of the reads into @p outcome.
  StandardInput(const Input& input, Outcome& outcome)
      : input_(input), outcome_(outcome) {}

  /// Reads at most @p length bytes into @p buffer. Returns their number; 0 when
  /// nothing was read this time; -1 after a hang-up, and when a negative length
  /// makes the read fail. Throws GoesOnForEver when 0 is all that will ever
  /// come.
  std::int64_t Read(char* buffer, std::int64_t length) {
    const std::size_t left = input_.bytes.size() - outcome_.bytes_read;
    std::size_t most = left;
    if (next_read_ < input_.reads.size()) {
      const std::size_t given = input_.reads[next_read_++];
      // The wait brought nothing, so neither hang-up nor length come into play.
      if (given == 0) {
        if (input_.nothing == Nothing::kSignal) {
          outcome_.log.emplace_back(
              9, "zancgi_unix.cpp:# poll interrupted, trying again");
        }
        return 0;
      }
      most = std::min(given, left);
    }
    if (left == 0 && input_.hangs_up) {
      outcome_.log.emplace_back(4, "Signal HUP received");
      return -1;
    }
    if (length < 0) {
      // As a size it is larger than any buffer can be: EFAULT.
      outcome_.log.emplace_back(3, "error reading stdin, code 14");
      return -1;
    }
    if (left == 0 && ++reads_at_end_ == kMaxReadsAtEnd) throw GoesOnForEver();
    const std::size_t count = std::min(most, static_cast<std::size_t>(length));
    input_.bytes.copy(buffer, count, outcome_.bytes_read);
    outcome_.bytes_read += count;
    return static_cast<std::int64_t>(count);
  }

 private:
  const Input& input_;
  Outcome& outcome_;
  std::size_t next_read_ = 0;
  unsigned reads_at_end_ = 0;
};

constexpr std::int64_t kLargestChunk = 65536;
constexpr std::size_t kLongestFieldLine = 262144;
constexpr std::string_view kContentDisposition = "Content-Disposition: ";

/// Passes that read nothing, in succession, with the position beyond the chunk.
/// Such passes see no byte, so after four of them nothing new can come. The
/// longest path: a line of the headers (a field's boundary line, when it was a
/// field's), the empty line that ends the headers, and the first pass of the
/// new state. That one either throws (no element name), or gives the upload up
/// (its file cannot be written) so that reading goes on, or is repeated without
/// change (a field value grows by an empty line, no boundary is found, no bytes
/// are written).
constexpr unsigned kMaxPassesBeyondChunk = 10;

enum class State { kSeekBoundary, kPartHeaders, kFieldValue, kFileData };

/// What "%d" shows of a number.
std::string Signed32(std::int64_t number) {
  return std::to_string(static_cast<std::int32_t>(number));
}

/// What "%u" shows of a number.
std::string Unsigned32(std::int64_t number) {
  return std::to_string(static_cast<std::uint32_t>(number));
}

/// What "%s" shows of a text: nothing from a NUL on.
std::string CString(std::string_view text) {
  return std::string(text.substr(0, text.find('\0')));
}

/// The value of an attribute: what stands between the first equals sign with a
/// double quote after it and the next double quote. Unquoted it is empty.
std::string_view QuotedValue(std::string_view attribute) {
  TakeWord(attribute, "=\"");
  return TakeWord(attribute, "\"");
}

/// One parse of one request.
class Parser {
 public:
  Parser(const Request& request, Outcome& outcome)
      : request_(request), outcome_(outcome), input_(request.input, outcome) {}

  void ParseInput() {
    Log(8, "void zan_cgi::Cgi::Data::ParseInput()");
    declared_length_ = Int64(request_.content_length);
    if (declared_length_ == 0) {
      LogWithPlace("CONTENT_LENGTH=0");
      return;
    }
    // Compared unsigned: a negative length is a very large one here.
    chunk_size_ = static_cast<std::int64_t>(
        std::min(static_cast<std::uint64_t>(declared_length_),
                 static_cast<std::uint64_t>(kLargestChunk)));
    FindOutBoundary();
    chunk_.assign(static_cast<std::size_t>(chunk_size_) + separator_.size() + 1,
                  '\0');
    try {
      ChooseTmpDir();
      CheckRoom();
    } catch (const std::runtime_error&) {
      Drain();
      throw;
    }
    carry_.assign(separator_.size() + 1, '\0');
    ReadBody();
    EndBody();
  }

 private:
  void FindOutBoundary() {
    std::string_view rest = request_.content_type;
    TakeWord(rest, "boundary=");
    boundary_ = "--" + std::string(TakeWord(rest, ";"));
    boundary_announced_ = boundary_.size() > 2;
    LogWithPlace(std::string("POST boundary detected: ") +
                 (boundary_announced_ ? "true" : "false"));
    separator_ = "\r\n" + boundary_;
  }

  void ChooseTmpDir() {
    if (!outcome_.tmp_dir.empty()) return;
    outcome_.tmp_dir = request_.tmp;
    if (outcome_.tmp_dir.empty()) outcome_.tmp_dir = "/tmp";
    LogWithPlace("temp dir is empty, new temp dir '" +
                 CString(outcome_.tmp_dir) + "'");
  }

  void CheckRoom() {
    if (request_.free_space_fails) {
      throw std::runtime_error("Cannot run statfs on " + outcome_.tmp_dir);
    }
    const auto query_size = static_cast<std::uint64_t>(declared_length_);
    LogWithPlace("query size '" + std::to_string(query_size) +
                 "', free space in tmpdir '" +
                 std::to_string(request_.free_space) + "'");
    if (query_size > request_.free_space) {
      Log(4, "There is not enoght free space on '" + CString(outcome_.tmp_dir) +
                 "' to process a query");
      short_of_space_ = true;
    }
  }

  /// Reads the body to its end after a failed preparation.
  void Drain() {
    LogWithPlace("Reading query before processing thrown exception");
    std::int64_t count = 0;
    while (count < declared_length_) {
      const std::int64_t result = input_.Read(
          chunk_.data(), std::min(declared_length_ - count, chunk_size_));
      if (result < 0) throw std::runtime_error("Error reading STDIN");
      if (result == 0) Sleep();
      count += result;
    }
    LogWithPlace("query bytes read on throw '" + Signed32(count) + "' of '" +
                 Signed32(declared_length_) + "'");
    outcome_.parsed = true;
  }

  void ReadBody() {
    do {
      Pass();
    } while (position_ < chunk_length_ ||
             static_cast<std::uint64_t>(total_read_) <
                 static_cast<std::uint64_t>(declared_length_));
  }

  void Pass() {
    if (position_ == chunk_length_ || upload_failed_) {
      passes_beyond_chunk_ = 0;
      if (!ReadChunk()) return;
    } else if (position_ > chunk_length_ &&
               ++passes_beyond_chunk_ == kMaxPassesBeyondChunk) {
      throw GoesOnForEver();
    }
    const bool in_line_state =
        state_ == State::kPartHeaders || state_ == State::kFieldValue;
    if (in_line_state && !ExtendLine()) return;
    Act();
  }

  /// False when there is nothing to work on in this pass.
  bool ReadChunk() {
    const std::int64_t left = declared_length_ - total_read_;
    // With nothing left the reader is not asked: after a hang-up it would fail
    // a body that is complete.
    chunk_length_ =
        left == 0 ? 0 : input_.Read(chunk_.data(), std::min(left, chunk_size_));
    if (chunk_length_ < 0) throw std::runtime_error("Error reading STDIN");
    if (chunk_length_ == 0) {
      Sleep();
      return false;
    }
    total_read_ += chunk_length_;
    position_ = skip_;
    skip_ = 0;
    return true;
  }

  /// True when the line is complete. At the end of the chunk the byte after the
  /// current one is whatever stands in the buffer.
  bool ExtendLine() {
    while (position_ < chunk_length_) {
      const auto at = static_cast<std::size_t>(position_);
      if (chunk_[at + 1] == '\n') break;
      line_ += chunk_[at];
      ++position_;
    }
    if (position_ == chunk_length_) {
      // Refused before its end is seen, so that it cannot grow without bound.
      if (state_ == State::kFieldValue && line_.size() > kLongestFieldLine) {
        CheckFieldLine();
      }
      return false;
    }
    position_ += 2;
    return true;
  }

  void Act() {
    switch (state_) {
      case State::kSeekBoundary:
        return SeekBoundary();
      case State::kPartHeaders:
        return PartHeader();
      case State::kFieldValue:
        return FieldValue();
      case State::kFileData:
        return FileData();
    }
  }

  void SeekBoundary() {
    if (boundary_announced_) {
      line_.clear();
      if (FindBoundary()) {
        boundary_seen_ = true;
        state_ = State::kPartHeaders;
        return;
      }
    }
    // Kept for compatibility: while a boundary is looked for, an empty chunk
    // leaves the position beyond its end, and nothing is read again.
    position_ = boundary_announced_ ? std::max(position_, chunk_length_)
                                    : chunk_length_;
    if (!boundary_seen_) {
      raw_body_.append(chunk_, 0, static_cast<std::size_t>(chunk_length_));
      LogWithPlace("appending " + Signed32(chunk_length_) + " chars to buff");
    }
  }

  /// Moves the position after the boundary and its line end, which may lie
  /// beyond the chunk. A byte that breaks a match is not compared again.
  bool FindBoundary() {
    std::size_t matched = 0;
    for (std::int64_t at = position_; at < chunk_length_; ++at) {
      if (chunk_[static_cast<std::size_t>(at)] != boundary_[matched]) {
        matched = 0;
        continue;
      }
      if (++matched == boundary_.size()) {
        position_ = at + 1 + 2;
        return true;
      }
    }
    return false;
  }

  void PartHeader() {
    if (line_.empty()) {
      state_ = after_headers_;
      return;
    }
    if (line_.starts_with(kContentDisposition)) {
      std::string_view rest = line_;
      rest.remove_prefix(kContentDisposition.size());
      Disposition(rest);
    }
    line_.clear();
  }

  void Disposition(std::string_view rest) {
    const std::string_view type = Trim(TakeWord(rest, ";"));
    if (type != "form-data") {
      LogWithPlace("Ignoring unknown type of Content-Disposition: " +
                   CString(type));
      state_ = State::kSeekBoundary;
      return;
    }
    after_headers_ = State::kSeekBoundary;
    TakeAttributes(rest);
    if (after_headers_ == State::kFileData) AnnounceFile();
  }

  void TakeAttributes(std::string_view rest) {
    for (;;) {
      const std::string_view attribute = Trim(TakeWord(rest, ";"));
      if (attribute.empty()) return;
      if (attribute.starts_with("name")) {
        TakeElementName(attribute);
      } else if (attribute.starts_with("filename")) {
        client_file_name_ = QuotedValue(attribute);
        after_headers_ = State::kFileData;
      }
    }
  }

  void TakeElementName(std::string_view attribute) {
    element_name_ = QuotedValue(attribute);
    if (element_name_.empty()) {
      LogWithPlace("Element with empty name found. Ignoring.");
    } else if (element_name_ == "filename") {
      after_headers_ = State::kFileData;
    } else {
      after_headers_ = State::kFieldValue;
    }
  }

  void AnnounceFile() {
    if (short_of_space_) upload_failed_ = true;
    if (client_file_name_.empty() || element_name_.empty()) {
      LogWithPlace(
          "Filename not found in Content-Disposition. Ignoring this part");
      after_headers_ = State::kSeekBoundary;
    } else {
      outcome_.params[element_name_] = client_file_name_;
    }
  }

  void FieldValue() {
    CheckFieldLine();
    // The closing boundary begins with the boundary.
    if (line_.starts_with(boundary_)) {
      state_ = State::kPartHeaders;
    } else if (const auto param = outcome_.params.find(element_name_);
               param != outcome_.params.end()) {
      param->second += '\n';
      param->second += line_;
    } else {
      outcome_.params[element_name_] = line_;
    }
    line_.clear();
  }

  void CheckFieldLine() const {
    if (element_name_.empty()) {
      throw std::runtime_error(
          "On getting element value element name is empty");
    }
    if (line_.size() > kLongestFieldLine) {
      throw std::runtime_error("Element value size must be less than " +
                               std::to_string(kLongestFieldLine));
    }
  }

  void FileData() {
    if (!file_open_ && !upload_failed_) CreateFile();
    bool match_broke = false;
    const std::int64_t scan_end = ScanForSeparator(match_broke);
    if (match_broke && carry_count_ > 0) WriteCarriedBytes();
    const auto matched_here =
        static_cast<std::int64_t>(matched_ - carry_count_);
    const std::int64_t data_count = scan_end - position_ - matched_here;
    Write(chunk_, position_, data_count);
    if (matched_ == separator_.size()) {
      EndFilePart(scan_end);
    } else {
      CarryPartialMatch(data_count);
      position_ = scan_end;
    }
  }

  void CreateFile() {
    File& file = outcome_.files[client_file_name_];
    // The entry's earlier file ceases to exist here; its size stays.
    file.content.clear();
    file.exists = request_.files_open;
    Log(8, "ParseInput Creating new file FILE");
    file_open_ = request_.files_open;
    file_bytes_ = 0;
  }

  /// The place where the scan stopped: after a full match, at the chunk's end,
  /// or where it began when that lies beyond the chunk.
  std::int64_t ScanForSeparator(bool& match_broke) {
    std::int64_t at = position_;
    for (; at < chunk_length_ && matched_ < separator_.size(); ++at) {
      const char byte = chunk_[static_cast<std::size_t>(at)];
      if (byte == separator_[matched_]) {
        ++matched_;
      } else if (matched_ > 0) {
        match_broke = true;
        matched_ = byte == separator_[0] ? 1 : 0;
      }
    }
    return at;
  }

  void WriteCarriedBytes() {
    Write(carry_, 0, static_cast<std::int64_t>(carry_count_));
    carry_count_ = 0;
  }

  /// Counts the bytes as file data, and writes them unless the upload has
  /// failed. Writing no bytes finds out that the file is not open, too.
  void Write(const std::string& bytes, std::int64_t from, std::int64_t count) {
    file_bytes_ += count;
    if (upload_failed_) return;
    File& file = outcome_.files[client_file_name_];
    const auto size = file.content.size() + static_cast<std::uint64_t>(count);
    if (file_open_ && size <= request_.file_limit) {
      file.content.append(bytes, static_cast<std::size_t>(from),
                          static_cast<std::size_t>(count));
      return;
    }
    file_open_ = false;
    file.content.clear();
    file.exists = false;
    upload_failed_ = true;
  }

  /// Skips the two bytes after the separator, in the next chunk if need be.
  void EndFilePart(std::int64_t separator_end) {
    position_ = std::min(separator_end + 2, chunk_length_);
    skip_ = separator_end + 2 - position_;
    matched_ = 0;
    carry_count_ = 0;
    state_ = State::kPartHeaders;
    if (file_open_) CloseFile();
  }

  /// Takes the bytes from an offset that does not count where the scan began,
  /// so that they need not be the ones that matched.
  void CarryPartialMatch(std::int64_t data_count) {
    for (; carry_count_ < matched_; ++carry_count_) {
      carry_[carry_count_] =
          chunk_[static_cast<std::size_t>(data_count) + carry_count_];
    }
  }

  void CloseFile() {
    file_open_ = false;
    outcome_.files[client_file_name_].size = file_bytes_;
  }

  void EndBody() {
    if (!boundary_seen_) {
      LogWithPlace("no boundaries in POST data, assuming GET format");
      ParseRawBody();
    }
    if (file_open_) CloseFile();
    outcome_.parsed = true;
    if (upload_failed_) {
      throw std::runtime_error("error writing temporary file");
    }
    // A body that ends early never comes here: the loop goes on until all that
    // was declared is read, or a read fails.
    LogWithPlace(
        "End of stdin parsing, stdin state EOF false, GOOD true, read " +
        Unsigned32(total_read_) + " of " + Unsigned32(declared_length_) +
        " chars");
  }

  void ParseRawBody() {
    std::string_view rest = raw_body_;
    while (!rest.empty()) {
      std::string_view value = TakeWord(rest, "&");
      const std::string_view key = TakeWord(value, "=");
      if (!key.empty()) outcome_.params[std::string(key)] = UrlDecode(value);
    }
  }

  void Sleep() { ++outcome_.sleeps; }
  void Log(int level, std::string text) {
    outcome_.log.emplace_back(level, std::move(text));
  }
  void LogWithPlace(const std::string& text) { Log(9, "zancgi.cpp:# " + text); }

  const Request& request_;
  Outcome& outcome_;
  StandardInput input_;

  std::int64_t declared_length_ = 0;
  std::int64_t chunk_size_ = 0;
  /// Keeps the bytes of earlier chunks after those of the last read. It is
  /// longer than a chunk by what the look-ahead and the carrying may touch.
  std::string chunk_;
  std::string boundary_;
  std::string separator_;
  bool boundary_announced_ = false;
  bool boundary_seen_ = false;
  bool short_of_space_ = false;
  bool upload_failed_ = false;

  std::int64_t total_read_ = 0;
  std::int64_t chunk_length_ = 0;
  std::int64_t position_ = 0;
  std::int64_t skip_ = 0;
  unsigned passes_beyond_chunk_ = 0;

  State state_ = State::kSeekBoundary;
  /// The first when what follows the headers is to be skipped.
  State after_headers_ = State::kSeekBoundary;
  std::string line_;
  std::string element_name_;
  std::string client_file_name_;
  std::string raw_body_;

  bool file_open_ = false;
  std::int64_t file_bytes_ = 0;
  /// Bytes of the separator matched so far.
  std::size_t matched_ = 0;
  std::string carry_;
  std::size_t carry_count_ = 0;
};

}  // namespace

Outcome Parse(const Request& request) {
  Outcome outcome;
  outcome.tmp_dir = request.tmp_dir;
  try {
    Parser(request, outcome).ParseInput();
  } catch (const GoesOnForEver&) {
    outcome.spins = true;
  } catch (const std::runtime_error& error) {
    outcome.error = error.what();
  }
  return outcome;
}

}  // namespace plain

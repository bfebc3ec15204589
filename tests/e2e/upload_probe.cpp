// A front end that answers with what it has been sent, and records how it came.
// Without PROBE_RECORDS, writes what the plain parser would have answered: its
// argument is the folder of one record.
//
// PROBE_RECORDS is a folder, the query string the name of a folder in it, where
// it leaves behind
//   content-type, content-length   the variables of the same names
//   reads     what each read of standard input gave, one number a line
//   body      the bytes of all reads, only if the file is there already
//   file-0... the uploaded files, in ascending order of their names
//   predicted-0... the same as the plain parser has them
// PROBE_SPOOL is the directory for uploads, in the same file system,
// PROBE_SECONDS the most processor time that a request may take.

#include <fcntl.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <zancgi/zancgi.h>

#include <cstddef>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include "plain/plain_parser.h"

namespace {

using zan_cgi::Cgi;

int reads_descriptor = -1;
int body_descriptor = -1;

std::string Variable(const char* name) {
  const char* const value = ::getenv(name);
  return value == nullptr ? "" : value;
}

/// There are bodies that are parsed for ever, with a field value that grows.
void LimitResources() {
  constexpr rlim_t kMemory = 256UL << 20;
  const rlim_t seconds = std::stoul(Variable("PROBE_SECONDS"));
  const rlimit time{seconds, seconds};
  const rlimit memory{kMemory, kMemory};
  ::setrlimit(RLIMIT_CPU, &time);
  ::setrlimit(RLIMIT_AS, &memory);
}

void Append(int descriptor, const char* bytes, std::size_t count) {
  while (count > 0) {
    const ssize_t written = ::write(descriptor, bytes, count);
    if (written < 0) ::_exit(98);
    bytes += written;
    count -= static_cast<std::size_t>(written);
  }
}

void RecordRead(const char* bytes, std::size_t count) {
  if (reads_descriptor < 0) return;
  const std::string line = std::to_string(count) + "\n";
  Append(reads_descriptor, line.data(), line.size());
  if (body_descriptor >= 0) Append(body_descriptor, bytes, count);
}

void StartRecord(const std::string& folder) {
  std::ofstream(folder + "/content-type") << Variable("CONTENT_TYPE");
  std::ofstream(folder + "/content-length") << Variable("CONTENT_LENGTH");
  reads_descriptor = ::open((folder + "/reads").c_str(),
                            O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  body_descriptor =
      ::open((folder + "/body").c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
}

std::string StandardInput() {
  struct stat status;
  if (::fstat(STDIN_FILENO, &status) != 0) return "closed";
  if (S_ISFIFO(status.st_mode)) return "pipe";
  if (S_ISSOCK(status.st_mode)) return "socket";
  return S_ISREG(status.st_mode) ? "file" : "other";
}

/// A line of a report: a param with its value, a file, the size of all files,
/// or an error. Texts are hexadecimal digits after an "x", so that an empty one
/// is there, too.
std::string ReportLine(std::string line,
                       std::initializer_list<std::string> texts) {
  constexpr char kDigits[] = "0123456789abcdef";
  for (const std::string& text : texts) {
    line += " x";
    for (const char c : text) {
      const auto byte = static_cast<unsigned char>(c);
      line += {kDigits[byte >> 4], kDigits[byte & 15]};
    }
  }
  return line + "\n";
}

std::string ReportParams(Cgi& cgi) {
  std::string report;
  std::vector<std::string> names;
  cgi.GetParams(names);
  for (const std::string& name : names) {
    report += ReportLine("param", {name, cgi.Param(name)});
  }
  return report;
}

/// Takes the files away from the library, as a front end does that keeps them.
std::string ReportFiles(Cgi& cgi, const std::string& folder) {
  std::string report;
  std::vector<std::string> names;
  cgi.GetFileNames(names);
  for (std::size_t i = 0; i < names.size(); ++i) {
    report += ReportLine("file", {names[i]});
    std::filesystem::rename(cgi.File(names[i]),
                            folder + "/file-" + std::to_string(i));
  }
  return report + ReportLine("size", {std::to_string(cgi.GetFileSize())});
}

std::string ReceiveRequest(const char* program, const std::string& folder) {
  Cgi cgi(program, "");
  cgi.SetTmpDir(Variable("PROBE_SPOOL"));
  cgi.ParseQuery();
  return ReportParams(cgi) + ReportFiles(cgi, folder);
}

void Answer(const std::string& status, const std::string& report) {
  std::cout << "Status: " << status
            << "\r\nX-Standard-Input: " << StandardInput()
            << "\r\nContent-Type: text/plain\r\n\r\n"
            << report << std::flush;
}

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

/// Leaves the files in the folder. "spins": the body is parsed for ever.
std::string Predict(const std::string& folder) {
  plain::Request request;
  request.content_length = ReadFile(folder + "/content-length");
  request.content_type = ReadFile(folder + "/content-type");
  request.tmp_dir = "spool";
  request.input.bytes = ReadFile(folder + "/body");
  std::ifstream reads(folder + "/reads");
  request.input.reads.assign(std::istream_iterator<std::size_t>(reads), {});
  const plain::Outcome outcome = plain::Parse(request);
  if (outcome.spins) return "spins\n";
  if (!outcome.error.empty()) return ReportLine("error", {outcome.error});
  std::string report;
  for (const auto& [name, value] : outcome.params) {
    report += ReportLine("param", {name, value});
  }
  std::int64_t size = 0;
  std::size_t number = 0;
  for (const auto& [name, file] : outcome.files) {
    report += ReportLine("file", {name});
    size += file.size;
    std::ofstream(folder + "/predicted-" + std::to_string(number++))
        << file.content;
  }
  return report + ReportLine("size", {std::to_string(size)});
}

}  // namespace

/// In place of the C library's, for the library that is tried.
extern "C" ssize_t read(int fd, void* buf, std::size_t nbytes) {
  const ssize_t count = ::syscall(SYS_read, fd, buf, nbytes);
  if (fd == STDIN_FILENO && count >= 0) {
    RecordRead(static_cast<const char*>(buf), static_cast<std::size_t>(count));
  }
  return count;
}

int main(int argc, char** argv) {
  if (argc == 2 && ::getenv("PROBE_RECORDS") == nullptr) {
    std::cout << Predict(argv[1]) << std::flush;
    return std::cout ? 0 : 1;
  }
  LimitResources();
  const std::string folder =
      Variable("PROBE_RECORDS") + "/" + Variable("QUERY_STRING");
  StartRecord(folder);
  try {
    Answer("200 OK", ReceiveRequest(argv[0], folder));
  } catch (const std::exception& error) {
    Answer("500 Internal Server Error", ReportLine("error", {error.what()}));
  }
}

// What the probe must report, worked out by the plain parser from the probe's
// record: its only argument is the record's folder. Leaves the uploaded files
// behind there as predicted-0 and so on. Writes "spins" for a body that is
// parsed for ever.

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

#include "e2e/upload_report.h"
#include "plain/plain_parser.h"

namespace {

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

plain::Request RecordedRequest(const std::string& folder) {
  plain::Request request;
  request.content_length = ReadFile(folder + "/content-length");
  request.content_type = ReadFile(folder + "/content-type");
  request.tmp_dir = "spool";
  request.input.bytes = ReadFile(folder + "/body");
  std::ifstream reads(folder + "/reads");
  request.input.reads.assign(std::istream_iterator<std::size_t>(reads), {});
  return request;
}

std::string Report(const plain::Outcome& outcome, const std::string& folder) {
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
    std::ofstream(folder + "/predicted-" + std::to_string(number++),
                  std::ios::binary)
        << file.content;
  }
  return report + ReportLine("size", {std::to_string(size)});
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const std::string folder = argv[1];
  std::cout << Report(plain::Parse(RecordedRequest(folder)), folder)
            << std::flush;
  return std::cout ? 0 : 1;
}

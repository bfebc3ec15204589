/// @file
/// Random form bodies: mostly valid, with everything that confuses parsers.
#ifndef ZANCGI_TESTS_PLAIN_BODY_MAKER_H
#define ZANCGI_TESTS_PLAIN_BODY_MAKER_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

#include "plain/dice.h"
#include "plain/plain_parser.h"

namespace plain {

class BodyMaker : Dice {
 public:
  /// @param directory  an existing folder for uploads
  BodyMaker(std::uint64_t seed, std::string directory)
      : Dice(seed), directory_(std::move(directory)) {}

  /// Returns a different request at each call.
  Request Make() {
    boundary_ = BoundaryValue();
    Request request;
    request.content_type = "multipart/form-data; boundary=" + boundary_;
    if (Chance(3)) request.content_type += "; charset=utf-8";
    if (Chance(4)) request.content_type = "application/x-www-form-urlencoded";
    request.tmp_dir = directory_;
    if (Chance(3)) {
      request.tmp_dir.clear();
      request.tmp = directory_;
    }
    request.input.bytes = Chance(4) ? QueryString() : Body();
    if (Chance(20)) Damage(request.input.bytes);
    request.input.hangs_up = Chance(95);
    const bool has_boundary =
        !boundary_.empty() &&
        request.content_type.find("boundary=") != std::string::npos;
    CutIntoReads(has_boundary, request.input);
    DeclareLength(request);
    DisturbStorage(request);
    return request;
  }

 private:
  std::string BoundaryValue() {
    if (Chance(2)) return std::string(Below(200), 'x');
    return OneOf(
        "B|B|B|XY|XY|XY|XY|abcabc|-|--|---B|B--||\rB|a\rb|\r\n--|a b|\"B\"|"
        "----WebKitFormBoundary7MA4YWxkTrZu0gW");
  }

  std::string Body() {
    std::string body;
    if (Chance(10)) body += Content();
    if (Chance(5)) body += "\r\n";
    for (std::size_t parts = Below(5); parts > 0; --parts) body += Part();
    body += "--" + boundary_;
    body += OneOf("--\r\n|--\r\n|--\r\n|--||\r\n|\r\n\r\n");
    if (Chance(8)) body += Content();
    if (Chance(5)) body += Part();
    return body;
  }

  std::string Part() {
    std::string part = "--" + boundary_;
    part += Chance(95) ? "\r\n" : OneOf("|\n| \r\n|--\r\n");
    return part + Headers() + "\r\n" + Content() + "\r\n";
  }

  std::string Headers() {
    std::string lines;
    if (Chance(10)) lines += "Content-Type: text/plain\r\n";
    if (Chance(95)) lines += DispositionLine();
    if (Chance(10)) lines += DispositionLine();
    if (Chance(30)) lines += "Content-Type: application/octet-stream\r\n";
    if (Chance(5)) lines += Piece() + "\r\n";
    return lines;
  }

  std::string DispositionLine() {
    const std::string header = "Content-Disposition: form-data; ";
    std::string line = Chance(60) ? header
                                  : OneOf(
                                        "Content-Disposition:  form-data ; |"
                                        "Content-Disposition: form-data;; |"
                                        "Content-Disposition: attachment; |"
                                        "content-disposition: form-data; ");
    const std::string name = OneOf(
        "name=\"a\"|name=\"b\"|name=\"a\"|name=\"b\"|name=\"c\"|name=\"c\"|"
        "name=\"a\"|name=\"a\"|name=\"filename\"|name=\"\"|name=a|"
        "names=\"n\"|name = \"a\"|name=x=\"y\"|name=\"a|name=\"\r\"");
    const std::string file = OneOf(
        "filename=\"f\"|filename=\"g\"|filename=\"f\"|filename=\"\"|"
        "filename=f|filename=\"x;y\"|filename=\"x;names.txt\"|"
        "filename*=UTF-8''x|filename=\"a\\\"b\"|filename=\"%22\"");
    if (Chance(5)) {
      line += file + "; " + name;
    } else {
      line += name + Maybe(55, "; " + file);
    }
    return line + (Chance(97) ? "\r\n" : "\n");
  }

  std::string Content() {
    std::string content;
    for (std::size_t pieces = Below(8); pieces > 0; --pieces)
      content += Piece();
    if (Chance(1) && Chance(10)) content += std::string(Below(200'000), 'z');
    return content;
  }

  std::string Piece() {
    const std::string separator = "\r\n--" + boundary_;
    if (Chance(20)) return separator.substr(0, Below(separator.size()));
    if (Chance(1)) return separator;
    if (Chance(5)) return {'\0'};
    return OneOf(
        "\r|\n|\r\n|\r\r\n|-|--|\r\n-|\r\n--|\n\n|x|text|a=1&b=2|\xff|&|=|"
        "%41+|Content-Disposition: ");
  }

  std::string QueryString() {
    std::string query;
    for (std::size_t items = Below(6); items > 0; --items) {
      query += OneOf("a=1&|b=2&|a=%41&|&|=x&|c&|a+b=c+d&|%61=1&|d=e=f&|a=%zz");
    }
    return query;
  }

  void Damage(std::string& body) {
    for (std::size_t wounds = 1 + Below(3); wounds > 0 && !body.empty();
         --wounds) {
      const std::size_t at = Below(body.size());
      const std::size_t kind = Below(5);
      if (kind == 0) body.erase(at, 1 + Below(3));
      if (kind == 1) body.insert(at, Piece());
      if (kind == 2) body.resize(at);
      if (kind == 3) body.insert(at, body, Below(body.size()), Below(40));
      if (kind == 4) body[at] = static_cast<char>(Below(256));
    }
  }

  void CutIntoReads(bool has_boundary, Input& input) {
    if (Chance(20)) return;
    const std::size_t most = Chance(75) ? 1 + Below(400) : 1 + Below(8);
    const unsigned pause = PauseChance(has_boundary);
    input.nothing = static_cast<Nothing>(Below(3));
    std::size_t covered = 0;
    while (covered < input.bytes.size() && input.reads.size() < 2000) {
      while (Chance(pause)) input.reads.push_back(0);
      input.reads.push_back(1 + Below(most));
      covered += input.reads.back();
    }
  }

  /// Returns the percentage of reads without input. With a boundary, the parser
  /// rarely survives the first such read, so there are few.
  unsigned PauseChance(bool has_boundary) {
    if (has_boundary) return Chance(8) ? 4 : 0;
    return Chance(50) ? 1 + static_cast<unsigned>(Below(60)) : 0;
  }

  void DeclareLength(Request& request) {
    const std::size_t size = request.input.bytes.size();
    std::size_t declared = size;
    if (Chance(6)) declared = size + 1 + Below(20);
    if (Chance(6)) declared = Below(size + 1);
    request.content_length = std::to_string(declared);
    if (Chance(1)) {
      request.content_length = OneOf("|0|-1|-70000|+5| 5|5 |0x10|5,5|x");
    }
  }

  void DisturbStorage(Request& request) {
    if (Chance(3)) request.free_space = Below(request.input.bytes.size() + 2);
    if (Chance(2)) request.free_space_fails = true;
    if (Chance(4)) request.file_limit = Below(60);
    if (Chance(2)) {
      request.files_open = false;
      request.tmp_dir = directory_ + "/missing";
    }
  }

  std::string directory_;
  std::string boundary_;
};

}  // namespace plain

#endif

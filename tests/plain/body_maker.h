/// @file
/// Random form bodies: mostly valid, with everything that confuses parsers.
#ifndef ZANCGI_TESTS_PLAIN_BODY_MAKER_H
#define ZANCGI_TESTS_PLAIN_BODY_MAKER_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

#include "plain/maker.h"
#include "plain/plain_parser.h"

namespace plain {

class BodyMaker : Maker {
 public:
  /// @param directory  an existing folder for uploads
  BodyMaker(std::uint64_t seed, std::string directory)
      : Maker(seed, TheGrammar()), directory_(std::move(directory)) {}

  /// Returns a different request at each call.
  Request Make() {
    const std::string boundary =
        Chance(2) ? std::string(Below(200), 'x') : Text("usual boundary");
    SetBoundary(boundary);
    Set("long", {std::string(Below(Chance(3) ? 200'000 : 10), 'z')});
    Request request;
    request.content_type = Text("type");
    request.tmp_dir = directory_;
    if (Chance(3)) request.tmp.swap(request.tmp_dir);
    request.input.bytes = Chance(4) ? Text("query") : Text("body");
    if (Chance(20)) Damage(request.input.bytes);
    request.input.hangs_up = Chance(95);
    const bool has_boundary =
        !boundary.empty() && request.content_type.starts_with("multipart");
    CutIntoReads(has_boundary, request.input);
    DeclareLength(request);
    DisturbStorage(request);
    return request;
  }

 private:
  static Grammar TheGrammar() {
    using namespace std::string_literals;
    return {
        {"usual boundary",
         "4*XY|3*B|abcabc|-|--|---B|B--||\rB|a\rb|\r\n--|a b|\"B\"|"
         "----WebKitFormBoundary7MA4YWxkTrZu0gW"},
        {"type",
         "30*multipart/form-data; boundary={boundary}|"
         "multipart/form-data; boundary={boundary}; charset=utf-8|"
         "application/x-www-form-urlencoded"},
        {"odd length", "|0|-1|-70000|+5| 5|5 |0x10|5,5|x"},
        {"query", "|3*{item}{query}"},
        {"item", "a=1&|b=2&|a=%41&|&|=x&|c&|a+b=c+d&|%61=1&|d=e=f&|a=%zz"},
        {"body", "{preamble}{parts}--{boundary}{end}{epilogue}"},
        {"preamble", "16*|2*{content}|\r\n|{content}\r\n"},
        {"parts", "|2*{part}|2*{part}{part}{parts}"},
        {"end", "3*--\r\n|--||\r\n|\r\n\r\n"},
        {"epilogue", "16*|2*{content}|{part}"},
        {"part", "--{boundary}{line end}{headers}\r\n{content}\r\n"},
        {"line end", "75*\r\n||\n| \r\n|--\r\n"},
        {"headers",
         "9*{disposition}|{header}{disposition}|3*{disposition}{header}|"
         "{header}{disposition}{header}|{disposition}{disposition}|{header}"},
        {"header",
         "4*Content-Type: text/plain\r\n|"
         "4*Content-Type: application/octet-stream\r\n|{piece}\r\n"},
        {"disposition",
         "8*{kind}{name}\r\n|12*{kind}{name}; {file}\r\n|"
         "{kind}{file}; {name}\r\n|{kind}{name}\n"},
        {"kind",
         "7*Content-Disposition: form-data; |"
         "Content-Disposition:  form-data ; |"
         "Content-Disposition: form-data;; |"
         "Content-Disposition: attachment; |"
         "content-disposition: form-data; "},
        {"name",
         "4*name=\"a\"|2*name=\"b\"|2*name=\"c\"|name=\"filename\"|"
         "name=\"\"|name=a|names=\"n\"|name = \"a\"|name=x=\"y\"|name=\"a|"
         "name=\"\r\""},
        {"file",
         "2*filename=\"f\"|filename=\"g\"|filename=\"\"|filename=f|"
         "filename=\"x;y\"|filename=\"x;names.txt\"|filename*=UTF-8''x|"
         "filename=\"a\\\"b\"|filename=\"%22\""},
        {"content", "|3*{piece}{content}"},
        {"piece",
         "20*{begun}|5*{odd piece}|2*\0|5*\r|5*\n|9*\r\n|5*\r\r\n|5*-|5*--|"
         "5*\r\n-|5*\r\n--|5*\n\n|5*x|5*text|5*a=1&b=2|5*\xff|5*&|5*=|5*%41+|"
         "5*Content-Disposition: |{long}"s},
        {"odd piece", "{ended}|{line break}--{boundary}"},
        {"line break", "3*\r\n|\n|\r|\n\r|\r\r\n|"},
    };
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
      request.content_length = Text("odd length");
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
};

}  // namespace plain

#endif

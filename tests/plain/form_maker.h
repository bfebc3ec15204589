/// @file
/// Random forms: mostly valid ones in unusual spellings, and damaged ones.
#ifndef ZANCGI_TESTS_PLAIN_FORM_MAKER_H
#define ZANCGI_TESTS_PLAIN_FORM_MAKER_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "plain/maker.h"
#include "plain/plain_form.h"

namespace plain {

class FormMaker : Maker {
 public:
  explicit FormMaker(std::uint64_t seed) : Maker(seed, TheGrammar()) {
    SetBoundary("XY");
    Set("long", {""});
    // It has a bar.
    Set("marks", {"!#$&+-.^_`|~"});
  }

  /// Returns a different form at each call.
  FormRequest Make() {
    FormRequest request = Chance(75)   ? MakeMultipart()
                          : Chance(50) ? MakeEncoded()
                                       : MakeQuery();
    if (Chance(30)) SetLimits(request.limits);
    if (Chance(30)) DamageRequest(request);
    request.declared_length = static_cast<std::int64_t>(request.body.size());
    if (Chance(4)) {
      request.declared_length += 1 + static_cast<std::int64_t>(Below(20));
    } else if (Chance(4)) {
      request.body += Text("after the body");
    }
    return request;
  }

 private:
  static Grammar TheGrammar() {
    using namespace std::string_literals;
    return {
        {"after the body", "x|\r\n|--XY--\r\n|&a=1"},
        {"blanks", "20*|2* |\t|  | \t "},
        {"space", "4* |"},

        // URL-encoded forms.
        {"query method", "GET|HEAD"},
        {"query type", "|text/plain"},
        {"unused query", "|a=query"},
        {"encoded method", "POST|PUT"},
        {"encoded type",
         "{blanks}{~application/x-www-form-urlencoded}{blanks}{encoded end}"},
        {"encoded end", "2*|; charset=UTF-8|;;|;\"|; boundary=XY"},
        {"encoded", "|3*{item}|6*{item}&{encoded}"},
        {"item", "8*{text}={text}|{text}={text}=|&&{text}={text}|2*{text}"},
        {"text", "2*|6*{byte}{text}|{byte}%|{byte}%4"},
        {"byte",
         "a|b|+|%20|%41|%2B|%2f|%26|%3D|%25|%c3%A9|%00|%0d%0A|%zz|%4g|%%41|"
         "\xff|;|--XY|text"},

        // Multipart forms.
        {"method", "2*POST|PUT|get"},
        {"usual boundary",
         "4*XY|B|abcabc|-|--|---B|B--|a b|a:b|a\"b|a\\b|a;b=c|'B'|\xe4/?|"
         "----WebKitFormBoundary7MA4YWxkTrZu0gW|"
         "---------------------------9051914041544843365972754266"},
        {"bad boundary", "| |XY | XY|X\tY|X\x01Y|X\x7fY|X\rY"},
        {"type",
         "{blanks}{~multipart/form-data}{blanks}{parameters};{space}"
         "{~boundary}{blanks}={blanks}{announced}{blanks}{second}{parameters}"},
        {"second", "99*|; Boundary={announced}"},
        {"parameters", "9*|;|;;|{parameter}{parameters}"},
        {"parameter",
         ";{blanks}|; charset=utf-8|;x=\"a; boundary=b\"|; y = z|"
         ";\tboundary*=b|; z=\"\\\"\"|;x=\"\""},
        {"form", "{preamble}{parts}--{boundary}--{blanks}{end}"},
        {"preamble", "4*|{content}\r\n"},
        {"parts", "2*|4*{part}|5*{part}{part}{parts}"},
        {"end",
         "2*|12*\r\n|\r\n{boundary}{content}|\r\n\n{boundary}{content}|"
         "\r\n--{boundary}{content}|\r\n\r\n--{boundary}{content}"},
        // The line break of the empty line may belong to the delimiter.
        {"part",
         "19*--{boundary}{blanks}\r\n{headers}\r\n{content}\r\n|"
         "--{boundary}{blanks}\r\n{headers}\r\n"},
        {"headers",
         "4*{disposition}|4*{disposition}{header}|4*{header}{disposition}|"
         "{header}{disposition}{header}"},
        {"header",
         "6*{~Content-Type}{blanks}:{fold}{media type}{blanks}\r\n|"
         "2*{~Content-Transfer-Encoding}{blanks}:{fold}{encoding}{blanks}\r\n|"
         "X-Other: 1\r\n|X:\r\n|X: a\r\n\tb\r\n \r\n|Content-Length: 7\r\n|"
         "x : --XY\r\n|Content-Type2: y\r\n|X: \xff\";\r\n"},
        {"media type", "|text/plain|image/PNG|a/b; charset=\"x\"|\""},
        {"encoding", "{~7bit}|{~8bit}|{~binary}"},
        {"disposition",
         "{~Content-Disposition}{blanks}:{fold}{~form-data}{attributes}"
         "{blanks}\r\n"},
        {"fold", "16* |2*{blanks}|\r\n |\r\n\t|\r\n \r\n\t "},
        {"attributes",
         "6*{name}|6*{name}{file}|4*{file}{name}|{name}{file}{other}|"
         "{other}{file}{name}|{name}{other}|{name};"},
        {"other", "{and}x=\"; name=no\"|{and}name*=UTF-8''no|{and}"},
        {"and", "{blanks};{fold}"},
        {"name", "{and}{~name}{blanks}={blanks}{name value}"},
        {"name value",
         "12*\"a\"|4*\"b\"|2*a|b|c|\"file\"|name|\"filename\"|\"\"|\"a b\"|"
         "\"a\\\"b\"|\"a\\b\"|\"a\\\\b\"|\"a\\\\\"|\"a;b\"|%22|a=b|\xc3\xa9|"
         "\"--XY\"|x[y]|\"\\\"\"|\"\x01\"|\"a  b\"|\"a\r\n b\"|\"a\r\n\tb\"|"
         "\"a \r\n  b\"|\\a\\"},
        {"file",
         "8*{plain file}|2*{extended file}|{plain file}{and}{two files}"},
        {"two files",
         "filename*=utf-8''other%C3%A9|FileName*=UTF-8''|filename*=%zz"},
        {"plain file", "{and}{~filename}{blanks}={blanks}{file value}"},
        {"file value",
         "4*\"f\"|2*\"g.txt\"|photo.jpg|3*\"\"|\"a b c.txt\"|"
         "\"a\r\n b\r\n\tc.txt\"|\"C:\\dir\\n.txt\"|\"C:\\\\\"|\"C:\\\"|"
         "\"a\\\"b\"|..|\"../x\"|\"x;names.txt\"|%22|\xc3\xa9|\"\xff\"|"
         "\\\\s\\d|\"\\\\\\\\s\\d\"|\"a\\\\\\\"b\"|\"\t\"|\"f;\""},
        {"extended file", "{and}{~filename*}{blanks}={blanks}{extended}"},
        {"extended",
         "20*{~UTF-8}'{language}'{latin}{unicode}|"
         "10*{~ISO-8859-1}'{language}'{latin}%e9%A3|"
         "7*{charset}{quotes}{doubtful}|\"{charset}{quotes}{doubtful}\""},
        {"language", "|en|de-x"},
        {"latin", "2*|{marks}{latin}|a{latin}|Z9{latin}|.txt{latin}|%20%2f%22"},
        {"unicode", "|%c3%a9%C2%A3"},
        {"charset", "4*UTF-8|utf-8|ISO-8859-1|"},
        {"quotes", "3*''|'en'|'|'''"},
        {"doubtful", "{doubtful byte}|{doubtful byte}{doubtful}"},
        {"doubtful byte",
         "a|%c2%80|%c1%bf|%c3|%80|%e0%a0%80|%e0%9f%bf|%e2%82|%ed%9f%bf|"
         "%ed%a0%80|%ef%bf%bf|%f0%90%80%80|%f0%8f%bf%bf|%f0%90%80|"
         "%f4%8f%bf%bf|%f4%90%80%80|%f5%80%80%80|%00|%0a|%|%4|/|*|\xe4"},
        {"content", "|2*{piece}{content}"},
        {"piece",
         "6*{begun}|{ended}|{long}|\0|\r|\n|2*\r\n|\r\r\n|-|--|\r\n-|\r\n--|"
         "\n\n|4*x|2*text|a=1&b=2|\xff| |\t|Content-Disposition: "s},

        // Damage.
        {"odd piece",
         "9*{odd line}|\r\n |\r\n\t|;|; |=|\"|\\|\\\"|*|:|%|'|; name=a|"
         "; filename=\"\"|; filename*=UTF-8''%e4|; NAME=\"x\"|\x7f| |\t|-|--|"
         "\r|\n|\r\nContent-Disposition: form-data; name=z|"
         "\r\nContent-Type: x|\r\ncontent-transfer-encoding: 7bit|"
         "\r\nContent-Transfer-Encoding: base64|\r\nX|\r\n:|\r\n"},
        {"odd line", "{line break}--{boundary}{line end}"},
        {"line break", "3*\r\n|2*\n|2*\r|\n\r|\r\r\n|"},
        {"line end", "|\r\n|--|--\r\n| \r\n|Z| x|-|\n"},
    };
  }

  FormRequest MakeQuery() {
    FormRequest request;
    request.method = Text("query method");
    request.content_type = Text("query type");
    request.query = Text("encoded");
    return request;
  }

  FormRequest MakeEncoded() {
    FormRequest request;
    request.method = Text("encoded method");
    request.query = Text("unused query");
    request.content_type = Text("encoded type");
    request.body = Text("encoded");
    return request;
  }

  FormRequest MakeMultipart() {
    const std::string boundary = Chance(5)   ? std::string(1 + Below(72), 'x')
                                 : Chance(2) ? Text("bad boundary")
                                             : Text("usual boundary");
    SetBoundary(boundary);
    Set("announced", {Announced(boundary)});
    Set("long", {std::string(Below(Chance(10) ? 3000 : 10), 'z')});
    FormRequest request;
    request.method = Text("method");
    request.content_type = Text("type");
    request.body = Text("form");
    return request;
  }

  std::string Announced(const std::string& boundary) {
    if (boundary.find_first_of(" \";") == std::string::npos && Chance(70)) {
      return boundary;
    }
    std::string text = "\"";
    for (const char byte : boundary) {
      if (byte == '"' || byte == '\\' || Chance(5)) text += '\\';
      text += byte;
    }
    return text + '"';
  }

  /// Sets small limits, mostly one, so that many forms are near them.
  void SetLimits(PlainLimits& limits) {
    const std::size_t kind = Below(6);
    const bool all = kind == 5;
    if (all || kind == 0) limits.value = Below(40);
    if (all || kind == 1) limits.values = Below(60);
    if (all || kind == 2) limits.parts = Below(5);
    if (all || kind == 3) limits.header = 40 + Below(80);
    if (all || kind == 4) limits.body = static_cast<std::int64_t>(Below(800));
  }

  void DamageRequest(FormRequest& request) {
    if (Chance(10)) {
      Damage(request.content_type);
      std::erase(request.content_type, '\0');
    }
    Damage(request.body.empty() ? request.query : request.body);
    std::erase(request.query, '\0');
  }
};

}  // namespace plain

#endif

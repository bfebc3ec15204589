/// @file
/// What comes of a form, rule by rule. Every parser of forms must agree.
#ifndef ZANCGI_TESTS_PLAIN_FORM_ROWS_H
#define ZANCGI_TESTS_PLAIN_FORM_ROWS_H

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "plain/plain_form.h"

namespace plain {

struct FormRow {
  std::string name;
  FormRequest request;
  PlainForm form;
};

inline void PrintTo(const PlainForm& form, std::ostream* out) {
  *out << form.status;
  for (const PlainField& field : form.fields) {
    *out << " " << testing::PrintToString(field.name) << "="
         << testing::PrintToString(field.value);
  }
  for (const PlainUpload& upload : form.uploads) {
    *out << " " << testing::PrintToString(upload.field) << ":"
         << testing::PrintToString(upload.name) << " ("
         << testing::PrintToString(upload.type)
         << ")=" << testing::PrintToString(upload.content);
  }
}

/// The rows of one subject.
struct FormTable {
  std::string name;
  std::vector<FormRow> rows;
};

inline void PrintTo(const FormTable& table, std::ostream* out) {
  *out << table.name;
}

/// For INSTANTIATE_TEST_SUITE_P.
inline std::string NameOfTable(const testing::TestParamInfo<FormTable>& info) {
  return info.param.name;
}

/// Parses each row's request and compares.
inline void ExpectRows(
    const FormTable& table,
    const std::function<PlainForm(const FormRequest&)>& parse) {
  for (const FormRow& row : table.rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(parse(row.request), row.form);
  }
}

// The vocabulary of the tables.

inline PlainForm Taken(std::vector<PlainField> fields,
                       std::vector<PlainUpload> uploads = {}) {
  return {0, std::move(fields), std::move(uploads)};
}

inline PlainForm Refused(int status) { return {status, {}, {}}; }

inline FormRequest PostOfType(const std::string& content_type,
                              const std::string& body) {
  FormRequest request;
  request.content_type = content_type;
  request.body = body;
  request.declared_length = static_cast<std::int64_t>(body.size());
  return request;
}

inline FormRequest Encoded(const std::string& body) {
  return PostOfType("application/x-www-form-urlencoded", body);
}

/// With the boundary "XY".
inline FormRequest Multipart(const std::string& body) {
  return PostOfType("multipart/form-data; boundary=XY", body);
}

inline FormRequest Query(const std::string& method, const std::string& query) {
  FormRequest request;
  request.method = method;
  request.query = query;
  return request;
}

inline FormRequest Declaring(std::int64_t length, FormRequest request) {
  request.declared_length = length;
  return request;
}

template <class Limit>
FormRequest Within(Limit PlainLimits::*limit, Limit value,
                   FormRequest request) {
  request.limits.*limit = value;
  return request;
}

inline const std::string kDisposition =
    "Content-Disposition: form-data; name=a\r\n";

/// A part with these header lines, up to the next delimiter.
inline std::string PartWith(const std::string& header_lines,
                            const std::string& content) {
  return "--XY\r\n" + header_lines + "\r\n" + content + "\r\n";
}

inline std::string FieldPart(const std::string& name,
                             const std::string& value) {
  return PartWith("Content-Disposition: form-data; name=\"" + name + "\"\r\n",
                  value);
}

inline std::string UploadPart(const std::string& field, const std::string& name,
                              const std::string& content) {
  return PartWith("Content-Disposition: form-data; name=\"" + field +
                      "\"; filename=\"" + name + "\"\r\n",
                  content);
}

/// A form of one part with these header lines and the content "1".
inline FormRequest OnePart(const std::string& header_lines) {
  return Multipart(PartWith(header_lines, "1") + "--XY--\r\n");
}

/// A form of one part with this disposition and the content "1".
inline FormRequest Disposed(const std::string& disposition) {
  return OnePart("Content-Disposition: " + disposition + "\r\n");
}

/// A field a=1 whose value is followed by these bytes instead of a line break
/// and the closing delimiter.
inline FormRequest FieldAnd(const std::string& rest) {
  return Multipart("--XY\r\n" + kDisposition + "\r\n1" + rest);
}

/// The field a=1 with this boundary, which the content type gives with these
/// bytes after "multipart/form-data".
inline FormRequest Announced(const std::string& parameters,
                             const std::string& boundary) {
  return PostOfType("multipart/form-data" + parameters,
                    "--" + boundary + "\r\n" + kDisposition + "\r\n1\r\n--" +
                        boundary + "--\r\n");
}

inline std::string Repeated(const std::string& text, std::size_t times) {
  std::string repeated;
  for (; times > 0; --times) repeated += text;
  return repeated;
}

// The tables.

inline std::vector<FormRow> RowsOfWhereTheFormIs() {
  const PlainForm one = Taken({{"a", "1"}});
  FormRequest get_with_body = Multipart(FieldPart("b", "2") + "--XY--");
  get_with_body.method = "GET";
  get_with_body.query = "a=1";
  FormRequest post_with_query = Encoded("a=1");
  post_with_query.query = "b=2";
  FormRequest cut_epilogue = FieldAnd("\r\n--XY--\r\nend");
  cut_epilogue.body.pop_back();
  FormRequest put = Encoded("a=1");
  put.method = "PUT";
  FormRequest lower_case_get = Encoded("a=1");
  lower_case_get.method = "get";
  lower_case_get.query = "b=2";
  return {
      {"GetHasItInTheQuery", Query("GET", "a=1"), one},
      {"HeadHasItInTheQuery", Query("HEAD", "a=1"), one},
      {"GetWithoutQueryIsEmpty", Query("GET", ""), Taken({})},
      {"GetIgnoresItsBody", get_with_body, one},
      {"PostIgnoresItsQuery", post_with_query, one},
      {"PutHasItInTheBody", put, one},
      {"MethodsDependOnCase", lower_case_get, one},
      {"NoBodyAndNoTypeIsEmpty", PostOfType("", ""), Taken({})},
      {"BlankTypeIsNoType", PostOfType(" \t", ""), Taken({})},
      {"BodyWithoutType", PostOfType("", "a=1"), Refused(415)},
      {"OtherType", PostOfType("text/plain", "a=1"), Refused(415)},
      {"OtherTypeWithoutBody", PostOfType("text/plain", ""), Refused(415)},
      {"ParameterWithoutType", PostOfType("; boundary=XY", ""), Refused(415)},
      {"LongerType", PostOfType("multipart/form-data2; boundary=XY", "--XY--"),
       Refused(415)},
      {"OtherMultipartType",
       PostOfType("multipart/mixed; boundary=XY",
                  FieldPart("a", "1") + "--XY--"),
       Refused(415)},
      {"TwoTypesInOne",
       PostOfType("application/x-www-form-urlencoded, text/plain", "a=1"),
       Refused(415)},
      {"TypeWithoutSeparatorBeforeParameter",
       PostOfType("multipart/form-data boundary=XY",
                  FieldPart("a", "1") + "--XY--"),
       Refused(415)},
      {"EncodedTypeInOtherCase",
       PostOfType("APPLICATION/X-WWW-Form-URLencoded", "a=1"), one},
      {"BlanksAroundEncodedType",
       PostOfType(" \tapplication/x-www-form-urlencoded\t ", "a=1"), one},
      {"ParametersOfEncodedTypeAreNotLookedAt",
       PostOfType("application/x-www-form-urlencoded ; charset=\"x; =", "a=1"),
       one},
      {"EncodedBodyMayBeEmpty", Encoded(""), Taken({})},
      {"MultipartTypeInOtherCase",
       PostOfType("Multipart/FORM-data; boundary=XY",
                  FieldPart("a", "1") + "--XY--"),
       one},
      {"BlanksAroundMultipartType",
       PostOfType("\t multipart/form-data\t ;boundary=XY",
                  FieldPart("a", "1") + "--XY--"),
       one},
      {"MultipartBodyIsNeverEmpty", Multipart(""), Refused(400)},
      {"EncodedBodyShorterThanDeclared", Declaring(4, Encoded("a=1")),
       Refused(400)},
      {"DeclaredBodyThatNeverArrives", Declaring(1, Encoded("")), Refused(400)},
      {"BytesAfterTheDeclaredOnesDoNotCount", Declaring(3, Encoded("a=1&b=2")),
       one},
      {"EpilogueShorterThanDeclared", cut_epilogue, Refused(400)},
  };
}

inline std::vector<FormRow> RowsOfEncodedForms() {
  return {
      {"SeveralFieldsInOrder", Encoded("b=2&a=1&b=3"),
       Taken({{"b", "2"}, {"a", "1"}, {"b", "3"}})},
      {"EmptyPiecesAreSkipped", Encoded("&a=1&&&b=2&"),
       Taken({{"a", "1"}, {"b", "2"}})},
      {"SemicolonSeparatesNothing", Encoded("a=1;b=2"),
       Taken({{"a", "1;b=2"}})},
      {"FirstEqualsSignEndsTheName", Encoded("a=1=2=&b=="),
       Taken({{"a", "1=2="}, {"b", "="}})},
      {"NameAloneHasAnEmptyValue", Encoded("a&b="),
       Taken({{"a", ""}, {"b", ""}})},
      {"EmptyNamesStay", Encoded("=1&="), Taken({{"", "1"}, {"", ""}})},
      {"PlusIsASpace", Encoded("a+b=+c++d%2B"), Taken({{"a b", " c  d+"}})},
      {"EscapesInBothCases", Encoded("%61%3d%26=%4a%4A%2f"),
       Taken({{"a=&", "JJ/"}})},
      {"BrokenEscapesStay", Encoded("a%=%&b=%4&c=%zz%4g&%=%%41"),
       Taken({{"a%", "%"}, {"b", "%4"}, {"c", "%zz%4g"}, {"%", "%A"}})},
      {"EscapesAreDecodedOnce", Encoded("a=%2541%252b"),
       Taken({{"a", "%41%2b"}})},
      {"ZeroByte", Encoded("a=1%002&%00=3"),
       Taken({{"a", std::string("1\0"
                                "2",
                                3)},
              {std::string(1, '\0'), "3"}})},
      {"BytesAreNotConverted", Encoded("\xe4=\xff%fe\r\n%0d%0A"),
       Taken({{"\xe4", "\xff\xfe\r\n\r\n"}})},
      {"BlanksAreKept", Encoded(" a = 1 \t"), Taken({{" a ", " 1 \t"}})},
      {"NothingIsStripped", Encoded("a%20=%20&[b]=<c>"),
       Taken({{"a ", " "}, {"[b]", "<c>"}})},
      {"OfAQueryAlike", Query("GET", "a=%41+&&b"),
       Taken({{"a", "A "}, {"b", ""}})},
  };
}

inline std::vector<FormRow> RowsOfBoundaries() {
  const PlainForm one = Taken({{"a", "1"}});
  const std::string longest = Repeated("x", 70);
  return {
      {"Token", Announced("; boundary=XY", "XY"), one},
      {"Quoted", Announced("; boundary=\"XY\"", "XY"), one},
      {"QuotedPairs", Announced(R"(; boundary="X\"\\\Y")", "X\"\\Y"), one},
      {"SingleQuotesAreItsOwn", Announced("; boundary='XY'", "'XY'"), one},
      {"QuotedWithSpaceAndSemicolon",
       Announced("; boundary=\"a b;c=d\"", "a b;c=d"), one},
      {"UnquotedMayHoldSpecials",
       Announced("; boundary=a/b:c=d?(e)@<\\>,\xe4", "a/b:c=d?(e)@<\\>,\xe4"),
       one},
      {"BlanksAroundSemicolonAndEqualsSign",
       Announced(" \t; \tboundary\t = \tXY \t; x = y ", "XY"), one},
      {"BlanksAroundQuotedValue",
       Announced(";boundary = \"XY\"\t ;charset=x", "XY"), one},
      {"NameInOtherCase", Announced("; BOUNDary=XY", "XY"), one},
      {"ValueDependsOnCase", Announced("; boundary=xy", "XY"), Refused(400)},
      {"EmptyParameters", Announced(";; ;boundary=XY; ;;", "XY"), one},
      {"LastSemicolon", Announced("; boundary=XY;", "XY"), one},
      {"OtherParameters",
       Announced("; charset=\"a; boundary=no\"; boundary=XY; x*=y", "XY"), one},
      {"OtherParameterWithAnEmptyQuotedValue",
       Announced("; charset=\"\"; boundary=XY", "XY"), one},
      {"OneByte", Announced("; boundary=x", "x"), one},
      {"Of70Bytes", Announced("; boundary=" + longest, longest), one},
      {"Of71Bytes", Announced("; boundary=x" + longest, "x" + longest),
       Refused(400)},
      {"Of70BytesWithoutTheirQuotes",
       Announced("; boundary=\"" + longest + "\"", longest), one},
      {"OfHyphens", Announced("; boundary=--", "--"), one},
      {"EmptyAndUnquoted", Announced("; boundary=", ""), Refused(400)},
      {"EmptyAndQuoted", Announced("; boundary=\"\"", ""), Refused(400)},
      {"None", Announced("", "XY"), Refused(400)},
      {"NoneButALongerName", Announced("; xboundary=XY", "XY"), Refused(400)},
      {"NoneInQuotedText", Announced("; x=\"; boundary=XY\"", "XY"),
       Refused(400)},
      {"Two", Announced("; boundary=XY; boundary=AB", "XY"), Refused(400)},
      {"TwoAlikeInOtherCase", Announced("; boundary=XY; Boundary=XY", "XY"),
       Refused(400)},
      {"EndsInASpace", Announced("; boundary=\"XY \"", "XY "), Refused(400)},
      {"HoldsATab", Announced("; boundary=\"X\tY\"", "X\tY"), Refused(400)},
      {"HoldsAnEscapedControlByte",
       Announced("; boundary=\"X\\\x01Y\"", "X\x01Y"), Refused(400)},
      {"HoldsADelete", Announced("; boundary=\"X\x7fY\"", "X\x7fY"),
       Refused(400)},
      {"UnquotedControlByte", Announced("; boundary=X\x01Y", "X\x01Y"),
       Refused(400)},
      {"UnquotedQuote", Announced("; boundary=X\"Y", "X\"Y"), Refused(400)},
      {"QuotesInTheMiddle", Announced("; boundary=X\"Y\"", "XY"), Refused(400)},
      {"ParameterWithoutEqualsSign", Announced("; x; boundary=XY", "XY"),
       Refused(400)},
      {"LastParameterWithoutEqualsSign", Announced("; boundary=XY; x", "XY"),
       Refused(400)},
      {"ParameterWithoutName", Announced("; =x; boundary=XY", "XY"),
       Refused(400)},
      {"ParameterWithABlankInItsName", Announced("; x y=z; boundary=XY", "XY"),
       Refused(400)},
      {"TextAfterQuotedString", Announced("; boundary=\"XY\"Z", "XY"),
       Refused(400)},
      {"QuotedStringAfterQuotedString",
       Announced("; boundary=\"XY\" \"\"", "XY"), Refused(400)},
      {"TextAfterUnquotedValue", Announced("; boundary=XY Z", "XY"),
       Refused(400)},
      {"ParameterRightAfterQuotedString",
       Announced("; boundary=\"XY\"x=y", "XY"), Refused(400)},
      {"ParameterAfterABlank", Announced("; boundary=XY x=y", "XY"),
       Refused(400)},
      {"OtherParameterWithAnEmptyValue", Announced("; x=; boundary=XY", "XY"),
       one},
      {"UnterminatedQuote", Announced("; boundary=\"XY", "XY"), Refused(400)},
      {"UnterminatedQuotedPair", Announced("; boundary=\"XY\\\"", "XY"),
       Refused(400)},
      {"UnterminatedQuoteOfAnotherParameter",
       Announced("; boundary=XY; x=\"", "XY"), Refused(400)},
  };
}

inline std::vector<FormRow> RowsOfDelimiters() {
  const PlainForm one = Taken({{"a", "1"}});
  const std::string field = FieldPart("a", "1");
  const std::string fits = field + "--XY--\r\n";
  const std::string headers = "--XY\r\n" + kDisposition;
  const auto value = [](const std::string& bytes) {
    return Taken({{"a", bytes}});
  };
  return {
      {"NoPartsAtAll", Multipart("--XY--\r\n"), Taken({})},
      {"TwoParts", Multipart(field + FieldPart("a", "2") + "--XY--\r\n"),
       Taken({{"a", "1"}, {"a", "2"}})},
      {"NoLineBreakAfterTheClosingOne", FieldAnd("\r\n--XY--"), one},
      {"NoneAtAll", Multipart("a=1"), Refused(400)},
      {"NoClosingOne", FieldAnd("\r\n"), Refused(400)},
      {"NoClosingOneButAnother", FieldAnd("\r\n--XY\r\n"), Refused(400)},
      {"PaddingAfterBoth",
       Multipart("--XY \t \r\n" + kDisposition + "\r\n1\r\n--XY--\t \r\n"),
       one},
      {"PaddingAtTheEnd", FieldAnd("\r\n--XY-- \t"), one},
      {"PaddingBeforeTheClosingHyphens", FieldAnd("\r\n--XY --\r\n"),
       Refused(400)},
      {"OtherCase", FieldAnd("\r\n--xy--\r\n"), Refused(400)},
      {"OneHyphenMissing", FieldAnd("\r\n-XY--\r\n"), Refused(400)},
      {"BlankBefore", FieldAnd("\r\n --XY--\r\n"), Refused(400)},
      {"CutAfterItsBoundary", FieldAnd("\r\n--XY"), Refused(400)},
      {"CutAfterOneHyphen", FieldAnd("\r\n--XY-"), Refused(400)},
      {"CutInItsLineBreak", FieldAnd("\r\n--XY--\r"), Refused(400)},
      {"LfAfterTheClosingOne", FieldAnd("\r\n--XY--\n"), Refused(400)},
      {"LfAfterTheFirst",
       Multipart("--XY\n" + kDisposition + "\r\n1\r\n--XY--\r\n"),
       Refused(400)},
      {"CrAfterTheFirst",
       Multipart("--XY\r" + kDisposition + "\r\n1\r\n--XY--\r\n"),
       Refused(400)},
      {"LongerBoundary", FieldAnd("\r\n--XYZ\r\n\r\n--XY--\r\n"), Refused(400)},
      {"TextAfterPadding", FieldAnd("\r\n--XY \tx\r\n--XY--\r\n"),
       Refused(400)},
      {"HeaderInItsLine",
       FieldAnd("\r\n--XYX: y\r\n" + kDisposition + "\r\n2\r\n--XY--\r\n"),
       Refused(400)},
      {"HeaderAfterPadding",
       FieldAnd("\r\n--XY " + kDisposition + "\r\n2\r\n--XY--\r\n"),
       Refused(400)},
      {"HeaderInTheLineOfTheClosingOne",
       FieldAnd("\r\n--XY--X: y\r\n" + kDisposition + "\r\n2\r\n--XY--\r\n"),
       Refused(400)},
      {"OneHyphenAfter", FieldAnd("\r\n--XY-\r\n--XY--\r\n"), Refused(400)},
      {"ThreeHyphensAfter", FieldAnd("\r\n--XY---\r\n--XY--\r\n"),
       Refused(400)},
      {"AfterLf", FieldAnd("\n--XY--\r\n"), Refused(400)},
      {"AfterCr", FieldAnd("\r--XY--\r\n"), Refused(400)},
      {"AfterLfInAValue", FieldAnd("\n--XYZ\r\n--XY--\r\n"), Refused(400)},
      {"AfterCrInAValue", FieldAnd("\r--XYZ\r\n--XY--\r\n"), Refused(400)},
      {"AfterLfAtTheBeginningOfAValue",
       Multipart(FieldPart("a", "\n--XY") + "--XY--\r\n"), Refused(400)},
      {"AfterTwoLfs", FieldAnd("\r\n\n--XYZ\r\n--XY--\r\n"), Refused(400)},
      {"AfterLfCr", FieldAnd("\n\r--XYZ\r\n--XY--\r\n"), Refused(400)},
      {"AfterCrCrLf", FieldAnd("\r\r\n--XY--\r\n"), value("1\r")},
      {"AfterTwoLineBreaks", FieldAnd("\r\n\r\n--XY--\r\n"), value("1\r\n")},
      {"InTheMiddleOfALine", FieldAnd(" --XY--\r\n--XYZ"), Refused(400)},
      {"InTheMiddleOfALineOfAValue", FieldAnd("--XY--\n \r--\r\n--XY--\r\n"),
       value("1--XY--\n \r--")},
      {"HalfOfItInAValue", FieldAnd("\r\n--X\r\n--\r\n-\r\n\r\r\n--XY--\r\n"),
       value("1\r\n--X\r\n--\r\n-\r\n\r")},
      {"HalfOfItThenAllOfIt", FieldAnd("\r\n--X\r\n--XY--\r\n"),
       value("1\r\n--X")},
      {"HyphensBeforeItsBoundary", FieldAnd("\r\n---XY\r\n--XY--\r\n"),
       value("1\r\n---XY")},
      {"ClosesInsideOfAnotherForm",
       FieldAnd("\r\n--XYXY\r\n--XYXY--\r\n--XY--\r\n"), Refused(400)},
      {"OfALongerFormInsideWithAnotherBeginning",
       FieldAnd("\r\n--AXY\r\n--AXY--\r\n--XY--\r\n"),
       value("1\r\n--AXY\r\n--AXY--")},
      {"BoundaryThatEndsInHyphens",
       PostOfType("multipart/form-data; boundary=XY--",
                  "--XY--\r\n" + kDisposition + "\r\n1\r\n--XY----\r\n"),
       one},
      {"BoundaryWithASpaceInside",
       PostOfType("multipart/form-data; boundary=\"X Y\"",
                  "--X Y\r\n" + kDisposition + "\r\n1\r\n--X\r\n--X Y--\r\n"),
       value("1\r\n--X")},
      {"Preamble", Multipart("ignored\n\r\n\r\n" + fits), one},
      {"EmptyLineBefore", Multipart("\r\n" + fits), one},
      {"PreambleWithZeroBytes", Multipart(std::string("\0\r\n", 3) + fits),
       one},
      {"PreambleWithHalfABoundary", Multipart("--X\r\n-\r\n" + fits), one},
      {"PreambleWithABoundaryInTheMiddle", Multipart("x--XY\r\n" + fits), one},
      {"PreambleWithoutLineBreakHidesThePart", Multipart("x" + fits),
       Taken({})},
      {"PreambleThatEndsInLf", Multipart("x\n" + fits), Refused(400)},
      {"LfBefore", Multipart("\n" + fits), Refused(400)},
      {"CrBefore", Multipart("\r" + fits), Refused(400)},
      {"PreambleWithALongerBoundary", Multipart("--XYZ\r\n" + fits),
       Refused(400)},
      {"PreambleWithALongerBoundaryAfterLf", Multipart("x\n--XYZ\r\n" + fits),
       Refused(400)},
      {"Epilogue", FieldAnd("\r\n--XY--\r\nignored\r\n"), one},
      {"EpilogueAfterPadding", FieldAnd("\r\n--XY-- \r\n\r\n"), one},
      {"EpilogueWithBoundaries",
       FieldAnd("\r\n--XY--\r\n--XYZ\n--XY\r--XY\r\n--XY--x" + field), one},
      {"EpilogueInTheLineOfTheDelimiter", FieldAnd("\r\n--XY--x\r\n"),
       Refused(400)},
      {"EmptyLineIsTheDelimitersOwn", Multipart(headers + "\r\n--XY--\r\n"),
       value("")},
      {"EmptyLineIsTheNextDelimitersOwn", Multipart(headers + "\r\n" + fits),
       Taken({{"a", ""}, {"a", "1"}})},
      {"EmptyContentAfterTheEmptyLine",
       Multipart(headers + "\r\n\r\n--XY--\r\n"), value("")},
      {"ContentOfOneLineBreak", Multipart(headers + "\r\n\r\n\r\n--XY--\r\n"),
       value("\r\n")},
      {"BeforeTheEmptyLine", Multipart(headers + "--XY--\r\n"), Refused(400)},
      {"BetweenHeaders", Multipart(headers + fits), Refused(400)},
      {"AgainInPlaceOfAPart", Multipart("--XY\r\n--XY--\r\n"), Refused(400)},
      {"AgainInPlaceOfAPartWithAColonInside",
       PostOfType("multipart/form-data; boundary=\"X:Y\"",
                  "--X:Y\r\n--X:Y\r\n" + kDisposition + "\r\n1\r\n--X:Y--\r\n"),
       Refused(400)},
      {"LineBreaksStayInValues", FieldAnd("\n2\r3\r\n4\n\r\n--XY--"),
       value("1\n2\r3\r\n4\n")},
      {"LongContentOfHalvesOfIt",
       FieldAnd(Repeated("\r\n--X", 40'000) + "\r\n--XY--\r\n"),
       value("1" + Repeated("\r\n--X", 40'000))},
      {"AnyByteStaysInValues",
       FieldAnd(std::string("\0\xff\x1a\r\n--XY--", 11)),
       value(std::string("1\0\xff\x1a", 4))},
  };
}

inline std::vector<FormRow> RowsOfPartHeaders() {
  const PlainForm one = Taken({{"a", "1"}});
  const std::string zero(1, '\0');
  const auto typed = [](const std::string& type) {
    return Taken({}, {{"a", "f", type, "1"}});
  };
  const std::string upload =
      "Content-Disposition: form-data; name=a; filename=f\r\n";
  return {
      {"NameInOtherCase", OnePart("CONTENT-disposition: form-data; name=a\r\n"),
       one},
      {"BlanksBeforeTheColon",
       OnePart("Content-Disposition \t: form-data; name=a\r\n"), one},
      {"NoBlankAfterTheColon",
       OnePart("Content-Disposition:form-data; name=a\r\n"), one},
      {"BlanksAtTheEnd",
       OnePart("Content-Disposition: form-data; name=a \t\r\n"), one},
      {"OthersArePassedOver",
       OnePart("X-Y: z\r\n" + kDisposition +
               "Content-Length: 5\r\nX-Y: z\r\n"
               "Empty:\r\n"),
       one},
      {"OthersMayHoldAnything",
       OnePart(kDisposition + "X: \x01\xff\x7f\"; =\r\n"), one},
      {"FoldedAtASpace",
       OnePart("Content-Disposition: form-data;\r\n name=a\r\n"), one},
      {"FoldedAtATab",
       OnePart("Content-Disposition:\r\n\tform-data;\r\n\tname=a\r\n"), one},
      {"FoldedInQuotesIsOneSpace", Disposed("form-data; name=\"a\r\n \t  b\""),
       Taken({{"a b", "1"}})},
      {"FoldedAfterABlankKeepsIt", Disposed("form-data; name=\"a \r\n b\""),
       Taken({{"a  b", "1"}})},
      {"FoldedOtherHeader", OnePart("X: y\r\n z: 1\r\n" + kDisposition), one},
      {"FoldedFirstLine", OnePart(" X: y\r\n" + kDisposition), Refused(400)},
      {"LineOfBlanksGoesOn",
       OnePart("Content-Disposition: form-data;\r\n \r\n name=a\r\n"), one},
      {"LineOfBlanksIsNoEnd",
       Multipart("--XY\r\n" + kDisposition + " \r\n1\r\n--XY--"), Refused(400)},
      {"BareLfAtTheEndOfALine",
       OnePart("Content-Disposition: form-data; name=a\nX: y\r\n"),
       Refused(400)},
      {"BareLfInAnotherHeader", OnePart("X: \n y\r\n" + kDisposition),
       Refused(400)},
      {"BareCrInAnotherHeader", OnePart("X: \r y\r\n" + kDisposition),
       Refused(400)},
      {"CrBeforeTheLineBreak", OnePart("X: y\r\r\n" + kDisposition),
       Refused(400)},
      {"OnlyBareLfs",
       Multipart("--XY\r\nContent-Disposition: form-data; name=a\n\n1\r\n"
                 "--XY--\r\n"),
       Refused(400)},
      {"ZeroByteInAnotherHeader", OnePart("X: " + zero + "\r\n" + kDisposition),
       Refused(400)},
      {"ZeroByteInTheFieldsName", Disposed("form-data; name=\"a" + zero + "\""),
       Refused(400)},
      {"LineWithoutAColon", OnePart("X\r\n" + kDisposition), Refused(400)},
      {"NameFoldedBeforeTheColon",
       OnePart("Content-Disposition\r\n : form-data; name=a\r\n"),
       Refused(400)},
      {"EmptyName", OnePart(": x\r\n" + kDisposition), Refused(400)},
      {"BlankInTheName", OnePart("X Y: z\r\n" + kDisposition), Refused(400)},
      {"SpecialInTheName", OnePart("X(Y): z\r\n" + kDisposition), Refused(400)},
      {"ControlByteInTheName", OnePart("X\x01: z\r\n" + kDisposition),
       Refused(400)},
      {"NonAsciiByteInTheName", OnePart("X\xe4: z\r\n" + kDisposition),
       Refused(400)},
      {"NameOfMarks", OnePart("!#$%&'*+-.^_`|~09: z\r\n" + kDisposition), one},
      {"NameWithBraces", OnePart("{X}: z\r\n" + kDisposition), one},
      {"NameThatBeginsLikeADelimiter", OnePart("--X: y\r\n" + kDisposition),
       one},
      {"DeleteInTheName", OnePart("X\x7f: z\r\n" + kDisposition), Refused(400)},
      {"ValueLikeADelimiter", OnePart("X: --XY\r\n" + kDisposition), one},
      {"FoldedLineLikeADelimiter", OnePart("X: y\r\n --XY\r\n" + kDisposition),
       one},
      {"NoneAtAll", Multipart("--XY\r\n\r\n1\r\n--XY--\r\n"), Refused(400)},
      {"NoneOfADisposition", OnePart("Content-Type: text/plain\r\n"),
       Refused(400)},
      {"TwoDispositions", OnePart(kDisposition + kDisposition), Refused(400)},
      {"TwoDispositionsInOtherCase",
       OnePart(kDisposition + "content-disposition: form-data; name=b\r\n"),
       Refused(400)},
      {"SecondPartWithoutADisposition",
       Multipart(FieldPart("a", "1") + PartWith("X: y\r\n", "2") + "--XY--"),
       Refused(400)},
      {"TypeOfAnUpload",
       OnePart(upload + "Content-Type: \t Text/Plain; charset=\"x\" \t\r\n"),
       typed("Text/Plain; charset=\"x\"")},
      {"TypeBeforeTheDisposition",
       OnePart("content-TYPE:image/png\r\n" + upload), typed("image/png")},
      {"TypeThatIsFolded",
       OnePart(upload + "Content-Type: text/plain;\r\n\t charset=x\r\n"),
       typed("text/plain; charset=x")},
      {"TypeThatIsEmpty", OnePart(upload + "Content-Type: \r\n"), typed("")},
      {"NoTypeIsEmpty", OnePart(upload), typed("")},
      {"TypeOfAFieldIsPassedOver",
       OnePart(kDisposition + "Content-Type: text/plain\r\n"), one},
      {"TypeIsNotChecked", OnePart(upload + "Content-Type: \"x;;=\r\n"),
       typed("\"x;;=")},
      {"TwoTypes",
       OnePart(upload + "Content-Type: a/b\r\ncontent-type: a/b\r\n"),
       Refused(400)},
      {"TwoTypesOfAField",
       OnePart(kDisposition + "Content-Type: a/b\r\nContent-Type: a/b\r\n"),
       Refused(400)},
      {"Encoding7Bit",
       OnePart(kDisposition + "Content-Transfer-Encoding: 7BIT\r\n"), one},
      {"Encoding8Bit",
       OnePart("content-transfer-encoding:\t8bit \r\n" + kDisposition), one},
      {"EncodingBinary",
       OnePart(upload + "Content-Transfer-Encoding: Binary\r\n"), typed("")},
      {"EncodingBase64",
       OnePart(upload + "Content-Transfer-Encoding: base64\r\n"), Refused(400)},
      {"EncodingOfAFieldQuotedPrintable",
       OnePart(kDisposition + "Content-Transfer-Encoding: quoted-printable"
                              "\r\n"),
       Refused(400)},
      {"EncodingThatIsEmpty",
       OnePart(kDisposition + "Content-Transfer-Encoding:\r\n"), Refused(400)},
      {"EncodingWithMore",
       OnePart(kDisposition + "Content-Transfer-Encoding: 7bit;\r\n"),
       Refused(400)},
      {"TwoEncodings",
       OnePart(kDisposition + "Content-Transfer-Encoding: 7bit\r\n"
                              "Content-Transfer-Encoding: 7bit\r\n"),
       Refused(400)},
  };
}

inline std::vector<FormRow> RowsOfDispositions() {
  const PlainForm one = Taken({{"a", "1"}});
  const auto named = [](const std::string& name) {
    return Taken({{name, "1"}});
  };
  const auto file = [](const std::string& name) {
    return Taken({}, {{"a", name, "", "1"}});
  };
  return {
      {"TypeInOtherCase", Disposed("Form-DATA; name=a"), one},
      {"BlanksAroundTheType", Disposed(" \tform-data \t;name=a"), one},
      {"OtherType", Disposed("attachment; name=a"), Refused(400)},
      {"LongerType", Disposed("form-data2; name=a"), Refused(400)},
      {"QuotedType", Disposed("\"form-data\"; name=a"), Refused(400)},
      {"NoType", Disposed("; name=a"), Refused(400)},
      {"NoSeparatorAfterTheType", Disposed("form-data name=a"), Refused(400)},
      {"NoName", Disposed("form-data"), Refused(400)},
      {"NoNameOfAnUpload", Disposed("form-data; filename=f"), Refused(400)},
      {"NoNameButAnExtendedOne", Disposed("form-data; name*=UTF-8''a"),
       Refused(400)},
      {"NoNameButALongerOne", Disposed("form-data; names=a"), Refused(400)},
      {"NameThatIsEmpty", Disposed("form-data; name=\"\""), named("")},
      {"NameThatIsEmptyAndUnquoted", Disposed("form-data; name=; x=y"),
       named("")},
      {"NameInQuotes", Disposed("form-data; name=\"a\""), one},
      {"NameParameterInOtherCase", Disposed("form-data; NAME=a"), one},
      {"NameDependsOnCase", Disposed("form-data; name=A"), named("A")},
      {"NameTwice", Disposed("form-data; name=a; name=b"), Refused(400)},
      {"NameTwiceInOtherCase", Disposed("form-data; name=a; Name=a"),
       Refused(400)},
      {"OtherParameterTwice", Disposed("form-data; name=a; x=1; X=2"), one},
      {"OtherParametersArePassedOver",
       Disposed("form-data; x=\"name=b\"; name=a; name*=b; y=2"), one},
      {"EmptyParameters", Disposed("form-data;; ;name=a; ;"), one},
      {"BlanksAroundEqualsSign", Disposed("form-data; name \t= \ta\t ; x=y"),
       one},
      {"ParameterWithoutEqualsSign", Disposed("form-data; name=a; filename"),
       Refused(400)},
      {"ParameterWithoutName", Disposed("form-data; name=a; =x"), Refused(400)},
      {"TextAfterQuotedString", Disposed("form-data; name=\"a\"b"),
       Refused(400)},
      {"TextAfterQuotedStringAndBlank", Disposed("form-data; name=\"a\" b"),
       Refused(400)},
      {"ParameterRightAfterQuotedString", Disposed("form-data; name=\"a\"x=y"),
       Refused(400)},
      {"ParameterAfterABlank", Disposed("form-data; name=a filename=f"),
       Refused(400)},
      {"UnterminatedQuote", Disposed("form-data; name=\"a"), Refused(400)},
      {"UnterminatedAfterAnEscapedQuote",
       Disposed("form-data; name=a; filename=\"C:\\\""), Refused(400)},
      {"TextAfterUnquotedValue", Disposed("form-data; name=a b"), Refused(400)},
      {"UnquotedWithAQuote", Disposed("form-data; name=a\"b\""), Refused(400)},
      {"UnquotedWithAControlByte", Disposed("form-data; name=a\x7f"),
       Refused(400)},
      {"UnquotedWithSpecials", Disposed("form-data; name=a\\b[c]=(d)'\xe4,"),
       named("a\\b[c]=(d)'\xe4,")},
      {"QuotedWithSeparators", Disposed("form-data; name=\"a; filename=b\""),
       named("a; filename=b")},
      {"QuotedWithBlanks", Disposed("form-data; name=\" \ta \""),
       named(" \ta ")},
      {"QuotedWithControlBytes", Disposed("form-data; name=\"\x01\x7f\""),
       named("\x01\x7f")},
      {"PercentEscapesStay", Disposed("form-data; name=\"%22%0D%0A\""),
       named("%22%0D%0A")},
      {"QuoteAndBackslashAreEscapes", Disposed(R"(form-data; name="\"\\\\\"")"),
       named(R"("\\")")},
      {"OtherBackslashesStay",
       Disposed(R"(form-data; name=a; filename="C:\dir\new.txt")"),
       file(R"(C:\dir\new.txt)")},
      {"UnquotedBackslashesStay",
       Disposed(R"(form-data; name=a; filename=\\b)"), file(R"(\\b)")},
      {"BytesOfFileNamesStay",
       Disposed("form-data; filename=\"../\xe4\xc3\xa4/f\"; name=a"),
       file("../\xe4\xc3\xa4/f")},
      {"FileNameParameterInOtherCase",
       Disposed("form-data; name=a; FileName=f"), file("f")},
      {"FileNameTwice", Disposed("form-data; name=a; filename=f; filename=f"),
       Refused(400)},
      {"FileNameThatIsEmpty", Disposed("form-data; name=a; filename=\"\""),
       file("")},
      {"FileNameThatIsEmptyWithoutBytes",
       Multipart(UploadPart("a", "", "") + "--XY--"), Taken({})},
      {"FileNameWithoutBytes", Multipart(UploadPart("a", "f", "") + "--XY--"),
       Taken({}, {{"a", "f", "", ""}})},
      {"FileNameOfSeveralPartsAlike",
       Multipart(UploadPart("a", "f", "1") + FieldPart("a", "2") +
                 UploadPart("a", "f", "3") + "--XY--"),
       Taken({{"a", "2"}}, {{"a", "f", "", "1"}, {"a", "f", "", "3"}})},
      {"FileNameOfAnUploadWithoutAName",
       Disposed("form-data; name=\"\"; filename=f"),
       Taken({}, {{"", "f", "", "1"}})},
      {"Utf8", Disposed("form-data; name=a; filename*=UTF-8''%e2%82%aC%20x"),
       file("\xe2\x82\xac x")},
      {"Utf8InOtherCaseWithLanguage",
       Disposed("form-data; name=a; FILENAME*=utf-8'de-x'f"), file("f")},
      {"Latin1", Disposed("form-data; name=a; filename*=Iso-8859-1'en'%A3%e4x"),
       file("\xc2\xa3\xc3\xa4x")},
      {"AllUnescapedCharacters",
       Disposed("form-data; name=a; filename*=UTF-8''aZ09!#$&+-.^_`|~"),
       file("aZ09!#$&+-.^_`|~")},
      {"ExtendedNameThatIsEmpty",
       Disposed("form-data; name=a; filename*=UTF-8''"), file("")},
      {"ExtendedNameThatIsEmptyWithoutBytes",
       Multipart(PartWith("Content-Disposition: form-data; name=a; "
                          "filename*=UTF-8''\r\n",
                          "") +
                 "--XY--"),
       Taken({})},
      {"PlainNameBeatsTheExtendedOne",
       Disposed("form-data; name=a; filename*=UTF-8''e; filename=f"),
       file("f")},
      {"PlainNameBeatsABrokenExtendedOne",
       Disposed("form-data; name=a; filename=f; filename*=KOI8-R''%00%"),
       file("f")},
      {"ExtendedNameTwice",
       Disposed("form-data; name=a; filename*=UTF-8''e; filename*=UTF-8''e"),
       Refused(400)},
      {"OtherCharset", Disposed("form-data; name=a; filename*=UTF-16''f"),
       Refused(400)},
      {"NoCharset", Disposed("form-data; name=a; filename*=''f"), Refused(400)},
      {"OneQuoteOnly", Disposed("form-data; name=a; filename*=UTF-8'f"),
       Refused(400)},
      {"NoQuotes", Disposed("form-data; name=a; filename*=f"), Refused(400)},
      {"ThreeQuotes", Disposed("form-data; name=a; filename*=UTF-8''a'b"),
       Refused(400)},
      {"ExtendedNameInQuotes",
       Disposed("form-data; name=a; filename*=\"UTF-8''f\""), Refused(400)},
      {"CharacterThatMustBeEscaped",
       Disposed("form-data; name=a; filename*=UTF-8''a/b"), Refused(400)},
      {"NonAsciiByteThatMustBeEscaped",
       Disposed("form-data; name=a; filename*=UTF-8''\xc3\xa4"), Refused(400)},
      {"EscapeWithoutDigits",
       Disposed("form-data; name=a; filename*=UTF-8''%zz"), Refused(400)},
      {"EscapeCutShort", Disposed("form-data; name=a; filename*=UTF-8''a%4"),
       Refused(400)},
      {"EscapedZeroByte", Disposed("form-data; name=a; filename*=UTF-8''a%00"),
       Refused(400)},
      {"EscapedZeroByteInLatin1",
       Disposed("form-data; name=a; filename*=ISO-8859-1''%00"), Refused(400)},
      {"BytesThatAreNotUtf8",
       Disposed("form-data; name=a; filename*=UTF-8''%e4"), Refused(400)},
      {"Utf8CutShort", Disposed("form-data; name=a; filename*=UTF-8''%e2%82"),
       Refused(400)},
      {"Utf8LongerThanNecessary",
       Disposed("form-data; name=a; filename*=UTF-8''%c0%af"), Refused(400)},
      {"Utf8OfThreeBytesLongerThanNecessary",
       Disposed("form-data; name=a; filename*=UTF-8''%e0%9f%bf"), Refused(400)},
      {"Utf8OfTwoBytesWithoutTheSecond",
       Disposed("form-data; name=a; filename*=UTF-8''%c3x"), Refused(400)},
      {"Utf8OfThreeBytesWithoutTheThird",
       Disposed("form-data; name=a; filename*=UTF-8''%e2%82x"), Refused(400)},
      {"Utf8OfFourBytesWithoutTheFourth",
       Disposed("form-data; name=a; filename*=UTF-8''%f0%90%80x"),
       Refused(400)},
      {"Utf8OfFourBytes",
       Disposed("form-data; name=a; filename*=UTF-8''%f0%90%80%80"),
       file("\xf0\x90\x80\x80")},
      {"Utf8OfFourBytesLongerThanNecessary",
       Disposed("form-data; name=a; filename*=UTF-8''%f0%8f%bf%bf"),
       Refused(400)},
      {"Utf8BeforeTheSurrogates",
       Disposed("form-data; name=a; filename*=UTF-8''%ed%9f%bf"),
       file("\xed\x9f\xbf")},
      {"Utf8Surrogate",
       Disposed("form-data; name=a; filename*=UTF-8''%ed%a0%80"), Refused(400)},
      {"Utf8LastCharacter",
       Disposed("form-data; name=a; filename*=UTF-8''%f4%8f%bf%bf"),
       file("\xf4\x8f\xbf\xbf")},
      {"Utf8BeyondTheLastCharacter",
       Disposed("form-data; name=a; filename*=UTF-8''%f4%90%80%80"),
       Refused(400)},
  };
}

inline std::vector<FormRow> RowsOfLimits() {
  const PlainForm one = Taken({{"a", "1"}});
  const auto body = &PlainLimits::body;
  const auto value = &PlainLimits::value;
  const auto values = &PlainLimits::values;
  const auto parts = &PlainLimits::parts;
  const auto header = &PlainLimits::header;
  const FormRequest field =
      Multipart(FieldPart("name", "12345") + "--XY--\r\n");
  const PlainForm field_taken = Taken({{"name", "12345"}});
  const FormRequest upload = Multipart(
      PartWith("Content-Disposition: form-data; name=abc; filename=\"f\\\"g\""
               "\r\nContent-Type:  text/x \r\n",
               "123456789") +
      "--XY--\r\n");
  const PlainForm upload_taken =
      Taken({}, {{"abc", "f\"g", "text/x", "123456789"}});
  const FormRequest three =
      Multipart(FieldPart("a", "1") + UploadPart("b", "", "") +
                UploadPart("c", "f", "") + "--XY--\r\n");
  const PlainForm three_taken = Taken({{"a", "1"}}, {{"c", "f", "", ""}});
  // "Content-Disposition: form-data; name=a", two line breaks.
  const std::size_t headers_length = 38 + 2 + 2;
  return {
      {"BodyThatFits", Within(body, std::int64_t{3}, Encoded("a=1")), one},
      {"BodyAboveIt", Within(body, std::int64_t{2}, Encoded("a=1")),
       Refused(413)},
      {"BodyAboveItOfAnotherType",
       Within(body, std::int64_t{2}, PostOfType("text/plain", "a=1")),
       Refused(413)},
      {"BodyAboveItThatDoesNotArrive",
       Within(body, std::int64_t{2}, Declaring(3, Encoded("a="))),
       Refused(413)},
      {"BodyThatFitsWithAPreambleAndAnEpilogue",
       Within(body, std::int64_t{15}, Multipart("x\r\n--XY--\r\nabcd")),
       Taken({})},
      {"BodyAboveItByItsEpilogue",
       Within(body, std::int64_t{14}, Multipart("x\r\n--XY--\r\nabcd")),
       Refused(413)},
      {"QueryIsNoBody", Within(body, std::int64_t{0}, Query("GET", "a=1")),
       one},
      {"EncodedValueThatFits",
       Within(value, std::size_t{3}, Encoded("a=%41+c")),
       Taken({{"a", "A c"}})},
      {"EncodedValueAboveIt",
       Within(value, std::size_t{3}, Encoded("a=%41+cd")), Refused(413)},
      {"EncodedNameThatFits",
       Within(value, std::size_t{3}, Encoded("%41%42%43=1")),
       Taken({{"ABC", "1"}})},
      {"EncodedNameAboveIt",
       Within(value, std::size_t{3}, Encoded("%41%42%43%44=1")), Refused(413)},
      {"QueryValueAboveIt",
       Within(value, std::size_t{3}, Query("GET", "a=1234")), Refused(413)},
      {"ValueThatFits", Within(value, std::size_t{5}, field), field_taken},
      {"ValueAboveIt", Within(value, std::size_t{4}, field), Refused(413)},
      {"ValueLimitIsNotForNamesOfParts",
       Within(value, std::size_t{1},
              Multipart(FieldPart("name", "1") + "--XY--")),
       Taken({{"name", "1"}})},
      {"ValueLimitIsNotForUploads", Within(value, std::size_t{0}, upload),
       upload_taken},
      {"EncodedValuesThatFit",
       Within(values, std::size_t{6}, Encoded("a=%31&b&cd=+")),
       Taken({{"a", "1"}, {"b", ""}, {"cd", " "}})},
      {"EncodedValuesAboveIt",
       Within(values, std::size_t{5}, Encoded("a=%31&b&cd=+")), Refused(413)},
      {"ValuesThatFit", Within(values, std::size_t{9}, field), field_taken},
      {"ValuesAboveIt", Within(values, std::size_t{8}, field), Refused(413)},
      {"ValuesOfUploadsThatFit", Within(values, std::size_t{12}, upload),
       upload_taken},
      {"ValuesOfUploadsAboveIt", Within(values, std::size_t{11}, upload),
       Refused(413)},
      {"ValuesOfEmptyFileInputsDoNotCount",
       Within(values, std::size_t{4}, three), three_taken},
      {"ValuesOfAllPartsCount", Within(values, std::size_t{3}, three),
       Refused(413)},
      {"EncodedPartsThatFit",
       Within(parts, std::size_t{2}, Encoded("&a=1&&b&")),
       Taken({{"a", "1"}, {"b", ""}})},
      {"EncodedPartsAboveIt", Within(parts, std::size_t{1}, Encoded("a&b")),
       Refused(413)},
      {"PartsThatFit", Within(parts, std::size_t{3}, three), three_taken},
      {"PartsAboveItByAnEmptyFileInput", Within(parts, std::size_t{2}, three),
       Refused(413)},
      {"NoPartsFit", Within(parts, std::size_t{0}, Multipart("--XY--")),
       Taken({})},
      {"HeaderThatFits", Within(header, headers_length, OnePart(kDisposition)),
       one},
      {"HeaderAboveIt",
       Within(header, headers_length - 1, OnePart(kDisposition)), Refused(413)},
      {"HeaderLinesOfAnyKindCount",
       Within(header, headers_length + 5, OnePart("X: y\r\n" + kDisposition)),
       Refused(413)},
      {"HeaderOfEachPartByItself",
       Within(header, headers_length,
              Multipart(PartWith(kDisposition, "1") +
                        PartWith(kDisposition, "2") + "--XY--")),
       Taken({{"a", "1"}, {"a", "2"}})},
      {"HeaderWhoseEmptyLineIsTheDelimitersOwn",
       Within(header, headers_length,
              Multipart("--XY\r\n" + kDisposition + "\r\n--XY--")),
       Taken({{"a", ""}})},
      {"HeaderLimitIsNotForDelimitersAndContents",
       Within(header, headers_length,
              Multipart(Repeated("p", 100) + "\r\n--XY" + Repeated(" ", 100) +
                        "\r\n" + kDisposition + "\r\n" + Repeated("1", 100) +
                        "\r\n--XY--")),
       Taken({{"a", Repeated("1", 100)}})},
  };
}

inline std::vector<FormTable> FormTables() {
  return {{"WhereTheFormIs", RowsOfWhereTheFormIs()},
          {"EncodedForms", RowsOfEncodedForms()},
          {"Boundaries", RowsOfBoundaries()},
          {"Delimiters", RowsOfDelimiters()},
          {"PartHeaders", RowsOfPartHeaders()},
          {"Dispositions", RowsOfDispositions()},
          {"Limits", RowsOfLimits()}};
}

}  // namespace plain

#endif

// fronts/form.cpp with librudecgi. It iterates over the fields in the order
// sent, because a look-up by name searches the whole list.

#include <rude/cgi.h>

#include <exception>
#include <iostream>

#include "../field_summary.h"

int main() try {
  const rude::CGI cgi;
  bench::FieldSummary fields;
  const int count = cgi.numValues();
  for (int i = 0; i < count; ++i) fields.Add(cgi.value(i));
  std::cout << "Content-Type: text/plain\r\n\r\n" << fields.Line();
  return std::cout.flush() ? 0 : 1;
} catch (const std::exception&) {
  return 1;
}

// fronts/form.cpp with libcgicc. It iterates over the fields in the order sent,
// because a look-up by name searches the whole list.

#include <cgicc/Cgicc.h>

#include <exception>
#include <iostream>

#include "../field_summary.h"

int main() try {
  const cgicc::Cgicc cgi;
  bench::FieldSummary fields;
  for (const cgicc::FormEntry& entry : cgi.getElements()) {
    fields.Add(entry.getValue());
  }
  std::cout << "Content-Type: text/plain\r\n\r\n" << fields.Line();
  return std::cout.flush() ? 0 : 1;
} catch (const std::exception&) {
  return 1;
}

// fronts/upload.cpp with librudecgi, which keeps the file in memory.

#include <rude/cgi.h>

#include <cstdlib>
#include <exception>
#include <fstream>
#include <iostream>

int main() try {
  const char* store = std::getenv("STORE");
  if (store == nullptr) return 1;
  const rude::CGI cgi;
  if (!cgi.isFile("u")) return 1;
  std::ofstream file(store, std::ios::binary);
  file.write(cgi.value("u"), cgi.length("u"));
  file.close();
  if (!file) return 1;
  std::cout << "Content-Type: text/plain\r\n\r\n" << cgi.length("u") << '\n';
  return std::cout.flush() ? 0 : 1;
} catch (const std::exception&) {
  return 1;
}

// fronts/upload.cpp with libcgicc, which keeps the file in memory.

#include <cgicc/Cgicc.h>

#include <cstdlib>
#include <exception>
#include <fstream>
#include <iostream>

int main() try {
  const char* store = std::getenv("STORE");
  if (store == nullptr) return 1;
  const cgicc::Cgicc cgi;
  const auto upload = cgi.getFile("u");
  if (upload == cgi.getFiles().end()) return 1;
  std::ofstream file(store, std::ios::binary);
  upload->writeToStream(file);
  file.close();
  if (!file) return 1;
  std::cout << "Content-Type: text/plain\r\n\r\n"
            << upload->getDataLength() << '\n';
  return std::cout.flush() ? 0 : 1;
} catch (const std::exception&) {
  return 1;
}

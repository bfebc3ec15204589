#include <zancgi/testing/scratch.h>

#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

namespace fs = std::filesystem;

namespace zan_cgi::testing {

Scratch::Scratch() : Scratch(fs::canonical(fs::temp_directory_path())) {}

Scratch::Scratch(const std::string& parent) {
  std::string name = parent + "/zancgi-XXXXXX";
  if (::mkdtemp(name.data()) == nullptr) {
    throw std::runtime_error("no scratch directory");
  }
  path_ = name;
}

Scratch::~Scratch() {
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

std::string Scratch::operator/(const std::string& name) const {
  return path_ + "/" + name;
}

std::string Scratch::MakeDir(const std::string& name) const {
  std::string path = *this / name;
  fs::create_directories(path);
  return path;
}

std::string Scratch::MakeFile(const std::string& name,
                              const std::string& content) const {
  std::string path = *this / name;
  std::ofstream(path, std::ios::binary) << content;
  return path;
}

std::vector<std::string> Scratch::List() const {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(path_)) {
    names.push_back(entry.path().filename());
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace zan_cgi::testing

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
namespace {

/// Restores the owner's permissions on folders that a test has locked, so that
/// they can be removed.
void Unlock(const fs::path& folder) {
  std::error_code error;
  fs::permissions(folder, fs::perms::owner_all, error);
  fs::directory_iterator entry(folder, error);
  for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
    std::error_code ignored;
    const fs::file_status status = entry->symlink_status(ignored);
    if (fs::is_directory(status)) Unlock(entry->path());
  }
}

}  // namespace

Scratch::Scratch() : Scratch(fs::canonical(fs::temp_directory_path())) {}

Scratch::Scratch(const std::string& parent) {
  std::string name = parent + "/zancgi-XXXXXX";
  if (::mkdtemp(name.data()) == nullptr) {
    throw std::runtime_error("no scratch directory");
  }
  path_ = name;
}

Scratch::~Scratch() {
  std::error_code error;
  fs::remove_all(path_, error);
  if (!error) return;
  Unlock(path_);
  fs::remove_all(path_, error);
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

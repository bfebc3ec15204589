/// @file
/// A directory that exists as long as a test.
#ifndef ZANCGI_TESTING_SCRATCH_H
#define ZANCGI_TESTING_SCRATCH_H

#include <string>
#include <vector>

namespace zan_cgi::testing {

/// A new directory, which the destructor removes with its contents.
class Scratch {
 public:
  Scratch();
  /// Makes the directory in another folder than the one for temporary files.
  explicit Scratch(const std::string& parent);
  ~Scratch();
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;

  /// Returns the absolute path without symbolic links.
  const std::string& Path() const { return path_; }
  /// Returns a path below it.
  std::string operator/(const std::string& name) const;
  /// Makes a directory, parents included, and returns its path.
  std::string MakeDir(const std::string& name) const;
  /// Makes a file and returns its path.
  std::string MakeFile(const std::string& name,
                       const std::string& content = "") const;
  /// Returns the sorted names of its direct entries.
  std::vector<std::string> List() const;

 private:
  std::string path_;
};

/// Returns the whole content of a file.
std::string ReadFile(const std::string& path);

}  // namespace zan_cgi::testing

#endif

/// @file
/// A directory that lives as long as a test.
#ifndef ZANCGI_TESTING_SCRATCH_H
#define ZANCGI_TESTING_SCRATCH_H

#include <string>
#include <vector>

namespace zan_cgi::testing {

/// A new directory, removed with all that is in it by the destructor.
class Scratch {
 public:
  Scratch();
  /// Below another folder than the one for temporary files.
  explicit Scratch(const std::string& parent);
  ~Scratch();
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;

  /// Absolute, without links.
  const std::string& Path() const { return path_; }
  /// A path below it.
  std::string operator/(const std::string& name) const;
  /// Makes a directory, parents included, and returns its path.
  std::string MakeDir(const std::string& name) const;
  /// Makes a file and returns its path.
  std::string MakeFile(const std::string& name,
                       const std::string& content = "") const;
  /// Names of what is directly in it, sorted.
  std::vector<std::string> List() const;

 private:
  std::string path_;
};

/// The whole content of a file.
std::string ReadFile(const std::string& path);

}  // namespace zan_cgi::testing

#endif

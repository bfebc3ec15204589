#pragma once

#include <string>
#include <utility>

#include <tov/site.h>

namespace tov_file {

bool Exists(const std::string& path);
void RemoveFile(const std::string& path);
std::pair<std::string, std::string> SplitPath(const std::string& path);
std::string ConcatPath(const std::string& folder, const std::string& name);
std::string RealPath(const std::string& path);

class Info {
 public:
  Info(const std::string& path, bool own_link);
  bool IsDir() const;

 private:
  site::Room room_;
  bool is_dir_;
};

class Attrs {
 public:
  Attrs(int mode);
  Attrs(int mode, unsigned owner, unsigned group);
  void SafeSet(const std::string& path, bool strict = true) const;

 private:
  site::Room room_;
  int mode_;
  unsigned owner_;
  unsigned group_;
};

void MkDir(const std::string& path, const Attrs* attrs = nullptr);
void Move(const std::string& from, const std::string& to);

/// A name alone: no file is made.
class Tmp {
 public:
  Tmp(const std::string& prefix);
  const std::string& Name() const;

 private:
  site::Room room_;
  std::string name_;
};

#ifdef SITE_DEFINES_SMALL
SITE_FUNCTION Attrs::Attrs(int mode) : mode_(mode), owner_(~0U), group_(~0U) {}
SITE_FUNCTION Attrs::Attrs(int mode, unsigned owner, unsigned group)
    : mode_(mode), owner_(owner), group_(group) {}

SITE_FUNCTION bool Info::IsDir() const { return is_dir_; }

SITE_FUNCTION const std::string& Tmp::Name() const { return name_; }
#endif

}  // namespace tov_file

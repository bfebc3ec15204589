#include <zancgi/zancgi.h>

#include <tov/err.h>
#include <tov/file.h>
#include <tov/log.h>
#include <unistd.h>

#include "log_levels.h"

namespace zan_cgi {
namespace {

tov_log::Module log("zancgi", "core");

std::string SourceName() { return tov_file::SplitPath(__FILE__).second; }

/// Everything before the last "/"; only the forward slash counts.
std::string FolderOf(const std::string& program) {
  const std::size_t slash = program.rfind('/');
  return slash == std::string::npos ? "." : program.substr(0, slash);
}

}  // namespace

void Cgi::Data::SetWorkDir(const std::string& binary_name) {
  if (binary_name.empty()) {
    tov_err::AssertError::Raise(
        __FILE__, __LINE__,
        "void zan_cgi::Cgi::Data::SetWorkDir(const string&)",
        "passed binary name is empty");
  }
  const std::string work_dir =
      tov_file::RealPath(FolderOf(binary_name) + "/..");
  if (log.Check(kDebug)) {
    log.Write(kDebug, "%s:%d set working directory to '%s'",
              SourceName().c_str(), __LINE__, work_dir.c_str());
  }
  // Kept for compatibility: a directory that cannot be entered is no error, and
  // the process stays where it is.
  if (::chdir(work_dir.c_str()) != 0) return;
}

}  // namespace zan_cgi

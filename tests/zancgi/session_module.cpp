/// @file
/// A PAM module that does what its arguments say, in their order, when a
/// session is opened. Each is "name" or "name=value"; see kDeeds.
#include <fcntl.h>
#include <grp.h>
#include <security/pam_modules.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <string>
#include <vector>

namespace {

struct Session {
  pam_handle_t* handle;
  int flags;
  /// The path of the file that records what happened.
  std::string record;
  int open_result = PAM_SUCCESS;
  int close_result = PAM_SUCCESS;
};

void Record(const Session& session, const std::string& line) {
  std::ofstream(session.record, std::ios::app) << line << '\n';
}

std::string TextItem(const Session& session, int item) {
  const void* value = nullptr;
  const int result = pam_get_item(session.handle, item, &value);
  return result != PAM_SUCCESS || value == nullptr
             ? "none"
             : static_cast<const char*>(value);
}

void RecordCall(const Session& session, const std::string& name) {
  Record(session, name + ": service " + TextItem(session, PAM_SERVICE) +
                      ", user " + TextItem(session, PAM_USER) + ", flags " +
                      std::to_string(session.flags) + ", as " +
                      std::to_string(geteuid()));
}

void LimitProcesses(Session& session, const std::string& count) {
  const rlim_t limit = std::stoul(count);
  const rlimit limits{limit, limit};
  if (setrlimit(RLIMIT_NPROC, &limits) != 0) Record(session, "no limit");
}

const std::map<std::string, void (*)(Session&, const std::string&)> kDeeds = {
    {"record",
     [](Session& session, const std::string& path) {
       session.record = path;
       RecordCall(session, "open");
     }},
    {"look_up_group",
     [](Session& session, const std::string& name) {
       if (getgrnam(name.c_str()) == nullptr) Record(session, "no such group");
     }},
    {"enter",
     [](Session& session, const std::string& directory) {
       if (chdir(directory.c_str()) != 0) Record(session, "not entered");
     }},
    {"umask",
     [](Session&, const std::string& bits) {
       umask(static_cast<mode_t>(std::stoi(bits, nullptr, 8)));
     }},
    // The test keeps what it needs itself above these.
    {"close_descriptors",
     [](Session&, const std::string&) { close_range(3, 99, 0); }},
    {"open_directories",
     [](Session&, const std::string& directory) {
       for (int i = 0; i < 20; ++i) open(directory.c_str(), O_RDONLY);
     }},
    {"limit_processes", LimitProcesses},
    {"become",
     [](Session& session, const std::string& user) {
       const auto number = static_cast<uid_t>(std::stoul(user));
       if (setuid(number) != 0) Record(session, "not become");
     }},
    {"exit",
     [](Session&, const std::string& status) { exit(std::stoi(status)); }},
    {"fail_open",
     [](Session& session, const std::string& code) {
       session.open_result = std::stoi(code);
     }},
    {"fail_close",
     [](Session& session, const std::string& code) {
       session.close_result = std::stoi(code);
     }},
};

/// Of the session that is open, for its end.
Session opened;

}  // namespace

extern "C" __attribute__((visibility("default"))) int pam_sm_open_session(
    pam_handle_t* handle, int flags, int argc, const char** argv) {
  opened = Session{handle, flags, ""};
  for (int i = 0; i < argc; ++i) {
    const std::string argument = argv[i];
    const std::size_t equals = argument.find('=');
    kDeeds.at(argument.substr(0, equals))(
        opened, equals == std::string::npos ? "" : argument.substr(equals + 1));
  }
  return opened.open_result;
}

extern "C" __attribute__((visibility("default"))) int pam_sm_close_session(
    pam_handle_t* /*handle*/, int flags, int /*argc*/, const char** /*argv*/) {
  opened.flags = flags;
  RecordCall(opened, "close");
  return opened.close_result;
}

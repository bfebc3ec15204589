#include "support/hand_over.h"

#include <dlfcn.h>
#include <pwd.h>

#include <exception>
#include <sstream>

#include "support/switch.h"

namespace support {
namespace {

constinit const Account* only_account = nullptr;

passwd EntryOf(const Account& account) {
  passwd entry{};
  // Nobody writes to them.
  entry.pw_name = const_cast<char*>(account.name.c_str());
  entry.pw_dir = const_cast<char*>(account.home.c_str());
  entry.pw_uid = account.uid;
  entry.pw_gid = account.gid;
  return entry;
}

void Give(const std::string& path, const Account& account) {
  if (::lchown(path.c_str(), account.uid, account.gid) != 0) {
    throw std::runtime_error("cannot give " + path + " away");
  }
}

std::string Attributes(uid_t owner, gid_t group, mode_t mode) {
  std::ostringstream text;
  text << owner << ':' << group << " 0" << std::oct << mode;
  return text.str();
}

void HandOverInChild(const std::vector<Stored>& files, bool use_chroot,
                     const Reporter& report) {
  Cgi::Data record;
  for (const Stored& file : files) {
    record.files[file.name] = {file.path, file.size};
  }
  MarkSwitch();
  std::exception_ptr failure;
  try {
    record.DoChownFiles("visitor", "not used", use_chroot);
  } catch (...) {
    failure = std::current_exception();
  }
  for (const auto& [name, file] : record.files) {
    report("path of " + name, file.path);
    report("size of " + name, std::to_string(file.size));
  }
  // They stay for the test to look at.
  record.files.clear();
  if (failure) std::rethrow_exception(failure);
}

}  // namespace

void FakeAccount(const Account& account) {
  delete std::exchange(only_account, new Account(account));
}

std::string AttributesOf(const std::string& path) {
  const struct stat found = StatOf(path);
  return Attributes(found.st_uid, found.st_gid, found.st_mode & 07777);
}

Owners::Owners(bool across)
    : other_(across ? kOtherFileSystem : scratch_.Path()),
      home_(other_.MakeDir("home")),
      visitor_{"visitor", ::geteuid(), ::getegid(), home_} {
  if (IsRoot()) {
    visitor_.uid = kVisitor;
    visitor_.gid = kVisitors;
  }
  // As /tmp is.
  fs::permissions(scratch_.MakeDir("spool"), fs::perms{01777});
  for (const Scratch* scratch : {&scratch_, &other_}) {
    fs::permissions(scratch->Path(), fs::perms{0755});
  }
  Give(home_, visitor_);
}

std::string Owners::MakeUpload(const std::string& name,
                               const std::string& content) const {
  const std::string path = scratch_.MakeFile("spool/" + name, content);
  fs::permissions(path, fs::perms{0600});
  return path;
}

Strings Owners::InHome() const { return NamesIn(home_); }

Strings Owners::InSpool() const { return NamesIn(Spool()); }

std::string Owners::AttributesBefore() const {
  return Attributes(::geteuid(), ::getegid(), 0600);
}

std::string Owners::AttributesAfter() const {
  return Attributes(visitor_.uid, visitor_.gid, 0644);
}

HandedOver HandOver(const Owners& owners, const std::vector<Stored>& files,
                    bool use_chroot, const std::function<void()>& prepare,
                    const Child& child) {
  HandedOver result{RunWithoutLeak(child, [&](const Reporter& report) {
    FakeAccount(owners.Visitor());
    prepare();
    HandOverInChild(files, use_chroot, report);
  })};
  for (const Stored& file : files) {
    result.paths[file.name] = result.reported["path of " + file.name];
  }
  result.log = LinesOfTheSwitch(result.log);
  return result;
}

extern "C" passwd* getpwnam(const char* name) {
  using Function = passwd* (*)(const char*);
  static passwd found;
  if (only_account == nullptr) {
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, "getpwnam"))(name);
  }
  found = EntryOf(*only_account);
  return only_account->name == name ? &found : nullptr;
}

}  // namespace support

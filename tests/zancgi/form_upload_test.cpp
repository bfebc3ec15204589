// The files of a form's uploads: where they lie, who may read them, and that
// none is left when the request has ended.

#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <zancgi/account.h>
#include <zancgi/form.h>
#include <zancgi/testing/mount.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string_view>
#include <system_error>

#include "support/account.h"
#include "support/file_calls.h"
#include "support/files.h"
#include "support/form.h"
#include "support/refusal.h"
#include "support/switch.h"
#include "support/test.h"

namespace support {
namespace {

const std::string kLong(300'000, 'x');

/// Two uploads, the first of which comes in several pieces.
const std::string kForm =
    Upload("u", "f", kLong) + Upload("v", "g", "short") + kFormEnd;
/// The same without its end.
const std::string kCutForm =
    Upload("u", "f", kLong) + Upload("v", "g", "short");

std::string FormOf(std::size_t uploads) {
  std::string body;
  for (std::size_t i = 0; i < uploads; ++i) {
    body += Upload("u", "f", std::to_string(i));
  }
  return body + kFormEnd;
}

void Serve(const std::string& body, const std::function<void()>& work,
           Child child = Child()) {
  RunCleanly(PostOf(body, support::kForm, child).LogLevel(0), Input::File(body),
             work);
}

Refusal RefusalWith(const std::string& spool) {
  return RefusalOf([&] {
    ::setenv("TMP", spool.c_str(), 1);
    Cgi cgi("/bin/front", "");
    const Form form(cgi);
  });
}

void ExpectWhole(const Form& form) {
  ASSERT_EQ(form.uploads().size(), 2U);
  EXPECT_EQ(form.uploads()[0].size, std::int64_t{300'000});
  EXPECT_TRUE(ReadFile(form.Path(form.uploads()[0])) == kLong);
  EXPECT_EQ(ReadFile(form.Path(form.uploads()[1])), "short");
}

/// Fails with this error when a file without a name is to be made.
int WithoutUnnamed(const FileCall& call) {
  return call.name == "O_TMPFILE" ? EOPNOTSUPP : 0;
}

int AllCalls(const FileCall&) { return 0; }

/// Both kinds of files, with the answer to the calls that makes them.
const std::pair<const char*, int (*)(const FileCall&)> kKinds[] = {
    {"unnamed", AllCalls}, {"named", WithoutUnnamed}};

bool CanBeUnnamed(const std::string& folder) {
  const int file = ::open(folder.c_str(), O_TMPFILE | O_WRONLY, 0600);
  if (file >= 0) ::close(file);
  return file >= 0;
}

TEST(UploadFolder, IsTheOneThatIsSetOrThatOfTmpOrTmp) {
  struct Row {
    const char* name;
    std::string set;
    const char* tmp;
    std::string found;
  };
  const Scratch scratch;
  const std::string spool = scratch.MakeDir("spool");
  const std::string other = scratch.MakeDir("other");
  scratch.MakeDir("bin");
  const Row rows[] = {
      {"set", spool, other.c_str(), spool},
      {"set, relative", "spool", other.c_str(), spool},
      {"set, with a slash", spool + "/", nullptr, spool},
      {"TMP", "", other.c_str(), other},
      {"TMP, relative", "", "other", other},
      {"none", "", nullptr, "/tmp"},
      {"empty TMP", "", "", "/tmp"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Child child;
    if (row.tmp != nullptr) child.Env("TMP", row.tmp);
    Serve(
        kForm,
        [&] {
          Cgi cgi(scratch / "bin/front", "");
          if (!row.set.empty()) cgi.SetTmpDir(row.set);
          const Form form(cgi);
          ASSERT_EQ(::chdir("/"), 0);
          ExpectWhole(form);
          for (const Form::Upload& upload : form.uploads()) {
            const fs::path path = form.Path(upload);
            EXPECT_TRUE(path.is_absolute());
            EXPECT_TRUE(fs::equivalent(path.parent_path(), row.found)) << path;
            EXPECT_TRUE(path.filename().string().starts_with("zantemp"));
          }
        },
        child);
    EXPECT_TRUE(fs::is_empty(spool) && fs::is_empty(other));
  }
}

/// Expects that the open files of uploads have mode 0600, are close-on-exec and
/// are not standard input, output or error. Returns how many there are.
int CountOpenUploads(const std::string& spool) {
  int count = 0;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    const std::string target = fs::read_symlink(entry.path(), gone);
    if (gone || !target.starts_with(spool + "/")) continue;
    const int descriptor = std::stoi(entry.path().filename());
    ++count;
    EXPECT_GT(descriptor, 2) << target;
    EXPECT_EQ(::fcntl(descriptor, F_GETFD), FD_CLOEXEC) << target;
    struct stat file {};
    EXPECT_EQ(::fstat(descriptor, &file), 0);
    EXPECT_EQ(file.st_mode, mode_t{S_IFREG | 0600}) << target;
  }
  return count;
}

TEST(UploadFile, IsPrivateAndNoStandardStream) {
  const std::vector<int> closed_sets[] = {{}, {1}, {2}, {1, 2}};
  for (const auto& [name, answer] : kKinds) {
    for (const std::vector<int>& closed : closed_sets) {
      for (const mode_t mask : {0000U, 0022U}) {
        SCOPED_TRACE(testing::Message()
                     << name << ", without " << testing::PrintToString(closed));
        const Scratch spool;
        Child child;
        for (const int descriptor : closed) child.Closed(descriptor);
        Serve(
            kForm,
            [&, answer = answer] {
              ::umask(mask);
              int most = 0;
              WatchFileCalls([&](const FileCall& call) {
                if (call.name == "write") {
                  most = std::max(most, CountOpenUploads(spool.Path()));
                }
                return answer(call);
              });
              Cgi cgi = CgiWithSpool(spool.Path());
              const Form form(cgi);
              WatchFileCalls(nullptr);
              EXPECT_GT(most, 0);
              EXPECT_EQ(CountOpenUploads(spool.Path()), 0);
              for (const int descriptor : closed) {
                EXPECT_EQ(::fcntl(descriptor, F_GETFD), -1);
              }
              ExpectWhole(form);
              for (const Form::Upload& upload : form.uploads()) {
                EXPECT_EQ(fs::status(form.Path(upload)).permissions(),
                          fs::perms{0600});
              }
            },
            child);
        EXPECT_EQ(spool.List(), Strings{});
      }
    }
  }
}

TEST(KilledProcess, LeavesNoUploadWhereFilesCanBeUnnamed) {
  const Scratch spool;
  if (!CanBeUnnamed(spool.Path())) {
    GTEST_SKIP() << "needs files without names in " << spool.Path();
  }
  struct Row {
    std::string body;
    int write;
  };
  const Row rows[] = {{kForm, 1}, {kForm, 3}, {FormOf(64), 64}};
  for (const int signal : {SIGKILL, SIGTERM}) {
    for (const Row& row : rows) {
      SCOPED_TRACE(row.write);
      const Input input = Input::File(row.body);
      Child child = PostOf(row.body).LogLevel(0);
      const Outcome outcome =
          child.StandardInput(input).Run([&](const Reporter&) {
            int writes = 0;
            WatchFileCalls([&](const FileCall& call) {
              const bool is_write = call.name == "write";
              if (is_write && ++writes == row.write) ::raise(signal);
              return 0;
            });
            Cgi cgi = CgiWithSpool(spool.Path());
            const Form form(cgi);
          });
      EXPECT_EQ(outcome.status, 128 + signal);
      EXPECT_EQ(spool.List(), Strings{});
    }
  }
}

TEST(UploadFile, HasANameWhereUnnamedFilesCannotBeMadeOrLinkedAtOnce) {
  struct Row {
    const char* call;
    int error;
    int times;
  };
  const Row rows[] = {{"O_TMPFILE", EOPNOTSUPP, INT_MAX},
                      // An old file system, an old kernel.
                      {"O_TMPFILE", EISDIR, INT_MAX},
                      {"O_TMPFILE", EINVAL, INT_MAX},
                      // Somebody takes its name.
                      {"linkat", EEXIST, 3}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.error);
    const Scratch spool;
    for (const std::string& body : {kForm, kCutForm}) {
      Serve(body, [&] {
        const Watch watch([&, count = 0](const FileCall& call) mutable {
          const bool fails = call.name == row.call && ++count <= row.times;
          return fails ? row.error : 0;
        });
        if (body == kCutForm) {
          EXPECT_EQ(RefusalWith(spool.Path()).status, 400);
          EXPECT_EQ(spool.List(), Strings{});
          return;
        }
        Cgi cgi = CgiWithSpool(spool.Path());
        const Form form(cgi);
        ExpectWhole(form);
        EXPECT_EQ(spool.List().size(), 2U);
      });
      EXPECT_EQ(spool.List(), Strings{});
    }
  }
}

void Limit(__rlimit_resource resource, rlim_t most) {
  rlimit limit{};
  ASSERT_EQ(::getrlimit(resource, &limit), 0);
  limit.rlim_cur = most;
  ASSERT_EQ(::setrlimit(resource, &limit), 0);
}

TEST(ManyUploads, AreAllStoredWithFewDescriptors) {
  for (const rlim_t descriptors : {1024U, 100U}) {
    for (const auto& [name, answer] : kKinds) {
      SCOPED_TRACE(name);
      const Scratch spool;
      Serve(FormOf(200), [&, answer = answer] {
        Limit(RLIMIT_NOFILE, descriptors);
        const Watch watch(answer);
        Cgi cgi = CgiWithSpool(spool.Path());
        const Form form(cgi);
        ASSERT_EQ(form.uploads().size(), 200U);
        for (std::size_t i = 0; i < 200; ++i) {
          EXPECT_EQ(ReadFile(form.Path(form.uploads()[i])), std::to_string(i));
        }
        EXPECT_EQ(spool.List().size(), 200U);
      });
      EXPECT_EQ(spool.List(), Strings{});
    }
  }
}

struct Unusable {
  const char* name;
  std::function<void(const std::string& spool)> prepare;
  int error;
};

void ExpectRefused(const std::vector<Unusable>& rows) {
  for (const Unusable& row : rows) {
    for (const auto& [name, answer] : kKinds) {
      SCOPED_TRACE(testing::Message() << row.name << ", " << name);
      const Scratch scratch;
      ASSERT_EQ(::chmod(scratch.Path().c_str(), 0755), 0);
      const std::string spool = scratch.MakeDir("spool");
      Serve(kForm, [&, answer = answer] {
        rlimit before{};
        ::getrlimit(RLIMIT_NOFILE, &before);
        // It would end the process that meets the limit of the size.
        ::signal(SIGXFSZ, SIG_DFL);
        row.prepare(spool);
        WatchFileCalls(answer);
        const Refusal refusal = RefusalWith(spool);
        WatchFileCalls(nullptr);
        // Further tests need descriptors.
        ::setrlimit(RLIMIT_NOFILE, &before);
        EXPECT_EQ(refusal,
                  (Refusal{507, "an upload cannot be stored: " +
                                    std::string(::strerror(row.error))}));
        EXPECT_TRUE(!fs::is_directory(spool) || fs::is_empty(spool));
      });
    }
  }
}

TEST(UploadThatCannotBeStored, IsRefusedWithTheReason) {
  ExpectRefused({
      {"missing", [](const std::string& spool) { fs::remove(spool); }, ENOENT},
      {"a file",
       [](const std::string& spool) {
         fs::remove(spool);
         ::close(::open(spool.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
       },
       ENOTDIR},
      {"not writable",
       [](const std::string& spool) {
         ASSERT_EQ(::chmod(spool.c_str(), 0555), 0);
         BecomeOrdinaryUser();
       },
       EACCES},
      {"limit of the size",
       [](const std::string&) { Limit(RLIMIT_FSIZE, 100'000); }, EFBIG},
      {"limit of the size, one byte too small",
       [](const std::string&) { Limit(RLIMIT_FSIZE, kLong.size() - 1); },
       EFBIG},
      {"limit of the size, 0",
       [](const std::string&) { Limit(RLIMIT_FSIZE, 0); }, EFBIG},
#ifndef __SANITIZE_ADDRESS__  // With sanitizers, checks need a descriptor.
      {"limit of the descriptors",
       [](const std::string&) { Limit(RLIMIT_NOFILE, 3); }, EMFILE},
#endif
  });
}

TEST(UploadThatCannotBeStored, IsRefusedWhenItsCloseFails) {
  const std::string text = "an upload cannot be stored: ";
  const std::pair<int, Refusal> rows[] = {
      {EIO, {507, text + "Input/output error"}},
      {EDQUOT, {507, text + "Disk quota exceeded"}},
      {EINTR, {}},
  };
  const Scratch spool;
  for (const auto& [error, refusal] : rows) {
    for (const auto& [name, answer] : kKinds) {
      SCOPED_TRACE(refusal.text + ", " + name);
      Serve(kForm, [&, answer = answer, error = error, refusal = refusal] {
        const Watch watch([&](const FileCall& call) {
          return call.name == "close" ? error : answer(call);
        });
        EXPECT_EQ(RefusalWith(spool.Path()), refusal);
      });
      EXPECT_EQ(spool.List(), Strings{});
    }
  }
}

std::function<void(const std::string& spool)> Disk(const char* options,
                                                   unsigned long flags = 0) {
  return
      [=](const std::string& spool) { MountPrivately(spool, options, flags); };
}

TEST(UploadOnAFullOrReadOnlyDisk, IsRefusedWithTheReason) {
  const std::string reason = WhyNoAccounts();
  if (!reason.empty()) GTEST_SKIP() << reason;
  ExpectRefused({
      {"full", Disk("size=128k"), ENOSPC},
      {"no room for a file", Disk("size=1m,nr_inodes=1"), ENOSPC},
      {"read-only", Disk("size=1m", MS_RDONLY), EROFS},
  });
}

TEST(UploadInARootWithoutProc, IsStoredAndRemoved) {
  if (!IsRoot()) GTEST_SKIP() << "needs root";
  const Scratch root;
  const std::string spool = root.MakeDir("spool");
  root.MakeDir("bin");
  ASSERT_EQ(::chmod(root.Path().c_str(), 0755), 0);
  ASSERT_EQ(::chmod(spool.c_str(), 0777), 0);
  for (const bool is_root : {true, false}) {
    for (const bool is_cut : {false, true}) {
      SCOPED_TRACE(testing::Message() << is_root << is_cut);
      Serve(is_cut ? kCutForm : kForm, [&] {
        ASSERT_EQ(::chroot(root.Path().c_str()), 0);
        ASSERT_EQ(::chdir("/"), 0);
        if (!is_root) BecomeOrdinaryUser();
        if (is_cut) {
          EXPECT_EQ(RefusalWith("/spool").status, 400);
        } else {
          Cgi cgi = CgiWithSpool("/spool");
          const Form form(cgi);
          ExpectWhole(form);
        }
      });
      EXPECT_TRUE(fs::is_empty(spool));
    }
  }
}

class AccountUploads : public MachineTest<> {
 protected:
  void SetUp() override {
    MachineTest::SetUp();
    spool_ = machine_.MakeDir("spool");
  }

  /// Serves this form on that machine, and expects that no file is left.
  void ServeForm(const std::string& body, const std::string& spool,
                 const std::function<void(Cgi& cgi)>& work) const {
    Serve(body, [&] {
      machine_.SetUp();
      Cgi cgi(machine_.Start() + "/bin/front", "");
      if (!spool.empty()) cgi.SetTmpDir(spool);
      work(cgi);
    });
    EXPECT_EQ(NamesIn(spool_), Strings{});
    EXPECT_EQ(NamesIn(machine_.Home()), Strings{"www"});
  }

  std::string spool_;
};

/// Expects that the two files lie directly in this folder, with this mode, and
/// are the account's.
void ExpectInHome(const Form& form, const Cgi& cgi, const std::string& home,
                  mode_t mode) {
  ExpectWhole(form);
  for (const Form::Upload& upload : form.uploads()) {
    const std::string path = form.Path(upload);
    EXPECT_EQ(cgi.File(upload.name), path);
    EXPECT_EQ(fs::path(path).parent_path(), home);
    const struct stat file = StatOf(path);
    EXPECT_EQ(file.st_mode, S_IFREG | mode);
    EXPECT_EQ(file.st_uid, kVisitor);
    EXPECT_EQ(file.st_gid, kVisitors);
  }
}

void BecomeVisitor(Cgi& cgi, const std::string& directory, bool is_confined) {
  zan_cgi::AccountOptions options;
  options.directory = directory;
  options.confined = is_confined;
  zan_cgi::BecomeAccount(cgi, "visitor", options);
}

TEST_F(AccountUploads, AreHandedOverByASwitchAfterTheForm) {
  for (const bool is_confined : {false, true}) {
    ServeForm(kForm, spool_, [&](Cgi& cgi) {
      const Form form(cgi);
      cgi.Su("visitor", is_confined ? "/" : "", is_confined, false);
      ExpectInHome(form, cgi, is_confined ? "/" : machine_.Home(), 0644);
    });
  }
}

TEST_F(AccountUploads, AreStoredInTheHomeAfterASwitch) {
  for (const bool is_confined : {false, true}) {
    SCOPED_TRACE(is_confined);
    ServeForm(kForm, "", [&](Cgi& cgi) {
      BecomeVisitor(cgi, "www", is_confined);
      const Form form(cgi);
      ExpectInHome(form, cgi, is_confined ? "/" : machine_.Home(), 0600);
      EXPECT_TRUE(fs::is_empty(fs::current_path()));
    });
    ServeForm(kCutForm, "", [&](Cgi& cgi) {
      BecomeVisitor(cgi, "", is_confined);
      EXPECT_EQ(RefusalOf([&] { const Form form(cgi); }).status, 400);
    });
  }
}

TEST_F(AccountUploads, AreStoredInTheFolderThatIsSetAfterASwitchToo) {
  machine_.Give("spool");
  ServeForm(kForm, spool_, [&](Cgi& cgi) {
    BecomeVisitor(cgi, "", false);
    const Form form(cgi);
    ExpectInHome(form, cgi, spool_, 0600);
  });
}

}  // namespace
}  // namespace support

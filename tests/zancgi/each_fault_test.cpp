// One fault after the other: each allocation and each call of the system that
// a parse of a form makes, by either parser, and each allocation of a hand-over
// and of an authorization. Nothing may be left behind, and nobody authorized.

#include <grp.h>
#include <pwd.h>
#include <tov/proc.h>
#include <zancgi/account.h>
#include <zancgi/form.h>

#include <csignal>
#include <exception>
#include <optional>
#include <string_view>

#include "support/account.h"
#include "support/allocations.h"
#include "support/backend.h"
#include "support/file_calls.h"
#include "support/files.h"
#include "support/form.h"
#include "support/hand_over.h"
#include "support/switch.h"
#include "support/test.h"

namespace support {
namespace {

using zan_cgi::Form;

using Work = std::function<void()>;

/// Does the work while faults happen, reports how many calls were open to them,
/// and returns its exception.
using Faults = std::function<std::exception_ptr(const Work&, const Reporter&)>;

std::exception_ptr FailureOf(const Work& work) {
  try {
    work();
  } catch (...) {
    return std::current_exception();
  }
  return nullptr;
}

Faults Without(const Shortage& shortage) {
  return [shortage](const Work& work, const Reporter& report) {
    BeginAllocations(shortage);
    const std::exception_ptr failure = FailureOf(work);
    const Allocations made = EndAllocations();
    report("calls", std::to_string(made.count));
    return failure;
  };
}

/// Fails with this error when a file without a name is to be made.
support::FileCallWatcher RefuseUnnamed(int error) {
  return [error](const FileCall& call) {
    return call.name == "O_TMPFILE" ? error : 0;
  };
}

/// Has the call of this number fail, counted from 1, with this error.
/// @param unnamed_error  that of files without a name; they do not count then
Faults FailingCall(std::size_t number, int error, int unnamed_error = 0) {
  return [=](const Work& work, const Reporter& report) {
    std::size_t count = 0;
    WatchFileCalls(
        [&, refuse = RefuseUnnamed(unnamed_error)](const FileCall& call) {
          const int refused = refuse(call);
          if (refused != 0) return refused;
          if (++count == number) report("failed call", std::string(call.name));
          return count == number ? error : 0;
        });
    const std::exception_ptr failure = FailureOf(work);
    WatchFileCalls(nullptr);
    report("calls", std::to_string(count));
    return failure;
  };
}

/// All that is known of how a child has ended, for failed expectations.
std::string Described(const Outcome& outcome) {
  return "status " + std::to_string(outcome.status) + ", error '" +
         outcome.error + "' " + outcome.error_type + "\n" +
         testing::PrintToString(outcome.reported) + "\nstandard error:\n" +
         outcome.standard_error;
}

/// Expects an empty folder, unless what has failed is the removal of a file,
/// which then stays, without an error; and empties it.
/// @param least  how many files stay at least when a removal fails
void ExpectNothingLeft(const Scratch& spool, Outcome outcome,
                       std::size_t least = 0) {
  const Strings left = spool.List();
  for (const std::string& name : left) fs::remove(spool / name);
  const bool is_removal = outcome.reported["failed call"] == "unlink";
  EXPECT_TRUE(!is_removal || outcome.error.empty()) << Described(outcome);
  EXPECT_LE(left.size(), is_removal ? 1U : 0U) << Described(outcome);
  EXPECT_GE(left.size(), is_removal ? least : 0U) << Described(outcome);
}

/// Has a run meet its first fault, then its second, until it has none to meet.
/// @param run  makes the run and returns what its child has come to
template <class Run>
void MeetEach(const std::function<Faults(std::size_t)>& faults,
              const Run& run) {
  for (std::size_t number = 1;; ++number) {
    SCOPED_TRACE("fault " + std::to_string(number));
    Outcome outcome = run(faults(number));
    SCOPED_TRACE(Described(outcome));
    ASSERT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.leaked_descriptors, Strings{});
    ASSERT_NE(outcome.reported["calls"], "");
    if (std::stoul(outcome.reported["calls"]) < number) {
      EXPECT_EQ(outcome.error, "");
      // Fewer would mean that they are not counted.
      EXPECT_GT(number, 5U);
      return;
    }
  }
}

/// The same with each allocation: it alone fails, or all from there on.
template <class Run>
void MeetEachShortage(const Run& run) {
  for (const bool lasts : {false, true}) {
    SCOPED_TRACE(lasts ? "for good" : "once");
    MeetEach([=](std::size_t number) { return Without({number, lasts}); }, run);
  }
}

/// Names longer than a std::string holds without memory.
const std::string kFirst = "the first of all holiday pictures.jpeg";
const std::string kSecond = "the second of all holiday pictures.jpeg";
const std::string kField = "a field with a name that is long";

const std::string kLong(100'000, 'x');

/// Two uploads have the same name. The data of one spans chunks, one of which
/// ends in the beginning of a separator.
const std::string kBody =
    Field(kField, "a value that is long enough") +
    Upload("picture", kFirst, "replaced") +
    Upload("another picture of the holidays", kSecond, kLong) +
    Upload("picture", kFirst, "kept\r\n--X") + kFormEnd;

const Texts kParams = {{kField, "a value that is long enough"},
                       {"picture", kFirst},
                       {"another picture of the holidays", kSecond}};

void ExpectWhole(const Cgi::Data& record) {
  EXPECT_EQ(record.params, kParams);
  ASSERT_EQ(record.files.size(), 2U);
  const std::pair<std::string, std::string> files[] = {{kFirst, "kept\r\n--X"},
                                                       {kSecond, kLong}};
  for (const auto& [name, content] : files) {
    const Cgi::Data::FileInfo& file = record.files.at(name);
    EXPECT_EQ(file.size, static_cast<std::int64_t>(content.size()));
    EXPECT_TRUE(ReadFile(file.path) == content);
  }
}

/// An entry either names a file of this parse or none.
void ExpectOwnPaths(const Cgi::Data& record, const std::string& spool) {
  for (const auto& [name, file] : record.files) {
    EXPECT_TRUE(file.path.starts_with(spool + "/zantemp")) << file.path;
  }
}

class EachFaultOfAParse : public testing::Test {
 protected:
  /// Parses the form and expects that it leaves nothing behind.
  Outcome Parse(const Faults& faults, const Child& child = Child()) const {
    const Input input = Input::File(kBody);
    const Outcome outcome =
        PostOf(kBody, kForm, child)
            .StandardInput(input)
            .Run([&](const Reporter& report) {
              std::exception_ptr failure;
              {
                Cgi::Data record;
                record.tmp_dir = spool_.Path();
                failure = faults([&record] { record.ParseInput(); }, report);
                ExpectOwnPaths(record, spool_.Path());
                if (!failure) ExpectWhole(record);
              }
              if (failure) std::rethrow_exception(failure);
            });
    ExpectNothingLeft(spool_, outcome, 1);
    return outcome;
  }

 private:
  Scratch spool_;
};

TEST_F(EachFaultOfAParse, InItsMemoryLeavesNothingBehind) {
  MeetEachShortage([&](const Faults& faults) {
    Outcome outcome = Parse(faults);
    EXPECT_TRUE(outcome.error_type.empty() ||
                outcome.error_type == "std::bad_alloc")
        << outcome.error_type;
    return outcome;
  });
}

TEST_F(EachFaultOfAParse, InItsCallsLeavesNothingBehind) {
  for (const int error : {EIO, EACCES}) {
    SCOPED_TRACE(error);
    const auto failing_call = [error](std::size_t number) {
      return FailingCall(number, error);
    };
    MeetEach(failing_call, [&](const Faults& faults) { return Parse(faults); });
    // The upload's file is moved to a higher descriptor then.
    MeetEach(failing_call, [&](const Faults& faults) {
      return Parse(faults, Child().LogLevel(0).Closed(1).Closed(2));
    });
  }
}

/// A form, and what stands in the way of files without names.
struct FormRequest {
  std::string name;
  std::string type;
  std::string body;
  /// With which error they cannot be made; 0 when they can.
  int unnamed_error = 0;
};

void PrintTo(const FormRequest& request, std::ostream* out) {
  *out << request.name;
}

const std::string kMultipart = Field(kField, "a value that is long enough") +
                               Upload("picture", kFirst, kLong) +
                               Upload("picture", kFirst, "second") + kFormEnd;

const std::vector<FormRequest> kFormRequests = {
    {"Multipart", kForm, kMultipart},
    {"MultipartIntoNamedFiles", kForm, kMultipart, EOPNOTSUPP},
    // Long enough for several reads.
    {"Encoded", kEncoded,
     "a+field+with+a+name+that+is+long=a+value+that+is+long+enough&b=" + kLong +
         kLong + kLong},
};

std::string NameOf(const testing::TestParamInfo<FormRequest>& request) {
  return request.param.name;
}

class EachFaultOfAForm : public testing::TestWithParam<FormRequest> {
 protected:
  /// Reads the form and asks for a parameter. Expects that nothing is left.
  Outcome Read(const Faults& faults, const Child& child = Child()) const {
    const FormRequest& request = GetParam();
    const Input input = Input::File(request.body);
    Outcome outcome =
        PostOf(request.body, request.type, child)
            .StandardInput(input)
            .Run([&](const Reporter& report) {
              std::exception_ptr failure;
              {
                Cgi cgi("/bin/front", "");
                cgi.SetTmpDir(spool_.Path());
                std::optional<Form> form;
                WatchFileCalls(RefuseUnnamed(request.unnamed_error));
                failure = faults(
                    [&] {
                      form.emplace(cgi);
                      cgi.Param(kField);
                    },
                    report);
                WatchFileCalls(nullptr);
                ExpectAllOrNothing(form, cgi);
              }
              if (failure) std::rethrow_exception(failure);
            });
    EXPECT_TRUE(outcome.error_type.empty() ||
                outcome.error_type == "std::bad_alloc" ||
                outcome.error_type == "zan_cgi::FormError")
        << Described(outcome);
    ExpectNothingLeft(spool_, outcome);
    return outcome;
  }

 private:
  static void ExpectAllOrNothing(const std::optional<Form>& form, Cgi& cgi) {
    Strings params;
    cgi.GetParams(params);
    Strings files;
    cgi.GetFileNames(files);
    if (!form) {
      EXPECT_EQ(params, Strings{});
      EXPECT_EQ(files, Strings{});
      return;
    }
    EXPECT_EQ(form->Value(kField), "a value that is long enough");
    EXPECT_EQ(cgi.Param(kField), "a value that is long enough");
    if (form->uploads().empty()) {
      EXPECT_EQ(params, (Strings{kField, "b"}));
      EXPECT_EQ(form->Value("b").size(), 3 * kLong.size());
      return;
    }
    EXPECT_EQ(params, (Strings{kField, "picture"}));
    EXPECT_EQ(files, (Strings{kFirst, kFirst + " (2)"}));
    EXPECT_EQ(cgi.Param("picture"), kFirst + ", " + kFirst + " (2)");
    EXPECT_TRUE(ReadFile(cgi.File(kFirst)) == kLong);
    EXPECT_EQ(ReadFile(cgi.File(kFirst + " (2)")), "second");
  }

  Scratch spool_;
};

INSTANTIATE_TEST_SUITE_P(, EachFaultOfAForm, testing::ValuesIn(kFormRequests),
                         NameOf);

TEST_P(EachFaultOfAForm, InItsMemoryLeavesNothingBehind) {
  MeetEachShortage([&](const Faults& faults) { return Read(faults); });
}

/// Whether a signal in this call changes nothing.
bool IsRetried(const std::string& call) {
  return call == "poll" || call == "read" || call == "write";
}

TEST_P(EachFaultOfAForm, InItsCallsLeavesNothingBehind) {
  for (const int error : {EIO, EACCES, EINTR, ENOSPC}) {
    SCOPED_TRACE(error);
    const auto failing = [&](std::size_t number) {
      return FailingCall(number, error, GetParam().unnamed_error);
    };
    MeetEach(failing, [&](const Faults& faults) {
      Outcome outcome = Read(faults);
      if (error == EINTR && IsRetried(outcome.reported["failed call"])) {
        EXPECT_EQ(outcome.error, "");
      }
      return outcome;
    });
    // The uploads' files are moved to higher descriptors then.
    MeetEach(failing, [&](const Faults& faults) {
      return Read(faults, Child().LogLevel(0).Closed(1).Closed(2));
    });
  }
}

class EachFaultOfAHandOver : public testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    const std::string lack = GetParam() ? WhyNoOtherFileSystem() : "";
    if (!lack.empty()) GTEST_SKIP() << lack;
  }

  /// Hands two uploads over, to a real account where that can be made.
  Outcome HandOver(const Faults& faults) const {
    const Owners owners(GetParam());
    const Strings paths = {owners.MakeUpload("zantempAbCdEf"),
                           owners.MakeUpload("zantempGhIjKl")};
    const Outcome outcome = Child().Run([&](const Reporter& report) {
      if (can_use_accounts_) {
        UseAccounts({owners.Visitor()}, {});
      } else {
        FakeAccount(owners.Visitor());
      }
      // The C library crashes when memory ends in the first look-up of all.
      ::getpwnam("visitor");
      std::exception_ptr failure;
      {
        Cgi::Data record;
        AddUploads(paths, record);
        failure = faults(
            [&record] { record.DoChownFiles("visitor", "", false); }, report);
        if (!failure) ExpectHandedOver(owners);
      }
      if (failure) std::rethrow_exception(failure);
    });
    EXPECT_EQ(owners.InSpool(), Strings{}) << Described(outcome);
    EXPECT_EQ(owners.InHome(), Strings{}) << Described(outcome);
    return outcome;
  }

 private:
  static void AddUploads(const Strings& paths, Cgi::Data& record) {
    for (const std::string& path : paths) {
      record.files["picture that lies at " + path] = {path, 1};
    }
  }

  static void ExpectHandedOver(const Owners& owners) {
    EXPECT_EQ(owners.InHome(), (Strings{"zantempAbCdEf", "zantempGhIjKl"}));
    for (const std::string& name : owners.InHome()) {
      EXPECT_EQ(AttributesOf(owners.Home() + "/" + name),
                owners.AttributesAfter());
    }
  }

  const bool can_use_accounts_ = WhyNoAccounts().empty();
};

INSTANTIATE_TEST_SUITE_P(ToAnotherFileSystem, EachFaultOfAHandOver,
                         testing::Bool());

TEST_P(EachFaultOfAHandOver, InItsMemoryLeavesNothingBehind) {
  MeetEachShortage([&](const Faults& faults) {
    Outcome outcome = HandOver(faults);
    EXPECT_TRUE(outcome.error_type.empty() ||
                outcome.error_type == "std::bad_alloc" ||
                outcome.error == "failed to get pw entry")
        << outcome.error_type << ": " << outcome.error;
    return outcome;
  });
}

class EachFaultOfBecomingAnAccount : public MachineTest<> {
 protected:
  /// Becomes the account, and reports the identity of the process afterwards.
  Outcome Become(const Faults& faults, bool confined) const {
    return Child().WorkDir(machine_.Start()).Run([&](const Reporter& report) {
      machine_.SetUp();
      ASSERT_EQ(::setgroups(0, nullptr), 0);
      const Observer observer;
      Cgi cgi(machine_.Start() + "/bin/front", "");
      // The C library crashes when it has no memory to set these up.
      EXPECT_NE(::getpwnam("visitor"), nullptr);
      gid_t group = 0;
      int count = 1;
      ::getgrouplist("visitor", 1, &group, &count);
      zan_cgi::AccountOptions options;
      options.directory = "www";
      options.confined = confined;
      const std::exception_ptr failure = faults(
          [&] { zan_cgi::BecomeAccount(cgi, "visitor", options); }, report);
      ReportIdentity(report, observer.Look());
      EXPECT_TRUE(::geteuid() == 0 || !CanBecomeAnother());
      if (failure) std::rethrow_exception(failure);
    });
  }
};

TEST_F(EachFaultOfBecomingAnAccount, InItsMemoryLeavesNoRootAfterTheSwitch) {
  for (const bool confined : {false, true}) {
    SCOPED_TRACE(confined);
    MeetEachShortage([&](const Faults& faults) {
      Outcome outcome = Become(faults, confined);
      if (outcome.status == 128 + SIGABRT) {
        // The C library gives some of the groups, and no error, when it has no
        // memory for all. Those that the process then has are too many.
        outcome.status = 0;
        outcome.reported["calls"] = std::to_string(SIZE_MAX);
        return outcome;
      }
      const std::string users = outcome.reported["users"];
      const Identity visitor = Visitor("", "");
      if (outcome.error.empty()) {
        EXPECT_EQ(users, visitor.users);
        EXPECT_EQ(outcome.reported["supplementary"], visitor.supplementary);
      } else if (users == Root("").users) {
        // Before the switch, in which the directory changes.
        EXPECT_TRUE(outcome.error_type == "std::bad_alloc" ||
                    outcome.error == "there is no account of this name")
            << outcome.error;
        EXPECT_EQ(outcome.reported["root"], "/");
        EXPECT_EQ(outcome.reported["work dir"], machine_.Start());
      } else {
        EXPECT_TRUE(users == visitor.users ||
                    users == "65534\t65534\t65534\t65534");
      }
      return outcome;
    });
  }
}

/// Asks a back end that gives this answer whose session it is, and reports what
/// auth() then returns.
Outcome Authorize(const Faults& faults, const std::string& answer) {
  Backend backend;
  backend.Then(Answer(answer));
  return Child()
      .Env("REQUEST_METHOD", "GET")
      .Env("HTTP_COOKIE",
           "backendses5=a session id that is long; "
           "backendlang5=a language cookie that is long:its last word, too")
      .With(backend)
      .Run([&](const Reporter& report) {
        Cgi cgi("/bin/front", "backend");
        const std::exception_ptr failure =
            faults([&cgi] { cgi.Authorize(Cgi::AuthInfo::AuthAny); }, report);
        try {
          report("name", cgi.auth().name);
          report("level", std::to_string(cgi.auth().level));
          report("session", cgi.auth().auth);
          report("language", cgi.auth().lang_rest + ":" + cgi.auth().lang_word);
        } catch (const std::runtime_error& error) {
          report("refused", error.what());
        }
        if (failure) std::rethrow_exception(failure);
      });
}

void ExpectNobodyAuthorized(Outcome& outcome) {
  EXPECT_NE(outcome.error, "");
  EXPECT_EQ(outcome.reported["refused"], "not authorized");
  EXPECT_FALSE(outcome.reported.contains("name"));
}

TEST(EachFaultOfAnAuthorization, InItsMemoryAuthorizesNobody) {
  const std::string name = "a user with a name that is long";
  MeetEachShortage([&](const Faults& faults) {
    Outcome outcome = Authorize(
        faults, "<doc><user name=\"" + name + "\" level=\"7\"/></doc>");
    if (outcome.error.empty()) {
      EXPECT_EQ(outcome.reported["name"], name);
      EXPECT_EQ(outcome.reported["level"], "7");
      EXPECT_EQ(outcome.reported["session"], "a session id that is long");
      EXPECT_EQ(outcome.reported["language"],
                "a language cookie that is long:its last word, too");
    } else {
      ExpectNobodyAuthorized(outcome);
    }
    return outcome;
  });
}

TEST(EachFaultOfAnAuthorization, ThatIsRefusedAuthorizesNobodyEither) {
  for (const std::string answer :
       {R"(<doc><user name="a" level="7"/><error type="access"/></doc>)",
        R"(<doc><error type="other"/></doc>)", "<doc/>", "no answer"}) {
    SCOPED_TRACE(answer);
    MeetEachShortage([&](const Faults& faults) {
      Outcome outcome = Authorize(faults, answer);
      ExpectNobodyAuthorized(outcome);
      // The refusal is no failure of the run that meets no fault.
      outcome.error.clear();
      return outcome;
    });
  }
}

}  // namespace
}  // namespace support

// What the parser waits for after a read of nothing does not come sooner.
void tov_proc::Sleep(unsigned /*milliseconds*/) {}

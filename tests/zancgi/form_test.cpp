// What the request answers after its form was read, how long the files live,
// and wrong use.

#include <zancgi/form.h>
#include <zancgi/testing/backend.h>

#include <optional>

#include "support/form.h"
#include "support/refusal.h"
#include "support/test.h"
#include "support/unread.h"

namespace support {
namespace {

const char kTwice[] =
    "the input has been parsed already: make the Form, once, before anything "
    "asks for parameters or uploads";

/// Serves a POST of this body in a child whose uploads go to a folder of its
/// own, which must be empty afterwards. The declared length ends before the
/// word "unread".
Outcome Serve(const std::string& body,
              const std::function<void(Cgi& cgi)>& work,
              Child child = Child()) {
  const Scratch spool;
  const std::string form = body.substr(0, body.find("unread"));
  Outcome outcome =
      RunCleanly(PostOf(form, kForm, child), Input::Pipe(body), [&] {
        Cgi cgi("/bin/front", "backend");
        cgi.SetTmpDir(spool.Path());
        work(cgi);
      });
  EXPECT_EQ(spool.List(), Strings{});
  return outcome;
}

Strings ParamsOf(const Cgi& cgi) {
  Strings names = {"old"};
  cgi.GetParams(names);
  return names;
}

Strings FilesOf(const Cgi& cgi) {
  Strings names = {"old"};
  cgi.GetFileNames(names);
  return names;
}

TEST(Form, FindsFieldsByTheirNames) {
  Serve(Field("a", "1") + Field("b", "") + Upload("u", "f.txt", "x") +
            Field("a", "2") + kFormEnd,
        [](Cgi& cgi) {
          const Form original(cgi);
          Form form = original;
          form = original;
          for (const auto& [name, values] :
               std::vector<std::pair<std::string, Strings>>{{"a", {"1", "2"}},
                                                            {"b", {""}},
                                                            {"A", {}},
                                                            {"u", {}},
                                                            {"f.txt", {}},
                                                            {"", {}}}) {
            SCOPED_TRACE(name);
            EXPECT_EQ(form.Has(name), !values.empty());
            EXPECT_EQ(form.Values(name), values);
            EXPECT_EQ(form.Value(name), values.empty() ? "" : values[0]);
          }
        });
}

// Each function may be the first to ask.
TEST(CgiAfterAForm, ReturnsItsFieldsAndFilesWhicheverFunctionIsCalledFirst) {
  const std::function<void(Cgi&)> calls[] = {
      [](Cgi& cgi) { EXPECT_EQ(cgi.Param("b"), "1, 3, "); },
      [](Cgi& cgi) {
        EXPECT_EQ(ParamsOf(cgi), (Strings{"a", "b", "u", "v"}));
      },
      [](Cgi& cgi) {
        EXPECT_EQ(FilesOf(cgi), (Strings{"f.txt", "g.txt"}));
      },
      [](Cgi& cgi) { EXPECT_EQ(cgi.GetFileSize(), 8); },
      [](Cgi& cgi) { EXPECT_EQ(ReadFile(cgi.File("f.txt")), "one"); },
      [](Cgi& cgi) { EXPECT_EQ(ReadFile(cgi.File("g.txt")), "three"); },
      [](Cgi& cgi) { EXPECT_EQ(cgi.File("u"), ""); },
      [](Cgi& cgi) { EXPECT_EQ(cgi.Param("a"), "2"); },
      [](Cgi& cgi) { EXPECT_EQ(cgi.Param("u"), "f.txt"); },
      [](Cgi& cgi) { EXPECT_EQ(cgi.Param("missing"), ""); }};
  for (const auto& first : calls) {
    Serve(Field("b", "1") + Upload("u", "f.txt", "one") + Field("a", "2") +
              Field("b", "3") + Upload("v", "g.txt", "three") + Field("b", "") +
              kFormEnd,
          [&](Cgi& cgi) {
            Cgi copy = cgi;
            { const Form form(cgi); }
            first(copy);
            for (const auto& call : calls) call(cgi);
          });
  }
}

TEST(CgiAfterAForm, FindsSessionAndSenderInItsFields) {
  for (const auto method :
       {Cgi::AuthInfo::AuthParams, Cgi::AuthInfo::AuthAny}) {
    SCOPED_TRACE(method);
    Backend backend;
    backend.Then(Answer("x"))
        .Then(Answer(R"(<doc><user name="a" level="1"/></doc>)"));
    Serve(
        Field("auth", "session") + Field("sfrom", "1") + Field("sfrom", "2") +
            kFormEnd,
        [method](Cgi& cgi) {
          const Form form(cgi);
          cgi.Query("func=list");
          cgi.Authorize(method);
          EXPECT_EQ(cgi.auth().auth, "session");
          EXPECT_EQ(cgi.auth().method, Cgi::AuthInfo::AuthParams);
        },
        Child().With(backend));
    ASSERT_EQ(backend.Queries().size(), 2U);
    EXPECT_EQ(backend.Queries()[0]["QUERY_STRING"],
              "func=list&out=xml&sfrom=1, 2");
    EXPECT_EQ(backend.Queries()[1]["QUERY_STRING"],
              "func=whoami&out=xml&auth=session&sfrom=1, 2");
  }
}

TEST(UploadsOfOneName, HaveFilesOfTheirOwn) {
  const std::pair<Strings, Strings> rows[] = {
      {{"a", "b"}, {"a", "b"}},
      {{"a", "a"}, {"a", "a (2)"}},
      {{"a", "a", "a"}, {"a", "a (2)", "a (3)"}},
      {{"a (2)", "a", "a"}, {"a (2)", "a", "a (3)"}},
      {{"a", "a (2)", "a"}, {"a", "a (2)", "a (3)"}},
      {{"a", "a", "a (2)"}, {"a", "a (2)", "a (2) (2)"}},
      {{"a (3)", "a", "a", "a"}, {"a (3)", "a", "a (2)", "a (4)"}},
      {{"", "", "a", ""}, {"", " (2)", "a", " (3)"}},
  };
  for (const auto& [names, keys] : rows) {
    SCOPED_TRACE(testing::PrintToString(names));
    std::string body;
    for (std::size_t i = 0; i < names.size(); ++i) {
      body += Upload("u", names[i], std::string(i + 1, 'x'));
    }
    Serve(body + kFormEnd, [&, keys = keys, names = names](Cgi& cgi) {
      const Form form(cgi);
      ASSERT_EQ(form.uploads().size(), names.size());
      std::string joined;
      for (std::size_t i = 0; i < keys.size(); ++i) {
        const Form::Upload& upload = form.uploads()[i];
        EXPECT_EQ(upload.name, names[i]);
        EXPECT_EQ(upload.size, static_cast<std::int64_t>(i + 1));
        EXPECT_EQ(ReadFile(form.Path(upload)), std::string(i + 1, 'x'));
        EXPECT_EQ(cgi.File(keys[i]), form.Path(upload));
        joined += (i > 0 ? ", " : "") + keys[i];
      }
      EXPECT_EQ(cgi.Param("u"), joined);
      Strings sorted = keys;
      std::sort(sorted.begin(), sorted.end());
      EXPECT_EQ(FilesOf(cgi), sorted);
      EXPECT_EQ(cgi.GetFileSize(),
                static_cast<std::int64_t>(keys.size() * (keys.size() + 1) / 2));
    });
  }
}

TEST(Path, IsThatOfTheUploadItself) {
  Serve(Upload("u", "f", "one") + Upload("u", "f", "two") + kFormEnd,
        [](Cgi& cgi) {
          const Form form(cgi);
          const Form copy = form;
          const Form::Upload& second = form.uploads().at(1);
          EXPECT_EQ(ReadFile(form.Path(second)), "two");
          EXPECT_EQ(copy.Path(copy.uploads().at(1)), form.Path(second));
          // The two are alike, so a copy of the second means the first.
          const Form::Upload alike = second;
          EXPECT_EQ(form.Path(alike), form.Path(form.uploads().at(0)));
        });
}

TEST(Path, OfAnUploadThatIsNotOfTheFormIsRefused) {
  const std::vector<Form::Upload> others = {{"v", "f", "", 3},
                                            {"u", "g", "", 3},
                                            {"u", "f", "text/html", 3},
                                            {"u", "f", "", 4},
                                            {}};
  Serve(Upload("u", "f", "one") + kFormEnd, [&](Cgi& cgi) {
    const Form form(cgi);
    EXPECT_EQ(form.Path({"u", "f", "", 3}), cgi.File("f"));
    for (const Form::Upload& upload : others) {
      EXPECT_THROW(static_cast<void>(form.Path(upload)), std::invalid_argument);
    }
  });
}

TEST(Files, StayUntilTheLastCopyOfCgiAndFormIsDestroyed) {
  std::vector<int> order = {0, 1, 2, 3};
  do {
    SCOPED_TRACE(testing::PrintToString(order));
    Serve(Upload("u", "f", "one") + Upload("u", "f", "two") + kFormEnd,
          [&order](Cgi& given) {
            std::optional<Cgi> cgi[2];
            std::optional<Form> form[2];
            cgi[0] = cgi[1] = given;
            given = Cgi("/bin/front", "");
            form[0].emplace(*cgi[0]);
            form[1] = form[0];
            const std::string first = form[0]->Path(form[0]->uploads().at(0));
            const std::string second = form[0]->Path(form[0]->uploads().at(1));
            for (const int one : order) {
              EXPECT_TRUE(fs::exists(first) && fs::exists(second));
              if (one < 2) {
                cgi[one].reset();
              } else {
                form[one - 2].reset();
              }
            }
            EXPECT_FALSE(fs::exists(first) || fs::exists(second));
          });
  } while (std::next_permutation(order.begin(), order.end()));
}

TEST(SecondReading, IsRefusedWithAdvice) {
  const std::function<void(Cgi&)> readings[] = {
      [](Cgi& cgi) { const Form form(cgi); },
      [](Cgi& cgi) {
        Cgi copy = cgi;
        const Form form(copy);
      },
      [](Cgi& cgi) { cgi.Param("a"); },
      [](Cgi& cgi) { cgi.ParseQuery(); },
      [](Cgi& cgi) { ParamsOf(cgi); },
      [](Cgi& cgi) { FilesOf(cgi); },
      [](Cgi& cgi) { cgi.GetFileSize(); },
  };
  for (const auto& first : readings) {
    const Outcome outcome = Serve(
        Field("a", "1") + Upload("u", "f", "one") + kFormEnd, [&](Cgi& cgi) {
          first(cgi);
          try {
            const Form form(cgi);
            ADD_FAILURE() << "not refused";
          } catch (const std::logic_error& error) {
            EXPECT_STREQ(error.what(), kTwice);
          }
          cgi.ParseQuery();
          // What the first one has read is still there.
          EXPECT_EQ(cgi.Param("a"), "1");
          EXPECT_EQ(ReadFile(cgi.File("f")), "one");
        });
    EXPECT_EQ(outcome.Logged(4), Strings{"CGI already parsed input"});
  }
}

TEST(RefusedForm, LeavesARequestWithoutParametersAndFiles) {
  const std::string cut = Field("a", "1") + Upload("u", "f", "one");
  for (const std::string& body : {cut, cut + "--XYmore\r\n" + kFormEnd}) {
    Serve(body + "unread", [](Cgi& cgi) {
      EXPECT_EQ(RefusalOf([&] { const Form form(cgi); }).status, 400);
      EXPECT_EQ(BytesUnread(), 6U);
      EXPECT_EQ(cgi.Param("a"), "");
      EXPECT_EQ(ParamsOf(cgi), Strings{});
      EXPECT_EQ(FilesOf(cgi), Strings{});
      EXPECT_EQ(cgi.GetFileSize(), 0);
      EXPECT_EQ(cgi.File("f"), "");
      cgi.ParseQuery();
      EXPECT_THROW(const Form form(cgi), std::logic_error);
      EXPECT_EQ(BytesUnread(), 6U);
    });
  }
}

TEST(FormError, IsCopiedWithItsStatusAndText) {
  const zan_cgi::FormError error(413, "too long");
  const zan_cgi::FormError copy = error;
  zan_cgi::FormError assigned(400, "other");
  assigned = copy;
  EXPECT_EQ(assigned.status(), 413);
  EXPECT_STREQ(assigned.what(), "too long");
}

}  // namespace
}  // namespace support

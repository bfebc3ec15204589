// A front end that prints what it was given, one thing a line.
#include <sys/stat.h>
#include <tov/err.h>
#include <zancgi/zancgi.h>

#include <cstdio>
#include <exception>
#include <string>
#include <vector>

namespace {

void Print(const char* what, const std::string& value) {
  std::printf("%s=%s\n", what, value.c_str());
}

long SizeOf(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 ? status.st_size : -1;
}

void TellRequest(zan_cgi::Cgi& cgi) {
  std::vector<std::string> names;
  cgi.GetParams(names);
  for (const std::string& name : names) Print(name.c_str(), cgi.Param(name));
  Print("cookie", cgi.Cookie("second"));
  cgi.GetFileNames(names);
  for (const std::string& name : names) {
    Print("path", cgi.File(name));
    Print("size", std::to_string(SizeOf(cgi.File(name))));
  }
}

void TellCaller(zan_cgi::Cgi& cgi) {
  cgi.Authorize(zan_cgi::Cgi::AuthInfo::AuthAny);
  Print("user", cgi.auth().name);
  Print("level", std::to_string(cgi.auth().level));
  Print("language", cgi.auth().lang_word);
  Print("answer", cgi.Query({{"func", "a list"}}));
}

}  // namespace

int main(int argc, char** argv) {
  try {
    zan_cgi::Cgi cgi(argv[0], argc > 1 ? argv[1] : "panel");
    cgi.SetTmpDir("");
    cgi.CheckContentLength(argc > 2 ? std::stol(argv[2]) : 100000);
    TellRequest(cgi);
    TellCaller(cgi);
  } catch (const tov_err::Missed& error) {
    Print("missed", error.what());
  } catch (const tov_err::Value& error) {
    Print("value", error.what());
  } catch (const tov_err::Error& error) {
    Print("error", error.what());
  } catch (const std::exception& error) {
    Print("exception", error.what());
  }
}

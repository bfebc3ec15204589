// A front end that reads a form of up to 1 MB and answers with its status: 200,
// or why the form was refused.

#include <zancgi/account.h>
#include <zancgi/form.h>
#include <zancgi/response.h>
#include <zancgi/zancgi.h>

#include <exception>
#include <string>

namespace {

struct Outcome {
  int status;
  std::string text;
};

/// The request has ended when this returns: lighttpd ends a program whose whole
/// answer it has, and what is left of an upload then would stay.
Outcome ReadForm(const char* program) {
  try {
    zan_cgi::Cgi cgi(program, "");
    zan_cgi::Form::Limits limits;
    limits.body = 1 << 20;
    return {200, zan_cgi::Form(cgi, limits).Value("a")};
  } catch (const std::exception& error) {
    return {zan_cgi::StatusOf(error), error.what()};
  }
}

}  // namespace

int main(int argc, char** argv) {
  const Outcome outcome = ReadForm(argc > 0 ? argv[0] : "");
  zan_cgi::Response(outcome.status).Type("text/plain").Send(outcome.text);
}

/// @file
/// A scripted back-end service: what it does wrong is part of the script.
#ifndef ZANCGI_TESTING_BACKEND_H
#define ZANCGI_TESTING_BACKEND_H

#include <zancgi/testing/scratch.h>

#include <chrono>
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace zan_cgi::testing {

/// How the back end treats one attempt of a front end to ask it.
struct Step {
  /// What is done.
  enum class Kind {
    /// Nothing listens from here to the end of the run: every attempt is
    /// refused. The step behind it is for the next run.
    Refuse,
    /// Accepted and closed with the query unread: the client sees a reset.
    Reset,
    /// The query is read, then the connection is closed without a byte.
    CloseSilently,
    /// The query is read and answered, then the connection is closed.
    Answer,
    /// Like Answer, one byte per write.
    AnswerByteByByte,
    /// The query is read, the text is sent, then the connection is reset.
    AnswerThenReset
  };

  Kind kind;           ///< What is done.
  std::string answer;  ///< What is sent, for the kinds that send.
};

Step Refuse();                            ///< @see Step::Kind::Refuse
Step Reset();                             ///< @see Step::Kind::Reset
Step CloseSilently();                     ///< @see Step::Kind::CloseSilently
Step Answer(std::string text);            ///< @see Step::Kind::Answer
Step AnswerByteByByte(std::string text);  ///< @see Step::Kind::AnswerByteByByte
Step AnswerThenReset(std::string text);   ///< @see Step::Kind::AnswerThenReset

/// A query as it came over the wire.
struct Query {
  /// All its bytes.
  std::string raw;
  /// The header's variables in the order sent, CONTENT_LENGTH and SCGI first.
  std::vector<std::pair<std::string, std::string>> variables;

  /// Value of a variable; empty when it is not there.
  std::string operator[](const std::string& name) const;
  /// Whether the variable is there, be it empty.
  bool Has(const std::string& name) const;
};

/// A back-end service on a socket in a run directory of its own. It is there
/// while a front end runs that is given it; attempts beyond the script are
/// refused.
class Backend {
 public:
  /// @param name  the name that the front end gives to its zan_cgi::Cgi
  explicit Backend(std::string name = "backend");
  virtual ~Backend();
  Backend(const Backend&) = delete;
  Backend& operator=(const Backend&) = delete;

  /// Adds a step to the script.
  Backend& Then(Step step);
  /// Adds the same step several times.
  Backend& Times(std::size_t count, const Step& step);

  /// The service's name.
  const std::string& Name() const { return name_; }
  /// Value for TOV_RUN_DIR.
  const std::string& RunDir() const { return run_dir_.Path(); }
  /// Where the service listens.
  const std::string& SocketPath() const { return socket_path_; }
  /// The queries that were read, in order.
  const std::vector<Query>& Queries() const { return queries_; }

  /// For what runs a front end, before it starts one: begins to listen, unless
  /// the next step is to refuse.
  void BeginRun();
  /// For what runs a front end, in the front end's process: leaves the socket
  /// to the process that serves.
  virtual void BecomeClient();
  /// For what runs a front end: serves until the process ends or the time is
  /// up; says whether the process has ended.
  bool ServeUntilExit(int process_descriptor, std::chrono::milliseconds limit);
  /// For what runs a front end, once it has ended.
  void EndRun();

 protected:
  /// The steps, in order.
  const std::vector<Step>& Script() const { return script_; }
  /// Whether a step that refuses closes the socket. Not where refused attempts
  /// are kept away in another way; such a step is then one attempt.
  virtual bool ClosesToRefuse() const { return true; }

 private:
  bool Refuses() const;
  void Listen();
  void StopListening();
  void ServeOne();

  std::string name_;
  Scratch run_dir_;
  std::string socket_path_;
  std::vector<Step> script_;
  std::size_t next_ = 0;
  std::vector<Query> queries_;
  int listener_ = -1;
};

}  // namespace zan_cgi::testing

#endif

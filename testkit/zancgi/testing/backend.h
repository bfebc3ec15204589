/// @file
/// A scripted back-end service, which can also fail as scripted.
#ifndef ZANCGI_TESTING_BACKEND_H
#define ZANCGI_TESTING_BACKEND_H

#include <zancgi/testing/scratch.h>

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace zan_cgi::testing {

/// How the back end treats one attempt of a front end to query it.
struct Step {
  /// The action.
  enum class Kind {
    /// Nothing listens from here to the end of the run: every attempt is
    /// refused. The step after it is for the next run.
    Refuse,
    /// The connection is accepted and closed with the query unread, so the
    /// client sees a reset.
    Reset,
    /// The query is read, then the connection is closed without an answer.
    CloseSilently,
    /// The query is read, and nothing more happens until the client disconnects
    /// or its run ends.
    StaySilent,
    /// The query is read and answered, then the connection is closed.
    Answer,
    /// Like Answer, one byte per write.
    AnswerByteByByte,
    /// The query is read, the text is sent, then the connection is reset.
    AnswerThenReset
  };

  Kind kind;           ///< The action.
  std::string answer;  ///< The text to send, for the kinds that send one.
};

Step Refuse();                            ///< @see Step::Kind::Refuse
Step Reset();                             ///< @see Step::Kind::Reset
Step CloseSilently();                     ///< @see Step::Kind::CloseSilently
Step StaySilent();                        ///< @see Step::Kind::StaySilent
Step Answer(std::string text);            ///< @see Step::Kind::Answer
Step AnswerByteByByte(std::string text);  ///< @see Step::Kind::AnswerByteByByte
Step AnswerThenReset(std::string text);   ///< @see Step::Kind::AnswerThenReset

/// A query as received.
struct Query {
  /// All its bytes.
  std::string raw;
  /// The header's variables in the order sent, CONTENT_LENGTH and SCGI first.
  std::vector<std::pair<std::string, std::string>> variables;

  /// Returns the value of a variable; empty if it is missing.
  std::string operator[](const std::string& name) const;
  /// Whether the variable exists, even if it is empty.
  bool Has(const std::string& name) const;
  /// Returns the decoded value of the first item of this name in QUERY_STRING;
  /// empty if there is none.
  std::string Item(const std::string& name) const;
};

/// A back-end service on a socket in a run directory of its own. It listens
/// while a Program or Child that uses it runs, and treats each query as
/// scripted, step by step. After the script it answers by the rules of On() and
/// Otherwise(), and refuses if there are none.
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

  /// After the script: treats queries with this item "func" in this manner.
  /// @throws std::invalid_argument for a step that refuses: to read the query,
  ///   the back end must have accepted the connection
  Backend& On(const std::string& function, Step step);
  /// After the script: returns the step for all other queries. Without it they
  /// are Unexpected() and closed silently.
  Backend& Otherwise(std::function<Step(const Query&)> rule);

  /// The service's name.
  const std::string& Name() const { return name_; }
  /// Value for TOV_RUN_DIR.
  const std::string& RunDir() const { return run_dir_.Path(); }
  /// The socket's path.
  const std::string& SocketPath() const { return socket_path_; }
  /// The queries that were read, in order.
  const std::vector<Query>& Queries() const { return queries_; }
  /// The queries for which there was no rule.
  const std::vector<Query>& Unexpected() const { return unexpected_; }
  /// The number of steps of the script that were not reached.
  std::size_t StepsLeft() const { return script_.size() - next_; }

  /// Called by the runner before it starts a front end: begins to listen,
  /// unless the next step is to refuse.
  void BeginRun();
  /// Called by the runner in the front end's process: closes the listening
  /// socket, which belongs to the serving process.
  virtual void BecomeClient();
  /// Called by the runner: serves until this descriptor becomes readable.
  void ServeUntil(int descriptor);
  /// Called by the runner after the front end has ended.
  void EndRun();

 protected:
  /// Whether this step of the script, counted from 0, is to refuse. After the
  /// script, whether there are no rules.
  bool RefusesAt(std::size_t step) const;
  /// Whether a step that refuses closes the socket. If attempts are refused by
  /// other means, such a step is one attempt.
  virtual bool ClosesToRefuse() const { return true; }

 private:
  bool HasRules() const { return !rules_.empty() || otherwise_; }
  Step RuleFor(const Query& query);
  void Listen();
  void StopListening();
  void ServeOne();
  void Treat(const Step& step, int connection);

  std::string name_;
  Scratch run_dir_;
  std::string socket_path_;
  std::vector<Step> script_;
  std::map<std::string, Step> rules_;
  std::function<Step(const Query&)> otherwise_;
  std::size_t next_ = 0;
  std::vector<Query> queries_;
  std::vector<Query> unexpected_;
  std::vector<int> silent_;
  int listener_ = -1;
};

}  // namespace zan_cgi::testing

#endif

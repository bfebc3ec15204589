/// @file
/// A scripted back-end service: what it does wrong is part of the script.
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
    /// The query is read, and nothing more happens until the client goes or
    /// its run ends.
    StaySilent,
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
Step StaySilent();                        ///< @see Step::Kind::StaySilent
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
  /// Value of the first item of this name in QUERY_STRING, decoded; empty when
  /// there is none.
  std::string Item(const std::string& name) const;
};

/// A back-end service on a socket in a run directory of its own. It is there
/// while a Program or Child runs that is given it, and treats each attempt to
/// ask it as the script says, step by step. Behind the script it answers by
/// what is asked for, where On() or Otherwise() say how, and refuses where
/// neither was called.
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

  /// Behind the script: treats the queries with this item "func" so.
  /// @throws std::invalid_argument for a step that refuses: by the time that
  ///         the back end knows what is asked for, it has accepted
  Backend& On(const std::string& function, Step step);
  /// Behind the script: treats other queries as this says. Unless set, they are
  /// Unexpected() and closed silently.
  Backend& Otherwise(std::function<Step(const Query&)> rule);

  /// The service's name.
  const std::string& Name() const { return name_; }
  /// Value for TOV_RUN_DIR.
  const std::string& RunDir() const { return run_dir_.Path(); }
  /// Where the service listens.
  const std::string& SocketPath() const { return socket_path_; }
  /// The queries that were read, in order.
  const std::vector<Query>& Queries() const { return queries_; }
  /// Those of them that nothing was said about.
  const std::vector<Query>& Unexpected() const { return unexpected_; }
  /// How many steps of the script have not come about.
  std::size_t StepsLeft() const { return script_.size() - next_; }

  /// For what runs a front end, before it starts one: begins to listen, unless
  /// the next step is to refuse.
  void BeginRun();
  /// For what runs a front end, in the front end's process: leaves the socket
  /// to the process that serves.
  virtual void BecomeClient();
  /// For what runs a front end: serves until this descriptor becomes readable.
  void ServeUntil(int descriptor);
  /// For what runs a front end, once it has ended.
  void EndRun();

 protected:
  /// Whether this step of the script, counted from 0, is to refuse; behind the
  /// script, whether there is nothing to answer by.
  bool RefusesAt(std::size_t step) const;
  /// Whether a step that refuses closes the socket. Not where refused attempts
  /// are kept away in another way; such a step is then one attempt.
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

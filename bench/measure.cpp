// Runs programs in turn, as a web server would start them, and prints the costs
// of each run.
//
//   bench_measure <PLAN
//
// Each line of the plan is a word, a blank and a value:
//
//   rounds N            number of rounds
//   program NAME        begins the description of a program
//   every N             runs in every Nth round only
//   argument TEXT       the first is the path of the program
//   variable NAME=TEXT  its environment contains only these
//   input PATH          its standard input, opened for each run
//   piece N PATH        instead: a pipe with the content of this file N times
//   output PATH         its standard output
//   stored N PATH       each run makes this file of N bytes; removed afterwards
//
// Standard input and output are /dev/null by default. Each round begins with
// another program, in turn. Prints a line of JSON for each run, and last the
// smallest peak memory that can be measured: that of this program, because the
// kernel includes the memory of the starting process in a program's peak. So
// this program is linked statically and uses little memory.

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "descriptor.h"

namespace {

struct Piece {
  std::size_t count;
  std::string path;
};

struct StoredFile {
  off_t size;
  std::string path;
};

struct Program {
  std::string name;
  std::size_t every = 1;
  std::vector<std::string> arguments;
  std::vector<std::string> variables;
  std::string input = "/dev/null";
  std::vector<Piece> pieces;
  std::string output = "/dev/null";
  std::vector<StoredFile> stored;
};

struct Plan {
  std::size_t rounds = 1;
  std::vector<Program> programs;
};

using bench::Descriptor;
using bench::ThrowErrno;

Descriptor Open(const std::string& path) {
  return Descriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC), path);
}

std::size_t Number(const std::string& text) {
  std::size_t end = 0;
  const unsigned long number = std::stoul(text, &end);
  if (end != text.size()) throw std::runtime_error("not a number: " + text);
  return number;
}

/// Parses "N PATH".
std::pair<std::size_t, std::string> NumberAndPath(const std::string& text) {
  const std::size_t blank = text.find(' ');
  if (blank == std::string::npos) {
    throw std::runtime_error("not a number and a path: " + text);
  }
  return {Number(text.substr(0, blank)), text.substr(blank + 1)};
}

void ReadProgramLine(const std::string& word, const std::string& value,
                     Program& program) {
  if (word == "every") {
    program.every = Number(value);
  } else if (word == "argument") {
    program.arguments.push_back(value);
  } else if (word == "variable") {
    program.variables.push_back(value);
  } else if (word == "input") {
    program.input = value;
  } else if (word == "piece") {
    const auto [count, path] = NumberAndPath(value);
    program.pieces.push_back({count, path});
  } else if (word == "output") {
    program.output = value;
  } else if (word == "stored") {
    const auto [size, path] = NumberAndPath(value);
    program.stored.push_back({static_cast<off_t>(size), path});
  } else {
    throw std::runtime_error("unknown word in the plan: " + word);
  }
}

void ReadLine(const std::string& line, Plan& plan) {
  const std::size_t blank = line.find(' ');
  const std::string word = line.substr(0, blank);
  const std::string value =
      blank == std::string::npos ? "" : line.substr(blank + 1);
  if (word == "rounds") {
    plan.rounds = Number(value);
  } else if (word == "program") {
    plan.programs.emplace_back().name = value;
  } else if (plan.programs.empty()) {
    throw std::runtime_error("no \"program\" before the line: " + line);
  } else {
    ReadProgramLine(word, value, plan.programs.back());
  }
}

Plan ReadPlan() {
  Plan plan;
  char* line = nullptr;
  std::size_t room = 0;
  ssize_t length = 0;
  while ((length = ::getline(&line, &room, stdin)) > 0) {
    if (line[length - 1] == '\n') --length;
    ReadLine(std::string(line, static_cast<std::size_t>(length)), plan);
  }
  std::free(line);
  return plan;
}

void WriteAll(int descriptor, const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t count = ::write(descriptor, data, size);
    if (count < 0) ThrowErrno("cannot write the input of a program");
    data += count;
    size -= static_cast<std::size_t>(count);
  }
}

void FeedPiece(const Piece& piece, int descriptor) {
  const Descriptor file = Open(piece.path);
  struct stat status {};
  if (::fstat(file.Number(), &status) != 0) ThrowErrno(piece.path);
  const auto size = static_cast<std::size_t>(status.st_size);
  if (size == 0) return;
  void* const bytes = ::mmap(nullptr, size, PROT_READ,
                             MAP_PRIVATE | MAP_POPULATE, file.Number(), 0);
  if (bytes == MAP_FAILED) ThrowErrno(piece.path);
  for (std::size_t i = 0; i < piece.count; ++i) {
    WriteAll(descriptor, static_cast<const char*>(bytes), size);
  }
  ::munmap(bytes, size);
}

[[noreturn]] void Feed(const std::vector<Piece>& pieces, int descriptor) try {
  for (const Piece& piece : pieces) FeedPiece(piece, descriptor);
  ::_exit(0);
} catch (const std::exception& error) {
  static_cast<void>(std::fprintf(stderr, "bench_measure: %s\n", error.what()));
  ::_exit(1);
}

/// Writes a program's standard input from a process of its own, so that the
/// memory of the pieces is not counted.
class Feeder {
 public:
  Feeder(const std::vector<Piece>& pieces, const Descriptor& reading,
         const Descriptor& writing)
      : process_(::fork()) {
    if (process_ < 0) ThrowErrno("cannot start a feeder");
    if (process_ == 0) {
      // Otherwise a write would wait for ever after the program has ended.
      ::close(reading.Number());
      Feed(pieces, writing.Number());
    }
  }

  /// Waits for the feeder. It is no error if the program ended before it read
  /// all its input.
  void Finish() const {
    int status = 0;
    if (::waitpid(process_, &status, 0) != process_) {
      ThrowErrno("cannot wait for a feeder");
    }
    const bool is_partly_read =
        WIFSIGNALED(status) && WTERMSIG(status) == SIGPIPE;
    if (status != 0 && !is_partly_read) {
      throw std::runtime_error("a feeder failed");
    }
  }

 private:
  pid_t process_;
};

struct Pipe {
  Descriptor reading;
  Descriptor writing;
};

Pipe MakePipe() {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) ThrowErrno("cannot make a pipe");
  return {Descriptor(ends[0]), Descriptor(ends[1])};
}

/// Returns an array for execve(2); valid as long as @p texts.
std::vector<char*> Pointers(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

class FileActions {
 public:
  FileActions(int input, const std::string& output) {
    Check(::posix_spawn_file_actions_init(&actions_));
    Check(::posix_spawn_file_actions_adddup2(&actions_, input, STDIN_FILENO));
    Check(::posix_spawn_file_actions_addopen(
        &actions_, STDOUT_FILENO, output.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
        0644));
  }
  FileActions(const FileActions&) = delete;
  FileActions& operator=(const FileActions&) = delete;
  ~FileActions() { ::posix_spawn_file_actions_destroy(&actions_); }
  const posix_spawn_file_actions_t* Get() const { return &actions_; }

 private:
  static void Check(int error) {
    if (error != 0) throw std::system_error(error, std::generic_category());
  }

  posix_spawn_file_actions_t actions_{};
};

struct Run {
  double wall_ms;
  rusage usage;
};

void ThrowUnlessSuccess(const Program& program, int status) {
  if (WIFSIGNALED(status)) {
    throw std::runtime_error(program.name + ": killed by signal " +
                             std::to_string(WTERMSIG(status)));
  }
  if (status != 0) {
    throw std::runtime_error(program.name + ": exit status " +
                             std::to_string(WEXITSTATUS(status)));
  }
}

Run Start(Program& program, const Descriptor& input) {
  const FileActions actions(input.Number(), program.output);
  const std::vector<char*> arguments = Pointers(program.arguments);
  const std::vector<char*> variables = Pointers(program.variables);
  Run run{};
  pid_t process = 0;
  int status = 0;
  const auto begin = std::chrono::steady_clock::now();
  const int error = ::posix_spawn(&process, arguments[0], actions.Get(),
                                  nullptr, arguments.data(), variables.data());
  if (error != 0) {
    throw std::system_error(error, std::generic_category(), program.name);
  }
  if (::wait4(process, &status, 0, &run.usage) != process) {
    ThrowErrno(program.name);
  }
  const std::chrono::duration<double, std::milli> time =
      std::chrono::steady_clock::now() - begin;
  ThrowUnlessSuccess(program, status);
  run.wall_ms = time.count();
  return run;
}

Run StartFed(Program& program) {
  Pipe pipe = MakePipe();
  const Feeder feeder(program.pieces, pipe.reading, pipe.writing);
  const Run run = [&] {
    const Descriptor input = std::move(pipe.reading);
    // Otherwise the program would wait for more input.
    static_cast<void>(Descriptor(std::move(pipe.writing)));
    return Start(program, input);
  }();
  feeder.Finish();
  return run;
}

void RemoveStored(const Program& program) {
  for (const StoredFile& file : program.stored) {
    struct stat status {};
    if (::stat(file.path.c_str(), &status) != 0) ThrowErrno(program.name);
    if (status.st_size != file.size) {
      throw std::runtime_error(program.name + ": stored " +
                               std::to_string(status.st_size) + " of " +
                               std::to_string(file.size) + " bytes");
    }
    if (::unlink(file.path.c_str()) != 0) ThrowErrno(program.name);
  }
}

Run RunOnce(Program& program) {
  const Run run = program.pieces.empty() ? Start(program, Open(program.input))
                                         : StartFed(program);
  RemoveStored(program);
  return run;
}

double Milliseconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) * 1e3 +
         static_cast<double>(time.tv_usec) / 1e3;
}

void Print(const Program& program, const Run& run) {
  std::printf(
      "{\"program\": \"%s\", \"wall_ms\": %.6f, \"cpu_ms\": %.3f, "
      "\"minor_faults\": %ld, \"major_faults\": %ld, \"peak_kb\": %ld}\n",
      program.name.c_str(), run.wall_ms,
      Milliseconds(run.usage.ru_utime) + Milliseconds(run.usage.ru_stime),
      run.usage.ru_minflt, run.usage.ru_majflt, run.usage.ru_maxrss);
}

/// Returns the peak memory of this program alone: getrusage(2) would include
/// that of the process that started it.
long OwnPeak() {
  std::FILE* const file = std::fopen("/proc/self/status", "re");
  if (file == nullptr) ThrowErrno("cannot open /proc/self/status");
  char line[256];
  long peak = 0;
  while (std::fgets(line, sizeof(line), file) != nullptr) {
    if (std::strncmp(line, "VmHWM:", 6) == 0) {
      peak = std::strtol(line + 6, nullptr, 10);
    }
  }
  static_cast<void>(std::fclose(file));
  return peak;
}

void RunRound(std::vector<Program>& programs, std::size_t round) {
  for (std::size_t i = 0; i < programs.size(); ++i) {
    Program& program = programs[(round + i) % programs.size()];
    if (round % program.every != 0) continue;
    Print(program, RunOnce(program));
  }
}

void RunAll(Plan plan) {
  for (std::size_t round = 0; round < plan.rounds; ++round) {
    RunRound(plan.programs, round);
  }
  std::printf("{\"least_peak_kb\": %ld}\n", OwnPeak());
}

}  // namespace

int main() try {
  // SIGPIPE ends a feeder after its program has ended.
  static_cast<void>(::signal(SIGPIPE, SIG_DFL));
  RunAll(ReadPlan());
  return 0;
} catch (const std::exception& error) {
  static_cast<void>(std::fprintf(stderr, "bench_measure: %s\n", error.what()));
  return 1;
}

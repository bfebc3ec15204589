// How fast an upload is taken, beside a plain loop of read and write, and how
// much memory it takes.
//
//   upload_bench FOLDER MEGABYTES RUNS
//
// FOLDER is where the uploads go. Prints medians in milliseconds, their ratio,
// and the largest resident size of each.

#include <fcntl.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zancgi/zancgi.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

constexpr char kBoundary[] = "----------------------------1234567890abcdef";
constexpr std::size_t kPiece = 65536;
constexpr std::size_t kMegabyte = 1 << 20;

std::string Head() {
  return std::string("--") + kBoundary +
         "\r\nContent-Disposition: form-data; name=\"u\"; filename=\"f\"\r\n"
         "Content-Type: application/octet-stream\r\n\r\n";
}

std::string Tail() { return std::string("\r\n--") + kBoundary + "--\r\n"; }

std::size_t BodySize(std::size_t megabytes) {
  return Head().size() + megabytes * kMegabyte + Tail().size();
}

void WriteAll(int descriptor, const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t count = ::write(descriptor, data, size);
    if (count < 0) throw std::runtime_error("cannot write");
    data += count;
    size -= static_cast<std::size_t>(count);
  }
}

/// Random bytes: CR and LF come as often in them as in compressed files.
std::string Megabyte() {
  std::mt19937 random(std::random_device{}());
  std::string bytes(kMegabyte, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random());
  return bytes;
}

void Feed(int descriptor, std::size_t megabytes) {
  static const std::string bytes = Megabyte();
  const std::string head = Head();
  const std::string tail = Tail();
  WriteAll(descriptor, head.data(), head.size());
  for (std::size_t i = 0; i < megabytes; ++i) {
    WriteAll(descriptor, bytes.data(), bytes.size());
  }
  WriteAll(descriptor, tail.data(), tail.size());
}

void TakeByPlainLoop(const std::string& folder) {
  std::string path = folder + "/plain-XXXXXX";
  const int file = ::mkstemp(path.data());
  static char piece[kPiece];
  for (;;) {
    const ssize_t count = ::read(STDIN_FILENO, piece, sizeof(piece));
    if (count <= 0) break;
    WriteAll(file, piece, static_cast<std::size_t>(count));
  }
  ::close(file);
  ::unlink(path.c_str());
}

void TakeByLibrary(const std::string& folder) {
  zan_cgi::Cgi cgi("/bench", "bench");
  cgi.SetTmpDir(folder);
  if (cgi.GetFileSize() == 0) throw std::runtime_error("nothing has arrived");
}

struct Run {
  double milliseconds;
  long kilobytes;
};

/// This program again, as the one that takes an upload.
[[noreturn]] void BecomeTaker(const char* way, const std::string& folder,
                              std::size_t megabytes) {
  ::setenv("REQUEST_METHOD", "POST", 1);
  ::setenv("CONTENT_LENGTH", std::to_string(BodySize(megabytes)).c_str(), 1);
  const std::string type =
      std::string("multipart/form-data; boundary=") + kBoundary;
  ::setenv("CONTENT_TYPE", type.c_str(), 1);
  ::execl("/proc/self/exe", "upload_bench", way, folder.c_str(), nullptr);
  ::_exit(127);
}

Run Take(const char* way, const std::string& folder, std::size_t megabytes) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
  const auto start = std::chrono::steady_clock::now();
  const pid_t taker = ::fork();
  if (taker == 0) {
    ::dup2(ends[0], STDIN_FILENO);
    BecomeTaker(way, folder, megabytes);
  }
  ::close(ends[0]);
  Feed(ends[1], megabytes);
  ::close(ends[1]);
  int status = 0;
  rusage usage{};
  ::wait4(taker, &status, 0, &usage);
  const std::chrono::duration<double, std::milli> time =
      std::chrono::steady_clock::now() - start;
  if (status != 0) throw std::runtime_error(std::string(way) + " has failed");
  return {time.count(), usage.ru_maxrss};
}

Run MedianOf(std::vector<Run> runs) {
  std::sort(runs.begin(), runs.end(), [](const Run& a, const Run& b) {
    return a.milliseconds < b.milliseconds;
  });
  return runs[runs.size() / 2];
}

void Compare(const std::string& folder, std::size_t megabytes,
             std::size_t count) {
  std::vector<Run> plain;
  std::vector<Run> library;
  for (std::size_t i = 0; i < count; ++i) {
    plain.push_back(Take("plain", folder, megabytes));
    library.push_back(Take("library", folder, megabytes));
  }
  const Run loop = MedianOf(plain);
  const Run ours = MedianOf(library);
  std::printf(
      "%zu MB: plain loop %.1f ms (%ld KB), library %.1f ms (%ld KB), "
      "ratio %.3f\n",
      megabytes, loop.milliseconds, loop.kilobytes, ours.milliseconds,
      ours.kilobytes, ours.milliseconds / loop.milliseconds);
}

int Fail(const char* text) {
  static_cast<void>(std::fprintf(stderr, "upload_bench: %s\n", text));
  return 1;
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc == 3 && std::strcmp(argv[1], "plain") == 0) {
    TakeByPlainLoop(argv[2]);
  } else if (argc == 3 && std::strcmp(argv[1], "library") == 0) {
    TakeByLibrary(argv[2]);
  } else if (argc == 4) {
    Compare(argv[1], std::stoul(argv[2]), std::stoul(argv[3]));
  } else {
    return Fail("usage: upload_bench FOLDER MEGABYTES RUNS");
  }
  return 0;
} catch (const std::exception& error) {
  return Fail(error.what());
}

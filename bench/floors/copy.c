// Stores standard input in the file $STORE with a plain read and write loop,
// and prints the size of the file.
//
//   copy          stores all of it
//   copy shifted  stores all but the first $SKIP bytes

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

enum { kPiece = 65536 };

static int WriteAll(int file, const char* data, size_t size) {
  while (size > 0) {
    const ssize_t count = write(file, data, size);
    if (count < 0) return 0;
    data += count;
    size -= (size_t)count;
  }
  return 1;
}

static long long Copy(int to, ssize_t skip) {
  static char piece[kPiece];
  long long total = 0;
  for (;;) {
    const ssize_t count = read(STDIN_FILENO, piece, sizeof(piece));
    if (count == 0) return total;
    if (count < 0) return -1;
    const ssize_t skipped = count < skip ? count : skip;
    const size_t rest = (size_t)(count - skipped);
    if (!WriteAll(to, piece + skipped, rest)) return -1;
    skip -= skipped;
    total += (long long)rest;
  }
}

static ssize_t BytesToSkip(void) {
  const char* number = getenv("SKIP");
  return number == NULL ? 0 : strtol(number, NULL, 10);
}

int main(int argc, char** argv) {
  const int is_shifted = argc > 1 && strcmp(argv[1], "shifted") == 0;
  const char* path = getenv("STORE");
  if (path == NULL) return 1;
  const int file = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (file < 0) return 1;
  const long long size = Copy(file, is_shifted ? BytesToSkip() : 0);
  if (close(file) != 0 || size < 0) return 1;
  printf("Content-Type: text/plain\r\n\r\n%lld\n", size);
  return 0;
}

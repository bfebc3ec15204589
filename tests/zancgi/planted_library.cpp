/// @file
/// What an account could leave in its home for others to load. It
/// writes the user who has loaded it to a file in the root directory.
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

__attribute__((constructor)) static void WriteUser() {
  const int file =
      open("/loaded", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  dprintf(file, "loaded as %u", geteuid());
  close(file);
}

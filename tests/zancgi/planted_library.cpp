/// @file
/// What an account could leave in its home for others to load: tells as whom it
/// has been loaded, in a file of the root directory.
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

__attribute__((constructor)) static void TellUser() {
  const int told =
      open("/loaded", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  dprintf(told, "loaded as %u", geteuid());
  close(told);
}

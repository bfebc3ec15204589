// Logs more messages of one format than are written.

#include <tov/log.h>

extern "C" __attribute__((visibility("default"))) void FloodLog() {
  tov_log::Module module("zancgi", "core");
  for (int i = 0; i < 123; ++i) module.Write(tov_log::Warning, "see %s", "x");
}

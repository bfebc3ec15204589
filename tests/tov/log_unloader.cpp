// Loads a library that floods the log, and unloads it.

#include <dlfcn.h>
#include <unistd.h>

#include <string_view>

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  void* library = ::dlopen(argv[1], RTLD_NOW);
  if (library == nullptr) return 3;
  reinterpret_cast<void (*)()>(::dlsym(library, "FloodLog"))();
  ::dlclose(library);
  constexpr std::string_view kMark = "mark: unloaded\n";
  return ::write(STDERR_FILENO, kMark.data(), kMark.size()) > 0 ? 0 : 4;
}

// What happens when the library is loaded and unloaded.

#include <dlfcn.h>

#include "support/test.h"
#include "trace/scenario.h"

namespace support::trace {
namespace {

TEST(Library, MakesItsLogModulesWhenItIsLoadedAndTakesThemAway) {
  ExpectTrace(
      {},
      [] {
        // This program has the library loaded under its own name.
        std::filesystem::copy_file(TRACED_ZANCGI, "copy.so");
        Start();
        void* const library = ::dlopen("./copy.so", RTLD_NOW);
        ASSERT_NE(library, nullptr) << ::dlerror();
        Result("loaded");
        ::dlclose(library);
        Result("unloaded");
      },
      R"(
    Module('zancgi', 'core')
    Module('zancgi', 'core')
    = loaded
    ~Module()
    ~Module()
    = unloaded)");
}

}  // namespace
}  // namespace support::trace

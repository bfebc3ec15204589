// Looks at std::cin twice, and in between has it set up, as a front end may
// between two reads. A compiler must not merge the two looks.
#include <zancgi/standard_input.h>

#include <cstdio>
#include <ios>

int main() {
  const bool was_constructed = zan_cgi::IsStandardInputConstructed();
  const std::ios_base::Init streams;
  const bool is_constructed = zan_cgi::IsStandardInputConstructed();
  std::printf("constructed: %d, then %d\n", int{was_constructed},
              int{is_constructed});
  return !was_constructed && is_constructed ? 0 : 1;
}

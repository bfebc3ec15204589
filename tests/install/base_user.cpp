#include <tov/str.h>

#include <cstdio>

int main() { std::puts(str::url::Encode("one & two").c_str()); }

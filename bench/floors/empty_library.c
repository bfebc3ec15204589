// The floor of a shared library: the cost of loading one.

int bench_nothing(void);
int bench_nothing(void) { return 0; }

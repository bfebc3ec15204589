// The least that a shared library can hold: what loading one costs.

int bench_nothing(void);
int bench_nothing(void) { return 0; }

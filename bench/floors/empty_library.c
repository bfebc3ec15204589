// The least that loading a shared library costs.

int bench_nothing(void);
int bench_nothing(void) { return 0; }

// The least that a program can do.

int main(void) { return 0; }

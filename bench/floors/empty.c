// The floor of a program.

int main(void) { return 0; }

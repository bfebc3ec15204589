// The least that a C program costs.

int main(void) { return 0; }

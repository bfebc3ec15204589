// The least that a C++ program can do. It loads the C++ library all the same.

int main() { return 0; }

// The floor of a C++ program, which still loads the C++ library.

int main() { return 0; }

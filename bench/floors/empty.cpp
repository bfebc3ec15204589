// The least that a C++ program costs, which loads the C++ library.

int main() { return 0; }

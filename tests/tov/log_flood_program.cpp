extern "C" void FloodLog();

int main() { FloodLog(); }

// A program that does nothing: all that it executes is its start and its end.
int main() {}

// Carries the precompiled header of the test programs, which no other target can without being built as they
// are.
int main() {}

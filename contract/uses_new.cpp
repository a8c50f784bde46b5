// Negative fixture: a heap allocation in library code.
extern "C" __attribute__((visibility("default"))) int *kmxc_fixture_allocates(void) { return new int(3); }

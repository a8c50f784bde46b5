// Negative fixture: a global whose initialiser runs at load time.
#include <cstdlib>
extern "C" {
__attribute__((visibility("default"))) extern int kmxc_fixture_ctor_value;
int kmxc_fixture_ctor_value = std::atoi("7");
}

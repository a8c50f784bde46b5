// Negative fixture: a global whose initialiser runs at load time (the environment is
// only known then, so no compiler can fold it into a constant).
#include <cstdlib>
extern "C" {
__attribute__((visibility("default"))) extern int kmxc_fixture_ctor_value;
int kmxc_fixture_ctor_value = std::getenv("KMXC_FIXTURE") != nullptr ? 1 : 0;
}

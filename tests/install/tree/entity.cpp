// A program that needs the framework alone, and that Pavo's warnings would refuse: they are not for
// those who use it.
#include <Mox/String.h>

namespace {

int unused() {
    return 1;
}

}  // namespace

int main() {
    return Mox::String("Pavo").bytes() == 4 ? 0 : 1;
}

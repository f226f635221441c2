#include "parity/Parity.h"

int main() {
    parityOfValues();
    parityOfPackets();
    return 0;
}

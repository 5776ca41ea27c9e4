#include <cstdlib>

#include "Kestrane.h"

int main(int argc, char** argv) {
    // Start-up reports a bad configuration on standard output and ends with status 0.
    if (KsEngine__Startup(argc, argv) != 1) return 0;
    KsEngine__doEvents();
}

#include <cstdlib>

#include "Kestrane.h"
#include "mv_http2_daemon.h"

int main(int argc, char** argv) {
    __mv_http2_deamon_set_json_alloc_funcs();  // before any JSON exists, never changed after
    // Start-up reports a bad configuration on standard output and ends with status 0.
    if (KsEngine__Startup(argc, argv) != 1) return 0;
    KsEngine__doEvents();
}

// The scripted AMF as a process of its own, for tests that start and end the engine
// from outside. It listens on the address and port given, in the network namespace it
// was started in, answers NG Setup, and reports on stdout:
//   READY              the listener stands
//   OPEN <n> SETUPS <m>  at each change: open associations, NG Setups answered
// "quit" on stdin ends it.
#include <poll.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "scripted_amf.h"

int main(int argc, char** argv) {
    if (argc < 4) {
        fprintf(stderr, "usage: %s IP PORT LOGDIR\n", argv[0]);
        return 2;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    __init_morva_core();
    __mv_init_logger((std::string(argv[3]) + "/").c_str());
    __mv_socket_engine_init();
    __mv_socket_engine__set_sctp_backend("userspace", 0);
    kgt::ScriptedAmf amf(argv[1], atoi(argv[2]), "amf-peer");
    amf.keepBytes(false);
    if (!amf.start()) return 1;
    printf("READY\n");
    size_t open = 0, setups = 0;
    for (;;) {
        pollfd pf{0, POLLIN, 0};
        if (poll(&pf, 1, 10) > 0) {
            char line[64];
            if (!fgets(line, sizeof line, stdin) || std::string(line).rfind("quit", 0) == 0) break;
        }
        size_t o = amf.openAssociations(), s = amf.setupsAnswered();
        if (o != open || s != setups) printf("OPEN %zu SETUPS %zu\n", o, s);
        open = o;
        setups = s;
    }
    fflush(stdout);
    _exit(0);
}

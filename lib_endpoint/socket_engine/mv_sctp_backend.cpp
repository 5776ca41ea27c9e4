// Which SCTP stack serves the process: chosen once by name, logged, and started at
// the first SCTP socket (the userspace stack opens raw sockets and threads, which a
// process that never speaks SCTP should not pay for).
#include <cstring>
#include <mutex>

#include "mv_core.h"
#include "mv_sctp_backend.h"

namespace {
std::mutex chooseLock;
std::atomic<MV_SctpBackendKind> kind{MV_SctpBackendKind::None};
uint16_t localUdpPort = 0;
uint16_t peerUdpPort = 0;
}  // namespace

MV_SctpBackendKind __mv_sctp_backend_choose(const char* name, uint16_t udpPort, uint16_t remoteUdpPort) {
    std::lock_guard g(chooseLock);
    const char* asked = (name && *name) ? name : "auto";
    bool kernelHas = __mv_sctp_kernel_available();
    MV_SctpBackendKind k;
    if (strcmp(asked, "kernel") == 0) {
        k = MV_SctpBackendKind::Kernel;
    } else if (strcmp(asked, "userspace") == 0) {
        k = MV_SctpBackendKind::Userspace;
    } else {
        if (strcmp(asked, "auto") != 0)
            __mv_log(MV_STK_LOG, LOG_CAT_CORE, MV_LOG_CRITICAL, "unknown SCTPBackend=%s, using auto %s|%s|%d", asked,
                     __FILE_NAME__, __func__, __LINE__);
        asked = "auto";
        k = kernelHas ? MV_SctpBackendKind::Kernel : MV_SctpBackendKind::Userspace;
    }
    localUdpPort = udpPort;
    peerUdpPort = remoteUdpPort ? remoteUdpPort : udpPort;
    kind = k;
    const char* chosen = k == MV_SctpBackendKind::Kernel ? "kernel" : "userspace";
    if (k == MV_SctpBackendKind::Userspace && udpPort)
        __mv_log(MV_STK_LOG, LOG_CAT_CORE, MV_LOG_CRITICAL,
                 "SCTP backend=%s (asked %s, kernel SCTP %s) over UDP local-port=%u remote-port=%u %s|%s|%d", chosen,
                 asked, kernelHas ? "present" : "absent", udpPort, peerUdpPort, __FILE_NAME__, __func__, __LINE__);
    else
        __mv_log(MV_STK_LOG, LOG_CAT_CORE, MV_LOG_CRITICAL, "SCTP backend=%s (asked %s, kernel SCTP %s)%s %s|%s|%d",
                 chosen, asked, kernelHas ? "present" : "absent",
                 k == MV_SctpBackendKind::Userspace ? " on raw IP" : "", __FILE_NAME__, __func__, __LINE__);
    return k;
}

MV_SctpBackendKind __mv_sctp_backend_kind() { return kind.load(); }

const MV_SctpBackend* __mv_sctp_backend() {
    if (kind.load() == MV_SctpBackendKind::None) __mv_sctp_backend_choose("auto", 0, 0);
    if (kind.load() == MV_SctpBackendKind::Kernel) return __mv_sctp_backend_kernel();
    uint16_t lp, rp;
    {
        std::lock_guard g(chooseLock);
        lp = localUdpPort;
        rp = peerUdpPort;
    }
    return __mv_sctp_userspace_start(lp, rp) ? __mv_sctp_backend_userspace() : nullptr;
}

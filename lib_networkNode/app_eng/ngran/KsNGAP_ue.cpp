// The gNB's UE-associated signalling.
#include <atomic>

#include "KsNGAP.h"
#include "KsEngine_step.h"

namespace {
std::atomic<const KsNGAPNasEntry*> gNasEntry{nullptr};
}  // namespace

void KsNGAP__RegisterNasEntry(const KsNGAPNasEntry* entry) { gNasEntry.store(entry); }

const KsNGAPNasEntry* KsNGAP__GetNasEntry() { return gNasEntry.load(); }

// Not yet part of this build: the RAN UE contexts and the InitialUEMessage and
// UplinkNASTransport senders come with the gNB's UE side.
int KsNGAP___sendNasMessage(MV_KsUE* ue, u_char*, uint32_t, uint8_t, uint32_t nasMessageType, uint32_t, uint32_t,
                            uint8_t) {
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
             "UE-associated NGAP sending is not part of this build, nasMessageType=%u dropped <%s|%s|%d>",
             nasMessageType, __FILE__, __func__, __LINE__);
    if (const KsNGAPNasEntry* e = gNasEntry.load(); e && e->SendingMessageFailed) e->SendingMessageFailed(ue);
    return -1;
}

// The UE's subscriber identity as the network first sees it: the SUCI, under the null
// scheme or concealed with the home network's key, and the algorithms it offers.
#include <cstring>

#include "KsEngine_step.h"
#include "KsNAS.h"
#include "Kestrane_nodes.h"
#include "mv_bytes.h"
#include "mv_nas_util.h"
#include "mvalgo.h"

namespace {

constexpr int kSuciHeaderLen = 8;  // type, PLMN, routing indicator, scheme, key id
constexpr int kMaxMsinDigits = 20;

bool allDigits(const char* s, int n) {
    for (int i = 0; i < n; ++i)
        if (s[i] < '0' || s[i] > '9') return false;
    return true;
}

// The MSIN inside the SUPI text: after "imsi-" and MCC and MNC, or after MCC and MNC of a
// bare 15-digit IMSI; any other SUPI is taken whole.
const char* msinOf(const char* supi, int& len, bool twoDigitMnc) {
    int mccMnc = twoDigitMnc ? 5 : 6;
    if (len == 15) {
        len -= mccMnc;
        return supi + mccMnc;
    }
    if (len >= 5 && strncmp(supi, "imsi-", 5) == 0) {
        int skip = 5 + mccMnc;
        if (len < skip) skip = len;
        len -= skip;
        return supi + skip;
    }
    return supi;
}

}  // namespace

int KsNAS__encode_suci3(const uint8_t* plmn, uint16_t routingIndicator, const char* supi, int supilen, uint8_t scheme,
                        uint8_t hnKeyId, const uint8_t* hnPublicKey, int hnPublicKeyLen,
                        std::span<const uint8_t> ephPrivate, uint8_t* suci, int* sucilen) {
    if (!plmn || !supi || !suci || !sucilen) return -1;
    const char* why = nullptr;
    if (supilen < 1 || supilen > kMaxMsinDigits || !allDigits(supi, supilen)) why = "the MSIN is not 1 to 20 digits";
    else if (routingIndicator > 9999) why = "the routing indicator has more than 4 digits";
    else if (scheme > MV_ALGO_SUCI_PROFILE_B) why = "the protection scheme is unknown";
    else if (scheme != MV_ALGO_SUCI_NULL && (!hnPublicKey || hnPublicKeyLen <= 0)) why = "the home network key is missing";
    if (why) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "SUCI not built: %s (MSIN=[%.*s] RI=%u scheme=%u) <%s|%s|%d>", why,
                 supilen > 0 && supilen <= kMaxMsinDigits ? supilen : 0, supi, routingIndicator, scheme, __FILE_NAME__,
                 __func__, __LINE__);
        return -1;
    }
    suci[0] = 0x01;  // SUCI, SUPI format IMSI
    memcpy(suci + 1, plmn, 3);
    uint8_t ri[2];
    int riLen = 0;
    __mv_convertLongToBCD2(routingIndicator, ri, &riLen);
    suci[4] = riLen == 1 ? 0 : ri[0];
    suci[5] = riLen == 1 ? ri[0] : ri[1];
    suci[6] = scheme;
    suci[7] = scheme == MV_ALGO_SUCI_NULL ? 0 : hnKeyId;
    uint8_t msin[kMaxMsinDigits / 2];
    int msinLen = 0;
    __mv_convertStrToBCD(supi, supilen, msin, &msinLen);
    if (scheme == MV_ALGO_SUCI_NULL) {
        memcpy(suci + kSuciHeaderLen, msin, size_t(msinLen));
        *sucilen = kSuciHeaderLen + msinLen;
        return 1;
    }
    int n = __mv_algo__suci_conceal(scheme, {hnPublicKey, size_t(hnPublicKeyLen)}, {msin, size_t(msinLen)}, ephPrivate,
                                    {suci + kSuciHeaderLen, size_t(KS_SUCI_MAX_LEN - kSuciHeaderLen)});
    if (n < 0) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "SUCI not built: concealment under scheme=%u with a key of %d octets failed status=%d <%s|%s|%d>", scheme,
                 hnPublicKeyLen, n, __FILE_NAME__, __func__, __LINE__);
        return -1;
    }
    *sucilen = kSuciHeaderLen + n;
    return 1;
}

int KsNAS__encode_suci2(const uint8_t* plmn, uint16_t routingIndicator, const char* supi, int supilen, uint8_t* suci,
                        int* sucilen) {
    return KsNAS__encode_suci3(plmn, routingIndicator, supi, supilen, MV_ALGO_SUCI_NULL, 0, nullptr, 0, {}, suci,
                               sucilen);
}

int KsNAS__build_suci(MV_KsUE* ue, uint8_t bearer, const KsStep* step, uint8_t* suci, int* sucilen,
                      std::span<const uint8_t> ephPrivate) {
    if (!ue || !suci || !sucilen) return -1;
    uint8_t plmn[3] = {};
    bool havePlmn = false;
    MV_KsUECtx* c = KsNAS__getUECtx(ue, bearer);
    if (c->ranAmfConnection && c->ranAmfConnection->ran) {
        memcpy(plmn, c->ranAmfConnection->ran->HexPlmn, 3);
        havePlmn = true;
    }
    if (ue->mcc[0] && ue->mnc[0]) {
        KsEngine__get_plmnHex2(plmn, ue->mcc, ue->mnc);
        havePlmn = true;
    }
    if (step && step->mcc[0] && step->mnc[0]) {
        KsEngine__get_plmnHex2(plmn, step->mcc, step->mnc);
        havePlmn = true;
    }
    if (!havePlmn) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "[%s] SUCI not built: no PLMN from the RAN, the UE or the step <%s|%s|%d>", KsUE__supi(ue), __FILE_NAME__,
                 __func__, __LINE__);
        return -1;
    }
    // The SUPI is cut by the home MNC's length; the PLMN's tells it only for a UE without one.
    bool twoDigitMnc = ue->mnc[0] ? strlen(ue->mnc) == 2 : (plmn[1] >> 4) == 0x0F;
    const char* supi = KsUE__supi(ue);
    int len = int(strnlen(supi, sizeof ue->supi.val));
    const char* msin = msinOf(supi, len, twoDigitMnc);
    return KsNAS__encode_suci3(plmn, ue->uRoutingIndicator, msin, len, ue->SuciProtectionScheme,
                               ue->SuciHomeNetworkKeyId, ue->SuciHomeNetworkPublicKey, ue->SuciHomeNetworkPublicKeyLen,
                               ephPrivate, suci, sucilen);
}

int KsNAS__set_suci_identity(MV_KsUE* ue, uint8_t bearer, const KsStep* step, NASPdu_FGSMobileIdentity* ie) {
    uint8_t suci[KS_SUCI_MAX_LEN];
    int len = 0;
    if (!ie || KsNAS__build_suci(ue, bearer, step, suci, &len) != 1) return -1;
    return __mv_nas_util_encode_fg_suci(ie, suci, len) == 1 ? 1 : -1;
}

void KsNAS__set_ue_security_capability(const KsStep* step, NASPdu_FGUESecurityCapability* ie) {
    auto bit = [](uint32_t flag, int pos) { return uint8_t(flag ? 1u << pos : 0u); };
    uint32_t ea[3] = {1, 1, 1}, ia[3] = {1, 1, 1};
    if (step) {
        ea[0] = step->EA0, ea[1] = step->EA1, ea[2] = step->EA2;
        ia[0] = step->IA0, ia[1] = step->IA1, ia[2] = step->IA2;
    }
    ie->data[0] = uint8_t(bit(ea[0], 7) | bit(ea[1], 6) | bit(ea[2], 5));
    ie->data[1] = uint8_t(bit(ia[0], 7) | bit(ia[1], 6) | bit(ia[2], 5));
    ie->Length = 2;
    ie->isset = 1;
}

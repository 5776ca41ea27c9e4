// The UE's NAS security: the SQN procedure around the library's authentication, the
// uplink security header and the downlink one by security header type. NAS COUNTs are
// plain counters of the messages each way; the sequence byte is their low octet.
#include <cstring>

#include "KsNAS.h"
#include "mv_bytes.h"
#include "mv_core.h"
#include "mvalgo.h"

namespace {

constexpr uint8_t kHeaderLen = 7;  // 0x7E, type, MAC, sequence number
constexpr uint8_t kMaxAlgo = 3;
constexpr uint8_t kUplink = 0;
constexpr uint8_t kDownlink = 1;

// The library's BEARER is the access: 1 for 3GPP, 2 for the other (also when the caller
// gave the latching number 3).
uint8_t accessOf(uint8_t bearer) { return bearer == 1 ? 1 : 2; }

unsigned ueNo(const MV_KsUE* ue) { return unsigned(ue->ueId); }

struct Hex {
    char text[65];
    Hex(const uint8_t* b, int n) {
        __mv_hexArray_to_hexString(b, n, text);
        text[2 * n] = 0;
    }
};

// What a MAC failure leaves for whoever reads the log: the keys and every input.
void logMacInputs(MV_KsUE* ue, const MV_KsUECtx* c, uint8_t bearer) {
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
             "selected_integrity_algo=%u  cknas_int=%s  crand=%s  cxres_star=%s  ckausf=%s  snn=%s  supi=%s  "
             "dl_count=%u  bearer=%u  direction=%u ngKSI=%u   <%s|%s|%d>",
             c->selected_integrity_algo, Hex(c->knas_int, 16).text, Hex(c->rand, 16).text, Hex(c->xres_star, 16).text,
             Hex(c->kausf, 32).text, c->snn, KsUE__supi(ue), c->dl_count, bearer, kDownlink, c->ngKSI, __FILE_NAME__,
             __func__, __LINE__);
}

// The downlink MAC of data[6..len) at dl_count; false also when the library cannot
// compute it (an algorithm it does not have).
bool macMatches(const MV_KsUECtx* c, const uint8_t* data, uint32_t len, uint8_t bearer, uint8_t expected[4]) {
    int st = __mv_algo__nas_mac_calculate(c->selected_integrity_algo, c->knas_int, c->dl_count, accessOf(bearer),
                                          kDownlink, data + 6, len - 6, expected);
    return st == 0 && memcmp(expected, data + 2, 4) == 0;
}

void logShort(MV_KsUE* ue, uint32_t len, uint8_t sht, uint32_t need) {
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
             "[%s][%u] NAS message of %u octets with securityHeaderType=%u is shorter than %u octets, dropped <%s|%s|%d>",
             KsUE__supi(ue), ueNo(ue), len, sht, need, __FILE_NAME__, __func__, __LINE__);
}

int decodePlain(__naspduDecode* decode, const uint8_t* p, uint32_t n) {
    (void)__mv_naspdu_DecodeFGMessage(decode, p, n);  // the outcome is in the cursor
    return 1;
}

// Type 2: integrity protected and ciphered with the current context.
int receiveProtected(MV_KsUE* ue, MV_KsUECtx* c, uint8_t* data, uint32_t len, uint8_t bearer, __naspduDecode* decode) {
    uint8_t mac[4];
    if (!macMatches(c, data, len, bearer, mac)) {
        logMacInputs(ue, c, bearer);
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "[%s][%u] MAC validation failed received-mac[%02X%02X%02X%02X] isVaidMAC=%s <%s|%s|%d>", KsUE__supi(ue),
                 ueNo(ue), data[2], data[3], data[4], data[5], "false", __FILE_NAME__, __func__, __LINE__);
        return 0;
    }
    if (c->selected_ciphering_algo != 0) {
        int st = __mv_algo__nas_encrypt(c->selected_ciphering_algo, c->knas_enc, c->dl_count, accessOf(bearer),
                                        kDownlink, data + kHeaderLen, len - kHeaderLen);
        if (st != 0 || data[kHeaderLen] != MV_5GS_MM_EPD) {
            __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "[%s][%u] decoding failed for ciphering-algo=%u  <%s|%s|%d>",
                     KsUE__supi(ue), ueNo(ue), c->selected_ciphering_algo, __FILE_NAME__, __func__, __LINE__);
            return 0;
        }
    }
    ++c->dl_count;
    ++c->dl_seq;
    return decodePlain(decode, data + kHeaderLen, len - kHeaderLen);
}

// Type 3: a security mode command, which starts a new context.
int receiveNewContext(MV_KsUE* ue, MV_KsUECtx* c, uint8_t* data, uint32_t len, uint8_t bearer, __naspduDecode* decode) {
    if (data[7] != MV_5GS_MM_EPD || data[9] != 0x5D) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "[%s][%u] invalid message received ExpectedPD=7E Received=%02X Expected-MessageType5D Received=%02X "
                 "<%s|%s|%d>",
                 KsUE__supi(ue), ueNo(ue), data[7], data[9], __FILE_NAME__, __func__, __LINE__);
        return 0;
    }
    c->ul_count = c->dl_count = 0;
    c->ul_seq = c->dl_seq = 0;
    c->selected_ciphering_algo = uint8_t(data[10] >> 4);
    c->selected_integrity_algo = uint8_t(data[10] & 0x0F);
    int st = __mv_algo__ue_setup_security_context2(c->rand, c->xres_star, c->kausf, c->snn, KsUE__supi(ue),
                                                   accessOf(bearer), c->selected_integrity_algo,
                                                   c->selected_ciphering_algo, c->knas_int, c->knas_enc);
    if (st != 0)
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "[%s][%u] NAS key derivation failed status=%d snn=%s <%s|%s|%d>",
                 KsUE__supi(ue), ueNo(ue), st, c->snn, __FILE_NAME__, __func__, __LINE__);
    uint8_t mac[4] = {};
    if (st != 0 || !macMatches(c, data, len, bearer, mac)) {
        logMacInputs(ue, c, bearer);
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "[%s][%u] MAC validation failed received-mac[%02X%02X%02X%02X] expected-mac[%02X%02X%02X%02X] "
                 "isVaidMAC=%s int_algo=%u cip_algo=%u  pdulen=%u  <%s|%s|%d>",
                 KsUE__supi(ue), ueNo(ue), data[2], data[3], data[4], data[5], mac[0], mac[1], mac[2], mac[3], "false",
                 c->selected_integrity_algo, c->selected_ciphering_algo, len, __FILE_NAME__, __func__, __LINE__);
        return 0;
    }
    c->security_context_available = 1;
    c->is_new_sec_context = 1;
    ++c->dl_count;
    ++c->dl_seq;
    return decodePlain(decode, data + kHeaderLen, len - kHeaderLen);
}

}  // namespace

MV_KsUECtx* KsNAS__getUECtx(MV_KsUE* ue, uint8_t bearer) { return bearer == 1 ? &ue->TGPP : &ue->NTGPP; }

// ---------------------------------------------------------------- authentication

uint8_t KsNAS__authentication_failure_cause(int status) {
    struct Entry {
        int status;
        uint8_t cause;
    };
    static constexpr Entry kCauses[] = {
        {MV_ALGO_AUTH_OK, 0},
        {MV_ALGO_AUTH_SQN_OUT_OF_RANGE, KS_5GMM_CAUSE_SYNCH_FAILURE},
        {-10, KS_5GMM_CAUSE_NGKSI_ALREADY_IN_USE},
        {KS_AUTH_STATUS_INVALID_NGKSI, KS_5GMM_CAUSE_PROTOCOL_ERROR},
    };
    for (const Entry& e : kCauses)
        if (e.status == status) return e.cause;
    return KS_5GMM_CAUSE_MAC_FAILURE;
}

int KsNAS__authenticate(MV_KsUE* ue, uint8_t bearer, uint8_t ngKSI, int forceSyncFailure) {
    MV_KsUECtx* c = KsNAS__getUECtx(ue, bearer);
    if (ngKSI != c->ngKSI) {
        if (ngKSI > 7) {
            __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                     "[%s][%u] Received Invalid ngKSI=%u in Authentication Request <%s| %s|%d>", KsUE__supi(ue),
                     ueNo(ue), ngKSI, __FILE_NAME__, __func__, __LINE__);
            return KS_AUTH_STATUS_INVALID_NGKSI;
        }
        c->ngKSI = ngKSI;
    }
    int handleSqnSync = ue->SQNHandlingType == 1 ? 0 : 1;
    uint64_t sqnAmf = 0;
    auto call = [&] {
        return __mv_algo__ue_authenticate2(ue->K, ue->OPc, uint32_t(c->sqn), c->snn, c->rand, c->autn, c->xres_star,
                                           c->auts, c->kausf, handleSqnSync, &sqnAmf);
    };
    int st = call();
    if (st == MV_ALGO_AUTH_OK && forceSyncFailure && c->sqn == sqnAmf) {
        // One step past the network, and judged by the UE's own counter, the same AUTN
        // is stale: the library answers with an AUTS.
        c->sqn += MV_ALGO_SQN_STEP;
        handleSqnSync = 0;
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "[%s][%u] Updated SQN to fail forcely <%s| %s|%d>",
                 KsUE__supi(ue), ueNo(ue), __FILE_NAME__, __func__, __LINE__);
        st = call();
    }
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO,
             "[%s][%u] Authentication Status=%d SQN-UE=%ld SQN-AMF=%u HandleSQNSync=%d <%s| %s|%d>", KsUE__supi(ue),
             ueNo(ue), st, long(c->sqn), unsigned(sqnAmf), handleSqnSync, __FILE_NAME__, __func__, __LINE__);
    if (st != MV_ALGO_AUTH_OK && handleSqnSync == 1 && sqnAmf != c->sqn) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO,
                 "[%s][%u] Updated SQN From Network in SQN-UE=%u in SQN-AMF=%u <%s|%s|%d>", KsUE__supi(ue), ueNo(ue),
                 unsigned(c->sqn), unsigned(sqnAmf), __FILE_NAME__, __func__, __LINE__);
        c->sqn = sqnAmf;
    }
    if (st != MV_ALGO_AUTH_OK) {
        c->sqn += MV_ALGO_SQN_STEP + 1;
        c->sqn_sync_failed = 1;
        return st;
    }
    c->sqn += c->sqn_sync_failed ? 2 * MV_ALGO_SQN_STEP : MV_ALGO_SQN_STEP;
    c->sqn_sync_failed = 0;
    return st;
}

// ---------------------------------------------------------------- uplink

int KsNAS__encapulate_security_header(MV_KsUE* ue, __mv_asn_coding_context* context, uint8_t bearer) {
    if (!ue || !context) return -1;
    MV_KsUECtx* c = KsNAS__getUECtx(ue, bearer);
    if (c->security_context_available != 1) return 0;
    uint32_t len = context->pos;
    // Everything that can refuse is checked before the message is touched.
    if (len + kHeaderLen > MV_ASN_BUFFER_SIZE || c->selected_integrity_algo > kMaxAlgo ||
        c->selected_ciphering_algo > kMaxAlgo) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "[%s][%u] cannot protect NAS message of %u octets with int_algo=%u cip_algo=%u, not sent <%s|%s|%d>",
                 KsUE__supi(ue), ueNo(ue), len, c->selected_integrity_algo, c->selected_ciphering_algo, __FILE_NAME__,
                 __func__, __LINE__);
        return -1;
    }
    uint8_t* b = context->buffer;
    memmove(b + kHeaderLen, b, len);
    uint8_t access = accessOf(bearer);
    int st = 0;
    if (c->selected_ciphering_algo != 0)
        st = __mv_algo__nas_encrypt(c->selected_ciphering_algo, c->knas_enc, c->ul_count, access, kUplink,
                                    b + kHeaderLen, len);
    b[0] = MV_5GS_MM_EPD;
    b[1] = c->is_new_sec_context == 1 ? NAS_SECURITY_HEADER_INTEGRITY_PROTECTED_AND_CIPHERED_WITH_NEW_SECURITY_CONTEXT
                                      : NAS_SECURITY_HEADER_INTEGRITY_PROTECTED_AND_CIPHERED;
    b[6] = c->ul_seq;
    if (st == 0)
        st = __mv_algo__nas_mac_calculate(c->selected_integrity_algo, c->knas_int, c->ul_count, access, kUplink, b + 6,
                                          len + 1, b + 2);
    if (st != 0) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "[%s][%u] NAS protection failed status=%d, not sent <%s|%s|%d>",
                 KsUE__supi(ue), ueNo(ue), st, __FILE_NAME__, __func__, __LINE__);
        return -1;
    }
    c->is_new_sec_context = 0;
    context->pos = uint16_t(len + kHeaderLen);
    ++c->ul_count;
    ++c->ul_seq;
    return 1;
}

// ---------------------------------------------------------------- downlink

int KsNAS__process_security_header(MV_KsUE* ue, uint8_t* data, uint32_t len, uint8_t bearer, uint8_t ngapProcCode,
                                   __naspduDecode* decode) {
    if (!ue || !decode || (!data && len)) return 0;
    // Only a 5GMM first octet is followed by a security header type; anything else goes to
    // the decoder as it stands, which names what it is.
    if (len < 2 || data[0] != MV_5GS_MM_EPD) return decodePlain(decode, data, len);
    uint8_t sht = data[1] & 0x0F;
    MV_KsUECtx* c = KsNAS__getUECtx(ue, bearer);
    switch (sht) {
        case NAS_SECURITY_HEADER_PLAIN_NAS_MESSAGE:
            return decodePlain(decode, data, len);
        case NAS_SECURITY_HEADER_INTEGRITY_PROTECTED:
            __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                     "UNHANDLED [%s][%u] Process NAS Message ngapProcCode=%u securityHeaderType=%u %s|%s|%d",
                     KsUE__supi(ue), ueNo(ue), ngapProcCode, sht, __FILE_NAME__, __func__, __LINE__);
            return 0;
        case NAS_SECURITY_HEADER_INTEGRITY_PROTECTED_AND_CIPHERED:
            if (len <= kHeaderLen) {
                logShort(ue, len, sht, kHeaderLen + 1);
                return 0;
            }
            return receiveProtected(ue, c, data, len, bearer, decode);
        case NAS_SECURITY_HEADER_INTEGRITY_PROTECTED_AND_NEW_SECURITY_CONTEXT:
            if (len < 11) {  // up to the octet of the selected algorithms
                logShort(ue, len, sht, 11);
                return 0;
            }
            return receiveNewContext(ue, c, data, len, bearer, decode);
        default:
            return 0;
    }
}

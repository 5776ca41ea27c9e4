// Scenarios kept by id: the files named by ScanarioFiles and the default scenario.
// Tests take their steps from data/sce.json; these serve lookups by scenario id.
#include <cstdio>
#include <cstring>
#include <mutex>

#include "KsPool.h"
#include "Kestrane.h"
#include "Kestrane_util.h"

namespace {

// Guards the list of kept scenarios and the choice of the default one.
MV_Mutex scanarioListLock;

void appendKept(KsScanario* sc) {
    sc->Next = nullptr;
    if (__ksEngine->ksScanarioCurrent) __ksEngine->ksScanarioCurrent->Next = sc;
    else __ksEngine->ksScanarioHead = sc;
    __ksEngine->ksScanarioCurrent = sc;
}

uint32_t flag(json_t* obj, const char* key, long long def) { return KsJson::number(obj, key, def) != 0 ? 1 : 0; }

KsStep* newRegistration(uint32_t registrationType) {
    KsStep* st = KsScanario__NewStep(KS_STEP__REGISTRATION, 1);
    st->RegistrationType = registrationType;
    st->EA0 = st->EA1 = st->EA2 = st->IA0 = st->IA1 = st->IA2 = 1;
    return st;
}

KsStep* registrationStep(json_t* o, int pos, const char* file) {
    uint32_t type = 1;
    if (const char* t = json_string_value(json_object_get(o, "RegistrationType"))) {
        if (!strcmp(t, "Initial")) type = 1;
        else if (!strcmp(t, "PerodicUpdate")) type = 3;
        else if (!strcmp(t, "LocationUpdate")) type = 2;
        else if (!strcmp(t, "Emergency")) type = 4;
        else
            printf("Unsupported RegistrationType configured for step=[%d] in scanario file=[%s] "
                   "(Initial|PerodicUpdate|LocationUpdate)\n",
                   pos, file);
    }
    KsStep* st = newRegistration(type);
    if (json_t* uli = json_object_get(o, "UserLocationInformation")) st->UserLocationInformation = json_incref(uli);
    st->AuthenticationRequestIgnoreCount = uint8_t(KsJson::number(o, "AuthReqIgnCount", 0));
    st->SecurityModeCommandIgnoreCount = uint8_t(KsJson::number(o, "SecModeIgnCount", 0));
    st->IdentityRequestIgnoreCount = uint8_t(KsJson::number(o, "IdenReqIgnCount", 0));
    // The kind of mobile identity the registration presents.
    st->StepType = uint32_t(KsJson::number(o, "5GSMobileId", 0));
    char where[300];
    snprintf(where, sizeof where, "Registration step=[%d] in scanario file=[%s], its MCC and MNC not used", pos, file);
    KsJson::plmn(o, st->mcc, st->mnc, where);
    st->FoR = flag(o, "FoR", 0);
    st->Tmsi = uint32_t(KsJson::number(o, "TMSI", 0));
    st->AMFRegionId = uint8_t(KsJson::number(o, "AMFRegionId", 0));
    st->AMFSetID = uint16_t(KsJson::number(o, "AMFSetID", 0));
    st->AMFPointer = uint16_t(KsJson::number(o, "AMFPointer", 0));
    st->UEContextRequest = flag(o, "UEContextRequest", 1);
    st->SyncFailure = flag(o, "SyncFailure", 0);
    st->MACFailure = flag(o, "MACFailure", 0);
    st->SecurityModeReject = flag(o, "SecurityModeReject", 0);
    return st;
}

KsStep* pduSessionStep(json_t* o, int pos, const char* file) {
    json_t* list = json_object_get(o, "PDUSessions");
    if (!json_is_array(list)) {
        printf("PDUSessions TAG not configured, unable to load this step\n");
        return nullptr;
    }
    KsStep* st = KsScanario__NewStep(KS_STEP__PDU_SESSION, 2);
    size_t i;
    json_t* s;
    json_array_foreach(list, i, s) {
        const char* dnn = json_string_value(json_object_get(s, "DNN"));
        json_t* id = json_object_get(s, "PDUSessionId");
        if (!json_is_integer(id) || !dnn || strlen(dnn) >= sizeof(__ks_pduSessionInfo::DNNName)) {
            printf("PDUSessions entry %zu of step=[%d] in scanario file=[%s] skipped: PDUSessionId and DNN (at most %zu "
                   "characters) are required\n",
                   i, pos, file, sizeof(__ks_pduSessionInfo::DNNName) - 1);
            continue;
        }
        auto* info = __mv_arena_new<__ks_pduSessionInfo>();
        info->PDUSessionId = uint8_t(json_integer_value(id));
        snprintf(info->DNNName, sizeof info->DNNName, "%s", dnn);
        long long req = KsJson::number(s, "ReqType", 1);
        info->PDUSessionRequestType = (req >= 1 && req <= 3) ? uint32_t(req) : KS_STEP__PDU_SESSION_ESTABLISHMENT_REQUEST;
        if (st->pduSessionCurrent) st->pduSessionCurrent->Next = info;
        else st->pduSessionHead = info;
        st->pduSessionCurrent = info;
    }
    return st;
}

KsStep* fileStep(json_t* o, int pos, const char* file) {
    const char* kind = json_string_value(json_object_get(o, "Step"));
    if (!kind) kind = "";
    if (!strcmp(kind, "Registration")) return registrationStep(o, pos, file);
    if (!strcmp(kind, "Sleep")) {
        KsStep* st = KsScanario__NewStep(KS_STEP__SLEEP, 3);
        long long t = KsJson::number(o, "Time", 10);
        st->SleepTime = (t >= 0 && t < MV_TIMER_WHEEL_SLOTS) ? uint32_t(t) : 10;
        return st;
    }
    if (!strcmp(kind, "ServiceRequest")) {
        KsStep* st = KsScanario__NewStep(KS_STEP__SERVICE_REQUEST, 5);
        st->ServiceType = uint32_t(KsJson::number(o, "ServiceType", 0));
        return st;
    }
    if (!strcmp(kind, "UEContextReleaseRequest")) {
        KsStep* st = KsScanario__NewStep(KS_STEP__UE_CONTEXT_RELEASE_REQUEST, 1);
        st->CauseGroup = 2;
        st->Cause = 0;
        if (json_object_get(o, "CauseGroup")) {
            st->CauseGroup = uint8_t(KsJson::number(o, "CauseGroup", 2));
            st->Cause = uint8_t(KsJson::number(o, "Cause", 0));
        }
        return st;
    }
    if (!strcmp(kind, "DeRegistration")) {
        KsStep* st = KsScanario__NewStep(KS_STEP__DEREGISTRATION, 6);
        long long v = KsJson::number(o, "SwitchOff", 0);
        if (v != 0) --v;
        st->Cause = (v == 0 || v == 1) ? uint8_t(v) : 0;
        return st;
    }
    if (!strcmp(kind, "PDUSession")) return pduSessionStep(o, pos, file);
    printf("Step[%s] NOT implemented in scanario file[%s]\n", kind, file);
    return nullptr;
}

}  // namespace

int KsScanario__LoadScanarioFile(uint32_t id, const char* fileName, uint32_t isDefault) {
    json_error_t err{};
    json_t* root = json_load_file(fileName, 0, &err);
    if (!json_is_array(root)) {
        if (root) snprintf(err.text, sizeof err.text, "%s", "not a JSON array of steps");
        printf("error loading scanario-config id=%d file:%s  error:[%s] line=%d column=%d position=%d source=[%s]\n\n",
               int(id), fileName, err.text, err.line, err.column, err.position, err.source);
        fflush(stdout);
        json_decref(root);
        return 0;
    }
    KsScanario* sc = KsScanario__NewScanario(id);
    snprintf(sc->FileName, sizeof sc->FileName, "%s", fileName);
    sc->IsDefault = isDefault ? 1 : 0;
    size_t i;
    json_t* o;
    json_array_foreach(root, i, o) {
        if (!json_is_object(o) || KsJson::number(o, "E", 1) == 0) continue;
        if (KsStep* st = fileStep(o, int(i), fileName)) KsScanario__AddStep(sc, st);
    }
    json_decref(root);
    std::lock_guard g(scanarioListLock);
    if (sc->IsDefault && !__ksEngine->ksScanarioDefault) __ksEngine->ksScanarioDefault = sc;
    appendKept(sc);
    return 1;
}

int KsScanario__LoadScanarios() {
    json_t* files = json_object_get(__ksEngine->config, "ScanarioFiles");
    if (!json_is_array(files)) return 1;
    size_t i;
    json_t* f;
    json_array_foreach(files, i, f) {
        json_t* id = json_object_get(f, "ID");
        const char* file = json_string_value(json_object_get(f, "File"));
        if (!json_is_integer(id) || !file) {
            printf("ScanarioFiles element %zu skipped: ID and File are required\n", i);
            continue;
        }
        uint32_t isDefault = KsJson::number(f, "Default", 0) != 0 ? 1 : 0;
        if (!KsScanario__LoadScanarioFile(uint32_t(json_integer_value(id)), file, isDefault)) return 0;
    }
    return 1;
}

KsScanario* KsScanario__getByScID(uint32_t id) {
    std::lock_guard g(scanarioListLock);
    for (KsScanario* sc = __ksEngine->ksScanarioHead; sc; sc = sc->Next)
        if (sc->id == id) return sc;
    return nullptr;
}

void KsScanario__CreateDefaultScanario() {
    std::lock_guard g(scanarioListLock);
    if (__ksEngine->ksScanarioDefault) return;
    KsScanario* sc = KsScanario__NewScanario(10001);
    sc->IsDefault = 1;
    const uint32_t steps[][2] = {{KS_STEP__REGISTRATION, 1}, {KS_STEP__SLEEP, 5}, {KS_STEP__REGISTRATION, 3},
                                 {KS_STEP__SLEEP, 5},        {KS_STEP__REGISTRATION, 2}};
    for (const auto& s : steps) {
        KsStep* st;
        if (s[0] == KS_STEP__REGISTRATION) {
            st = newRegistration(s[1]);
        } else {
            st = KsScanario__NewStep(KS_STEP__SLEEP, 3);
            st->SleepTime = s[1];
        }
        KsScanario__AddStep(sc, st);
    }
    __ksEngine->ksScanarioDefault = sc;
    appendKept(sc);
}

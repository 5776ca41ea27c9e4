// Text reports: one file per request, written whole beside its final name and then
// renamed into place, so a reader never sees half a report.
#include "KsTextReport.h"

#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <cstring>
#include <iterator>
#include <mutex>
#include <string>

#include "KsPool.h"
#include "KsUECServer.h"
#include "Kestrane.h"
#include "mv_naspdu.h"

namespace {

constexpr const char* kReportDir = "./reports/";

// TS 38.413 elementary procedures by procedure code.
constexpr const char* kNgapProcedures[] = {
    "AMFConfigurationUpdate",          "AMFStatusIndication",
    "CellTrafficTrace",                "DeactivateTrace",
    "DownlinkNASTransport",            "DownlinkNonUEAssociatedNRPPaTransport",
    "DownlinkRANConfigurationTransfer", "DownlinkRANStatusTransfer",
    "DownlinkUEAssociatedNRPPaTransport", "ErrorIndication",
    "HandoverCancel",                  "HandoverNotification",
    "HandoverPreparation",             "HandoverResourceAllocation",
    "InitialContextSetup",             "InitialUEMessage",
    "LocationReportingControl",        "LocationReportingFailureIndication",
    "LocationReport",                  "NASNonDeliveryIndication",
    "NGReset",                         "NGSetup",
    "OverloadStart",                   "OverloadStop",
    "Paging",                          "PathSwitchRequest",
    "PDUSessionResourceModify",        "PDUSessionResourceModifyIndication",
    "PDUSessionResourceRelease",       "PDUSessionResourceSetup",
    "PDUSessionResourceNotify",        "PrivateMessage",
    "PWSCancel",                       "PWSFailureIndication",
    "PWSRestartIndication",            "RANConfigurationUpdate",
    "RerouteNASRequest",               "RRCInactiveTransitionReport",
    "TraceFailureIndication",          "TraceStart",
    "UEContextModification",           "UEContextRelease",
    "UEContextReleaseRequest",         "UERadioCapabilityCheck",
    "UERadioCapabilityInfoIndication", "UETNLABindingRelease",
    "UplinkNASTransport",              "UplinkNonUEAssociatedNRPPaTransport",
    "UplinkRANConfigurationTransfer",  "UplinkRANStatusTransfer",
    "UplinkUEAssociatedNRPPaTransport", "WriteReplaceWarning",
    "SecondaryRATDataUsageReport",
};
static_assert(std::size(kNgapProcedures) == 53);

struct NasName {
    uint8_t type;
    const char* name;
};

// TS 24.501 message types, 5GMM then 5GSM.
constexpr NasName kNasNames[] = {
    {0x41, "Registration Request"},
    {0x42, "Registration Accept"},
    {0x43, "Registration Complete"},
    {0x44, "Registration Reject"},
    {0x46, "DeRegistration Accept"},
    {0x48, "DeRegistration Accept"},
    {0x4c, "Service Request"},
    {0x4d, "Service Reject"},
    {0x4e, "Service Accept"},
    {0x4f, "Control Plane Service Request"},
    {0x50, "Network Slice-Specific Authentication Command"},
    {0x51, "Network Slice-Specific Authentication Complete"},
    {0x52, "Network Slice-Specific Authentication Result"},
    {0x54, "Configuration Update Command"},
    {0x55, "Configuration Update Complete"},
    {0x56, "Authentication Request"},
    {0x57, "Authentication Response"},
    {0x58, "Authentication Reject"},
    {0x59, "Authentication Failure"},
    {0x5a, "Authentication Result"},
    {0x5b, "Identity Request"},
    {0x5c, "Identity Response"},
    {0x5d, "Security Mode Command"},
    {0x5e, "Security Mode Complete"},
    {0x5f, "Security Mode Reject"},
    {0x64, "5GMM Status"},
    {0x65, "Notification"},
    {0x66, "Notification Response"},
    {0x67, "UL NAS Transport"},
    {0x68, "DL NAS Transport"},
    {0xc1, "PDU Session Establishment Request"},
    {0xc2, "PDU Session Establishment Accept"},
    {0xc3, "PDU Session Establishment Reject"},
    {0xc5, "PDU Session Authentication Command"},
    {0xc6, "PDU Session Authentication Complete"},
    {0xc7, "PDU Session Authentication Result"},
    {0xc9, "PDU Session Modification Request"},
    {0xca, "PDU Session Modification Reject"},
    {0xcb, "PDU Session Modification Command"},
    {0xcc, "PDU Session Modification Complete"},
    {0xcd, "PDU Session Modification Command Reject"},
    {0xd1, "PDU Session Release Request"},
    {0xd2, "PDU Session Release Reject"},
    {0xd3, "PDU Session Release Command"},
    {0xd4, "PDU Session Release Complete"},
    {0xd6, "5GSM Status"},
};

const char* causeText(uint32_t cause, int whichCause) {
    const char* t = whichCause == 2 ? __mv_naspdu_get5GSMCause(int(cause)) : __mv_naspdu_get5GMMCause(int(cause));
    return t ? t : "";
}

void rule(FILE* f, char c) {
    char line[163];
    memset(line, c, 162);
    line[162] = 0;
    fprintf(f, "%s\n", line);
}

void writeEvent(FILE* f, const KsStepChild* ev) {
    char when[40];
    timeval tv = ev->Time;
    __mv_makeTimeStamp2(&tv, when, 1);
    const char* ngap = KsReport__SetProcCode(ev->ProcedureCode, ev->MessageType);
    const char* nas = KsReport__NasMMMessageType(ev->NasMessageType, ev->MessageType);
    if (ev->NasCause > 0) {
        const char* sub = ev->ChildNasMessageType ? KsReport__NasMMMessageType(ev->ChildNasMessageType, ev->MessageType)
                                                  : "";
        if (ev->WhichCause == 2)
            fprintf(f, "%-30s %-40s %s, %s, SMCause(#%d) %s\n", when, ngap, nas, sub, int(ev->NasCause),
                    causeText(ev->NasCause, 2));
        else
            fprintf(f, "%-30s %-40s %s, %s, MMCause(#%d) %s\n", when, ngap, nas, sub, int(ev->NasCause),
                    causeText(ev->NasCause, 1));
    } else if (ev->ChildNasMessageType) {
        fprintf(f, "%-30s %-40s %s, (%u) %s\n", when, ngap, nas, ev->ChildNasMessageType,
                KsReport__NasMMMessageType(ev->ChildNasMessageType, ev->MessageType));
    } else {
        fprintf(f, "%-30s %-40s %s\n", when, ngap, nas);
    }
}

// Writes one UE's block and gives its events back to the pool: a report drains them.
void writeUE(FILE* f, MV_KsUE* ue) {
    fprintf(f, "IMSI %s%s%lu\n", ue->mcc, ue->mnc, (unsigned long)ue->msin);
    rule(f, '-');
    std::lock_guard g(ue->ChildLock);
    auto* ev = static_cast<KsStepChild*>(ue->ChildHead);
    while (ev) {
        KsStepChild* next = ev->Next;
        writeEvent(f, ev);
        if (__ksEngine && __ksEngine->ksEventPool) __ksEngine->ksEventPool->release(ev);
        ev = next;
    }
    ue->ChildHead = ue->ChildCurrent = nullptr;
    rule(f, '=');
}

}  // namespace

const char* KsReport__SetProcCode(uint32_t procedureCode, uint32_t direction) {
    if (procedureCode == 14) return direction == 2 ? "InitialContextSetupRequest" : "InitialContextSetupResponse";
    return procedureCode < std::size(kNgapProcedures) ? kNgapProcedures[procedureCode] : "";
}

const char* KsReport__NasMMMessageType(uint32_t messageType, uint32_t direction) {
    if (messageType == 0x45 || messageType == 0x47)
        return direction == 1 ? "(UE Origin) DeRegistration Request" : "TDeRegistration Request";
    for (const NasName& n : kNasNames)
        if (n.type == messageType) return n.name;
    return "";
}

int KsReport__CreateTextReport(int ReportType, MV_KsUE* ksUEItem, int useTestNext, int testId) {
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_CRITICAL, "Received Request To Generate Report., ReportType=%d  <%s|%s|%d>",
             ReportType, __FILE_NAME__, __func__, __LINE__);
    timeval tv;
    gettimeofday(&tv, nullptr);
    time_t secs = tv.tv_sec + __mv_getLocalTimeValue();
    tm t;
    gmtime_r(&secs, &t);

    char path[300];
    if (testId >= 1)
        snprintf(path, sizeof path, "./reports/test_%d.txt", testId);
    else
        snprintf(path, sizeof path, "%s/%s_%02d_%02d_%d_%02d_%02d_%02d_%06lu.%s", kReportDir, "report", t.tm_mday,
                 t.tm_mon + 1, t.tm_year + 1900, t.tm_hour, t.tm_min, t.tm_sec, (unsigned long)tv.tv_usec, "txt");
    __mv_mkpath(kReportDir, 0700);
    std::string tmp = std::string(path) + ".tmp." + std::to_string(getpid());
    FILE* f = fopen(tmp.c_str(), "w");
    if (!f) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_CRITICAL, "Report file [%s] could not be created  <%s|%s|%d>", path,
                 __FILE_NAME__, __func__, __LINE__);
        return 0;
    }

    fprintf(f, "VELTA Networks\n");
    char created[80];
    snprintf(created, sizeof created, "%02d-%02d-%d:%02d:%02d:%02d:%06lu", t.tm_mday, t.tm_mon + 1, t.tm_year + 1900,
             t.tm_hour, t.tm_min, t.tm_sec, (unsigned long)tv.tv_usec);
    fprintf(f, "KsTest Report,  Create Time: %s\n", created);
    if (testId >= 1) {
        char testName[128] = "", sceName[128] = "";
        int mps = 0;
        KsUECServer___getTestInfo(uint32_t(testId), testName, sceName, &mps);
        fprintf(f, "Test-Name: %s,  Scenario-Name: %s,  MPS: %d\n", testName, sceName, mps);
    }
    rule(f, '=');
    for (MV_KsUE* ue = ksUEItem; ue; ue = useTestNext == 1 ? ue->TestNext : ue->Next) writeUE(f, ue);

    bool ok = fflush(f) == 0 && fsync(fileno(f)) == 0;
    ok = fclose(f) == 0 && ok;
    if (!ok || rename(tmp.c_str(), path) != 0) {
        unlink(tmp.c_str());
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_CRITICAL, "Report file [%s] could not be written  <%s|%s|%d>", path,
                 __FILE_NAME__, __func__, __LINE__);
        return 0;
    }
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_CRITICAL, "Report written to [%s]  <%s|%s|%d>", path, __FILE_NAME__,
             __func__, __LINE__);
    return 1;
}

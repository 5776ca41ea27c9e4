// Handlers of the console requests this build answers: ping, begin and stop of a
// test, the engine's statistics, the test report of the settings load and the text
// report. Each owns its request, answers with one send and releases it.
#include <atomic>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <mutex>

#include "KsTE_appTypes.h"
#include "KsTextReport.h"
#include "KsUECServer.h"
#include "Kestrane.h"
#include "Kestrane_util.h"
#include "mv_alloc.h"

namespace {

// Set while a text report is being written; a second request is refused meanwhile.
std::atomic<int> ReportCreating{0};

void answerHeader(__uec_msg_header& out, const __uec_msg_header& in, uint32_t type, uint32_t size) {
    out.MessageSize = size;
    out.MessageType = type;
    out.RequestNo = in.RequestNo;
    out.siSocket = 0;
}

json_t* findById(json_t* list, const char* key, uint32_t id) {
    size_t i;
    json_t* el;
    json_array_foreach(list, i, el) {
        if (KsJson::number(el, key, -1) == (long long)id) return el;
    }
    return nullptr;
}

template <size_t N>
void copyText(char (&out)[N], const char* s) {
    memset(out, 0, N);
    if (s) memcpy(out, s, strnlen(s, N));  // a text that fills the field has no terminator
}

uint32_t cut32(uint64_t v) { return uint32_t(v); }

uint64_t requests(MV_Counter* c) { return c ? c->Request.load() : 0; }

// The settings of one application type as items: id, length with the terminator,
// the text and its terminator. Items that would not fit are left out.
uint32_t settingsItems(const char* member, char* buffer, uint32_t cap, uint32_t* count) {
    uint32_t pos = 0;
    *count = 0;
    json_t* m = json_object_get(__ksEngine->prot_settings, member);
    const char* key;
    json_t* v;
    json_object_foreach(m, key, v) {
        const char* text = json_is_string(v) ? json_string_value(v) : "";
        uint32_t valLen = uint32_t(strlen(text)) + 1;
        if (pos + sizeof(__uec_settings_item2) + valLen > cap) {
            __mv_log(MV_CMN_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                     "settings of %s do not fit an answer, %u items sent <%s|%s|%d>", member, *count, __FILE_NAME__,
                     __func__, __LINE__);
            break;
        }
        __uec_settings_item2 item{uint32_t(strtoul(key, nullptr, 10)), valLen};
        memcpy(buffer + pos, &item, sizeof item);
        memcpy(buffer + pos + sizeof item, text, valLen);
        pos += uint32_t(sizeof item) + valLen;
        ++*count;
    }
    return pos;
}

uint32_t testReport(uint32_t appType, uint32_t testId, uint8_t* buffer, uint32_t cap, uint32_t* rows) {
    KsTestExec* t = KsEngine__FindTest(testId);
    if (!t) {
        // A report of a test that never ran makes its record without starting it.
        (void)KsEngine__AddTestToQueue(testId, KS_TEST__IDLE);
        t = KsEngine__FindTest(testId);
    }
    __uec_load_test_report head{};
    head.TestId = testId;
    *rows = 0;
    if (!t) {
        head.TestStatus = 999999;
        memcpy(buffer, &head, sizeof head);
        return sizeof head;
    }
    head.TestStatus = t->Status;
    copyText(head.TestStartTime, t->TestStartTime);
    copyText(head.TestEndTime, t->TestEndTime);
    head.ExecutedNoOfTimes = t->ExecutedNoOfTimes;
    head.TotalNoOfTimesToExecute = t->TotalNoOfTimesToExecute;
    head.ExecutedTPS = t->ExecutedTPS;
    head.TotalExecutedTPS = t->TotalExecutedTPS;
    head.CompletedExecutionUECount = uint32_t(t->CompletedExecutionUECount.load());
    head.TotalCompletedExecutionUECount = uint32_t(t->TotalCompletedExecutionUECount);
    head.TotalAttachedUECount = uint32_t(t->TotalAttachedUECount.load());
    head.ExecutedInSeconds = t->ExecutedInSeconds;
    head.ExecutedInMilliSeconds = t->ExecutedInMilliSeconds;
    head.TotalExecutedInSeconds = t->TotalExecutedInSeconds;
    head.TotalExecutedInMilliSeconds = t->TotalExecutedInMilliSeconds;
    head.Percent = t->Percent;
    head.ExecutionCount = t->ExecutionCount;
    head.RanTimes = t->RanTimes;
    head.OnGoing = t->OnGoing;

    uint32_t pos = sizeof head;
    __uec_mv_counter total{};
    const KsCounterBlock& b = KsEngine__CounterBlock(appType);
    for (size_t i = 0; i < b.ConsoleCount; ++i)
        pos = KsUECServer___add_MV_Counter_Buffer(b.Console[i].ID, &(t->*b.Console[i].Field), buffer, pos, cap, &total);
    if (pos > sizeof head && pos + sizeof total <= cap) {
        memcpy(buffer + pos, &total, sizeof total);
        pos += sizeof total;
    }
    __uec_mv_counter untotalled{};
    pos = KsUECServer___add_MV_Counter_Buffer(50000, &t->ExecutionTimeout, buffer, pos, cap, &untotalled);
    if (appType == 1) pos = KsUECServer___add_MV_Counter_Buffer(39, &t->NGAPSendFailed, buffer, pos, cap, &untotalled);
    head.CounterBufferSize = pos - uint32_t(sizeof head);
    *rows = head.CounterBufferSize / uint32_t(sizeof(__uec_mv_counter));
    memcpy(buffer, &head, sizeof head);
    return pos;
}

}  // namespace

const char* KsUECServer___appTypeName(uint32_t type) { return KsTE__AppTypeName(type); }

uint32_t KsUECServer___add_MV_Counter_Buffer(uint32_t ID, MV_Counter* counter, uint8_t* buffer, uint32_t pos,
                                             uint32_t cap, __uec_mv_counter* total) {
    uint64_t request = counter->Request.load(), all = counter->Total.load();
    if (request == 0 && all == 0) return pos;
    if (pos + sizeof(__uec_mv_counter) > cap) return pos;
    __uec_mv_counter row{ID & 0xffffu, uint32_t(counter->CurrentCount.load()), request, all};
    memcpy(buffer + pos, &row, sizeof row);
    total->Current += row.Current;
    total->Total += row.Total;
    total->LTotal += row.LTotal;
    return pos + uint32_t(sizeof row);
}

void KsUECServer___getTestInfo(uint32_t TestID, char* testName, char* sceName, int* mps) {
    testName[0] = sceName[0] = 0;
    *mps = 0;
    json_t* t = findById(__ksEngine->tests, "ID", TestID);
    if (!t) return;
    KsJson::copyString(t, "Name", testName, 128);
    *mps = int(KsJson::number(t, "MPS", 100));
    json_t* sc = findById(__ksEngine->scenarios, "ID", uint32_t(KsJson::number(t, "ScenarioID", 0)));
    if (sc) KsJson::copyString(sc, "Name", sceName, 128);
}

void KsUECServer___CreateTextReport(void*) {
    KsReport__CreateTextReport(0, __ksEngine->ksUEHead, 1, 0);
    ReportCreating = 0;
}

void KsUECServer___handle_PingRequest(__uec_msg_header* message) {
    // The answer is the request's own header; it says 20 bytes, as many as are sent,
    // and carries none of the server's references.
    __uec_msg_header echo = *message;
    echo.MessageSize = sizeof echo;
    echo.siSocket = 0;
    KsUECServer___respond(message, &echo, sizeof echo, "UEC_PingRequest");
    KsUECServer___release(message);
}

void KsUECServer___handle_beginTest(__uec_begin_test* message) {
    __mv_log(MV_CMN_LOG, LOG_CAT_APP, MV_LOG_CRITICAL, "Received Begin Test Request With TestId=%u <%s|%s|%d>",
             message->TestID, __FILE_NAME__, __func__, __LINE__);
    __uec_begin_test_response r{};
    answerHeader(r.Header, message->Header, VELTA_UEC_MSG_TYP__BEGIN_TEST_RESPONSE, sizeof r);
    if (message->TestID == 0) r.Status = VELTA_UEC_BEGIN__NO_TEST_ID;
    else if (!findById(__ksEngine->tests, "ID", message->TestID)) r.Status = VELTA_UEC_BEGIN__UNKNOWN_TEST;
    else if (message->Stop) r.Status = KsEngine__StopOnGoingTest(message->TestID);
    else r.Status = KsEngine__AddTestToQueue(message->TestID, KS_TEST__QUEUED);
    KsUECServer___respond(message, &r, sizeof r, "UEC_NewTestResponse");
    KsUECServer___release(message);
}

void KsUECServer___handle_StatsRequest(__uec_stats_request* message) {
    __mv_ks__engine* e = __ksEngine;
    __uec_stats_response r{};
    answerHeader(r.Header, message->Header, VELTA_UEC_MSG_TYP__STATS_RESPONSE, sizeof r);
    r.ConfiguredAMFCount = e->amfCount;
    r.ConfiguredRanCount = e->ngRanCount;
    r.ConnectedToAMF = 0;  // no AMF connections without the RAN registry
    r.LoadedUEs = uint32_t(e->ksUETotal);
    r.UEPoolAvailable = e->ksUEPoolAvailable;
    r.UEPoolTotal = e->ksUEPoolTotal;
    r.UERegistered = cut32(requests(e->Sent_N1_Registration));
    r.UEDeRegistered = cut32(requests(e->Sent_N1_DeRegistration));
    r.UERegRejected = cut32(e->UERegRejected);
    r.NGAPErrors = cut32(e->NGAPErrors);
    r.NASErrors = cut32(e->NASErrors);
    r.UEPduSessions = cut32(e->UEPduSessions);
    r.ExecutingTestCaseCount = e->ExecutingTestCaseCount;
    r.TestCaseTimeout = cut32(e->TestCaseTimeout);
    r.Executed_TestCases = e->Executed_TestCases;
    r.Executed_TestSteps = cut32(e->Executed_TestSteps);
    r.LatchPerSecond = std::atomic_ref<uint32_t>(e->LatchPerSecond).load();
    char ds[40];
    __mv_makeTimeStamp(ds);
    copyText(r.ds, ds);
    r.UPTime = e->UPTime;
    KsUECServer___respond(message, &r, sizeof r, "UEC_StatsResponse");
    KsUECServer___release(message);
}

// The first non-zero rate starts latching UEs to RANs and stays for the life of the process.
void KsUECServer___handle_testStartRequest(__uec_test_start_request* message) {
    __uec_test_start_response r{};
    answerHeader(r.Header, message->Header, VELTA_UEC_MSG_TYP__TEST_START_RESPONSE, sizeof r);
    uint32_t unset = 0;
    r.Status = message->LatchPerSecond != 0 &&
                       std::atomic_ref<uint32_t>(__ksEngine->LatchPerSecond).compare_exchange_strong(unset, message->LatchPerSecond)
                   ? 1
                   : 2;
    KsUECServer___respond(message, &r, sizeof r, "UEC_TestStartResponse");
    KsUECServer___release(message);
}

void KsUECServer___handle_testReportRequest(__uec_test_start_request* message) {
    __uec_test_start_response r{};
    answerHeader(r.Header, message->Header, VELTA_UEC_MSG_TYP__REPORT_RESPONSE, sizeof r);
    int idle = 0;
    if (ReportCreating.compare_exchange_strong(idle, 1)) {
        __mv_core_queue(nullptr, KsUECServer___CreateTextReport);
        r.Status = 1;
    } else {
        r.Status = 2;
    }
    KsUECServer___respond(message, &r, sizeof r, "UEC_TestStartResponse");
    KsUECServer___release(message);
}

void KsUECServer___handle_loadSettings(__uec_load_settings_request* message) {
    __mv_log(MV_CMN_LOG, LOG_CAT_APP, MV_LOG_CRITICAL,
             "LoadSettingsRquest  TEApplicationType=%u  Command=%u  Option=%u  MSize=%u  <%s|%s|%d>",
             message->TEApplicationType, message->Command, message->Option1, message->Header.MessageSize, __FILE_NAME__,
             __func__, __LINE__);
    auto* r = static_cast<__uec_load_settings_response*>(__mv_allocM(sizeof(__uec_load_settings_response)));
    memset(r, 0, sizeof *r);
    r->TEApplicationType = message->TEApplicationType;
    r->Command = message->Command;
    uint32_t len = 0;
    const char* member = KsUECServer___appTypeName(message->TEApplicationType);
    if (!member) {
        // No application type has this number: the answer carries nothing.
        __mv_log(MV_CMN_LOG, LOG_CAT_APP, MV_LOG_ERROR, "Invalid TEApplicationType %u in settings load <%s|%s|%d>",
                 message->TEApplicationType, __FILE_NAME__, __func__, __LINE__);
    } else if (message->Command == 0) {
        len = settingsItems(member, r->buffer, sizeof r->buffer, &r->Count);
    } else if (message->Command == 1) {
        len = testReport(message->TEApplicationType, message->Option1, reinterpret_cast<uint8_t*>(r->buffer),
                         sizeof r->buffer, &r->Count);
    }
    uint32_t padded = (len + 3) & ~3u;  // the padding bytes are already zero
    answerHeader(r->Header, message->Header, VELTA_UEC_MSG_TYP__SETTINGS_LOAD_RESPONSE,
                 uint32_t(offsetof(__uec_load_settings_response, buffer)) + padded);
    KsUECServer___respond(message, r, r->Header.MessageSize, "UEC_LoadSettingsResponse");
    __mv_freeM(r);
    KsUECServer___release(message);
}

// ---------------------------------------------------------------- start

void KsUECServer__Init() {
    KsEngine__RegisterStartStep(KsStartSlot::Console, [](json_t*) { return KsUECServer___Start(); });
}

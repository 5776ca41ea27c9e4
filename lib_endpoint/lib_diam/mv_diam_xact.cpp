// Identifiers, the session table that ties a request to its answer by the row of its
// End-to-End Identifier, time-outs, and the table of application handlers.
#include <arpa/inet.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <random>

#include "mv_diam_internal.h"

namespace {

uint32_t randomIn(uint32_t lo, uint32_t hi) {
    static std::mutex m;
    static std::mt19937 gen{std::random_device{}()};
    std::lock_guard g(m);
    return std::uniform_int_distribution<uint32_t>(lo, hi)(gen);
}

// Identifiers live in the stack record, which exists from the first use on, so that
// messages can be made before the stack's threads start.
struct Ids {
    MV_Mutex HBHIdLock, E2EIdLock, SessionIdLock;
    uint32_t HBHId = randomIn(2501, 10000);
    uint32_t E2EId = randomIn(1501, 8000);
    uint32_t SessionIdMin = randomIn(1501, 8000);
    uint32_t SessionIdMax = randomIn(20000, 90000);
};
Ids& ids() {
    static Ids* i = new Ids;
    return *i;
}

// The session table. An index table gives the rows and their ids; two words per row
// settle who owns a pending request: `pending` holds the id while a request waits for
// its answer, `armed` while its timer may still fire. Whoever changes the word from the
// id to 0 owns that part, so an answer and a time-out never both take a request, and a
// stale timer never touches the row's next request.
struct SessionTable {
    MV_IndexTable* table = nullptr;
    std::unique_ptr<std::atomic<uint32_t>[]> pending;
    std::unique_ptr<std::atomic<uint32_t>[]> armed;
    uint32_t base = 0;
    uint32_t count = 0;

    bool owns(uint32_t id) const { return table && id >= base; }
    uint32_t slot(uint32_t id) const { return (id - base) % count; }
};
std::atomic<SessionTable*> sessions{nullptr};
std::mutex sessionsMake;

SessionTable* table() { return sessions.load(std::memory_order_acquire); }

// Takes the pending request of id: its row's object (through obj) and its handler. The row
// goes back to the table.
bool takeRequest(uint32_t id, void** obj, timer_handler* handler) {
    SessionTable* t = table();
    if (!t || !t->owns(id)) return false;
    uint32_t r = t->slot(id);
    uint32_t expected = id;
    if (!t->pending[r].compare_exchange_strong(expected, 0, std::memory_order_acq_rel)) return false;
    t->armed[r].store(0, std::memory_order_release);
    MV_IndexRow* row = __mv_IndexTable_FindRow(t->table, id);
    if (obj) *obj = row ? __mv_indexRow_getObject(row) : nullptr;
    if (handler) *handler = row ? row->handler : nullptr;
    // Clears the row's timer of this arming and gives the row back.
    __mv_IndexTable_FreeRow(t->table, id);
    return true;
}

void requestTimeout(void* data) {
    auto id = uint32_t(reinterpret_cast<uintptr_t>(data));
    SessionTable* t = table();
    if (!t || !t->owns(id)) return;
    uint32_t expected = id;
    if (!t->armed[t->slot(id)].compare_exchange_strong(expected, 0, std::memory_order_acq_rel)) return;
    void* obj = nullptr;
    timer_handler h = nullptr;
    if (!takeRequest(id, &obj, &h)) return;
    if (__mvDiamStack) ++__mvDiamStack->Counters.Timeouts;
    MV_DIAM_LOG(MV_LOG_DEBUG, "request with End-to-End Identifier=%u timed out <%s|%s|%d>", id, __FILE_NAME__, __func__,
                __LINE__);
    if (h) h(obj);
}

// ---------------------------------------------------------------- application handlers

struct AppHandler {
    std::atomic<uint32_t> applicationId;
    std::atomic<fn_mv_diam_msg_handler> handler;
};
constexpr int kMaxAppHandlers = 32;
AppHandler appHandlers[kMaxAppHandlers];
std::atomic<int> appHandlerCount{0};
std::mutex appHandlerLock;

}  // namespace

// ---------------------------------------------------------------- identifiers

MV_DiamMessage* __mv_diam_create_request(uint32_t cmd, uint32_t app) {
    uint32_t e2e;
    {
        Ids& i = ids();
        std::lock_guard g(i.E2EIdLock);
        e2e = i.E2EId++;
        if (i.E2EId > 0xFFFFFFFA) i.E2EId = randomIn(1501, 8000);
    }
    return __mv_diam_create_request2(cmd, app, e2e);
}

MV_DiamMessage* __mv_diam_create_request2(uint32_t cmd, uint32_t app, uint32_t e2e) {
    uint32_t hbh;
    {
        Ids& i = ids();
        std::lock_guard g(i.HBHIdLock);
        hbh = i.HBHId++;
        if (i.HBHId > 0xFFFFFFFA) i.HBHId = randomIn(2501, 10000);
    }
    return __mv_diam_create_message2(cmd, app, hbh, e2e, 1);
}

int __mv_diam_generate_sessionid2(char* str, MV_DiamNode* node) {
    if (!str) return 0;
    uint32_t lo, hi;
    {
        Ids& i = ids();
        std::lock_guard g(i.SessionIdLock);
        lo = i.SessionIdMin++;
        hi = i.SessionIdMax++;
        if (i.SessionIdMin > 429496729) i.SessionIdMin = randomIn(1501, 8000);
        if (i.SessionIdMax > 429496729) i.SessionIdMax = randomIn(20000, 90000);
    }
    int n = snprintf(str, MV_DIAM_SESSIONID_SIZE, "session;%s;%d;%u;%u", node ? node->sRealm : "", int(time(nullptr)),
                     lo, hi);
    return n < MV_DIAM_SESSIONID_SIZE ? n : MV_DIAM_SESSIONID_SIZE - 1;
}

// ---------------------------------------------------------------- the session table

int __mv_diam_create_IndexTable(uint32_t stNumber, uint32_t maxSessions) {
    std::lock_guard g(sessionsMake);
    if (table() || maxSessions == 0 || stNumber == 0) return 0;
    auto* t = new SessionTable;
    t->table = __mv_IndexTable_create(stNumber, maxSessions);
    if (!t->table) {
        delete t;
        return 0;
    }
    t->base = stNumber;
    t->count = maxSessions;
    t->pending = std::make_unique<std::atomic<uint32_t>[]>(maxSessions);
    t->armed = std::make_unique<std::atomic<uint32_t>[]>(maxSessions);
    sessions.store(t, std::memory_order_release);
    return 1;
}

void __mv_diam___ensure_table() {
    if (!table()) __mv_diam_create_IndexTable(1552, 65536);
}

MV_DiamMessage* __mv_diam_create_request3(uint32_t cmd, uint32_t app, void* obj, timer_handler handler,
                                          int timeout_secs) {
    __mv_diam___ensure_table();
    SessionTable* t = table();
    MV_IndexRow* row = t ? __mv_IndexTable_getRow(t->table) : nullptr;
    if (!row) {
        if (__mvDiamStack) ++__mvDiamStack->Counters.TableFull;
        MV_DIAM_LOG(MV_LOG_ERROR, "no free row in the session table for Command-Code=%u Application-Id=%u <%s|%s|%d>", cmd,
                    app, __FILE_NAME__, __func__, __LINE__);
        return nullptr;
    }
    uint32_t id = __mv_indexRow_getId(row);
    uint32_t r = t->slot(id);
    __mv_indexRow_setObject(row, obj);
    row->handler = handler;
    row->timer = nullptr;
    MV_Timer* timer = nullptr;
    if (handler && timeout_secs >= 1 && timeout_secs < MV_TIMER_WHEEL_SLOTS) {
        // The generation is read before the timer is in the wheel: once there it may fire
        // and go to another user at once.
        timer = __mv_allocate_timer();
        row->timerGeneration = __mv_core_timer_generation(timer);
        timer->data = reinterpret_cast<void*>(uintptr_t(id));
        timer->handler = requestTimeout;
        row->timer = timer;
        t->armed[r].store(id, std::memory_order_release);
    } else {
        t->armed[r].store(0, std::memory_order_release);
    }
    t->pending[r].store(id, std::memory_order_release);
    if (timer) __mv_core_sch_timer(timer, timeout_secs);
    MV_DiamMessage* m = __mv_diam_create_request2(cmd, app, id);
    if (!m) takeRequest(id, nullptr, nullptr);
    return m;
}

void* __mv_diam_create_request3_getobject(uint32_t e2e) {
    void* obj = nullptr;
    return takeRequest(e2e, &obj, nullptr) ? obj : nullptr;
}

void* __mv_diam_create_request3_findobject(uint32_t e2e) {
    SessionTable* t = table();
    if (!t || !t->owns(e2e)) return nullptr;
    uint32_t r = t->slot(e2e);
    if (t->pending[r].load(std::memory_order_acquire) != e2e) return nullptr;
    MV_IndexRow* row = __mv_IndexTable_FindRow(t->table, e2e);
    void* obj = __mv_indexRow_getObject(row);
    uint32_t expected = e2e;
    if (row && t->armed[r].compare_exchange_strong(expected, 0, std::memory_order_acq_rel) && row->timer)
        __mv_core_clear_timer_gen(row->timer, row->timerGeneration);
    // Taken by an answer on another thread meanwhile: the object may be the next request's.
    return t->pending[r].load(std::memory_order_acquire) == e2e ? obj : nullptr;
}

int __mv_diam_create__request3__clear_timer(MV_DiamMessage* msg) {
    return msg && takeRequest(ntohl(msg->Header.E2EId), nullptr, nullptr) ? 1 : 0;
}

void* __mv_diam_answer_object(MV_DiamMessage* answer) {
    if (!answer) return nullptr;
    void* obj = nullptr;
    uint32_t e2e = ntohl(answer->Header.E2EId);
    if (takeRequest(e2e, &obj, nullptr)) return obj;
    if (__mvDiamStack) ++__mvDiamStack->Counters.UnknownAnswers;
    char peer[300];
    __mv_diam___peer_text(answer->srcDiamNode, peer, sizeof peer);
    MV_DIAM_LOG(MV_LOG_ERROR,
                "answer with unknown End-to-End Identifier=%u Hop-by-Hop Identifier=%u Command-Code=%u "
                "Application-Id=%u Result-Code=%u from %s, dropped <%s|%s|%d>",
                e2e, ntohl(answer->Header.HBHId), __mv_diam_get_cmdcode(answer), __mv_diam_get_applicationid(answer),
                __mv_diam_get_result_code(answer), peer, __FILE_NAME__, __func__, __LINE__);
    return nullptr;
}

// ---------------------------------------------------------------- application handlers

int __mv_diam_register_app_handler(uint32_t applicationId, fn_mv_diam_msg_handler handler) {
    if (!handler) return 0;
    std::lock_guard g(appHandlerLock);
    int n = appHandlerCount.load();
    for (int i = 0; i < n; ++i)
        if (appHandlers[i].applicationId.load() == applicationId) return appHandlers[i].handler.load() == handler;
    if (n == kMaxAppHandlers) return 0;
    appHandlers[n].applicationId = applicationId;
    appHandlers[n].handler = handler;
    appHandlerCount.store(n + 1, std::memory_order_release);
    MV_DIAM_LOG(MV_LOG_INFO, "handler registered for Application-Id=%u <%s|%s|%d>", applicationId, __FILE_NAME__,
                __func__, __LINE__);
    return 1;
}

fn_mv_diam_msg_handler __mv_diam_find_app_handler(uint32_t applicationId) {
    int n = appHandlerCount.load(std::memory_order_acquire);
    for (int i = 0; i < n; ++i)
        if (appHandlers[i].applicationId.load(std::memory_order_relaxed) == applicationId)
            return appHandlers[i].handler.load(std::memory_order_relaxed);
    return nullptr;
}

void __mv_diam_dispatch_by_application(MV_DiamMessage* msg) {
    if (!msg) return;
    uint32_t app = __mv_diam_get_applicationid(msg);
    if (fn_mv_diam_msg_handler h = __mv_diam_find_app_handler(app)) {
        h(msg);
        return;
    }
    if (__mvDiamStack) ++__mvDiamStack->Counters.UnhandledMessages;
    char peer[300];
    __mv_diam___peer_text(msg->srcDiamNode, peer, sizeof peer);
    bool request = msg->Header.Flags & MV_DIAM_FLAG_REQUEST;
    MV_DIAM_LOG(MV_LOG_ERROR, "%s Command-Code=%u for Application-Id=%u from %s has no handler, %s <%s|%s|%d>",
                request ? "request" : "answer", __mv_diam_get_cmdcode(msg), app, peer,
                request ? "answered DIAMETER_APPLICATION_UNSUPPORTED" : "dropped", __FILE_NAME__, __func__, __LINE__);
    if (request) {
        MV_DiamNode* n = msg->srcDiamNode;
        __mv_diam_send_error(msg, DIAMETER_APPLICATION_UNSUPPORTED, 0, 0, n && n->hostNode ? n->hostNode : n);
    }
    __mv_diam_freeMessage2(msg);
}

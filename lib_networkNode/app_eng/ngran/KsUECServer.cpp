// Framing and dispatch of console requests, independent of the socket engine: the
// decision on the bytes waiting, the table of types, the records handed to
// handlers and the one path answers leave by.
#include "KsUECServer.h"

#include <atomic>
#include <cstdio>
#include <cstring>

#include "mv_alloc.h"
#include "mv_core.h"

namespace {

// Lies in front of every record handed to a handler: the connection it came on.
struct alignas(16) Envelope {
    void* Socket;
    uint32_t Generation;
    uint32_t Size;
};
static_assert(sizeof(Envelope) == 16);

template <class Rec, void (*H)(Rec*)>
void thunk(void* message) {
    H(static_cast<Rec*>(message));
}

template <class Rec, void (*H)(Rec*)>
constexpr KsUECHandlerEntry entry(const char* name) {
    return {uint32_t(sizeof(Rec)), thunk<Rec, H>, name};
}

// Types whose handler is built; every other type is dropped as unknown.
constexpr struct {
    uint32_t type;
    KsUECHandlerEntry e;
} kHandlers[] = {
    {VELTA_UEC_MSG_TYP__STATS_REQUEST,
     entry<__uec_stats_request, KsUECServer___handle_StatsRequest>("UEC_StatsResponse")},
    {VELTA_UEC_MSG_TYP__TEST_START_REQUEST,
     entry<__uec_test_start_request, KsUECServer___handle_testStartRequest>("UEC_TestStartResponse")},
    {VELTA_UEC_MSG_TYP__REPORT_REQUEST,
     entry<__uec_test_start_request, KsUECServer___handle_testReportRequest>("UEC_TestStartResponse")},
    {VELTA_UEC_MSG_TYP__BEGIN_TEST, entry<__uec_begin_test, KsUECServer___handle_beginTest>("UEC_NewTestResponse")},
    {VELTA_UEC_MSG_TYP__SETTINGS_LOAD_REQUEST,
     entry<__uec_load_settings_request, KsUECServer___handle_loadSettings>("UEC_LoadSettingsResponse")},
    {VELTA_UEC_MSG_TYP__PING_REQUEST, entry<__uec_msg_header, KsUECServer___handle_PingRequest>("UEC_PingRequest")},
    {VELTA_UEC_MSG_TYP__NODE_CONNECTION_REQUEST,
     entry<__uec_node_connection, KsUECServer___handle_nodeConnectionStatus>("UEC_NodeConnectionStatusList")},
    {VELTA_UEC_MSG_TYP__NODE_CONNECTION_COMMAND_REQUEST,
     entry<__uec_node_connection, KsUECServer___handle_nodeConnectionCommand>("UEC_NodeConnectionStatusList")},
};

struct Table {
    KsUECHandlerEntry byType[VELTA_UEC_MSG_TYP__COUNT]{};
    constexpr Table() {
        for (const auto& h : kHandlers) byType[h.type] = h.e;
    }
};
constexpr Table kTable;

int noTransport(void*, uint32_t, const void*, int) { return -1; }
constexpr KsUECTransport kNoTransport{noTransport};
std::atomic<const KsUECTransport*> transport{&kNoTransport};

uint32_t u32At(std::span<const uint8_t> b, size_t off) {
    uint32_t v;
    memcpy(&v, b.data() + off, sizeof v);
    return v;
}

Envelope* envelopeOf(const void* message) {
    return const_cast<Envelope*>(reinterpret_cast<const Envelope*>(message) - 1);
}

}  // namespace

void KsUECServer___setTransport(const KsUECTransport* t) { transport = t ? t : &kNoTransport; }

KsUECFrame KsUECServer___frame(std::span<const uint8_t> head, uint32_t bufferLength) {
    KsUECFrame f{KsUECFrameKind::Wait, 0, 0, 0};
    if (head.size() > bufferLength) head = head.first(bufferLength);
    // The header must be whole before any of it is read.
    if (head.size() < sizeof(__uec_msg_header)) return f;
    f.MessageSize = u32At(head, offsetof(__uec_msg_header, MessageSize));
    f.MessageType = u32At(head, offsetof(__uec_msg_header, MessageType));
    f.RequestNo = u32At(head, offsetof(__uec_msg_header, RequestNo));
    if (f.MessageSize < sizeof(__uec_msg_header)) f.Kind = KsUECFrameKind::TooShort;
    else if (f.MessageSize > VELTA_UEC_MAX_MESSAGE_SIZE) f.Kind = KsUECFrameKind::TooLong;
    else if (bufferLength >= f.MessageSize) f.Kind = KsUECFrameKind::Message;
    return f;
}

const KsUECHandlerEntry* KsUECServer___handlerOf(uint32_t MessageType) {
    if (MessageType >= VELTA_UEC_MSG_TYP__COUNT) return nullptr;
    const KsUECHandlerEntry* e = &kTable.byType[MessageType];
    return e->Handler ? e : nullptr;
}

void* KsUECServer___takeMessage(std::span<const uint8_t> bytes, void* socket, uint32_t generation) {
    if (bytes.size() < sizeof(__uec_msg_header)) return nullptr;
    const KsUECHandlerEntry* e = KsUECServer___handlerOf(u32At(bytes, offsetof(__uec_msg_header, MessageType)));
    if (!e) return nullptr;
    size_t size = bytes.size() > e->RecordSize ? bytes.size() : e->RecordSize;
    auto* env = static_cast<Envelope*>(__mv_allocM(sizeof(Envelope) + size));
    if (!env) return nullptr;
    env->Socket = socket;
    env->Generation = generation;
    env->Size = uint32_t(bytes.size());
    auto* rec = reinterpret_cast<uint8_t*>(env + 1);
    memcpy(rec, bytes.data(), bytes.size());
    memset(rec + bytes.size(), 0, size - bytes.size());
    // The handler answers through this; what the console put here means nothing.
    auto* h = reinterpret_cast<__uec_msg_header*>(rec);
    h->siSocket = uint64_t(reinterpret_cast<uintptr_t>(socket));
    return rec;
}

void KsUECServer___release(void* message) {
    if (message) __mv_freeM(envelopeOf(message));
}

int KsUECServer___feed(std::span<const uint8_t> bytes, void* socket, uint32_t generation) {
    size_t pos = 0;
    for (;;) {
        std::span<const uint8_t> rest = bytes.subspan(pos);
        KsUECFrame f = KsUECServer___frame(rest.first(rest.size() < 20 ? rest.size() : 20), uint32_t(rest.size()));
        switch (f.Kind) {
            case KsUECFrameKind::Wait:
                return int(pos);
            case KsUECFrameKind::TooShort:
                return -1;
            case KsUECFrameKind::TooLong:
                return -2;
            case KsUECFrameKind::Message:
                break;
        }
        if (void* m = KsUECServer___takeMessage(rest.first(f.MessageSize), socket, generation))
            KsUECServer___handlerOf(f.MessageType)->Handler(m);
        pos += f.MessageSize;
    }
}

int KsUECServer___respond(const void* request, const void* response, uint32_t len, const char* name) {
    const Envelope* env = envelopeOf(request);
    int sent = transport.load()->Send(env->Socket, env->Generation, response, int(len));
    const auto* h = static_cast<const __uec_msg_header*>(response);
    if (sent < 1)
        __mv_log(MV_CMN_LOG, LOG_CAT_APP, MV_LOG_CRITICAL, "Error Sending Response(%s)  senBytes=%d  <%s|%s|%d>", name,
                 sent, __FILE_NAME__, __func__, __LINE__);
    else if (h->MessageType != VELTA_UEC_MSG_TYP__PING_REQUEST)
        __mv_log(MV_CMN_LOG, LOG_CAT_APP, MV_LOG_DEBUG, "sending response with size=%u Type=%u RequestNo=%u <%s|%s|%d>",
                 h->MessageSize, h->MessageType, h->RequestNo, __FILE_NAME__, __func__, __LINE__);
    return sent;
}

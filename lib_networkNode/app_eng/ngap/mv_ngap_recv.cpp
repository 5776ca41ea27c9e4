// The receive path: one copy of the PDU into a stack context, one record tree, one call of
// the application's handler, on the thread that delivers the association's messages.
#include <array>
#include <atomic>
#include <cstdarg>
#include <cstdio>

#include "mv_ngap_internal.h"

namespace {

std::atomic<fp_ngap_app_messahe_handler> app_msg_handler{nullptr};
std::atomic<fp_ngap_app_error_handler> app_error_handler{nullptr};

// The one place where input from the peer is refused or doubted: the layer's line in the
// stack log, then the application's error handler.
__attribute__((format(printf, 6, 7))) void badInput(MV_NGAPNode* node, int code, int form, const char* reason,
                                                     int level, const char* fmt, ...) {
    char line[512];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(line, sizeof line, fmt, ap);
    va_end(ap);
    MV_NGAP_LOG(level, "%s", line);
    if (fp_ngap_app_error_handler h = app_error_handler.load(std::memory_order_acquire)) h(node, code, form, reason);
}

struct FormTable {
    const MvAsnPdu* pdu[MV_NGAP_PROCEDURE_COUNT][3];
};

const FormTable& formTable() {
    static const FormTable table = [] {
        FormTable t{};
        for (unsigned i = 0; i < mv_asn_amf::kPduCount; i++) {
            const MvAsnPdu& p = mv_asn_amf::kPdus[i];
            if (p.procedureCode < MV_NGAP_PROCEDURE_COUNT && p.form < 3) t.pdu[p.procedureCode][p.form] = &p;
        }
        return t;
    }();
    return table;
}

// The PDU's bytes in a buffer, or false (logged) when the buffer's marks are not inside it.
bool pduBytes(MV_NGAPNode* node, const MV_SocketSCTPBuffer* b, const uint8_t** bytes, int* n) {
    if (b->pos < 0 || b->len < b->pos || b->len > MV_SOCKET_SCTP_BUFFER_SIZE) {
        badInput(node, -1, -1, "buffer marks outside the buffer", MV_LOG_ERROR,
                 "NGAP buffer with pos=%d len=%d outside its %d bytes, dropping <%s|%s|%d>", b->pos, b->len,
                 MV_SOCKET_SCTP_BUFFER_SIZE, __FILE_NAME__, __func__, __LINE__);
        return false;
    }
    *bytes = b->buff + b->pos;
    *n = b->len - b->pos;
    return true;
}

typedef int (*FormHandler)(MV_NGAPNode*, __mv_asn_coding_context*);

// Copies the PDU in, gives the buffer back (the bytes live in the context from here on),
// and calls the handler of the PDU's message form.
int runProcedure(int code, const char* name, const std::array<FormHandler, 3>& forms, MV_NGAPNode* node,
                 MV_SocketSCTPBuffer* buffer) {
    __mv_asn_coding_context ctx;
    const uint8_t* bytes = nullptr;
    int n = 0;
    bool ok = pduBytes(node, buffer, &bytes, &n);
    if (ok && n > MV_ASN_BUFFER_SIZE) {
        badInput(node, code, -1, "larger than the coding buffer", MV_LOG_ERROR,
                 "%s PDU of len=%d is larger than the coding buffer of %d bytes, dropping <%s|%s|%d>", name, n,
                 MV_ASN_BUFFER_SIZE, __FILE_NAME__, __func__, __LINE__);
        ok = false;
    }
    if (ok && n < 1) {
        badInput(node, code, -1, "empty", MV_LOG_ERROR, "empty %s PDU, dropping <%s|%s|%d>", name, __FILE_NAME__,
                 __func__, __LINE__);
        ok = false;
    }
    ok = ok && __mv_asn_init_decode(&ctx, bytes, size_t(n)) == 1;
    __mv_socket_engine_release_sctp_socket_buffer(buffer);
    if (!ok) return 0;

    // The extension bit and the form are the PDU CHOICE's index; the decoder reads them again.
    uint64_t ext = 0, form = 0;
    if (__mv_asn_get_bits(1, &ext, &ctx) < 1 || __mv_asn_get_bits(2, &form, &ctx) < 1) return 0;
    ctx.pos = 0;
    ctx.usedBits = 7;
    unsigned choice = unsigned(ext << 2 | form);
    if (choice > 2) {
        badInput(node, code, int(choice), "unknown message form", MV_LOG_ERROR,
                 "Unknown pduMessageChoice=%u for %s, dropping request <%s|%s|%d>", choice, name, __FILE_NAME__, __func__,
                 __LINE__);
        return 0;
    }
    return forms[choice](node, &ctx);
}

int runForm(unsigned code, unsigned form, MV_NGAPNode* node, __mv_asn_coding_context* ctx) {
    const MvAsnPdu* p = __mv_ngap___form_pdu(code, form);
    if (!p) {
        badInput(node, int(code), int(form), "no such message form of the procedure", MV_LOG_ERROR,
                 "invalid message received (no message defination) <%s|%s|%d>", __FILE_NAME__, __func__, __LINE__);
        return 0;
    }
    fp_ngap_app_messahe_handler handler = app_msg_handler.load(std::memory_order_acquire);
    if (!handler) {
        MV_NGAP_LOG(MV_LOG_ERROR, "ngap app handle message unset, dropping message <%s|%s|%d>", __FILE_NAME__,
                    __func__, __LINE__);
        return 0;
    }
    auto* rec = static_cast<__mv_asn_pdu_head*>(__mv_asn_new_record(p->type));
    // A PDU that does not decode still goes up: the record holds what was decoded, and the
    // application checks the IEs it needs.
    int sts = __mv_asn_decode_pdu(p, rec, ctx);
    if (sts < 1)
        badInput(node, int(code), int(form), "decoded in part", MV_LOG_WARNING,
                 "%s decoded with sts=%d decodingError=%u, passed on as it stands <%s|%s|%d>", p->name, sts,
                 unsigned(rec->decodingError), __FILE_NAME__, __func__, __LINE__);
    rec->messageId = uint8_t(code);
    rec->transportObject = node;
    handler(uint8_t(code), uint8_t(form), rec, node);
    return 1;
}

}  // namespace

const MvAsnPdu* __mv_ngap___form_pdu(unsigned procedureCode, unsigned form) {
    if (procedureCode >= MV_NGAP_PROCEDURE_COUNT || form > 2) return nullptr;
    return formTable().pdu[procedureCode][form];
}

#define MV_NGAP_DEFINE_HANDLERS(code, P)                                                                   \
    int __mv_amf_handle_##P##_InitiatingMessage(MV_NGAPNode* node, __mv_asn_coding_context* context) {    \
        return runForm(code, 0, node, context);                                                            \
    }                                                                                                      \
    int __mv_amf_handle_##P##_SuccessfulMessage(MV_NGAPNode* node, __mv_asn_coding_context* context) {    \
        return runForm(code, 1, node, context);                                                            \
    }                                                                                                      \
    int __mv_amf_handle_##P##_UnSuccessfulMessage(MV_NGAPNode* node, __mv_asn_coding_context* context) {  \
        return runForm(code, 2, node, context);                                                            \
    }                                                                                                      \
    int __mv_amf_handle_##P##_Procedure(MV_NGAPNode* node, MV_SocketSCTPBuffer* buffer) {                 \
        static constexpr std::array<FormHandler, 3> forms = {__mv_amf_handle_##P##_InitiatingMessage,      \
                                                             __mv_amf_handle_##P##_SuccessfulMessage,      \
                                                             __mv_amf_handle_##P##_UnSuccessfulMessage};   \
        return runProcedure(code, #P, forms, node, buffer);                                                \
    }
MV_NGAP_PROCEDURE_LIST(MV_NGAP_DEFINE_HANDLERS)

namespace {

typedef int (*ProcedureHandler)(MV_NGAPNode*, MV_SocketSCTPBuffer*);

#define MV_NGAP_PROCEDURE_ENTRY(code, P) {code, __mv_amf_handle_##P##_Procedure},
struct ProcedureEntry {
    unsigned code;
    ProcedureHandler handler;
};
constexpr ProcedureEntry kProcedures[] = {MV_NGAP_PROCEDURE_LIST(MV_NGAP_PROCEDURE_ENTRY)};

// The table is indexed by procedure code.
constexpr bool codesInOrder() {
    unsigned i = 0;
    for (const ProcedureEntry& e : kProcedures)
        if (e.code != i++) return false;
    return i == MV_NGAP_PROCEDURE_COUNT;
}
static_assert(codesInOrder(), "procedure list must hold codes 0 to 52 in order");

}  // namespace

void __mv_ngap_set_app_messahe_handler(fp_ngap_app_messahe_handler handler) {
    app_msg_handler.store(handler, std::memory_order_release);
}

void __mv_ngap_set_app_error_handler(fp_ngap_app_error_handler handler) {
    app_error_handler.store(handler, std::memory_order_release);
}

void __mv_ngap_on_buffer_recv(MV_SocketSCTPBuffer* buffer) {
    if (!buffer) return;
    MV_Socket* s = buffer->siSocket;
    MV_NGAP_LOG(MV_LOG_DEBUG, "received buffer event for socket %p with fd=%d isActive=%d <%s|%s|%d>",
                static_cast<void*>(s), s ? s->fd.load() : -1, s ? s->isActive.load() : 0, __FILE_NAME__, __func__,
                __LINE__);
    __mv_ngap_handle_message(s ? static_cast<MV_NGAPNode*>(s->transportEng) : nullptr, buffer);
}

// Every path gives the buffer back exactly once: a second release could hit a buffer that
// the reader has already taken again for the next message.
int __mv_ngap_handle_message(MV_NGAPNode* node, MV_SocketSCTPBuffer* buffer) {
    if (!buffer) return -1;
    const uint8_t* bytes = nullptr;
    int n = 0;
    if (!app_msg_handler.load(std::memory_order_acquire)) {
        MV_NGAP_LOG(MV_LOG_ERROR, "ngap app handle message unset, dropping message <%s|%s|%d>", __FILE_NAME__,
                    __func__, __LINE__);
    } else if (!node) {
        MV_NGAP_LOG(MV_LOG_ERROR, "no NGAP node on socket %p, dropping message of len=%d <%s|%s|%d>",
                    static_cast<void*>(buffer->siSocket), buffer->len, __FILE_NAME__, __func__, __LINE__);
    } else if (!pduBytes(node, buffer, &bytes, &n)) {
    } else if (n < 2) {
        badInput(node, -1, -1, "no procedure code", MV_LOG_ERROR,
                 "NGAP PDU of len=%d has no procedure code, dropping <%s|%s|%d>", n, __FILE_NAME__, __func__, __LINE__);
    } else if (bytes[1] >= MV_NGAP_PROCEDURE_COUNT) {
        badInput(node, int(bytes[1]), -1, "unknown procedure code", MV_LOG_ERROR,
                 "Unknown ProcedureCode=%d, dropping request <%s|%s|%d>", int(bytes[1]), __FILE_NAME__, __func__,
                 __LINE__);
    } else {
        return kProcedures[bytes[1]].handler(node, buffer);  // consumes the buffer
    }
    __mv_socket_engine_release_sctp_socket_buffer(buffer);
    return 0;
}

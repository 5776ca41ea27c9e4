// The UE-Console server: the listening socket on CLIPort, the framing of requests
// on the TCP delivery thread, dispatch to handlers on queue lines, and the answers.
// The protocol keeps no session: any number of consoles, each answer on the socket
// its request came in on.
#pragma once

#include <cstdint>
#include <span>

#include "KsUECServer_wire.h"
#include "mv_tables.h"

struct MV_Socket;

// ---------------------------------------------------------------- the server

// The console's start: its listening socket opens in its place of start-up.
void KsUECServer__Init(void);
// Opens the listening socket; called once at start-up. CLIPort 0 leaves the engine
// without a console. Returns 0 when start-up must stop: the console address is of
// neither IP version.
int KsUECServer___Start(void);
void KsUECServer___on_accept(MV_Socket* siSocketChild, MV_Socket* siSocketParent);
void KsUECServer___on_close(MV_Socket* siSocketChild);
// The socket's OnBufferReceive: frames and dispatches what has arrived.
void KsUECServer___on_buffer(MV_Socket* siSocketChild);

// ---------------------------------------------------------------- framing

enum class KsUECFrameKind : uint8_t {
    Wait,      // the header or the rest of the message has not arrived
    Message,   // one whole message of MessageSize bytes is waiting
    TooShort,  // MessageSize below the header: the connection cannot be framed
    TooLong,   // MessageSize above the limit: the stream cannot be framed
};

struct KsUECFrame {
    KsUECFrameKind Kind;
    uint32_t MessageSize;
    uint32_t MessageType;
    uint32_t RequestNo;
};

// Decides on the bytes waiting on a connection: `head` holds the first bytes (up to
// a header's worth), `bufferLength` how many are waiting in all. Reads nothing
// beyond `head`.
KsUECFrame KsUECServer___frame(std::span<const uint8_t> head, uint32_t bufferLength);

// How the server reaches its connections. The engine's transport sends on the
// socket engine; tests put one of their own in its place.
struct KsUECTransport {
    // Sends len bytes on the connection a request came in on; `generation` tells the
    // connection of the request from a later one on the same record. Returns the
    // bytes sent, or a value below 1.
    int (*Send)(void* socket, uint32_t generation, const void* bytes, int len);
};
// Unsent answer bytes one console may hold before the engine drops it: five of the
// largest answers. A console that reads keeps far below it.
constexpr long KS_UEC_MAX_UNSENT_BYTES = 1L << 20;
// Null restores the engine's transport.
void KsUECServer___setTransport(const KsUECTransport* transport);

// The room a request of this type is read into (at least its header), and its
// handler; a type without a handler is dropped unanswered.
struct KsUECHandlerEntry {
    uint32_t RecordSize;
    void (*Handler)(void* message);
    const char* Name;  // of the answer, for the log
};
const KsUECHandlerEntry* KsUECServer___handlerOf(uint32_t MessageType);

// Takes one framed message: a zeroed record of the type's size or more holding the
// `bytes` received, tagged with the connection. A record shorter than its type reads
// as if zero-filled. Null when the type has no handler. Release with
// KsUECServer___release.
void* KsUECServer___takeMessage(std::span<const uint8_t> bytes, void* socket, uint32_t generation);
void KsUECServer___release(void* message);
// Frames and takes what `bytes` holds, as on_buffer does for a socket, and runs
// each message's handler on the calling thread. Returns the bytes consumed; stops
// at an incomplete message; -1 when the connection must close, -2 when the stream
// exceeds the size limit. For the fuzzer and the tests of the framing.
int KsUECServer___feed(std::span<const uint8_t> bytes, void* socket, uint32_t generation);

// Sends an answer to the connection of `request` and logs it: "sending response..."
// or, below 1, "Error Sending Response(<name>)". Returns what the send returned.
int KsUECServer___respond(const void* request, const void* response, uint32_t len, const char* name);

// ---------------------------------------------------------------- handlers

void KsUECServer___handle_StatsRequest(__uec_stats_request* message);
void KsUECServer___handle_testStartRequest(__uec_test_start_request* message);
void KsUECServer___handle_testReportRequest(__uec_test_start_request* message);
void KsUECServer___handle_beginTest(__uec_begin_test* message);
void KsUECServer___handle_loadSettings(__uec_load_settings_request* message);
void KsUECServer___handle_PingRequest(__uec_msg_header* message);
void KsUECServer___handle_nodeConnectionStatus(__uec_node_connection* message);
void KsUECServer___handle_nodeConnectionCommand(__uec_node_connection* message);

// Writes the text report of all UEs (queued by the report request).
void KsUECServer___CreateTextReport(void* unused);
// Name, scenario name and MPS of a test from data/tst.json and data/sce.json; empty
// and 0 when not found. testName and sceName hold at least 128 bytes.
void KsUECServer___getTestInfo(uint32_t TestID, char* testName, char* sceName, int* mps);
// Appends a counter row when the counter counted anything, adding to `total`.
// Returns the new position; a row that does not fit is not written.
uint32_t KsUECServer___add_MV_Counter_Buffer(uint32_t ID, MV_Counter* counter, uint8_t* buffer, uint32_t pos,
                                             uint32_t cap, __uec_mv_counter* total);
// The application type names of data/set.json, by number; null above 31.
const char* KsUECServer___appTypeName(uint32_t type);

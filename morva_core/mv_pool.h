// Record pools with first-in first-out free lists: a released record goes to the
// tail and stays unused as long as possible, and a second release does nothing.
// Also the linked list (objects from one pool of the core record, items from the
// size classes) and the pooled service-request and activity records.
#pragma once

#include <cstdint>

#include "mv_core.h"

// ---------------------------------------------------------------- generic pool

// Lies directly in front of the user bytes of each item.
struct alignas(16) mv_morva_pool_item_t {
    mv_morva_pool_item_t* Next;
    struct mv_morva_pool_t* parent;
    uint32_t index;  // position of creation from 0
    uint32_t isReleased;
};
static_assert(sizeof(mv_morva_pool_item_t) == 32);

struct mv_morva_pool_t {
    mv_morva_pool_item_t* Head;
    mv_morva_pool_item_t* Current;
    mv_morva_pool_item_t** indexDB;
    char name[100];
    uint32_t Available;
    uint32_t Total;
    uint32_t Extend;
    uint32_t Sz;
    uint64_t Used;
    MV_Mutex mLock;
    char* Slab;  // the first slab: the only one of a pool that cannot grow
};

#define MV_POOL_EXTEND_COUNT 512

[[nodiscard]] mv_morva_pool_t* __mv_pool_create(const char* name, uint32_t objSize, uint32_t count, uint32_t extend);
[[nodiscard]] void* __mv_pool_allocate(mv_morva_pool_t* pool);
void __mv_pool_release(void* item);
uint32_t __mv_pool_index(void* item);
uint32_t __mv_pool_fsm_index(void* item, uint32_t fsmTCount);
int __mv_pool_create_index(mv_morva_pool_t* pool);
void* __mv_pool__find(mv_morva_pool_t* pool, uint32_t index);
void __mv_pool_plog(mv_morva_pool_t* pool);
// Total, Available and Used read under the pool's lock.
void __mv_pool_get_availability(mv_morva_pool_t* pool, uint32_t* Total, uint32_t* Available, uint64_t* Used);

// Typed view of a pool: one mechanism for every record type.
template <class T>
class MV_TypedPool {
public:
    MV_TypedPool() = default;
    MV_TypedPool(const char* name, uint32_t count, uint32_t extend)
        : pool_(__mv_pool_create(name, sizeof(T), count, extend)) {}
    // The record comes back value-initialised; the pool never constructs on its own.
    T* allocate() {
        void* p = __mv_pool_allocate(pool_);
        return p ? new (p) T{} : nullptr;
    }
    void release(T* r) {
        if (r) __mv_pool_release(r);
    }
    mv_morva_pool_t* pool() const { return pool_; }

private:
    mv_morva_pool_t* pool_ = nullptr;
};

// ---------------------------------------------------------------- linked list

struct MV_LinkedListItem {
    MV_LinkedListItem* Next;
    MV_LinkedListItem* Prev;
    void* dataPtr;
};

struct MV_LinkedList {
    MV_LinkedList* Next;  // pool link
    MV_LinkedListItem* Head;
    MV_LinkedListItem* Current;  // the tail
    int Count;
    int isReleased;
    MV_Mutex Lock;
};

void __mv_linked_list_create(int count, int inLockMode);
[[nodiscard]] MV_LinkedList* __mv_linked_list_allocate();
void __mv_linked_list_release(MV_LinkedList* linkedList);
int __mv_linked_list_add(MV_LinkedList* ll, void* dataPtr);
int __mv_linked_list_push(MV_LinkedList* ll, void* dataPtr);
void* __mv_linked_list_pop(MV_LinkedList* ll);
void* __mv_linked_list_get_item(MV_LinkedList* ll, int index);
int __mv_linked_list_count(MV_LinkedList* ll);
void __mv_linked_list_removeAll(MV_LinkedList* ll);
int __mv_linked_list_remove_item(MV_LinkedList* ll, void* u8ItemToRemove);
int __mv_linked_list_remove_itemAt(MV_LinkedList* ll, int index);

// ---------------------------------------------------------------- service requests and activities

typedef void (*fn_sr_callback)(MV_ServiceRequest* serviceRequest);
typedef int (*fn_sr_selection)(MV_ServiceRequest* serviceRequest);

struct MV_ServiceRequest {
    MV_ServiceRequest* Next;
    uint32_t ServiceRequestId;
    uint32_t ApiId;
    uint32_t InterfaceId;
    MV_Timer* Timer;
    int TimeOutSeconds;
    void* transportObject;
    int transportObjectRetain;
    MV_ExecTime execTime;
    void* Object;
    void* Data;
    void* ResponseData;
    char* ResponseContentType;
    void* userData;
    uint32_t userData_u32;
    uint32_t ResponseDataLength;
    int ErrorCode;
    int RetryCount;
    char* location;
    int RouteOn;
    void* Route;
    int NssaiCount;
    char logtag[20];
    char serviceName[30];
    void* DataItemHead;
    void* DataItemCurrent;
    fn_sr_callback onTimeOut;
    fn_sr_callback onResponse;
    fn_sr_callback onHttp2Response;
    void* selInterface;
    fn_sr_selection OnIfSelection;
    int isReleased;
};

void __mv_ServiceRequest__create(int count, int inLockMode);
[[nodiscard]] MV_ServiceRequest* __mv_ServiceRequest__allocate();
[[nodiscard]] MV_ServiceRequest* __mv_ServiceRequest__allocate2(uint32_t InterfaceId, uint32_t ApiId,
                                                               uint32_t requestDataObjectSize);
void __mv_ServiceRequest__release(MV_ServiceRequest* serviceRequest);
void __mv_ServiceRequest__setLogTag(MV_ServiceRequest* serviceRequest, const char* str);
void __mv_ServiceRequest__setLogTag_u64(MV_ServiceRequest* serviceRequest, uint64_t val);

typedef int (*ServiceExecutionFunction)(MV_ServiceRequest* serviceRequest);

struct MV_ServiceApi {
    MV_ServiceApi* Next;
    uint32_t ApiId;
    ServiceExecutionFunction func;
};

struct MV_ServiceInterface {
    MV_ServiceInterface* Next;
    uint32_t InterfaceId;
    MV_ServiceApi* ApiHead;
};

struct MV_ServiceRequestManager {
    MV_ServiceInterface* InterfaceHead;
    MV_Mutex Lock;
};

[[nodiscard]] MV_ServiceRequestManager* __mv_ServiceRequestManager__create();
int __mv_ServiceRequestManager__register(MV_ServiceRequestManager* srm, uint32_t interfaceId, uint32_t apiId,
                                         ServiceExecutionFunction func);
int __mv_ServiceRequestManager__execute(MV_ServiceRequestManager* srm, MV_ServiceRequest* serviceRequest);
int __mv_ServiceRequestManager__executeAsync(MV_ServiceRequestManager* srm, MV_ServiceRequest* serviceRequest);

typedef void (*fn_activity)(MV_Activity* activity);

struct MV_Activity {
    MV_Activity* Next;
    void* Parent;
    int ParentType;
    uint32_t GroupId;
    int ActivityType;
    int ActivityFlow;
    fn_activity executor;
    int ActivityStage;
    int ActivityStatus;
    int ActivityStateId;
    fn_activity OnError;
    void* data;
    int isReleased;
};

void __mv_Activity__create(int count, int inLockMode);
[[nodiscard]] MV_Activity* __mv_Activity__allocate();
void __mv_Activity__release(MV_Activity* activity);

// Record pools, linked lists, service requests and activities.
#include "mv_pool.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "mv_alloc.h"
#include "mv_fifo.h"

// ---------------------------------------------------------------- generic pool

namespace {

size_t itemStride(uint32_t sz) { return sizeof(mv_morva_pool_item_t) + ((size_t(sz) + 15) & ~size_t(15)); }

mv_fifo::FreeList<mv_morva_pool_item_t> freeList(mv_morva_pool_t* pool) { return {pool->Head, pool->Current}; }

mv_morva_pool_item_t* itemHead(void* item) {
    return reinterpret_cast<mv_morva_pool_item_t*>(static_cast<char*>(item) - sizeof(mv_morva_pool_item_t));
}

// Called with the pool's lock held, or before the pool is shared.
bool growPool(mv_morva_pool_t* pool, uint32_t count) {
    size_t stride = itemStride(pool->Sz);
    auto* slab = static_cast<char*>(__mv_malloc_block(stride * count, __FILE_NAME__, __LINE__));
    if (!slab) return false;
    if (!pool->Slab) pool->Slab = slab;
    for (uint32_t i = 0; i < count; ++i) {
        auto* h = reinterpret_cast<mv_morva_pool_item_t*>(slab + stride * i);
        h->parent = pool;
        h->index = pool->Total++;
        freeList(pool).pushTail(h);
    }
    pool->Available += count;
    return true;
}

}  // namespace

mv_morva_pool_t* __mv_pool_create(const char* name, uint32_t objSize, uint32_t count, uint32_t extend) {
    if (objSize == 0 || count == 0) return nullptr;
    auto* pool = __mv_arena_new<mv_morva_pool_t>();
    snprintf(pool->name, sizeof pool->name, "%s", name ? name : "");
    pool->Sz = objSize;
    pool->Extend = extend;
    if (!growPool(pool, count)) return nullptr;
    return pool;
}

void* __mv_pool_allocate(mv_morva_pool_t* pool) {
    if (!pool) return nullptr;
    std::lock_guard g(pool->mLock);
    if (!pool->Head) {
        if (!pool->Extend || !growPool(pool, MV_POOL_EXTEND_COUNT)) return nullptr;
    }
    mv_morva_pool_item_t* h = freeList(pool).popHead();
    --pool->Available;
    return h + 1;
}

void __mv_pool_release(void* item) {
    if (!item) return;
    mv_morva_pool_item_t* h = itemHead(item);
    mv_morva_pool_t* pool = h->parent;
    if (!pool) return;
    std::lock_guard g(pool->mLock);
    if (!freeList(pool).give(h)) return;
    ++pool->Available;
    ++pool->Used;
}

uint32_t __mv_pool_index(void* item) { return item ? itemHead(item)->index : 0; }

uint32_t __mv_pool_fsm_index(void* item, uint32_t fsmTCount) {
    return (item && fsmTCount) ? itemHead(item)->index % fsmTCount : 0;
}

int __mv_pool_create_index(mv_morva_pool_t* pool) {
    if (!pool) return 0;
    std::lock_guard g(pool->mLock);
    // Items of a growing pool live in several slabs: an index made now would go stale.
    if (pool->Extend == 1) {
        printf("__mv_pool: cannot create index on Extend Enabled\n");
        return 0;
    }
    if (pool->indexDB) return 1;
    if (!pool->Slab) return 0;
    auto** db = static_cast<mv_morva_pool_item_t**>(__mv_malloc(sizeof(mv_morva_pool_item_t*) * pool->Total));
    size_t stride = itemStride(pool->Sz);
    for (uint32_t i = 0; i < pool->Total; ++i)
        db[i] = reinterpret_cast<mv_morva_pool_item_t*>(pool->Slab + stride * i);
    pool->indexDB = db;
    return 1;
}

void* __mv_pool__find(mv_morva_pool_t* pool, uint32_t index) {
    if (!pool || !pool->indexDB || index >= pool->Total) return nullptr;
    return pool->indexDB[index] + 1;
}

void __mv_pool_get_availability(mv_morva_pool_t* pool, uint32_t* Total, uint32_t* Available, uint64_t* Used) {
    if (!pool) return;
    std::lock_guard g(pool->mLock);
    if (Total) *Total = pool->Total;
    if (Available) *Available = pool->Available;
    if (Used) *Used = pool->Used;
}

void __mv_pool_plog(mv_morva_pool_t* pool) {
    if (!pool) return;
    uint32_t t = 0, a = 0;
    uint64_t u = 0;
    __mv_pool_get_availability(pool, &t, &a, &u);
    __mv_log(MV_PER_LOG, LOG_CAT_CORE, MV_LOG_DEBUG, "%-29s   Total=%-8u   Available=%-8u   Used=%-8lu", pool->name, t, a,
             (unsigned long)u);
}

// ---------------------------------------------------------------- linked list

namespace {
mv_fifo::CoreFifo<MV_LinkedList> llPool() {
    return {__mvCore->LinkedListPoolHead, __mvCore->LinkedListPoolCurrent, __mvCore->LinkedListPoolLock,
            __mvCore->TotalLinkedListPoolCount, __mvCore->AvailableLinkedListPoolCount};
}

// Called with the list's lock held.
void unlinkItem(MV_LinkedList* ll, MV_LinkedListItem* it) {
    if (it->Prev) it->Prev->Next = it->Next;
    else ll->Head = it->Next;
    if (it->Next) it->Next->Prev = it->Prev;
    else ll->Current = it->Prev;
    --ll->Count;
    __mv_freeM(it);
}
}  // namespace

void __mv_linked_list_create(int count, int inLockMode) { llPool().add(count, inLockMode); }

MV_LinkedList* __mv_linked_list_allocate() {
    MV_LinkedList* ll = llPool().allocate(5);
    std::lock_guard g(ll->Lock);
    ll->Head = ll->Current = nullptr;
    ll->Count = 0;
    return ll;
}

void __mv_linked_list_release(MV_LinkedList* linkedList) {
    if (linkedList) llPool().release(linkedList);
}

int __mv_linked_list_add(MV_LinkedList* ll, void* dataPtr) {
    if (!ll) return 0;
    auto* it = static_cast<MV_LinkedListItem*>(__mv_allocM(sizeof(MV_LinkedListItem)));
    if (!it) return 0;
    it->Next = nullptr;
    it->dataPtr = dataPtr;
    std::lock_guard g(ll->Lock);
    it->Prev = ll->Current;
    if (ll->Current) ll->Current->Next = it;
    else ll->Head = it;
    ll->Current = it;
    ++ll->Count;
    return 1;
}

int __mv_linked_list_push(MV_LinkedList* ll, void* dataPtr) { return __mv_linked_list_add(ll, dataPtr); }

void* __mv_linked_list_pop(MV_LinkedList* ll) {
    if (!ll) return nullptr;
    std::lock_guard g(ll->Lock);
    MV_LinkedListItem* it = ll->Head;
    if (!it) return nullptr;
    void* data = it->dataPtr;
    unlinkItem(ll, it);
    return data;
}

void* __mv_linked_list_get_item(MV_LinkedList* ll, int index) {
    if (!ll || index < 0) return nullptr;
    std::lock_guard g(ll->Lock);
    MV_LinkedListItem* it = ll->Head;
    for (int i = 0; it && i < index; ++i) it = it->Next;
    return it ? it->dataPtr : nullptr;
}

int __mv_linked_list_count(MV_LinkedList* ll) {
    if (!ll) return 0;
    std::lock_guard g(ll->Lock);
    return ll->Count;
}

void __mv_linked_list_removeAll(MV_LinkedList* ll) {
    if (!ll) return;
    std::lock_guard g(ll->Lock);
    for (MV_LinkedListItem* it = ll->Head; it;) {
        MV_LinkedListItem* next = it->Next;
        __mv_freeM(it);
        it = next;
    }
    ll->Head = ll->Current = nullptr;
    ll->Count = 0;
}

int __mv_linked_list_remove_item(MV_LinkedList* ll, void* u8ItemToRemove) {
    if (!ll) return 0;
    std::lock_guard g(ll->Lock);
    for (MV_LinkedListItem* it = ll->Head; it; it = it->Next) {
        if (it->dataPtr == u8ItemToRemove) {
            unlinkItem(ll, it);
            return 1;
        }
    }
    return 0;
}

int __mv_linked_list_remove_itemAt(MV_LinkedList* ll, int index) {
    if (!ll || index < 0) return 0;
    std::lock_guard g(ll->Lock);
    MV_LinkedListItem* it = ll->Head;
    for (int i = 0; it && i < index; ++i) it = it->Next;
    if (!it) return 0;
    unlinkItem(ll, it);
    return 1;
}

// ---------------------------------------------------------------- service requests

namespace {
mv_fifo::CoreFifo<MV_ServiceRequest> srPool() {
    return {__mvCore->ServiceRequestHead, __mvCore->ServiceRequestCurrent, __mvCore->ServiceRequestLock,
            __mvCore->ServiceRequestTotalPoolCount, __mvCore->ServiceRequestAvailablePoolCount};
}
mv_fifo::CoreFifo<MV_Activity> actPool() {
    return {__mvCore->ActivityHead, __mvCore->ActivityCurrent, __mvCore->ActivityLock,
            __mvCore->ActivityTotalPoolCount, __mvCore->ActivityAvailablePoolCount};
}
}  // namespace

void __mv_ServiceRequest__create(int count, int inLockMode) { srPool().add(count, inLockMode); }

MV_ServiceRequest* __mv_ServiceRequest__allocate() { return srPool().allocate(1000); }

MV_ServiceRequest* __mv_ServiceRequest__allocate2(uint32_t InterfaceId, uint32_t ApiId, uint32_t requestDataObjectSize) {
    MV_ServiceRequest* sr = __mv_ServiceRequest__allocate();
    sr->InterfaceId = InterfaceId;
    sr->ApiId = ApiId;
    sr->Timer = nullptr;
    sr->TimeOutSeconds = 0;
    sr->transportObject = nullptr;
    sr->transportObjectRetain = 0;
    sr->Object = nullptr;
    sr->Data = nullptr;
    sr->ResponseData = nullptr;
    sr->ResponseContentType = nullptr;
    sr->userData = nullptr;
    sr->userData_u32 = 0;
    sr->ResponseDataLength = 0;
    sr->ErrorCode = 0;
    sr->RetryCount = 0;
    sr->location = nullptr;
    sr->RouteOn = 0;
    sr->Route = nullptr;
    sr->NssaiCount = 0;
    sr->logtag[0] = 0;
    sr->serviceName[0] = 0;
    sr->DataItemHead = sr->DataItemCurrent = nullptr;
    sr->onTimeOut = sr->onResponse = sr->onHttp2Response = nullptr;
    sr->selInterface = nullptr;
    sr->OnIfSelection = nullptr;
    if (requestDataObjectSize) {
        sr->Data = __mv_allocM(requestDataObjectSize);
        if (sr->Data) memset(sr->Data, 0, requestDataObjectSize);
    }
    return sr;
}

void __mv_ServiceRequest__release(MV_ServiceRequest* sr) {
    if (!sr) return;
    {
        // Only the holder frees the attached blocks, and only once.
        std::lock_guard g(__mvCore->ServiceRequestLock);
        if (sr->isReleased) return;
    }
    __mv_freeM(sr->Data);
    __mv_freeM(sr->ResponseData);
    __mv_freeM(sr->ResponseContentType);
    __mv_freeM(sr->location);
    sr->Data = sr->ResponseData = nullptr;
    sr->ResponseContentType = sr->location = nullptr;
    srPool().release(sr);
}

void __mv_ServiceRequest__setLogTag(MV_ServiceRequest* sr, const char* str) {
    if (!sr) return;
    size_t n = str ? strlen(str) : 0;
    if (n > 19) n = 0;
    if (n) memcpy(sr->logtag, str, n);
    sr->logtag[n] = 0;
}

void __mv_ServiceRequest__setLogTag_u64(MV_ServiceRequest* sr, uint64_t val) {
    if (sr) snprintf(sr->logtag, sizeof sr->logtag, "%lu", (unsigned long)val);
}

MV_ServiceRequestManager* __mv_ServiceRequestManager__create() { return __mv_arena_new<MV_ServiceRequestManager>(); }

namespace {
// Called with the manager's lock held.
MV_ServiceApi* findApi(MV_ServiceRequestManager* srm, uint32_t interfaceId, uint32_t apiId, MV_ServiceInterface** ifOut) {
    MV_ServiceInterface* itf = srm->InterfaceHead;
    while (itf && itf->InterfaceId != interfaceId) itf = itf->Next;
    if (ifOut) *ifOut = itf;
    if (!itf) return nullptr;
    MV_ServiceApi* api = itf->ApiHead;
    while (api && api->ApiId != apiId) api = api->Next;
    return api;
}

int lookup(MV_ServiceRequestManager* srm, MV_ServiceRequest* sr, ServiceExecutionFunction* fn) {
    if (!srm || !sr) return -1;
    std::lock_guard g(srm->Lock);
    MV_ServiceApi* api = findApi(srm, sr->InterfaceId, sr->ApiId, nullptr);
    if (!api) return -1;
    if (!api->func) return -ENOENT;
    *fn = api->func;
    return 1;
}

struct AsyncCall {
    ServiceExecutionFunction fn;
    MV_ServiceRequest* sr;
};
}  // namespace

int __mv_ServiceRequestManager__register(MV_ServiceRequestManager* srm, uint32_t interfaceId, uint32_t apiId,
                                         ServiceExecutionFunction func) {
    if (!srm) return -1;
    std::lock_guard g(srm->Lock);
    MV_ServiceInterface* itf = nullptr;
    if (findApi(srm, interfaceId, apiId, &itf)) return 0;
    if (!itf) {
        itf = __mv_arena_new<MV_ServiceInterface>();
        itf->InterfaceId = interfaceId;
        itf->Next = srm->InterfaceHead;
        srm->InterfaceHead = itf;
    }
    auto* api = __mv_arena_new<MV_ServiceApi>();
    api->ApiId = apiId;
    api->func = func;
    api->Next = itf->ApiHead;
    itf->ApiHead = api;
    return 1;
}

int __mv_ServiceRequestManager__execute(MV_ServiceRequestManager* srm, MV_ServiceRequest* sr) {
    ServiceExecutionFunction fn = nullptr;
    int rc = lookup(srm, sr, &fn);
    if (rc != 1) return rc;
    fn(sr);
    return 1;
}

int __mv_ServiceRequestManager__executeAsync(MV_ServiceRequestManager* srm, MV_ServiceRequest* sr) {
    ServiceExecutionFunction fn = nullptr;
    int rc = lookup(srm, sr, &fn);
    if (rc != 1) return rc;
    auto* call = static_cast<AsyncCall*>(__mv_allocM(sizeof(AsyncCall)));
    if (!call) return 0;
    *call = {fn, sr};
    __mv_core_queue(call, [](void* d) {
        AsyncCall c = *static_cast<AsyncCall*>(d);
        __mv_freeM(d);
        c.fn(c.sr);
    });
    return 1;
}

// ---------------------------------------------------------------- activities

void __mv_Activity__create(int count, int inLockMode) { actPool().add(count, inLockMode); }
MV_Activity* __mv_Activity__allocate() {
    MV_Activity* a = actPool().allocate(1000);
    *a = MV_Activity{};  // the holder owns the record now; nothing else reads it
    return a;
}
void __mv_Activity__release(MV_Activity* activity) {
    if (activity) actPool().release(activity);
}

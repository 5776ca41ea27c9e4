// Stand-ins for the record pools and size classes that the core start fills; the
// full pooled allocator replaces this file.
#include "mv_core.h"

void __mv_createStreamPool(int, int) {}
void __mv_createEventPool(int, int) {}
void __mv_createTaskPool(int, int) {}
void __mv_initalize_MemoryPools() {}

void __mv_log_buffer_memory_stats() {
    if (!__mvCore->enableStackPerLog) return;
    __mv_core_queue_update_backlog();
}

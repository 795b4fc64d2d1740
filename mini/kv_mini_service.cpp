#include "mini/kv_mini_service.h"

#include <pthread.h>

#include <atomic>

#include "common/kv_platform.h"
#include "common/kv_raii.h"
#include "mini/kv_hvloop_pool.h"
#include "mini/kv_mini_discovery.h"
#include "mini/kv_mini_protocol.h"

namespace {

std::atomic<int> g_serviceStarted;
// The exit handler may stop the services while another thread starts them.
pthread_mutex_t g_serviceLock = PTHREAD_MUTEX_INITIALIZER;

}  // namespace

int KV_MINI_ServiceStart(void) {
    const MutexGuard guard(&g_serviceLock);
    g_serviceStarted = 1;
    (void)KV_HV_LoopPoolStart();
    (void)KV_MINI_DiscoverInit();
    (void)KV_MINI_ProtocolInit(kv::kProtocolPort);
    return 0;
}

int KV_MINI_ServiceStop(void) {
    const MutexGuard guard(&g_serviceLock);
    g_serviceStarted = 0;
    KV_HV_LoopPoolAnnounceEnd();
    (void)KV_MINI_DiscoverDeInit();
    (void)KV_MINI_ProtocolDeInit();
    (void)KV_HV_LoopPoolDeInit();
    return 0;
}

int KV_MINI_ServiceIsStarted(void) {
    return g_serviceStarted;
}

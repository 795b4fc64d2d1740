#include "main/kv_recovery.h"

#include "mini/kv_mini_service.h"
#include "wifi/kv_wifi_sta.h"

void KV_RECOVERY_Start(void) {
    (void)__KV_WIFI_StaSupplicant();
    (void)KV_MINI_ServiceStart();
}

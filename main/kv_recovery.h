// Recovery: the device joins the service Wi-Fi network and waits for a technician's tool.
#pragma once

// Starts the Wi-Fi station on the service network, then the mini services. A part that cannot start
// logs it; the other starts all the same. Main thread. Blocks as long as KV_WIFI_StaConnect and
// KV_MINI_ServiceStart, not for the network.
void KV_RECOVERY_Start(void);

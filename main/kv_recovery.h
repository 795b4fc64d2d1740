// Recovery: the device joins the service Wi-Fi network and waits for a technician's tool.
#pragma once

// Starts the Wi-Fi station on the service network, then the mini services. A part that cannot start
// logs the failure; the other part still starts. Main thread. Blocks as long as KV_WIFI_StaConnect
// and KV_MINI_ServiceStart do, but does not wait for the network.
void KV_RECOVERY_Start(void);

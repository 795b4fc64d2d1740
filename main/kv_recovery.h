// Recovery: the device joins the service Wi-Fi network and serves a technician's tool.
#pragma once

// Starts the Wi-Fi station on the service network, then the mini services. A part that cannot start
// reports it in the log; the other one starts all the same. Main thread; does not wait for the
// network.
void KV_RECOVERY_Start(void);

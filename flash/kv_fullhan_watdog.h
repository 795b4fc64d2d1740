// Watchdog keeper: arms the hardware watchdog and feeds it once a second from its own thread. A
// process can arm it once; after a stop or a reboot request it cannot be started again.
#pragma once

// Opens "/dev/watchdog", sets the time-out to 30 s and starts the feeder. Any thread, once, before
// the other calls; does not block. Returns 0. Returns -1 with a log line if it was already started,
// or if the device cannot be opened or refuses the time-out; in the last case the device stays open
// and unfed. Aborts the process if the feeder cannot be created.
int KV_FH_WDT_Start(void);

// Disarms and closes the device and ends the feeder. Any thread; blocks for one feed and one second
// at most, but for ever if KV_FH_WDT_Reboot has kept the lock. Returns 0. A later KV_FH_WDT_Start
// is refused. A second stop logs the same and changes nothing. Without a start, a stop only logs.
int KV_FH_WDT_Stop(void);

// Ends the feeder at once and leaves the device armed. The hardware then resets the board within
// the time-out even if everything else hangs. Any thread; blocks only for a feed in progress.
// Returns 0. If the feeder is not running, the keeper's lock stays held, and a later stop or
// reboot request blocks. So call it only before a reboot.
int KV_FH_WDT_Reboot(void);

// Returns 1 once KV_FH_WDT_Reboot has stopped the feeder: the hardware is about to reset the
// device. Any thread; does not block.
int KV_FH_WDT_IsStarving(void);

// Console handler of "kv-watdog". The first argument is "Stop", "Start" or "Reboot"; anything else
// does nothing. Writes its answer to `reply` (32 bytes are enough). Console thread; blocks as the
// named operation does. Returns 0.
int KV_FH_WDT_ConsoleCmd(int argc, const char* command, char* const* argv, char* reply);

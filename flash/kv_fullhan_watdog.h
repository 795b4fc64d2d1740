// Watchdog keeper: arms the hardware watchdog and feeds it once a second from a thread of its own.
// One keeper a process, armed once: after a stop or a reboot request there is no way back.
#pragma once

// Opens "/dev/watchdog", sets the time-out to 30 s and starts the feeder. Any thread, once, before
// the other calls; does not block. 0, or -1 traced: already started, no device, or the time-out was
// refused (the descriptor then stays open, unfed). Aborts the process when the feeder cannot be
// created.
int KV_FH_WDT_Start(void);

// Disarms the device, closes it and ends the feeder. Any thread; blocks until the feeder has ended,
// at the latest one feed and one second later. Always 0. A later KV_FH_WDT_Start is refused, a
// second stop does nothing but trace.
int KV_FH_WDT_Stop(void);

// Ends the feeder at once and leaves the device armed, so the hardware resets the board within the
// time-out even if everything else hangs. Any thread; blocks for a feed in progress at most. Always
// 0. When the feeder does not run, the keeper's lock stays held and a later stop blocks: call it
// only on the way into a reboot.
int KV_FH_WDT_Reboot(void);

// 1 once KV_FH_WDT_Reboot has stopped the feeder: the hardware is about to reset the device. Any
// thread; does not block.
int KV_FH_WDT_IsStarving(void);

// Console handler of "kv-watdog": the first argument is "Stop", "Start" or "Reboot"; any other
// word, or none, does nothing. Writes its answer at `reply` (room for 32 bytes). Console thread;
// blocks as the named operation does. Always 0.
int KV_FH_WDT_ConsoleCmd(int argc, const char* command, char* const* argv, char* reply);

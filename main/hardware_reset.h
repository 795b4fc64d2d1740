// Reset button: while cameraMain is silent, ten pressed samples one second apart clear the
// persistent settings and reboot. Started and stopped by the monitor, on the supervisor loop's
// thread; neither call blocks.
#pragma once

// Starts watching the button; does nothing while it is watched. Each success sets the process to
// ignore SIGPIPE, as start-up has done already. 0, or -1 printed when no thread can be created
// (later calls then return 0 without trying again).
int HardwareResetStart(void);

// Asks the thread to end; it does so within one second, by itself. A start within that second
// leaves two threads watching until the next stop. A reset that has begun goes on.
void HardwareResetStop(void);

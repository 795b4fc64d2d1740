// Reset button: while cameraMain is silent, ten pressed samples one second apart delete the
// persistent settings and reboot. Only the monitor calls these functions, on the supervisor loop's
// thread. They do not block.
#pragma once

// Starts watching the button. Does nothing if it is already watched. Starting the thread also makes
// the process ignore SIGPIPE, which start-up has already done. Returns 0. Returns -1 and prints the
// reason if no thread can be created; later calls then return 0 without trying again, until a stop.
int HardwareResetStart(void);

// Asks the thread to end; it ends within a second. A start within that second leaves two threads
// watching until the next stop. Does not stop a reset that has begun.
void HardwareResetStop(void);

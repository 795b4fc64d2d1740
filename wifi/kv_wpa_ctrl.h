// Client of the supplicant's control interface. It is a Unix datagram socket: each text command
// gets a text reply, and an attached client also gets events (first byte "<").
//
// A connection belongs to the thread that opened it. Threads may use their own connections at the
// same time; each has its own client socket "/tmp/wpa_ctrl_<pid>-<number>".
#pragma once

#include <cstddef>

// Size of an ordinary reply. Its buffer needs one byte more, because wifi_run_cmd adds a NUL after
// the received bytes.
constexpr size_t kWpaReplySize = 1024;

struct wpa_ctrl;

// Connects to the supplicant's socket at `path`. Does not block. Returns the connection, which the
// caller frees with wpa_ctrl_close, or null; a failure leaves neither a descriptor nor a file.
wpa_ctrl* wpa_ctrl_open(const char* path);

// Removes the client socket's file, closes the socket and frees the connection. Accepts null.
void wpa_ctrl_close(wpa_ctrl* ctrl);

// Nothing in this program calls wpa_ctrl_cleanup, wpa_ctrl_attach, wpa_ctrl_detach or
// wpa_ctrl_get_fd.

// Removes every client socket file below "/tmp", including those of other processes. For the
// clean-up after crashes, while nobody has a connection.
void wpa_ctrl_cleanup();

// Receives events that arrive during a wait for a reply: terminated text and its length.
using WpaEventCallback = void (*)(char* message, size_t length);

// Sends `command` and waits for its reply.
//   reply, replyLength  buffer and its size; the size becomes the number of bytes received, which
//                       are not terminated
//   onEvent             may be null; events are then dropped
// Blocks for at most about 6 s while the supplicant's queue is full, then 10 s for the reply; each
// event restarts the 10 s. Returns 0. Returns -1 with errno if the command cannot be sent, or if
// the wait or the receive fails; -2 if no reply comes. A failure leaves the size unchanged and the
// contents undefined.
int wpa_ctrl_request(wpa_ctrl* ctrl, const char* command, size_t commandLength, char* reply,
                     size_t* replyLength, WpaEventCallback onEvent);

// Start and stop events on this connection. Block like a request. Return 0 if the supplicant
// agrees, -1 if it does not, or the request's error.
int wpa_ctrl_attach(wpa_ctrl* ctrl);
int wpa_ctrl_detach(wpa_ctrl* ctrl);

// Reads one message that has arrived, at most *length bytes; *length becomes its size. Does not
// block. Returns 0, or -1 with errno (EAGAIN: no message).
int wpa_ctrl_recv(wpa_ctrl* ctrl, char* buffer, size_t* length);

// Returns the connection's socket, for poll or select.
int wpa_ctrl_get_fd(const wpa_ctrl* ctrl);

// Sends one command over a new connection to "wpa_supplicant/wlan0" below the run path or, if
// nobody listens there, below "/tmp". Any thread; blocks like a request.
//   reply, replyLength  a buffer with one spare byte after *replyLength; receives the reply as a
//                       terminated text and its length; empty on failure
// Returns the request's result, or -1 with a log line if it cannot connect.
int wifi_run_cmd(const char* command, char* reply, size_t* replyLength);

// Sets the run path. Keeps the pointer, so the text must stay valid while this module is used. Any
// thread; does not block.
void KV_WIFI_SetRunPath(const char* path);

// Starts the thread that logs the supplicant's events, or stops it if it runs. A stopped thread
// ends within a second (up to 16 s while it still attaches). Any thread; does not block. Returns 0.
// Aborts the process if no thread can be created. Only the debug handler calls it.
int KV_WIFI_CtrlListen();

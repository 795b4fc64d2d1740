// Client of the supplicant's control interface: a Unix datagram socket on which a text command is
// answered by a text reply, and on which an attached client is sent events (first byte "<").
//
// A connection belongs to the thread that opened it. Different threads may each use their own at
// the same time; every one has a client socket "/tmp/wpa_ctrl_<pid>-<number>" of its own.
#pragma once

#include <cstddef>

// What a reply buffer of ordinary size receives. Such a buffer has one byte more: wifi_run_cmd ends
// the text behind the received bytes, however many they are.
constexpr size_t kWpaReplySize = 1024;

struct wpa_ctrl;

// Connects to the supplicant's socket at `path`. Does not block. Returns the connection, owned by
// the caller until wpa_ctrl_close, or null; after null neither a descriptor nor a file is left.
wpa_ctrl* wpa_ctrl_open(const char* path);

// Removes the client socket's name, closes it, frees the connection. Null is accepted.
void wpa_ctrl_close(wpa_ctrl* ctrl);

// wpa_ctrl_cleanup, wpa_ctrl_attach, wpa_ctrl_detach and wpa_ctrl_get_fd have no caller in this
// program.

// Removes every client socket name below "/tmp", also those of other processes: for the clean-up
// after crashes, while nobody holds a connection.
void wpa_ctrl_cleanup();

// Receives events that arrive while a reply is awaited: terminated text and its length.
using WpaEventCallback = void (*)(char* message, size_t length);

// Sends `command` and waits for its reply.
//   reply, replyLength  buffer and its size; the size becomes the number of bytes received, which
//                       are not terminated
//   onEvent             may be null; events are then dropped
// Blocks for at most about 6 s while the supplicant's queue is full, then 10 s for the reply; each
// event starts the 10 s again. Returns 0; -1 when the command could not be sent or the wait or the
// receiving failed (errno tells why); -2 when no reply came. On failure the size is as given, the
// contents are undefined.
int wpa_ctrl_request(wpa_ctrl* ctrl, const char* command, size_t commandLength, char* reply,
                     size_t* replyLength, WpaEventCallback onEvent);

// Start and end the sending of events to this connection. Block like a request. Return 0 when the
// supplicant agreed, -1 when it did not, or the request's error.
int wpa_ctrl_attach(wpa_ctrl* ctrl);
int wpa_ctrl_detach(wpa_ctrl* ctrl);

// Takes one message that has arrived, at most *length bytes; *length becomes its size. Does not
// block. Returns 0, or -1 with errno (EAGAIN: nothing there).
int wpa_ctrl_recv(wpa_ctrl* ctrl, char* buffer, size_t* length);

// The connection's socket, for waiting on it.
int wpa_ctrl_get_fd(const wpa_ctrl* ctrl);

// Sends one command over a connection of its own: to "wpa_supplicant/wlan0" below the run path, and
// when nobody listens there, to the same below "/tmp". Any thread; blocks like a request.
//   reply, replyLength  a buffer with one spare byte behind *replyLength; afterwards the reply as
//                       terminated text and its length, the empty text on failure
// Returns the request's result, or -1, traced, when there was nobody to connect to.
int wifi_run_cmd(const char* command, char* reply, size_t* replyLength);

// Sets the run path. Keeps the pointer: the text must outlive the program's use of this module.
// Any thread; does not block.
void KV_WIFI_SetRunPath(const char* path);

// Starts the thread that traces the supplicant's events, or stops it when it runs; a stopped one
// ends by itself within a second (up to 10 s while it still waits to be let in). Any thread; does
// not block. Returns 0; aborts the process when no thread can be created. Only the
// debug handler calls it.
int KV_WIFI_CtrlListen();

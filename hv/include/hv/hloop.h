// Event loop: the part of libhv's API that the daemon calls, with libhv's names and meaning, over
// libevent. A build with -DKV_HV=system uses an installed libhv instead; nothing outside hv/ may
// rely on more than stands here.
//
// Threads: a loop belongs to the thread that runs it. Unless said otherwise a function may be
// called from that thread only, or before the loop runs. Callbacks run on the loop's thread, one at
// a time. Nothing here blocks, hloop_run apart.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/socket.h>

struct hloop_s;
struct hio_s;
struct htimer_s;
typedef struct hloop_s hloop_t;
typedef struct hio_s hio_t;
typedef struct htimer_s htimer_t;

// An event posted to a loop. The poster clears it with memset and fills in `cb` and `userdata`
// (libhv's own record has more members); `loop` is set by the loop. The macros also take an io or a
// timer: each has the loop it belongs to and one pointer of its user's.
typedef struct hevent_s hevent_t;
typedef void (*hevent_cb)(hevent_t* ev);
struct hevent_s {
    hloop_t* loop;
    hevent_cb cb;
    void* userdata;
};
#define hevent_loop(ev) (((hevent_t*)(ev))->loop)
#define hevent_userdata(ev) (((hevent_t*)(ev))->userdata)
#define hevent_set_userdata(ev, udata) ((hevent_t*)(ev))->userdata = (void*)(udata)

typedef void (*htimer_cb)(htimer_t* timer);
typedef void (*haccept_cb)(hio_t* io);
typedef void (*hread_cb)(hio_t* io, void* buf, int readbytes);
typedef void (*hwrite_cb)(hio_t* io, const void* buf, int writebytes);
typedef void (*hclose_cb)(hio_t* io);

#define HLOOP_FLAG_AUTO_FREE 0x00000002
#ifndef INFINITE
#define INFINITE ((uint32_t)-1)
#endif

extern "C" {

// Creates a loop. With HLOOP_FLAG_AUTO_FREE the loop no longer exists once hloop_run returns;
// without it the owner calls hloop_free. Null when the system refuses. Any thread.
hloop_t* hloop_new(int flags = HLOOP_FLAG_AUTO_FREE);
// Frees a loop that does not run, and sets *pp to null. Each io it still holds is closed as it is,
// its close callback running on the caller's thread; timers and events not yet run are dropped.
// Null and *null are accepted. Any thread, once nobody else uses the loop.
void hloop_free(hloop_t** pp);
// Runs the loop on the calling thread until hloop_stop. An idle loop wakes for nothing. 0, or a
// negative value at once for a loop that is null or running.
int hloop_run(hloop_t* loop);
// Ends hloop_run after the callback in progress; what is still posted runs in the next hloop_run.
// From another thread use hloop_post_event with a callback that stops its own loop: that also works
// before the loop runs. 0.
int hloop_stop(hloop_t* loop);
// Number of ios on the loop; an io counts from the moment hio_attach or hio_read took it in, at the
// latest, until it is detached or closed. Any thread; a snapshot.
uint32_t hloop_nios(hloop_t* loop);
// Runs ev->cb on the loop's thread, in the order of posting. The event is copied. Each loop keeps
// room for one event, so that without memory one at a time still arrives; a further one is lost,
// with an ERROR in the log. Any thread.
void hloop_post_event(hloop_t* loop, hevent_t* ev);

// Calls `cb` every `timeoutMs` milliseconds, `repeat` times or for ever (INFINITE); the timer is
// gone after the last call. Null on failure, which a time of 0 is.
htimer_t* htimer_add(hloop_t* loop, htimer_cb cb, uint32_t timeoutMs, uint32_t repeat = INFINITE);

// Servers. `host` is a numeric IPv4 address; "" is every local address. Port 0 lets the system
// choose (see hio_localaddr). All descriptors are close-on-exec and non-blocking. Null with errno
// when the address cannot be bound. Any thread. For TCP, `cb` runs on the loop for every accepted
// connection; a process out of descriptors leaves connections in the backlog without spinning and
// takes them up within a fifth of a second of there being descriptors again. A UDP io starts to
// receive with hio_read.
hio_t* hloop_create_tcp_server(hloop_t* loop, const char* host, int port, haccept_cb cb);
hio_t* hloop_create_udp_server(hloop_t* loop, const char* host, int port);

// Null takes a callback off.
void hio_setcb_read(hio_t* io, hread_cb cb);
void hio_setcb_close(hio_t* io, hclose_cb cb);
// Called after the loop has sent from the queue (libhv also calls it for what hio_write sent at
// once); hio_write_bufsize tells what is left. `buf` and `writebytes` have no meaning here.
void hio_setcb_write(hio_t* io, hwrite_cb cb);
// One pointer of the caller's for each io.
void hio_set_context(hio_t* io, void* ctx);
void* hio_context(hio_t* io);

// Starts reading; once more is harmless. The callback sees at most 8192 bytes (of a longer datagram
// only the first); the byte behind them is NUL (libhv's own leaves that out behind a full 8192).
// The buffer is the loop's and valid during the callback only. The callback may do to its io
// whatever this header offers. When the peer ends the connection the io is closed. Any thread while
// the io is attached to a loop; the io then belongs to that loop's thread. 0, or -1 with errno and
// the io closed.
int hio_read(hio_t* io);
// Stops reading: what arrives stays in the socket until hio_read_start. A read time-out runs on.
int hio_read_stop(hio_t* io);
#define hio_read_start(io) hio_read(io)
// Sends now what the socket takes and queues the rest. Returns the bytes that went out now (0 with
// errno EAGAIN: all is queued), or -1 with errno, after which a connection is closed as soon as the
// callback in progress is over. ENOBUFS: the queue would exceed hio_set_max_write_bufsize, or those
// of all ios together 512 KiB (libhv has no limit for all). On a UDP io the bytes go, as one
// datagram, to the sender of the datagram last read; they are never queued, and a failure leaves
// the io as it is. Raises no SIGPIPE.
int hio_write(hio_t* io, const void* buf, size_t len);
// Bytes that are queued and not sent yet.
size_t hio_write_bufsize(hio_t* io);
// Bytes that may be queued at most; as long as it is not called, 512 KiB (libhv: 16 MiB).
void hio_set_max_write_bufsize(hio_t* io, uint32_t size);
// Closes after what is queued is sent (given up after 60 s), runs the close callback, frees the io.
// From the loop's own thread, where the io may still be named until the callback in progress is
// over; from any other thread it is posted to the loop and done there. Closing what is closed, or
// about to be, changes nothing. 0.
int hio_close(hio_t* io);
// Closes the io when nothing arrives for `timeoutMs`; a value below 1 removes the time-out. Counts
// from this call or hio_read, whichever is later, and from each arrival.
void hio_set_read_timeout(hio_t* io, int timeoutMs);

// Moves a connection between loops: detach on the old loop's thread, then attach to the new one.
// Between the two the io is its holder's alone, and hio_close closes it at once. The bundled
// hio_attach may be called from any thread; libhv's own may not (post an event there). After it the
// same thread may go on to set callbacks, context, buffer and time-out, and to write, until its
// hio_read hands the io to the loop.
void hio_detach(hio_t* io);
void hio_attach(hloop_t* loop, hio_t* io);

int hio_fd(hio_t* io);
// Addresses of the connection; for UDP the peer is the sender of the datagram last read.
struct sockaddr* hio_localaddr(hio_t* io);
struct sockaddr* hio_peeraddr(hio_t* io);

}  // extern "C"

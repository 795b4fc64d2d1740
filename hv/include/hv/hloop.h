// Event loop: the part of libhv's API that the program calls, with libhv's names and meaning,
// implemented on libevent. A build with -DKV_HV=system uses an installed libhv instead. Code
// outside hv/ may rely only on what this header promises.
//
// Threads: a loop belongs to the thread that runs it. Unless its comment says otherwise, call a
// function from that thread only, or before the loop runs. With an installed libhv, only that
// thread may open, read and close sockets. Callbacks run on the loop's thread, one at a time. Only
// hloop_run blocks.
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

// An event posted to a loop. The poster clears it with memset and fills in `cb` and `userdata`;
// libhv's own record has more members. The loop sets `loop`. The macros also take an io or a timer:
// each starts with the same record.
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

// Creates a loop. With HLOOP_FLAG_AUTO_FREE, hloop_run frees the loop before it returns; without it
// the owner calls hloop_free. Returns null when memory or descriptors run out. Any thread.
hloop_t* hloop_new(int flags = HLOOP_FLAG_AUTO_FREE);
// Frees a loop that is not running and sets *pp to null. Closes each io still on the loop without
// sending what is queued; the close callbacks run on the caller's thread. Drops timers and events
// that have not run. Accepts a null pp or *pp. Any thread, once nobody else uses the loop.
void hloop_free(hloop_t** pp);
// Runs the loop on the calling thread until hloop_stop. An idle loop does not wake up. Returns 0
// after a stop. Returns a negative value at once if the loop is null or already running.
int hloop_run(hloop_t* loop);
// Ends hloop_run after the current callback. Posted events that have not run stay queued for the
// next hloop_run. From another thread, post an event whose callback stops its own loop; that also
// works before the loop runs. Returns 0, or -1 for a null loop.
int hloop_stop(hloop_t* loop);
// Number of ios on the loop. An io counts from hio_attach or hio_read at the latest, until it is
// detached or closed. Any thread; a snapshot.
uint32_t hloop_nios(hloop_t* loop);
// Runs ev->cb on the loop's thread, in the order of posting. The event is copied. Each loop has a
// spare event for when memory runs out. While that is queued, a further event is lost, with an
// ERROR in the log. Any thread.
void hloop_post_event(hloop_t* loop, hevent_t* ev);

// Calls `cb` every `timeoutMs` milliseconds, `repeat` times or for ever (INFINITE). The timer is
// freed after the last call. Returns null when memory runs out, for a null loop or callback, and
// for a zero time or count.
htimer_t* htimer_add(hloop_t* loop, htimer_cb cb, uint32_t timeoutMs, uint32_t repeat = INFINITE);

// Servers. `host` is a numeric IPv4 address; "" means every local address. Port 0 lets the system
// choose (see hio_localaddr). All descriptors are close-on-exec and non-blocking. Returns null with
// errno when the address cannot be bound. Any thread. TCP: `cb` runs on the loop for every accepted
// connection. When accept fails, for example without free descriptors, connections wait in the
// backlog and the loop tries again every 200 ms. UDP: the io receives nothing until hio_read.
hio_t* hloop_create_tcp_server(hloop_t* loop, const char* host, int port, haccept_cb cb);
hio_t* hloop_create_udp_server(hloop_t* loop, const char* host, int port);

// Null removes the callback.
void hio_setcb_read(hio_t* io, hread_cb cb);
void hio_setcb_close(hio_t* io, hclose_cb cb);
// Called after the loop has sent queued bytes; hio_write_bufsize returns what is left. libhv also
// calls it for bytes that hio_write sent at once. Do not use `buf` and `writebytes`.
void hio_setcb_write(hio_t* io, hwrite_cb cb);
// One pointer for each io, for the caller's use.
void hio_set_context(hio_t* io, void* ctx);
void* hio_context(hio_t* io);

// Starts reading; a second call is harmless. The read callback gets at most 8192 bytes; the rest of
// a longer datagram is lost. A NUL follows the data (libhv omits it after a full 8192 bytes). The
// buffer belongs to the loop and is valid only during the callback. The callback may call any
// function of this header on its io. The loop closes the io when the peer ends the connection. Any
// thread may start an io that is attached to a loop; afterwards the io belongs to that loop's
// thread. Returns 0, or -1 with errno. A failed start closes the io; a detached io (ENOTCONN) stays
// as it is.
int hio_read(hio_t* io);
// Stops reading: new data stays in the socket until hio_read_start. A read time-out keeps running.
int hio_read_stop(hio_t* io);
#define hio_read_start(io) hio_read(io)
// Sends what the socket takes now and queues the rest. Returns the number of bytes sent now; 0 with
// errno EAGAIN means that all is queued. Returns -1 with errno on failure and closes the connection
// after the current callback, except for EMSGSIZE (more than INT_MAX bytes). ENOBUFS: the queue
// would exceed hio_set_max_write_bufsize, or all queues together 512 KiB (libhv has no common
// limit). A UDP io sends the bytes as one datagram to the sender of the last datagram read. It
// never queues them, and a failure leaves it open. Raises no SIGPIPE.
int hio_write(hio_t* io, const void* buf, size_t len);
// Number of bytes queued and not yet sent.
size_t hio_write_bufsize(hio_t* io);
// Limits the queue of this io, in bytes. The default is 512 KiB (libhv: 16 MiB).
void hio_set_max_write_bufsize(hio_t* io, uint32_t size);
// Sends what is queued (for at most 60 s), closes, runs the close callback and frees the io. On the
// loop's own thread the io stays valid until the current callback returns. On any other thread the
// call only posts the close to the loop. Closing an io twice is harmless. Returns 0.
int hio_close(hio_t* io);
// Closes the io when nothing arrives for `timeoutMs` milliseconds. A value below 1 removes the
// time-out. The time counts from this call, from hio_read and from each arrival, whichever came
// last.
void hio_set_read_timeout(hio_t* io, int timeoutMs);

// Move a connection between loops: detach it on the old loop's thread, then attach it to the new
// loop. In between the io belongs to its holder alone, and hio_close closes it at once. The bundled
// hio_attach may be called from any thread; with libhv, post an event to the new loop and attach
// there. After hio_attach the same thread may set callbacks, context and time-out, and write, until
// its hio_read hands the io to the loop.
void hio_detach(hio_t* io);
void hio_attach(hloop_t* loop, hio_t* io);

int hio_fd(hio_t* io);
// Addresses of the connection. For UDP the peer is the sender of the last datagram read.
struct sockaddr* hio_localaddr(hio_t* io);
struct sockaddr* hio_peeraddr(hio_t* io);

}  // extern "C"

// IPv4 configuration of a named interface: addresses, link state, routes and name servers, read and
// set through socket ioctls, the kernel's route table and the resolver's file.
//
// All functions are stateless: each opens what it needs, close-on-exec, and closes it before it
// returns. Any thread may call any of them, several at once. They return 0 on success and -1 on
// failure unless said otherwise, a null argument is a failure, and a failure leaves the output
// as it was. None blocks longer than the system call takes, but KV_NET_CheckInternet. Nothing is
// tried twice.
//
// Nothing in this program calls KV_NET_GetBrocastAddr, KV_NET_GetPptpAddr,
// KV_NET_DetectRoutingAddr, KV_NET_GetDNS_ex, KV_NET_SetDNS, KV_NET_SetDNS_ex or
// KV_NET_CheckInternet.
//
// They are a developer's helpers and report on standard output, not through the trace log: "socket
// error" when no socket can be had, "<function>: ioctl <request> failed" when the kernel refuses.
//
//   ifname   at most 15 characters are used; a longer name is cut there
//   address  a dotted quad. What is no address makes a setter fail before it changes anything.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kv {

// Sizes of the callers' buffers, terminating zero included.
constexpr size_t kNetAddressSize = 16;
constexpr size_t kNetMacTextSize = 18;
constexpr size_t kNetMacSize = 6;
constexpr size_t kNetDnsSize = 32;
constexpr size_t kNetDnsLineSize = 128;

}  // namespace kv

// Hardware address: 6 bytes into `raw`, upper-case "XX:XX:XX:XX:XX:XX" into `text`
// (kv::kNetMacTextSize). Either may be null.
int KV_NET_GetMacAddr(const char* ifname, uint8_t* raw, char* text);

// Addresses of an interface as text; `out` has kv::kNetAddressSize characters. An interface without
// an address is a failure. The peer of an interface that is not point-to-point is its own address.
int KV_NET_GetIpAddr(const char* ifname, char* out);
int KV_NET_GetNetmask(const char* ifname, char* out);
int KV_NET_GetBrocastAddr(const char* ifname, char* out);
int KV_NET_GetPptpAddr(const char* ifname, char* out);

// The kernel gives a new address the netmask of its class, so set the address first. Setting the
// address "0.0.0.0" removes it.
int KV_NET_SetIpAddr(const char* ifname, const char* address);
int KV_NET_SetNetmask(const char* ifname, const char* mask);

// Link of an interface, as its driver reports it: 1 up, 0 down, -1 when it cannot be told. Prints
// "<ifname> LINK up" or "... down".
int KV_NET_GetLinkStatus(const char* ifname);

// 0 when the interface is up (set up by an administrator) or running (up and with a carrier); -1
// when it is not or cannot be asked, silently.
int KV_NET_IsIfUp(const char* ifname);
int KV_NET_IsIfRunning(const char* ifname);

// Removes or adds the default route of the interface through `gateway`.
int KV_NET_DeleteGateway(const char* ifname, const char* gateway);
int KV_NET_AddGateway(const char* ifname, const char* gateway);

// Gateway of the interface's first gateway route, whatever that route's destination is;
// kv::kNetAddressSize characters. -1 when there is none. In this and the next two functions a route
// is the interface's when its device name begins with `ifname`, in upper or lower case.
int KV_NET_GetGateway(const char* ifname, char* out);

// Deletes the default routes through the gateways of all the interface's gateway routes and adds
// one through `gateway`. Returns 0 when the route table could be read, whatever became of the
// changes: read the gateway back to know.
int KV_NET_SetGateway(const char* ifname, const char* gateway);

// Looks for a route of the interface whose destination, as a dotted quad, contains `text`, and
// prints it. 0 when there is one, -1 when not. Routes of other interfaces are listed on standard
// error on the way.
int KV_NET_DetectRoutingAddr(const char* ifname, const char* text);

// First name server of the resolver's file, when the file begins with one; kv::kNetDnsSize
// characters, a longer text is cut. 0 also when there is none or no file: `out` is then untouched.
int KV_NET_GetDNS(char* out);

// Name servers of the first and the second line of the resolver's file, each copied WITHOUT a
// terminating zero: pass zeroed buffers of kv::kNetDnsLineSize. A line that is no name server, or
// has more than 127 characters, leaves its buffer untouched. -1 when the file cannot be opened.
int KV_NET_GetDNS_ex(char* out1, char* out2);

// Replaces the resolver's file by two name servers; the second is 8.8.8.8 when only one is given.
// The texts are not checked; what is over 127 characters altogether is cut. On failure the file
// may be empty.
int KV_NET_SetDNS(const char* dns1);
int KV_NET_SetDNS_ex(const char* dns1, const char* dns2);

// Whether a public name server (8.8.8.8) takes a TCP connection: 1 yes, 0 no, -1 when no socket can
// be had. Says so on standard output. Blocks for the system's connect time-out, about two minutes,
// in a network that drops packets.
int KV_NET_CheckInternet(void);

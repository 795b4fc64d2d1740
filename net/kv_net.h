// IPv4 configuration of a named interface: reads and sets addresses, link state, routes and name
// servers through socket ioctls, the kernel's route table and the resolver's file.
//
// All functions are stateless: each opens what it needs, close-on-exec, and closes it before it
// returns. Any thread may call them, several at once. Unless noted, they return 0 on success and -1
// on failure, a null argument is a failure, and a failure leaves the output unchanged. Only
// KV_NET_CheckInternet blocks. Nothing is retried.
//
// Nothing in this program calls KV_NET_GetBrocastAddr, KV_NET_GetPptpAddr,
// KV_NET_DetectRoutingAddr, KV_NET_GetDNS_ex, KV_NET_SetDNS, KV_NET_SetDNS_ex or
// KV_NET_CheckInternet.
//
// The functions report on standard output, not in the trace log: "socket error" if no socket can be
// opened, "<function>: ioctl <request> failed" if the kernel refuses, "<function>: file
// "/etc/resolv.conf" opened for writing error!". On standard error, by perror: a socket that
// KV_NET_CheckInternet cannot open, and a failed write to the resolver's file.
//
//   ifname   only the first 15 characters are used
//   address  a dotted quad. A setter fails on an invalid one before it changes anything, except
//            KV_NET_SetGateway.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kv {

// Sizes of the callers' buffers, including the terminating NUL.
constexpr size_t kNetAddressSize = 16;
constexpr size_t kNetMacTextSize = 18;
constexpr size_t kNetMacSize = 6;
constexpr size_t kNetDnsSize = 32;
constexpr size_t kNetDnsLineSize = 128;

}  // namespace kv

// Reads the hardware address: 6 bytes into `raw`, upper-case "XX:XX:XX:XX:XX:XX" into `text`
// (kv::kNetMacTextSize). Either may be null.
int KV_NET_GetMacAddr(const char* ifname, uint8_t* raw, char* text);

// Read an address of an interface as text into `out` (kv::kNetAddressSize). They fail if the
// interface has no address. The peer of an interface that is not point-to-point is its own address.
int KV_NET_GetIpAddr(const char* ifname, char* out);
int KV_NET_GetNetmask(const char* ifname, char* out);
int KV_NET_GetBrocastAddr(const char* ifname, char* out);
int KV_NET_GetPptpAddr(const char* ifname, char* out);

// Set the address before the netmask: with a new address the kernel also sets the netmask of its
// class. The address "0.0.0.0" removes the current one.
int KV_NET_SetIpAddr(const char* ifname, const char* address);
int KV_NET_SetNetmask(const char* ifname, const char* mask);

// Returns the link state from the driver: 1 up, 0 down, -1 on failure. Prints "<ifname> LINK up" or
// "... down".
int KV_NET_GetLinkStatus(const char* ifname);

// Return 0 if the interface is up (set up by an administrator) or running (up and with a carrier).
// Return -1 without a message if it is not, or on failure.
int KV_NET_IsIfUp(const char* ifname);
int KV_NET_IsIfRunning(const char* ifname);

// Remove or add the default route of the interface through `gateway`.
int KV_NET_DeleteGateway(const char* ifname, const char* gateway);
int KV_NET_AddGateway(const char* ifname, const char* gateway);

// Reads the gateway of the interface's first gateway route, whatever its destination, into `out`
// (kv::kNetAddressSize). Returns -1 if there is none. Here and in the next two functions a route
// belongs to the interface if its device name begins with `ifname`, ignoring case.
int KV_NET_GetGateway(const char* ifname, char* out);

// Finds the gateways of all the interface's gateway routes and deletes the default routes through
// them. Then adds a default route through `gateway`. Returns 0 if the route table could be read,
// even if a change failed: an invalid `gateway` leaves the interface without a default route. Read
// the gateway back to be sure.
int KV_NET_SetGateway(const char* ifname, const char* gateway);

// Looks for a route of the interface whose destination, as a dotted quad, contains `text`, and
// prints it. Returns 0 if there is one, else -1. On the way it prints the routes of other
// interfaces on standard error.
int KV_NET_DetectRoutingAddr(const char* ifname, const char* text);

// Reads the name server from the first line of the resolver's file into `out` (kv::kNetDnsSize); a
// longer text is cut. Returns 0 even without a server or a file, and then leaves `out` unchanged.
int KV_NET_GetDNS(char* out);

// Copies the name servers of the first two lines of the resolver's file WITHOUT a terminating
// NUL: pass zeroed buffers of kv::kNetDnsLineSize. A buffer stays unchanged if its line names no
// server, is longer than 126 characters or has no newline. Returns -1 if the file cannot be opened.
int KV_NET_GetDNS_ex(char* out1, char* out2);

// Replaces the resolver's file by two name servers; KV_NET_SetDNS writes 8.8.8.8 as the second,
// KV_NET_SetDNS_ex prints what it writes. The texts are not checked. The file's text is cut at 127
// characters. A failure may leave the file empty.
int KV_NET_SetDNS(const char* dns1);
int KV_NET_SetDNS_ex(const char* dns1, const char* dns2);

// Tries a TCP connection to a public name server (8.8.8.8). Returns 1 if it succeeds, 0 if not, -1
// without a socket, and prints the result on standard output. In a network that drops packets it
// blocks for the system's connect time-out, about two minutes.
int KV_NET_CheckInternet(void);

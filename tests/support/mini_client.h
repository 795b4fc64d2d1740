// The client's side of the mini protocol over an open connection, byte for byte and without any of
// kvtool's manners.
#pragma once

#include <cstdint>
#include <string>

namespace kv_test {

// A 32-byte request.
std::string Frame(uint16_t command, uint32_t dataLen = 0, uint32_t count = 0, uint16_t kind = 0,
                  uint32_t session = 0);
// The upgrade request for a package of `packageSize` bytes and its trailer.
std::string UpgradeFrame(uint32_t packageSize);
// "MD5:", the package's digest in lowercase hex and one line end: 37 bytes.
std::string Trailer(const std::string& package);

// Sends all; false when the peer is gone.
bool SendAll(int socket, const std::string& bytes);
// Reads exactly `size` bytes, fewer at the end of the stream or after `timeoutMs` of silence.
std::string Receive(int socket, size_t size, int timeoutMs = 5000);
// Sends a request and reads a reply of `size` bytes.
std::string Exchange(int socket, const std::string& request, size_t size = 32);
// Waits until the peer closes; false after `timeoutMs`.
bool PeerCloses(int socket, int timeoutMs);

uint16_t StatusOf(const std::string& reply);
uint32_t SessionOf(const std::string& reply);

}  // namespace kv_test

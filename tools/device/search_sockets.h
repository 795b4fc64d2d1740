// The sockets of a search. Hundreds of devices may answer it at the same moment.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "common/kv_raii.h"

namespace kvtool {

// Several sockets share one port. The system spreads the answers over them by the sender's address.
// Together they have room for all answers, even with a small limit for each socket.
class SearchSockets {
  public:
    // Throws ToolError(kInternal).
    SearchSockets();

    // The socket to send searches from.
    int Sender() const { return sockets_.front().Get(); }
    // Becomes readable when an answer waits.
    int Waiting() const { return waiting_.Get(); }

    // Gives waiting answers, at most a few hundred, to `take` until it returns false. Does not
    // block. Returns false if `take` returned false.
    using Take = std::function<bool(const uint8_t* data, size_t size, in_addr sender)>;
    bool Drain(const Take& take) const;

  private:
    std::vector<UniqueFd> sockets_;
    UniqueFd waiting_;
};

}  // namespace kvtool

// The sockets of a search: hundreds of devices answer it at the same moment.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "common/kv_raii.h"

namespace kvtool {

// Several sockets share one port; the system spreads the answers over them by the sender's address.
// So there is room for all answers even if the system grants each socket little.
class SearchSockets {
  public:
    // Throws ToolError(kInternal).
    SearchSockets();

    // The socket to send searches from.
    int Sender() const { return sockets_.front().Get(); }
    // Becomes readable when an answer waits.
    int Waiting() const { return waiting_.Get(); }

    // Gives waiting answers to `take`, at most a few hundred, until it returns false. Does not
    // block. Returns false if `take` ended it.
    using Take = std::function<bool(const uint8_t* data, size_t size, in_addr sender)>;
    bool Drain(const Take& take) const;

  private:
    std::vector<UniqueFd> sockets_;
    UniqueFd waiting_;
};

}  // namespace kvtool

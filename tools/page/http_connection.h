// One connection of the HTTP server.
#pragma once

#include "tools/page/http_server.h"

namespace kvtool::page {

// Answers requests until the client closes the connection, is silent for too long, or breaks a
// rule. What interrupts this thread's waits ends it too. Throws nothing.
void ServeConnection(UniqueFd fd, const HttpHandler& handler) noexcept;

}  // namespace kvtool::page

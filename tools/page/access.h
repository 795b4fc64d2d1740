// Who may talk to the page's server. Does no input or output.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>

namespace kvtool::page {

// 128 random bits as 32 hex digits. Throws ToolError(kInternal) if the system gives none.
std::string NewToken();

// Compares in a time that depends on the length of `secret` only.
bool SameSecret(std::string_view given, std::string_view secret);

// The parts of a request that decide whether it may pass.
struct Credentials {
    std::string_view method;
    std::string_view host;         // header Host
    std::string_view origin;       // header Origin; empty: none
    std::string_view cookie;       // header Cookie
    std::string_view contentType;  // header Content-Type
    std::string_view fetchSite;    // header Sec-Fetch-Site; empty: none
};

// May be used on any thread.
class Gate {
  public:
    Gate(uint16_t port, std::string token);

    // The HTTP status that refuses the request; 0: it may pass. *why gets the reason in words.
    // Without `needsCookie` the request may come without the cookie.
    unsigned Refuse(const Credentials& request, bool needsCookie, std::string* why) const;

    // Whether this is the token, or the one for the browser that this kvtool starts. The latter is
    // valid once: other users of the PC can read a program's arguments.
    bool TakeToken(std::string_view given);
    // A token that is valid once. Replaces the one before.
    std::string TokenForBrowser();
    // The value of a Set-Cookie header.
    std::string SetCookie() const;
    // "http://127.0.0.1:PORT/?token=TOKEN".
    std::string Address(const std::string& token) const;
    const std::string& Token() const { return token_; }

  private:
    bool IsOwnHost(std::string_view host) const;
    bool HasCookie(std::string_view cookies) const;

    uint16_t port_;
    std::string token_;
    std::string cookieName_;
    std::mutex mutex_;  // for the next member
    std::string once_;
};

}  // namespace kvtool::page

#include "tools/page/access.h"

#include <sys/random.h>

#include <array>
#include <cctype>

#include "tools/base/errors.h"
#include "tools/base/text.h"

namespace kvtool::page {

namespace {

constexpr size_t kTokenBytes = 16;
constexpr unsigned kForbidden = 403;
constexpr unsigned kMisdirected = 421;
constexpr unsigned kUnsupportedType = 415;
constexpr uint16_t kHttpPort = 80;

std::string Lower(std::string_view text) {
    std::string lower(text);
    for (char& c : lower) {
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    }
    return lower;
}

bool IsAllowedType(std::string_view type) {
    const std::string plain = Lower(Trimmed(type.substr(0, type.find(';'))));
    return plain == "application/json" || plain == "application/octet-stream";
}

}  // namespace

std::string NewToken() {
    std::array<uint8_t, kTokenBytes> bytes{};
    if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
        throw ToolError(ExitCode::kInternal, "the system gives no random numbers");
    }
    return Lower(Hex(bytes.data(), bytes.size()));
}

bool SameSecret(std::string_view given, std::string_view secret) {
    unsigned difference = given.size() == secret.size() ? 0 : 1;
    for (size_t i = 0; i < secret.size(); ++i) {
        const char c = i < given.size() ? given[i] : '\0';
        difference |= static_cast<unsigned char>(c ^ secret[i]);
    }
    return difference == 0;
}

Gate::Gate(uint16_t port, std::string token)
    : port_(port), token_(std::move(token)), cookieName_("kvtool_" + std::to_string(port)) {}

// Somebody may make a name on the internet point at 127.0.0.1. A browser then sends that name.
bool Gate::IsOwnHost(std::string_view host) const {
    const std::string given = Lower(host);
    for (const char* const name : {"127.0.0.1", "[::1]", "localhost"}) {
        if (given == name + (":" + std::to_string(port_)) ||
            (port_ == kHttpPort && given == name)) {
            return true;
        }
    }
    return false;
}

bool Gate::HasCookie(std::string_view cookies) const {
    while (!cookies.empty()) {
        const size_t end = cookies.find(';');
        const std::string cookie = Trimmed(cookies.substr(0, end));
        const size_t equals = cookie.find('=');
        if (equals != std::string::npos && cookie.compare(0, equals, cookieName_) == 0 &&
            SameSecret(std::string_view(cookie).substr(equals + 1), token_)) {
            return true;
        }
        cookies = end == std::string_view::npos ? std::string_view() : cookies.substr(end + 1);
    }
    return false;
}

unsigned Gate::Refuse(const Credentials& request, bool needsCookie, std::string* why) const {
    if (!IsOwnHost(request.host)) {
        *why = "this server answers only at its own address";
        return kMisdirected;
    }
    if (needsCookie && !HasCookie(request.cookie)) {
        *why = "open the address that kvtool printed";
        return kForbidden;
    }
    const bool reads = request.method == "GET" || request.method == "HEAD";
    const bool ownOrigin = request.origin == "http://" + std::string(request.host);
    if ((!reads || !request.origin.empty()) && !ownOrigin) {
        *why = "the request does not come from this page";
        return kForbidden;
    }
    if (needsCookie && (request.fetchSite == "cross-site" || request.fetchSite == "same-site")) {
        *why = "the request does not come from this page";
        return kForbidden;
    }
    if (!reads && !IsAllowedType(request.contentType)) {
        *why = "the content type must be application/json or application/octet-stream";
        return kUnsupportedType;
    }
    return 0;
}

bool Gate::TakeToken(std::string_view given) {
    const std::lock_guard<std::mutex> guard(mutex_);
    const bool once = !once_.empty() && SameSecret(given, once_);
    if (once) {
        once_.clear();
    }
    return SameSecret(given, token_) || once;
}

std::string Gate::TokenForBrowser() {
    const std::lock_guard<std::mutex> guard(mutex_);
    once_ = NewToken();
    return once_;
}

std::string Gate::SetCookie() const {
    return cookieName_ + "=" + token_ + "; HttpOnly; SameSite=Strict; Path=/";
}

std::string Gate::Address(const std::string& token) const {
    return "http://127.0.0.1:" + std::to_string(port_) + "/?token=" + token;
}

}  // namespace kvtool::page

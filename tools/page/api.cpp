#include "tools/page/api.h"

#include <algorithm>
#include <sstream>

#include "tools/base/errors.h"
#include "tools/fleet/report.h"

namespace kvtool::page {

namespace {

constexpr size_t kRequestLimit = 1 << 20;
constexpr Millis kBetween{250};  // between two bundles of events, so that many changes go as one
constexpr Millis kPingEvery{5000};
constexpr char kJsonType[] = "application/json";
constexpr char kHtmlType[] = "text/html; charset=utf-8";
constexpr char kPolicy[] =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data:; "
    "connect-src 'self'; form-action 'none'; base-uri 'none'; frame-ancestors 'none'; "
    "require-trusted-types-for 'script'";
constexpr char kNoEntry[] =
    "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><title>kvtool</title></head>"
    "<body><h1>This page needs its key</h1><p>Open the address that kvtool printed. It ends with "
    "\"?token=\" and a long number, and it is new each time kvtool is started.</p></body></html>\n";

constexpr char kWayIn[] =
    "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><title>kvtool</title>"
    "<meta http-equiv=\"refresh\" content=\"0;url=/\"></head>"
    "<body><p><a href=\"/\">Go to the page</a></p></body></html>\n";

std::string TypeOf(std::string_view name) {
    const std::string_view suffix = name.substr(name.rfind('.') + 1);
    return suffix == "html"  ? kHtmlType
           : suffix == "js"  ? "text/javascript; charset=utf-8"
           : suffix == "css" ? "text/css; charset=utf-8"
           : suffix == "svg" ? "image/svg+xml"
                             : "application/octet-stream";
}

HttpReply JsonReply(const std::string& text) {
    HttpReply reply;
    reply.type = kJsonType;
    reply.body = text + "\n";
    return reply;
}

HttpReply JsonReply(const Json& json) {
    return JsonReply(JsonLine(json));
}

HttpReply Done() {
    return JsonReply(Json{{"schema", kJsonSchema}});
}

Json ReadRequest(HttpCall* call) {
    const std::string body = call->Body(kRequestLimit);
    if (Trimmed(body).empty()) {
        return Json::object();
    }
    Json request = Json::parse(body, nullptr, false);
    if (!request.is_object()) {
        throw HttpError(400, "the request is not a JSON object");
    }
    return request;
}

// Counts open pages.
class Place {
  public:
    explicit Place(std::atomic<int>* count) : count_(count) {
        if (++*count_ > Api::kMostStreams) {
            --*count_;
            throw HttpError(503, "the page is open in " + std::to_string(Api::kMostStreams) +
                                     " tabs: close some of them");
        }
    }
    ~Place() { --*count_; }
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;

  private:
    std::atomic<int>* count_;
};

}  // namespace

Api::Api(Gate* gate, Model* model, RunControl* runs, Archive* archive, const RunSettings& settings)
    : gate_(gate), model_(model), runs_(runs), archive_(archive), settings_(settings) {
    const auto add = [this](const char* method, const char* path, Route route) {
        endpoints_.emplace(path, Endpoint{method, route});
    };
    add("GET", "/api/state", &Api::GetState);
    add("GET", "/api/events", &Api::GetEvents);
    add("POST", "/api/package", &Api::PostPackage);
    add("DELETE", "/api/package", &Api::DeletePackage);
    add("POST", "/api/signature", &Api::PostSignature);
    add("POST", "/api/plan", &Api::PostPlan);
    add("POST", "/api/run", &Api::PostRun);
    add("POST", "/api/run/stop", &Api::PostStop);
    add("POST", "/api/run/retry", &Api::PostRetry);
    add("POST", "/api/run/resume", &Api::PostResume);
    add("GET", "/api/report", &Api::GetReport);
    add("GET", "/api/history", &Api::GetHistory);
    for (const Asset& asset : Assets()) {
        tags_[std::string(asset.name)] =
            "\"" +
            Md5Hex(reinterpret_cast<const uint8_t*>(asset.bytes.data()), asset.bytes.size()) + "\"";
    }
}

HttpReply Api::Handle(HttpCall* call) {
    HttpReply reply;
    try {
        reply = Dispatch(call);
    } catch (const HttpError& error) {
        reply = JsonReply(Json{{"schema", kJsonSchema}, {"error", error.what()}});
        reply.status = error.Status();
    } catch (const ToolError& error) {
        if (error.Code() == ExitCode::kInterrupted) {
            throw;
        }
        reply = JsonReply(Json{{"schema", kJsonSchema}, {"error", error.what()}});
        reply.status = error.Code() == ExitCode::kInternal ? 500 : 422;
    }
    reply.headers.emplace_back("Content-Security-Policy", kPolicy);
    reply.headers.emplace_back("X-Content-Type-Options", "nosniff");
    reply.headers.emplace_back("X-Frame-Options", "DENY");
    reply.headers.emplace_back("Referrer-Policy", "no-referrer");
    reply.headers.emplace_back("Cross-Origin-Resource-Policy", "same-origin");
    reply.headers.emplace_back("Cross-Origin-Opener-Policy", "same-origin");
    const bool cached =
        std::any_of(reply.headers.begin(), reply.headers.end(),
                    [](const auto& header) { return header.first == "Cache-Control"; });
    if (!cached) {
        reply.headers.emplace_back("Cache-Control", "no-store");
    }
    return reply;
}

HttpReply Api::Dispatch(HttpCall* call) {
    const std::string_view path = call->Path();
    const bool entrance = path == "/";
    std::string why;
    const Credentials request = {
        call->Method(),         call->Header("Host"),         call->Header("Origin"),
        call->Header("Cookie"), call->Header("Content-Type"), call->Header("Sec-Fetch-Site")};
    const bool hasToken = entrance && !call->Query("token").empty();
    const unsigned refused = gate_->Refuse(request, !hasToken, &why);
    if (refused != 0 && !(entrance && refused == 403)) {
        throw HttpError(refused, why);
    }
    if (refused != 0 || (hasToken && !gate_->TakeToken(call->Query("token")))) {
        HttpReply reply;
        reply.status = 403;
        reply.type = kHtmlType;
        reply.body = kNoEntry;
        return reply;
    }
    if (hasToken) {
        return Enter(call);
    }
    const bool reads = call->Method() == "GET" || call->Method() == "HEAD";
    const std::string method = reads ? "GET" : std::string(call->Method());
    const std::string key(path);
    const auto [first, last] = endpoints_.equal_range(key);
    for (auto endpoint = first; endpoint != last; ++endpoint) {
        if (endpoint->second.method == method) {
            return (this->*endpoint->second.route)(call);
        }
    }
    for (const Asset& asset : Assets()) {
        if (reads &&
            (entrance ? asset.name == "index.html" : path == "/" + std::string(asset.name))) {
            return File(asset, *call);
        }
    }
    throw HttpError(first != last ? 405 : 404, first != last
                                                   ? "this address does not take that method"
                                                   : "there is nothing at this address");
}

// The token in the address becomes a cookie, so it does not stay in the address.
HttpReply Api::Enter(HttpCall* call) {
    HttpReply reply;
    reply.headers.emplace_back("Set-Cookie", gate_->SetCookie());
    const std::string_view site = call->Header("Sec-Fetch-Site");
    if (site.empty() || site == "none" || site == "same-origin") {
        reply.status = 303;
        reply.headers.emplace_back("Location", "/");
    } else {
        // Somebody clicked a link to this address on another page. After a redirect from there, the
        // browser would not send the cookie.
        reply.type = kHtmlType;
        reply.body = kWayIn;
    }
    return reply;
}

HttpReply Api::File(const Asset& asset, const HttpCall& call) const {
    HttpReply reply;
    reply.type = TypeOf(asset.name);
    const std::string& tag = tags_.at(std::string(asset.name));
    reply.headers.emplace_back("ETag", tag);
    reply.headers.emplace_back("Cache-Control", "no-cache");
    if (call.Header("If-None-Match") == tag) {
        reply.status = 304;
    } else {
        reply.body = asset.bytes;
    }
    return reply;
}

HttpReply Api::GetState(HttpCall*) {
    return JsonReply(model_->State());
}

HttpReply Api::GetEvents(HttpCall*) {
    const auto place = std::make_shared<Place>(&streams_);
    HttpReply reply;
    reply.type = "text/event-stream";
    reply.stream = [this, place](HttpStream* stream) { SendEvents(stream); };
    return reply;
}

void Api::SendEvents(HttpStream* stream) {
    const Model::Reader reader(model_);
    uint64_t seq = 0;
    Clock::time_point ping = Clock::now() + kPingEvery;
    try {
        for (;;) {
            reader.Rest();
            const bool quiet = Clock::now() >= ping;
            ping = quiet ? Clock::now() + kPingEvery : ping;
            const std::string events =
                model_->EventsSince(&seq) + (quiet ? "event: ping\ndata: {}\n\n" : "");
            if (!events.empty() && !stream->Write(events)) {
                return;
            }
            // Collects changes meanwhile.
            WaitUntil(Clock::now() + kBetween);
            if (!stream->Wait(reader.Fd(), ping)) {
                return;
            }
        }
    } catch (const ToolError&) {
        // The server is ending. The last event says so.
        (void)stream->Write(model_->EventsSince(&seq));
    }
}

HttpReply Api::PostPackage(HttpCall* call) {
    const std::string name = call->Query("name");
    Bytes bytes = ReceiveFile(call, archive_->Folder());
    const PackagePtr package =
        Inspect(name, std::move(bytes), settings_.layout, settings_.trustedKey);
    runs_->SetPackage(package);
    return JsonReply(package->json);
}

HttpReply Api::DeletePackage(HttpCall* call) {
    (void)call->Body(kRequestLimit);
    runs_->SetPackage(nullptr);
    return Done();
}

HttpReply Api::PostSignature(HttpCall* call) {
    const std::string signature = call->Body(kSignatureLimit);
    const PackagePtr package = runs_->Package();
    if (!package) {
        throw HttpError(409, "there is no package yet");
    }
    const PackagePtr verified = WithSignature(*package, settings_.trustedKey, signature);
    if (!runs_->ReplacePackage(package, verified)) {
        throw HttpError(409, "the package has changed meanwhile");
    }
    return JsonReply(verified->json);
}

HttpReply Api::PostPlan(HttpCall* call) {
    return JsonReply(runs_->PlanFor(ReadRequest(call)));
}

HttpReply Api::PostRetry(HttpCall* call) {
    return JsonReply(runs_->PlanRetry(ReadRequest(call)));
}

HttpReply Api::PostResume(HttpCall* call) {
    return JsonReply(runs_->PlanResume(ReadRequest(call)));
}

HttpReply Api::PostRun(HttpCall* call) {
    const Json request = ReadRequest(call);
    if (!request.contains("plan") || !request["plan"].is_number_integer()) {
        throw HttpError(400, "the request does not name a plan");
    }
    return JsonReply(runs_->Start(request["plan"].get<int>()));
}

HttpReply Api::PostStop(HttpCall* call) {
    (void)call->Body(kRequestLimit);
    runs_->Stop();
    return Done();
}

HttpReply Api::GetReport(HttpCall* call) {
    const std::string format = call->Query("format");
    const fleet::JournalContents journal = archive_->Read();
    if (journal.runs == 0) {
        throw HttpError(404, "there has been no run yet");
    }
    std::ostringstream text;
    HttpReply reply;
    if (format == "csv") {
        reply.type = "text/csv; charset=utf-8";
        fleet::WriteCsv(text, journal);
    } else if (format == "html") {
        reply.type = kHtmlType;
        fleet::WriteHtml(text, journal);
    } else if (format == "json") {
        Json json = {{"schema", kJsonSchema}, {"journal", Printable(archive_->Path())}};
        json.update(fleet::ReportJson(journal));
        reply.type = kJsonType;
        text << JsonLine(json) << '\n';
    } else {
        throw HttpError(400, "format must be csv, html or json");
    }
    reply.body = text.str();
    reply.headers.emplace_back("Content-Disposition",
                               "attachment; filename=\"kvtool-report." + format + "\"");
    return reply;
}

HttpReply Api::GetHistory(HttpCall* call) {
    const std::string device = call->Query("device");
    const Json history = archive_->History(device.substr(0, device.find('@')));
    return JsonReply(
        Json{{"schema", kJsonSchema}, {"device", Printable(device)}, {"journals", history}});
}

}  // namespace kvtool::page

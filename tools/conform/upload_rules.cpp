#include <algorithm>

#include "tools/base/errors.h"
#include "tools/conform/conform.h"

namespace kvtool::conform {

namespace {

constexpr Millis kHeaderGap{300};       // so that the request arrives on its own
constexpr Millis kSilenceLimit{20000};  // the device ends an upload that is silent for this long
constexpr Millis kTolerance{3000};
constexpr Millis kVerdict{60000};
constexpr Millis kPoll{500};
// The writer opens the package 2 s after the acceptance. An upload before that would replace it.
constexpr Millis kWriterHasOpened{4000};

Bytes Trailer(const Bytes& package) {
    const std::string text = kv::kMd5Tag + Md5Hex(package.data(), package.size()) + "\n";
    return Bytes(text.begin(), text.end());
}

// Opens a connection and announces an upload of `size` bytes and a trailer.
Line Announce(const ConformRequest& request, size_t size, Trial* trial) {
    Line line(trial, request.times, request.host, request.commandPort);
    (void)Ask(trial, &line, kv::kCmdLogin, 0);
    line.Send(
        RequestFrame(kv::kCmdUpgrade, 0, static_cast<uint32_t>(size + kv::kMd5TrailerSize), 1));
    trial->Expect(line.Receive(1, Clock::now() + kHeaderGap).empty(),
                  "it answers the request itself");
    return line;
}

void Cut(const ConformRequest& request, Known* /*known*/, Trial* trial) {
    const Bytes& package = request.package;
    Line line = Announce(request, package.size(), trial);
    line.Send(Bytes(package.begin(), package.begin() + static_cast<ptrdiff_t>(package.size() / 2)));
    const Clock::time_point sent = Clock::now();
    const Bytes answer = line.Receive(1, sent + kSilenceLimit + kTolerance);
    const double seconds = SecondsSince(sent);
    trial->Expect(answer.empty(), "it answers an upload that is not complete");
    if (trial->Expect(line.Closed(),
                      "the connection is still open after " + SecondsText(seconds))) {
        trial->Expect(seconds >= Seconds(kSilenceLimit - kTolerance),
                      "the connection ends after " + SecondsText(seconds) + " of silence");
    }
    Line next(trial, request.times, request.host, request.commandPort);
    (void)Ask(trial, &next, kv::kCmdHeartbeat, 0);
}

// Waits until the device has restarted. Logins keep its session, so a new session shows a restart.
bool AwaitRestart(const ConformRequest& request, uint32_t session) {
    const Clock::time_point deadline = Clock::now() + request.restart;
    while (Clock::now() < deadline) {
        try {
            Trial unseen("", "");
            Line line(&unseen, request.times, request.host, request.commandPort);
            const auto reply = Ask(&unseen, &line, kv::kCmdHeartbeat, 0);
            if (reply && reply->header.session != session) {
                return true;
            }
        } catch (const ToolError& error) {
            if (error.Code() == ExitCode::kInterrupted) {
                throw;
            }
        }
        WaitUntil(Clock::now() + kPoll);
    }
    return false;
}

void WrongDigest(const ConformRequest& request, Known* known, Trial* trial) {
    const Bytes& package = request.package;
    Line line = Announce(request, package.size(), trial);
    line.Send(package);
    Bytes trailer = Trailer(package);
    trailer[kv::kMd5TagSize] = trailer[kv::kMd5TagSize] == '0' ? '1' : '0';
    line.Send(trailer);
    trial->Expect(line.Listen().empty(), "it answers");
    trial->Remark("the device restarts");
    trial->Expect(AwaitRestart(request, known->session),
                  "it did not restart within " + SecondsText(Seconds(request.restart)));
}

void Accepted(const ConformRequest& request, Known* known, Trial* trial) {
    const Bytes& package = request.package;
    Line line = Announce(request, package.size(), trial);
    line.Send(package);
    line.Send(Trailer(package));
    const Bytes first = line.Receive(kv::kFrameHeaderSize, Clock::now() + kVerdict);
    if (!trial->Expect(first.size() == kv::kFrameHeaderSize, "it gives no verdict")) {
        return;
    }
    const ReplyHeader header = DecodeReplyHeader(first.data());
    const std::string fault = ReplyFault(header, kv::kCmdUpgrade);
    trial->Expect(fault.empty(), "the verdict has a fault: " + fault);
    trial->Expect(header.status == kv::kStatusDone, "status " + CodeText(header.status));
    trial->Expect(header.dataLen == 0 && header.count == 0, "the verdict announces a payload");
    known->session = header.session;
}

void Busy(const ConformRequest& request, Known* known, Trial* trial) {
    constexpr size_t kAnnounced = 1000;
    constexpr size_t kSent = 100;
    WaitUntil(Clock::now() + kWriterHasOpened);
    try {
        // A device that has restarted meanwhile would take the bytes for a new upload.
        Line look(trial, request.times, request.host, request.commandPort);
        const auto reply = Ask(trial, &look, kv::kCmdHeartbeat, 0);
        if (!reply || reply->header.session != known->session) {
            trial->Skip("the device has already restarted");
            return;
        }
    } catch (const ToolError& error) {
        if (error.Code() == ExitCode::kInterrupted) {
            throw;
        }
        trial->Skip("the device has already left");
        return;
    }
    Line line = Announce(request, kAnnounced, trial);
    line.Send(Bytes(kSent, 0xFF));
    (void)ReadReply(trial, &line, kv::kCmdUpgrade, kv::kStatusUpgradeBusy, 0);
}

}  // namespace

const std::vector<Rule>& UploadRules() {
    static const std::vector<Rule> rules = {
        {"upload_cut", "An upload that stops is ended after 20 s, without an answer", Cut},
        {"upload_digest", "A wrong digest gets no answer; the device restarts", WrongDigest},
        {"upload_accepted", "A right package is accepted with status 0", Accepted},
        {"upload_busy", "After that, other uploads are answered with status 0xFFFF", Busy},
    };
    return rules;
}

}  // namespace kvtool::conform

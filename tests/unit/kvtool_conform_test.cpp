// The rules of `kvtool conform` against devices that break them.
#include "tools/conform/conform.h"

#include <future>
#include <set>

#include "tests/support/fake_device.h"
#include "tools/base/errors.h"

namespace {

using fake::Bytes;
using kvtool::conform::Finding;
using Edit = std::function<Bytes(uint16_t command, Bytes reply)>;
using Rules = std::set<std::string>;

// The fake device answers every kind of request, and the socket below every datagram.
const Rules kAlwaysBroken = {"kind", "refused"};

// Answers every datagram from the port that it came to, as a device does.
class Answering {
  public:
    explicit Answering(Bytes answer)
        : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)),
          port_(fake::Bind(socket_.Get(), "127.0.0.1", 0)),
          thread_([this, answer = std::move(answer)] { Serve(answer); }) {}
    ~Answering() {
        (void)shutdown(socket_.Get(), SHUT_RDWR);  // ends the wait in Serve
        thread_.join();
    }
    uint16_t Port() const { return port_; }

  private:
    void Serve(const Bytes& answer) {
        char datagram[2048];
        sockaddr_in from{};
        socklen_t size = sizeof from;
        while (recvfrom(socket_.Get(), datagram, sizeof datagram, 0,
                        reinterpret_cast<sockaddr*>(&from), &size) > 0) {
            (void)sendto(socket_.Get(), answer.data(), answer.size(), 0,
                         reinterpret_cast<const sockaddr*>(&from), size);
        }
    }

    UniqueFd socket_;
    uint16_t port_;
    std::thread thread_;
};

// The rules that a device with edited replies and this answer to searches breaks. With `skipped`,
// tries uploads too.
Rules Broken(const Edit& edit, Bytes answer, kvtool::Millis reply = kvtool::Millis(5000),
             Rules* skipped = nullptr) {
    fake::Script script;
    script.edit = edit;
    fake::Device device(script);
    const Answering responder(std::move(answer));
    kvtool::conform::ConformRequest request;
    request.host = "127.0.0.1";
    request.commandPort = device.Port();
    request.discoveryPort = responder.Port();
    request.times.reply = reply;
    request.times.silence = kvtool::Millis(1000);
    request.destructive = skipped != nullptr;
    Rules broken;
    Conform(request, [&](const Finding& finding) {
        if (skipped != nullptr && finding.outcome == kvtool::conform::Outcome::kSkipped) {
            skipped->insert(finding.rule);
        }
        if (finding.outcome == kvtool::conform::Outcome::kBroken) {
            broken.insert(finding.rule);
            EXPECT_FALSE(finding.remarks.empty()) << finding.rule;
        }
    });
    return broken;
}

Bytes GoodAnswer() {
    return kv_test::ExpectedReply({"127.0.0.1", "255.0.0.0", "", "", "02:00:5E:10:20:30"});
}

// Changes the byte at `at` of each reply to `command` that is long enough.
Edit Change(uint16_t command, size_t at) {
    return [=](uint16_t which, Bytes reply) {
        if (which == command && reply.size() > at) {
            reply[at] ^= 0x40;
        }
        return reply;
    };
}

TEST(KvtoolConform, FindsTheRuleThatADeviceBreaks) {
    EXPECT_EQ(Broken(nullptr, GoodAnswer()), kAlwaysBroken);
    struct Case {
        std::string rule;
        Edit edit;
        Bytes answer = GoodAnswer();
    };
    std::vector<Case> cases = {
        {"logout", Change(0x0001, 6)},       {"unknown", Change(0x0077, 4)},
        {"unknown", Change(0x0077, 20)},     {"information", Change(0x2003, 33)},
        {"information", Change(0x2003, 99)}, {"serial", Change(0x0101, 16)},
    };
    for (const size_t at : {16U, 20U, 200U, 292U, 543U, 390U}) {
        cases.push_back({at == 390 ? "search" : "constants", nullptr});
        cases.back().answer[at] ^= 0x01;
    }
    // They wait most of the time, so all run at once.
    std::vector<std::future<Rules>> runs;
    for (const Case& c : cases) {
        runs.push_back(std::async(std::launch::async, [&c] { return Broken(c.edit, c.answer); }));
    }
    for (size_t i = 0; i < cases.size(); ++i) {
        Rules expected = kAlwaysBroken;
        expected.insert(cases[i].rule);
        Rules broken = runs[i].get();
        // Device information carries the serial number.
        if (cases[i].rule == "serial") {
            broken.erase("information");
        }
        EXPECT_EQ(broken, expected) << i << " " << cases[i].rule;
    }
}

TEST(KvtoolConform, SurvivesADeviceThatSaysNothingOrTooMuch) {
    Rules skipped;
    const Rules silent = Broken([](uint16_t, const Bytes&) { return Bytes(); }, GoodAnswer(),
                                kvtool::Millis(100), &skipped);
    for (const char* rule : {"upload_cut", "upload_digest", "upload_accepted", "upload_busy"}) {
        EXPECT_EQ(skipped.count(rule), 1U) << rule << ": there is no package for such a device";
    }
    EXPECT_EQ(silent.count("login") + silent.count("at_once") + silent.count("connections"), 3U);
    const Rules talking = Broken(
        [](uint16_t, Bytes reply) {
            reply.resize(reply.size() + 32, 0);
            return reply;
        },
        GoodAnswer());
    EXPECT_EQ(talking.count("login") + talking.count("at_once"), 2U);
    EXPECT_EQ(talking.count("search"), 0U);
}

}  // namespace

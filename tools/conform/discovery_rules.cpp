#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tools/base/errors.h"
#include "tools/conform/conform.h"
#include "tools/device/discovery_reply.h"

namespace kvtool::conform {

namespace {

using Wire = kv::DiscoveryReply;

constexpr int kTries = 3;  // datagrams get lost
// The account, enciphered with DES.
constexpr uint8_t kEnciphered[sizeof(Wire::enciphered)] = {
    0xDA, 0x35, 0x08, 0x5C, 0x06, 0x73, 0x02, 0x68, 0xB0, 0x31, 0xE2, 0x00, 0x54, 0x05, 0x90, 0xA8,
    0xDE, 0x88, 0x00, 0x3A, 0x00, 0xD3, 0x4F, 0x7E, 0xAF, 0x3E, 0xE9, 0x39, 0x01, 0x67, 0x5B, 0x9A};

// A socket that hears only the one device. Records what passes.
class Datagrams {
  public:
    Datagrams(const ConformRequest& request, Trial* trial) : trial_(trial), times_(request.times) {
        const Endpoint peer = Resolve(request.host, request.discoveryPort).front();
        fd_.Reset(socket(peer.address.ss_family, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        if (!fd_ || connect(fd_.Get(), reinterpret_cast<const sockaddr*>(&peer.address),
                            peer.length) != 0) {
            throw ToolError(ExitCode::kUnreachable,
                            "cannot search at " + peer.text + ": " + strerror(errno));
        }
    }

    void Send(const Bytes& bytes) {
        (void)SendNow(fd_.Get(), bytes.data(), bytes.size());
        trial_->Record(Piece::Way::kSent, bytes.data(), bytes.size());
    }
    // The next datagram; empty if none comes within the silence time.
    Bytes Receive() {
        Bytes bytes(65536);
        const Clock::time_point deadline = Clock::now() + times_.silence;
        Received received;
        while (received.state == ReceiveState::kNothing &&
               WaitFor(fd_.Get(), POLLIN, deadline) != 0 && Clock::now() < deadline) {
            received = ReceiveNow(fd_.Get(), bytes.data(), bytes.size());
        }
        if (received.state == ReceiveState::kClosed && !received.error.empty()) {
            trial_->Remark(received.error);
        }
        bytes.resize(received.size);
        trial_->Record(Piece::Way::kReceived, bytes.data(), bytes.size());
        return bytes;
    }
    // Sends until an answer comes. Returns it, or nothing after some tries.
    Bytes Ask(const Bytes& search) {
        Bytes answer;
        for (int i = 0; i < kTries && answer.empty(); ++i) {
            Send(search);
            answer = Receive();
        }
        return answer;
    }

  private:
    Trial* trial_;
    TrialTimes times_;
    UniqueFd fd_;
};

Bytes Search(uint8_t type, size_t size) {
    const auto full = SearchRequest("0.0.0.0", "00:00:00:00:00:00");
    Bytes search(full.begin(), full.begin() + static_cast<ptrdiff_t>(size));
    if (size > offsetof(kv::DiscoveryRequest, type)) {
        search[offsetof(kv::DiscoveryRequest, type)] = type;
    }
    return search;
}

// Looks at an answer as kvtool does. Returns false if there is none, or if it has a fault.
bool Answered(const Bytes& answer, Wire* wire, Trial* trial) {
    if (!trial->Expect(!answer.empty(), "no answer")) {
        return false;
    }
    DiscoveryReply reply;
    const std::string fault = ParseDiscoveryReply(answer.data(), answer.size(), &reply);
    if (!trial->Expect(fault.empty(), "the answer has a fault: " + fault)) {
        return false;
    }
    memcpy(wire, answer.data(), sizeof *wire);
    return true;
}

void SearchRule(const ConformRequest& request, Known* known, Trial* trial) {
    Datagrams datagrams(request, trial);
    Wire wire;
    if (!Answered(datagrams.Ask(Search(kv::kDiscoverySearch, kSearchSize)), &wire, trial)) {
        return;
    }
    const kv::DiscoveryPlatform& platform = wire.platform;
    trial->Expect(
        known->firmware.empty() ||
            known->firmware ==
                ReadField(platform.ucFirmwareVersion, sizeof platform.ucFirmwareVersion).text,
        "the firmware is not that of device information");
}

void ShortSearch(const ConformRequest& request, Known* /*known*/, Trial* trial) {
    Datagrams datagrams(request, trial);
    Wire wire;
    (void)Answered(datagrams.Ask(Search(kv::kDiscoverySearch, kv::kDiscoveryRequestMin)), &wire,
                   trial);
}

void Refused(const ConformRequest& request, Known* /*known*/, Trial* trial) {
    Datagrams datagrams(request, trial);
    Bytes magic = Search(kv::kDiscoverySearch, kSearchSize);
    magic[0] = 'S';
    const std::pair<const char*, Bytes> refused[] = {
        {"12 bytes", Search(kv::kDiscoverySearch, kv::kDiscoveryRequestMin - 1)},
        {"another magic", magic},
        {"type 12", Search(kv::kDiscoveryModify, kSearchSize)},
        {"type 17", Search(kv::kDiscoveryMatchCode, kSearchSize)},
        {"type 0", Search(0, kSearchSize)},
    };
    for (const auto& [what, bytes] : refused) {
        datagrams.Send(bytes);
        trial->Expect(datagrams.Receive().empty(), std::string("it answers ") + what);
    }
}

void Constants(const ConformRequest& request, Known* /*known*/, Trial* trial) {
    Datagrams datagrams(request, trial);
    Wire wire;
    if (!Answered(datagrams.Ask(Search(kv::kDiscoverySearch, kSearchSize)), &wire, trial)) {
        return;
    }
    const auto word = [&](const uint8_t* bytes, uint32_t value, const std::string& where) {
        trial->Expect(kv::GetLe32(bytes) == value,
                      "the bytes at offset " + where + " are " + Hex(bytes, 4, " "));
    };
    word(wire.word16, kv::kDiscoveryWord16, "16");
    word(wire.word140, kv::kDiscoveryWord140, "140");
    word(wire.platform.word0, kv::kDiscoveryPlatformWord0, "292");
    word(wire.platform.word4, 0, "296");
    word(wire.platform.word8, kv::kDiscoveryPlatformWord8, "300");
    trial->Expect(wire.byte20 == kv::kDiscoveryByte20, "the byte at offset 20 is not 1");
    const auto zero = [&](const void* bytes, size_t size, const std::string& where) {
        const auto* first = static_cast<const uint8_t*>(bytes);
        trial->Expect(std::all_of(first, first + size, [](uint8_t byte) { return byte == 0; }),
                      "the bytes from offset " + where + " on are not 0");
    };
    zero(wire.reserved13, sizeof wire.reserved13, "13");
    zero(wire.reserved21, sizeof wire.reserved21, "21");
    zero(wire.reserved148, sizeof wire.reserved148, "148");
    zero(wire.reserved248, sizeof wire.reserved248, "248");
    zero(wire.reserved260, sizeof wire.reserved260, "260");
    trial->Expect(memcmp(wire.enciphered, kEnciphered, sizeof kEnciphered) == 0,
                  "the enciphered account is wrong");
}

}  // namespace

const std::vector<Rule>& DiscoveryRules() {
    static const std::vector<Rule> rules = {
        {"search", "A search is answered with 544 bytes that name the device", SearchRule},
        {"short_search", "The first 13 bytes of a search are enough", ShortSearch},
        {"refused", "Short datagrams, another magic and other types get no answer", Refused},
        {"constants", "The answer's fixed bytes and its enciphered account are right", Constants},
    };
    return rules;
}

}  // namespace kvtool::conform

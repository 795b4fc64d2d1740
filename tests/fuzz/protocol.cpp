// The command protocol and the upgrade receiver. The input is a list of what clients do. The list
// goes on inside the receiver's pauses, when only other connections can be served.
#include <algorithm>
#include <array>
#include <utility>

#include "common/kv_platform.h"
#include "hv/hv_internal.h"
#include "mini/kv_mini_protocol.h"
#include "mini/kv_mini_upgrade.h"
#include "tests/fuzz/loop_door.h"
#include "tests/support/wire.h"

using namespace fuzz;
using namespace kv_test;

namespace {

constexpr size_t kChunk = 8192;  // the most that a loop gives to a callback
constexpr uint16_t kCommands[] = {0x0000, 0x0001, 0x0006, 0x0101, 0x2003, 0x2002, 0x0002};

// A package that was accepted has the digest of its trailer, and is for this device.
void RequireSound() {
    const std::string package = Get(kv::kPackagePath);
    const std::string digest = Trailer(package).substr(0, 36);
    Require(package.size() >= 24 && Get(kv::kMd5Path).find(digest) != std::string::npos);
    Require(package.compare(0, 6, "PRT7K", 6) == 0 && package.compare(8, 5, "38QX", 5) == 0);
    Require(WordAt(package, 16) != 0 && WordAt(package, 20) != 0);
}

class Clients {
  public:
    explicit Clients(Input* input) : in_(*input) {
        g_world.pause = [this] {
            if (!g_world.commands.empty() &&
                g_world.commands.back() == "killall -SIGUSR2 upgradeMain") {
                g_world.commands.emplace_back();
                ++accepted_;
                RequireSound();
            }
            Steps(in_.Below(4));
            // The callback that paused goes on, and may spoil a transfer too.
            good_ = nullptr;
        };
        g_world.receive = [this](size_t) { return std::move(chunk_); };
        g_world.send = [this](const std::string& sent) { CheckReply(sent); };
    }

    void Steps(size_t count) {
        for (++depth_; count > 0 && !in_.Empty() && depth_ < 5; --count) {
            Step();
        }
        --depth_;
    }

  private:
    void Step() {
        const uint8_t what = in_.Byte();
        const size_t slot = 1 + what / 16 % (kSlots - 1);
        // Whatever else happens may spoil a transfer.
        const std::string* const good = std::exchange(good_, nullptr);
        ++steps_;
        if (IoOf(slot) == nullptr) {
            Connect(slot);
            sent_.at(slot).clear();
        }
        switch (what % 16) {
            case 0:
                return (void)Arrive(slot, in_.Piece());
            case 1:
            case 2:
                return (void)Arrive(slot, Request());
            case 3:
            case 4:
                return Upgrade(slot);
            case 5:
                return Writable(slot);
            case 6:
                g_nowMs += in_.Short();
                return Expire(slot);
            case 7:
                return (void)Arrive(slot, std::string(in_.Short() % kChunk, 'x'));
            case 8:
                return depth_ == 1 ? Restart() : (void)(g_poolEnding = in_.Below(4) == 3);
            case 9:
                return KV_KorvanUpgradeStop();
            default:
                return Continue(slot, good == &streams_.at(slot));
        }
    }

    bool Arrive(size_t slot, const std::string& bytes) {
        chunk_ = bytes;
        return Readable(slot);
    }

    std::string Request() {
        const uint16_t command =
            in_.Below(4) == 3 ? in_.Short() : kCommands[in_.Below(std::size(kCommands))];
        const uint32_t length = in_.Number(4);
        const uint32_t count = in_.Byte();
        return Frame(command, length, count, in_.Below(16) == 15) + in_.Piece();
    }

    // A package that the device accepts, unless the input spoils it, and its trailer.
    void Upgrade(size_t slot) {
        const uint8_t flaws = in_.Byte();
        std::string package = Padded((flaws & 1) != 0 ? in_.Piece() : "PRT7K", 8) +
                              Padded((flaws & 2) != 0 ? in_.Piece() : "38QX", 8) +
                              Little((flaws & 4) != 0 ? 0 : 1) + Little((flaws & 8) != 0 ? 0 : 1);
        package += std::string(in_.Short() % 20000, 'p');
        package.resize((flaws & 16) != 0 ? in_.Below(24) : package.size());
        const std::string trailer = (flaws & 32) != 0 ? in_.Piece() : Trailer(package);
        const size_t first = std::min<size_t>({in_.Short(), package.size(), kChunk - 32});
        const hio_t* const io = IoOf(slot);
        const bool ready = io != nullptr && io->onRead != __KV_KorvanUpgradeRead && !g_poolEnding;
        const int before = steps_ + g_world.refusals;
        if (Arrive(slot, UpgradeFrame(package.size()) + package.substr(0, first))) {
            std::string& stream = streams_.at(slot) = (package + trailer).substr(first);
            const bool good = ready && flaws == 0 && steps_ + g_world.refusals == before;
            good_ = good ? &stream : nullptr;
        }
    }

    // A good package that nobody has disturbed must be accepted with its last byte.
    void Continue(size_t slot, bool good) {
        std::string& stream = streams_.at(slot);
        const size_t size = std::min<size_t>(in_.Short() % kChunk + 1, stream.size());
        const int refusals = g_world.refusals;
        const int accepted = accepted_;
        if (size > 0 && Arrive(slot, stream.substr(0, size))) {
            stream.erase(0, size);
            good = good && g_world.refusals == refusals;
            Require(!good || !stream.empty() || accepted_ > accepted);
            good_ = good && !stream.empty() ? &stream : nullptr;
        }
    }

    void Restart() {
        (void)KV_MINI_ProtocolDeInit();
        CloseAll();
        (void)KV_MINI_ProtocolInit(80);
    }

    void CheckReply(const std::string& part) {
        std::string& sent = sent_.at(g_servedSlot);
        sent += part;
        while (sent.size() >= 32 && sent.size() >= 32 + WordAt(sent, 12)) {
            const uint32_t length = WordAt(sent, 12);
            const uint32_t status = WordAt(sent, 6) % 65536;
            Require(length == 0 || length == 8 || length == 464);
            Require(WordAt(sent, 0) == 0x01010000 && WordAt(sent, 16) == (length > 0 ? 1 : 0));
            Require(status == 0 || status == 2 || status == 0xFFFF);
            sent.erase(0, 32 + length);
        }
    }

    Input& in_;
    std::string chunk_;  // the bytes that have arrived
    std::array<std::string, kSlots> streams_;
    std::array<std::string, kSlots> sent_;
    const std::string* good_ = nullptr;  // what is left of a transfer that nobody has disturbed
    int accepted_ = 0;
    int steps_ = 0;
    int depth_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Scope scope(data, size);
    g_poolEnding = false;
    (void)KV_MINI_ProtocolInit(80);
    Clients(&scope.in).Steps(SIZE_MAX);
    KV_KorvanUpgradeStop();
    (void)KV_MINI_ProtocolDeInit();
    CloseAll();
    return 0;
}

#define KV_TRACE_NAME "kv_mini_upgrade"
#include "mini/kv_mini_upgrade.h"

#include <pthread.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "common/kv_mini_trace.h"
#include "common/kv_platform.h"
#include "common/kv_raii.h"
#include "common/kv_shell.h"
#include "common/kv_text.h"
#include "common/kv_time.h"
#include "mini/kv_hvloop_pool.h"
#include "mini/kv_mini_frame.h"
#include "mini/kv_mini_session.h"

namespace {

constexpr int kReadTimeoutMs = 20000;
constexpr uint32_t kTrailerKept = 39;
constexpr uint32_t kLargeTransfer = 0x600000;
// Function name in the log for all parts of the read callback.
constexpr char kRead[] = "__KV_KorvanUpgradeRead";

struct UpgradeRecvState {
    uint32_t fileTotallength;
    FILE* package;
    uint32_t recvedFileLen;
    uint32_t writeTotal;
    uint32_t Md5Totallength;
    char md5_buff[kTrailerKept + 1];
    FILE* trailer;
    uint8_t upGradeState;
    // Nothing in the program sets it. KV_KorvanUpgradeStop clears it.
    uint8_t startLock;
};

// What to do after an arrival, once the state is updated.
enum class Outcome {
    kWait,      // More has to come.
    kStray,     // Bytes without a transfer.
    kComplete,  // Package and trailer are stored.
    kFailed,
};

UpgradeRecvState g_receive;
// Two connections may transfer on two loops. Their bytes may mix, because all of them count for
// this one state. The lock keeps a loop from using a stream that the other loop has closed. It is
// never held across a sleep or a shell command.
pthread_mutex_t g_receiveLock = PTHREAD_MUTEX_INITIALIZER;

void CloseStream(FILE** stream) {
    if (*stream != nullptr) {
        (void)fclose(*stream);
        *stream = nullptr;
    }
}

// Closes both files and clears the three lengths. Callers also clear writeTotal, upGradeState or
// the kept trailer where they must.
void ClearTransfer(UpgradeRecvState* state) {
    CloseStream(&state->package);
    CloseStream(&state->trailer);
    state->recvedFileLen = 0;
    state->fileTotallength = 0;
    state->Md5Totallength = 0;
}

// Returns the number of bytes written.
uint32_t WritePackage(UpgradeRecvState* state, const void* data, uint32_t len) {
    const uint32_t written = static_cast<uint32_t>(fwrite(data, 1, len, state->package));
    state->writeTotal += written;
    return written;
}

// Kept: a piece that does not fit is dropped entirely. The transfer then waits until the read
// time-out.
void KeepTrailer(UpgradeRecvState* state, const uint8_t* data, uint32_t len) {
    if (state->Md5Totallength + len <= kTrailerKept) {
        memcpy(state->md5_buff + state->Md5Totallength, data, len);
        state->Md5Totallength += len;
    }
    KV_INFO_IN(kRead, "left_len=%d,Md5Totallength=%u,md5_buff=%s", static_cast<int>(len),
               state->Md5Totallength, kv::LogText(state->md5_buff).Get());
}

// Splits a chunk between package and trailer. `written` receives the number of package bytes.
// Returns 0, or -1 after a short write.
int StoreChunk(UpgradeRecvState* state, const uint8_t* data, uint32_t len, uint32_t* written) {
    uint32_t share = 0;
    // Kept: the sum wraps at 32 bits.
    const bool crosses = state->recvedFileLen + len > state->fileTotallength;
    if (!crosses) {
        share = len;
    } else if (state->writeTotal < state->fileTotallength) {
        // Two transfers at once can make the two counts differ, so limit the share to the chunk.
        const uint32_t room = state->fileTotallength - state->recvedFileLen;
        share = room < len ? room : len;
    }
    if (share > 0) {
        *written = WritePackage(state, data, share);
    }
    if (crosses && share > 0) {
        KV_INFO_IN(kRead, "left_len=%d,write_len=%d", static_cast<int>(len - share),
                   static_cast<int>(*written));
    }
    if (*written < share) {
        KV_ERROR_IN(kRead, "fwrite %d bytes failed. ret = %d", static_cast<int>(share),
                    static_cast<int>(*written));
        return -1;
    }
    if (crosses) {
        KeepTrailer(state, data + share, len - share);
    }
    return 0;
}

// Stores the kept trailer and closes both files.
Outcome FinishTransfer(UpgradeRecvState* state) {
    KV_INFO_IN(kRead, "MD5 check start Md5Totallength=%u!", state->Md5Totallength);
    if (state->trailer == nullptr) {
        state->trailer = fopen(kv::kMd5Path, "wb+e");
        if (state->trailer == nullptr) {
            KV_ERROR_IN(kRead, "fopen %s fail!", kv::kMd5Path);
            return Outcome::kFailed;
        }
        state->Md5Totallength = static_cast<uint32_t>(
            fwrite(state->md5_buff, 1, state->Md5Totallength, state->trailer));
        CloseStream(&state->package);
    }
    if (state->Md5Totallength < kv::kMd5TrailerSize) {
        return Outcome::kWait;
    }
    CloseStream(&state->trailer);
    state->recvedFileLen = 0;
    state->Md5Totallength = 0;
    return Outcome::kComplete;
}

Outcome TakeChunk(UpgradeRecvState* state, const uint8_t* data, int len) {
    KV_INFO_IN(kRead, "fileTotallength = %u,recvingFileLen=%d", state->fileTotallength, len);
    if (state->package == nullptr) {
        return Outcome::kStray;
    }
    uint32_t written = 0;
    if (StoreChunk(state, data, static_cast<uint32_t>(len), &written) != 0) {
        return Outcome::kFailed;
    }
    state->recvedFileLen += static_cast<uint32_t>(len);
    KV_INFO_IN(kRead,
               "write %d bytes, write total %d bytes, recvingFileLen %d, fileTotallength %u, "
               "recvedFileLen %u, Md5Totallength %u",
               static_cast<int>(written), static_cast<int>(state->writeTotal), len,
               state->fileTotallength, state->recvedFileLen, state->Md5Totallength);
    if (state->writeTotal == state->fileTotallength &&
        state->Md5Totallength >= kv::kMd5TrailerSize) {
        return FinishTransfer(state);
    }
    return Outcome::kWait;
}

// Clears the previous transfer. Returns false while the start lock is set.
bool ResetTransfer() {
    const MutexGuard guard(&g_receiveLock);
    if (g_receive.startLock != 0) {
        return false;
    }
    ClearTransfer(&g_receive);
    g_receive.writeTotal = 0;
    memset(g_receive.md5_buff, 0, sizeof(g_receive.md5_buff));
    return true;
}

int CreatePackage() {
    const MutexGuard guard(&g_receiveLock);
    // Another transfer may have started since the reset.
    CloseStream(&g_receive.package);
    // Creates a new file, so a flash writer that has opened the accepted package keeps it.
    (void)unlink(kv::kPackagePath);
    g_receive.package = fopen(kv::kPackagePath, "wb+e");
    return g_receive.package != nullptr ? 0 : -1;
}

// Kept: bytes in the command's own chunk go into the package whatever length was announced. The
// digest catches a wrong length.
void StoreFirst(const uint8_t* data, int dataLen, uint32_t fileLength) {
    const MutexGuard guard(&g_receiveLock);
    if (dataLen > 0 && g_receive.package != nullptr) {
        g_receive.recvedFileLen += WritePackage(&g_receive, data, static_cast<uint32_t>(dataLen));
    }
    g_receive.fileTotallength = fileLength;
}

void FailTransfer() {
    {
        const MutexGuard guard(&g_receiveLock);
        ClearTransfer(&g_receive);
        g_receive.upGradeState = 0;
        g_receive.writeTotal = 0;
    }
    KV_ERROR_IN(kRead, "upgrade failed,restart system now ...");
    kv::SleepMilliseconds(2000);
    (void)KV_ShellRun("reboot", nullptr);
}

void SendReply(hio_t* io, uint16_t status) {
    const SessionRecord* session = static_cast<const SessionRecord*>(hio_context(io));
    uint8_t reply[kv::kFrameHeaderSize];
    kv::FillFrameHeader(reply, kv::kCmdUpgrade, status, session->uiSessionId, 0, 0);
    (void)hio_write(io, reply, sizeof(reply));
    KV_INFO_IN(kRead, "reply status:%d", status);
}

void CheckAndAccept(hio_t* io) {
    if (__KV_CheckUpgradeFileMd5() != 0) {
        KV_ERROR_IN(kRead, "MD5 check fail!");
        FailTransfer();
        return;
    }
    if (__KV_CheckUpgradeFileHeader() != 0) {
        KV_ERROR_IN(kRead, " __KV_CheckUpgradeFileHeader error!!!");
        (void)unlink(kv::kPackagePath);
        FailTransfer();
        return;
    }
    {
        const MutexGuard guard(&g_receiveLock);
        g_receive.upGradeState = 1;
    }
    KV_INFO_IN(kRead, "upgrade success,start flash erasing,upGradeState=%d", 1);
    hio_set_read_timeout(io, 0);
    // Kept: the flash writer is signalled before the reply, because status 0 tells the client that
    // flashing starts.
    KV_ShellEchoFormat("killall -SIGUSR2 %s", kv::kSelfName);
    SendReply(io, kv::kStatusDone);
}

// Answers a chunk of another transfer after a package was accepted.
void RefuseChunk(hio_t* io, bool large) {
    KV_INFO_IN(kRead, "upgrade success,start flash erasing,upGradeState=%d", 0);
    hio_set_read_timeout(io, 0);
    SendReply(io, kv::kStatusUpgradeBusy);
    if (large) {
        (void)KV_ShellRun("reboot", nullptr);
    }
}

}  // namespace

int KV_KorvanUpgradeStart(hio_t* io, uint32_t fileLength, const uint8_t* data, int dataLen) {
    if (!ResetTransfer()) {
        return 0;
    }
    // The package will be stored in RAM, so make room for it first.
    (void)KV_ShellRun("sync", nullptr);
    (void)KV_ShellRun("echo 1 > /proc/sys/vm/drop_caches", nullptr);
    kv::SleepMilliseconds(1000);
    if (CreatePackage() != 0) {
        KV_FAILED("open %s failed", kv::kPackagePath);
        return -1;
    }
    kv::SleepMilliseconds(100);
    KV_INFO("datalen:%d,filelength=%u", dataLen, fileLength);
    StoreFirst(data, dataLen, fileLength);
    hio_setcb_read(io, __KV_KorvanUpgradeRead);
    hio_set_read_timeout(io, kReadTimeoutMs);
    // The loop's read buffer has the 8192 bytes that a transfer needs. Nothing stays there between
    // callbacks, so a buffer for each connection would gain nothing.
    (void)hio_read(io);
    KV_DEBUG("KorvanUpgradeStart");
    return 0;
}

void KV_KorvanUpgradeStop(void) {
    {
        const MutexGuard guard(&g_receiveLock);
        g_receive.startLock = 0;
        ClearTransfer(&g_receive);
        g_receive.upGradeState = 0;
    }
    KV_DEBUG("KorvanUpgradeStop");
}

void __KV_KorvanUpgradeRead(hio_t* io, void* buf, int len) {
    if (KV_HV_LoopPoolIsEnding()) {
        return;
    }
    Outcome outcome;
    bool large;
    bool accepted;
    {
        const MutexGuard guard(&g_receiveLock);
        outcome = TakeChunk(&g_receive, static_cast<const uint8_t*>(buf), len);
        large = g_receive.fileTotallength > kLargeTransfer;
        accepted = g_receive.upGradeState != 0;
    }
    switch (outcome) {
        case Outcome::kWait:
            if (accepted) {
                RefuseChunk(io, large);
            }
            break;
        case Outcome::kStray:
            if (large) {
                (void)KV_ShellRun("reboot", nullptr);
            }
            break;
        case Outcome::kComplete:
            if constexpr (kv::kSignedOnly) {
                if (__KV_CheckUpgradeFileSignature() != 0) {
                    KV_ERROR_IN(kRead, "signature check fail!");
                    FailTransfer();
                    break;
                }
            }
            CheckAndAccept(io);
            break;
        case Outcome::kFailed:
            FailTransfer();
            break;
    }
}

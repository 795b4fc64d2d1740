#include "tools/page/uploaded.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "common/kv_raii.h"
#include "tools/base/errors.h"
#include "tools/package/package_json.h"
#include "tools/package/signature.h"

namespace kvtool::page {

namespace {

constexpr size_t kLongestName = 200;

[[noreturn]] void FailStore(int error) {
    const bool full = error == ENOSPC || error == EDQUOT;
    throw HttpError(full ? 507 : 500, std::string("kvtool cannot store the upload: ") +
                                          strerror(error) +
                                          (full ? "; make room and upload it again" : ""));
}

UniqueFd NamelessFile(const std::string& folder) {
    std::string path = folder + "/.kvtool-upload-XXXXXX";
    UniqueFd fd(mkostemp(path.data(), O_CLOEXEC));
    if (!fd) {
        FailStore(errno);
    }
    (void)unlink(path.c_str());
    return fd;
}

void WriteAll(int fd, const uint8_t* data, size_t size) {
    while (size > 0) {
        const ssize_t n = write(fd, data, size);
        if (n < 0 && errno != EINTR) {
            FailStore(errno);
        }
        data += n > 0 ? n : 0;
        size -= n > 0 ? static_cast<size_t>(n) : 0;
    }
}

// A name for people: no folders, and short enough to show.
std::string ShownName(const std::string& file) {
    const std::string plain = file.substr(file.find_last_of("/\\") + 1);
    const std::string name = Printable(plain.substr(0, kLongestName));
    return name.empty() ? "package" : name;
}

// Stores the signature that `verify` finds, or why it throws.
template <typename Verify>
void TakeVerdict(UploadedPackage* package, const Verify& verify) {
    package->trusted = false;
    package->json["signature"] = nullptr;
    package->json["signature_error"] = nullptr;
    try {
        package->json["signature"] = SignatureJson(verify());
        package->trusted = true;
    } catch (const ToolError& error) {
        package->json["signature_error"] = error.what();
    }
}

}  // namespace

Bytes ReceiveFile(HttpCall* call, const std::string& folder) {
    const UniqueFd fd = NamelessFile(folder);
    uint64_t size = 0;
    call->ReadBody(kUploadLimit, [&](const uint8_t* data, size_t piece) {
        WriteAll(fd.Get(), data, piece);
        size += piece;
    });
    Bytes bytes(size);
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n =
            pread(fd.Get(), bytes.data() + done, bytes.size() - done, static_cast<off_t>(done));
        if (n == 0 || (n < 0 && errno != EINTR)) {
            FailStore(n == 0 ? EIO : errno);
        }
        done += n > 0 ? static_cast<size_t>(n) : 0;
    }
    return bytes;
}

PackagePtr Inspect(const std::string& file, Bytes bytes, const Layout& layout,
                   const std::string& trustedKey) {
    auto package = std::make_shared<UploadedPackage>();
    package->bytes = std::move(bytes);
    package->report = CheckPackage(package->bytes, layout, {});
    package->name = {ShownName(file), package->report.size, package->report.md5};
    package->trusted = trustedKey.empty();
    Json json = {{"schema", kJsonSchema}, {"file", package->name.file}};
    json.update(PackageJson(package->report));
    json["sha256"] = Sha256Hex(package->bytes.data(), package->bytes.size());
    json["map"] = FlashMapJson(package->report, layout);
    json["signature"] = nullptr;
    json["signature_error"] = trustedKey.empty()
                                  ? Json()
                                  : Json("there is no signature yet: give kvtool the file " +
                                         package->name.file + ".minisig too");
    package->json = std::move(json);
    if (!trustedKey.empty() && FindEmbeddedSignature(package->bytes)) {
        TakeVerdict(package.get(), [&] {
            return VerifySignature(package->bytes, package->name.file, Trust{trustedKey, ""});
        });
    }
    return package;
}

PackagePtr WithSignature(const UploadedPackage& package, const std::string& trustedKey,
                         const std::string& signature) {
    if (trustedKey.empty()) {
        throw HttpError(409, "kvtool checks no signatures: start it with --trusted-key");
    }
    auto copy = std::make_shared<UploadedPackage>(package);
    TakeVerdict(copy.get(), [&] {
        return VerifySignature(copy->bytes, copy->name.file, trustedKey,
                               copy->name.file + ".minisig",
                               Bytes(signature.begin(), signature.end()));
    });
    return copy;
}

std::string Objection(const UploadedPackage& package, bool force) {
    if (!package.trusted) {
        return package.name.file + " is not signed by the trusted key; nothing overrides that";
    }
    if (package.bytes.empty()) {
        return package.name.file + " is empty";
    }
    if (!package.report.Acceptable() && !force) {
        return package.name.file + " is not fit for the device: see its errors, or override them";
    }
    return "";
}

}  // namespace kvtool::page

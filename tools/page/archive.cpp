#include "tools/page/archive.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "tools/base/errors.h"
#include "tools/base/files.h"
#include "tools/fleet/report.h"

namespace kvtool::page {

namespace {

std::unique_ptr<fleet::Journal> Open(const std::string& path) {
    return std::make_unique<fleet::Journal>(fleet::Journal::Open(path));
}

Json EntryOf(const std::string& path, const std::string& device) {
    const fleet::JournalContents contents = fleet::ReadJournal(path);
    const auto member =
        std::find_if(contents.members.begin(), contents.members.end(),
                     [&device](const fleet::Member& one) { return one.id == device; });
    if (member == contents.members.end()) {
        return {};
    }
    Json states = Json::array();
    for (const auto& [state, time] : member->history) {
        states.push_back({{"state", StateName(state)}, {"time", fleet::TimeText(time)}});
    }
    return {{"journal", Printable(path)},
            {"package", fleet::PackageNameJson(contents.package)},
            {"member", fleet::MemberJson(*member)},
            {"states", states}};
}

}  // namespace

Archive::Archive(std::string path) : path_(std::move(path)), journal_(Open(path_)) {}

Archive::~Archive() {
    std::error_code ignored;
    if (std::filesystem::file_size(path_, ignored) == 0) {
        (void)unlink(path_.c_str());
    }
}

std::string Archive::Folder() const {
    const std::string folder = std::filesystem::path(path_).parent_path().string();
    return folder.empty() ? "." : folder;
}

std::string Archive::NumberedPath(int number) const {
    return path_ + "." + std::to_string(number);
}

int Archive::Numbered() const {
    int count = 0;
    while (access(NumberedPath(count + 1).c_str(), F_OK) == 0) {
        ++count;
    }
    return count;
}

void Archive::BeginNew() {
    const std::string name = NumberedPath(Numbered() + 1);
    if (rename(path_.c_str(), name.c_str()) != 0) {
        throw ToolError(ExitCode::kInternal, "cannot rename the journal " + Printable(path_) +
                                                 " to " + Printable(name) + ": " + strerror(errno));
    }
    journal_ = Open(path_);
    (void)unlink((path_ + ".package").c_str());
}

void Archive::KeepPackage(const Bytes& bytes) const {
    WriteWholeFile(path_ + ".package", bytes);
}

std::optional<Bytes> Archive::KeptPackage(const std::string& md5) const {
    try {
        Bytes bytes = ReadWholeFile(path_ + ".package");
        if (Md5Hex(bytes.data(), bytes.size()) == md5) {
            return bytes;
        }
    } catch (const ToolError& error) {
        if (error.Code() == ExitCode::kInterrupted) {
            throw;
        }
    }
    return std::nullopt;
}

Json Archive::History(const std::string& device) const {
    Json history = Json::array();
    const int numbered = Numbered();
    for (int number = 1; number <= numbered + 1; ++number) {
        const std::string path = number <= numbered ? NumberedPath(number) : path_;
        try {
            Json entry = EntryOf(path, device);
            if (!entry.is_null()) {
                history.push_back(std::move(entry));
            }
        } catch (const ToolError& error) {
            history.push_back({{"journal", Printable(path)}, {"error", error.what()}});
        }
    }
    return history;
}

}  // namespace kvtool::page

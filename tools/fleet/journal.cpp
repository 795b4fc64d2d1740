#include "tools/fleet/journal.h"

#include <fcntl.h>
#include <kv_version.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string_view>

#include "tools/base/text.h"

namespace kvtool::fleet {

namespace {

constexpr int kSchema = 1;
constexpr std::string_view kLineBegin = "{\"schema\":";  // of every line

double Now() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

Json PlannedJson(const Member& member) {
    Json planned = {{"device", member.id},
                    {"mac", member.mac},
                    {"address", member.address},
                    {"command_port", member.commandPort},
                    {"firmware", Printable(member.firmware)}};
    if (member.code != ExitCode::kDone) {
        planned.update({{"code", static_cast<int>(member.code)}, {"text", member.text}});
    }
    return planned;
}

void AddFindings(const Member& member, Json* details) {
    if (!member.observed.empty() || !member.assumed.empty()) {
        (*details)["observed"] = member.observed;
        (*details)["assumed"] = member.assumed;
    }
}

Json StateDetails(const Member& member) {
    const Progress& progress = member.progress;
    Json details = {{"device", member.id}, {"state", StateName(progress.state)}};
    switch (progress.state) {
        case State::kConnecting:
            details["attempt"] = progress.attempts;
            break;
        case State::kUploading:
            details.update({{"mac", member.mac},
                            {"address", member.address},
                            {"command_port", member.commandPort},
                            {"firmware", Printable(member.firmware)},
                            {"session", member.session},
                            {"alive_port", member.alivePort},
                            {"alive_port_closed", member.alivePortClosed}});
            break;
        case State::kLooking:
            details["was"] = StateName(progress.reached);
            break;
        case State::kDone:
            details["address"] = member.address;
            details["text"] = member.text;
            AddFindings(member, &details);
            break;
        case State::kFailed:
            details["address"] = member.address;
            details["code"] = static_cast<int>(member.code);
            details["text"] = member.text;
            details["left"] = LeftText(progress.reached);
            AddFindings(member, &details);
            break;
        default:
            break;
    }
    return details;
}

// Copies the value if the key is there. Throws if it has another type.
template <typename Value>
void Take(const Json& line, const char* key, Value* value) {
    if (line.contains(key)) {
        *value = line.at(key).get<Value>();
    }
}

// A text may come from another program, and goes to terminals and pages. kvtool writes texts that
// are Printable. They stay as they are, because the backslashes of their escapes are kept.
std::string Safe(const std::string& text) {
    std::string safe;
    size_t at = 0;
    for (size_t end; (end = text.find('\\', at)) != std::string::npos; at = end + 1) {
        safe += Printable(text.substr(at, end - at)) + '\\';
    }
    return safe + Printable(text.substr(at));
}

// `line` has the key.
std::string Text(const Json& line, const char* key) {
    return Safe(line.at(key).get<std::string>());
}

void Take(const Json& line, const char* key, std::string* text) {
    if (line.contains(key)) {
        *text = Text(line, key);
    }
}

void Take(const Json& line, const char* key, std::vector<std::string>* texts) {
    if (line.contains(key)) {
        *texts = line.at(key).get<std::vector<std::string>>();
        for (std::string& text : *texts) {
            text = Safe(text);
        }
    }
}

void TakeMember(const Json& line, Member* member) {
    Take(line, "mac", &member->mac);
    Take(line, "address", &member->address);
    Take(line, "firmware", &member->firmware);
    Take(line, "command_port", &member->commandPort);
    Take(line, "alive_port", &member->alivePort);
    Take(line, "alive_port_closed", &member->alivePortClosed);
    Take(line, "session", &member->session);
    Take(line, "text", &member->text);
    Take(line, "observed", &member->observed);
    Take(line, "assumed", &member->assumed);
    if (line.contains("code")) {
        member->code = static_cast<ExitCode>(line.at("code").get<int>());
    }
}

class Reader {
  public:
    void Line(const Json& line) {
        if (line.at("schema").get<int>() != kSchema) {
            throw std::runtime_error("this kvtool does not know its schema");
        }
        const auto event = line.at("event").get<std::string>();
        if (event == "run") {
            const Json& package = line.at("package");
            contents_.started = TimeOf(line);
            contents_.ended.reset();
            contents_.exitCode.reset();
            if (contents_.runs++ == 0) {
                contents_.package = {Text(package, "file"), package.at("size"),
                                     Text(package, "md5")};
            }
            for (const Json& device : line.at("devices")) {
                TakePlanned(device);
            }
        } else if (event == "planned") {
            TakePlanned(line);
        } else if (event == "state") {
            TakeState(line);
        } else if (event == "end") {
            contents_.ended = TimeOf(line);
            contents_.exitCode = line.at("exit_code").get<int>();
        }
    }
    JournalContents Take() { return std::move(contents_); }

  private:
    static double TimeOf(const Json& line) {
        const std::optional<double> time = ParseTime(line.at("time").get<std::string>());
        if (!time) {
            throw std::runtime_error("its time is invalid");
        }
        return *time;
    }

    void TakePlanned(const Json& device) {
        Member member;
        member.id = Text(device, "device");
        TakeMember(device, &member);
        index_[member.id] = contents_.members.size();
        contents_.members.push_back(std::move(member));
    }

    void TakeState(const Json& line) {
        Member& member = contents_.members.at(index_.at(Text(line, "device")));
        State state = State::kPlanned;
        if (!ParseState(line.at("state").get<std::string>(), &state)) {
            throw std::runtime_error("its state is invalid");
        }
        member.progress.Enter(state);
        member.history.emplace_back(state, TimeOf(line));
        if (state == State::kConnecting || state == State::kLooking) {
            member.observed.clear();
            member.assumed.clear();
        }
        TakeMember(line, &member);
    }

    JournalContents contents_;
    std::map<std::string, size_t> index_;
};

}  // namespace

std::string TimeText(double seconds) {
    const double rounded = std::round(seconds * 1000);
    const double begun = std::floor(rounded / 1000);
    const auto whole = static_cast<time_t>(begun);
    struct tm parts {};
    (void)gmtime_r(&whole, &parts);
    std::array<char, 32> date{};
    (void)strftime(date.data(), date.size(), "%Y-%m-%dT%H:%M:%S", &parts);
    std::array<char, 8> fraction{};
    const int millis = std::clamp(static_cast<int>(rounded - begun * 1000), 0, 999);
    (void)snprintf(fraction.data(), fraction.size(), ".%03dZ", millis);
    return std::string(date.data()) + fraction.data();
}

std::optional<double> ParseTime(const std::string& text) {
    struct tm parts {};
    const char* const rest = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
    if (rest == nullptr || *rest != '.') {
        return std::nullopt;
    }
    char* end = nullptr;
    const double fraction = strtod(rest, &end);
    // An exponent could make it 1 or more.
    if (std::string(end) != "Z" || fraction >= 1) {
        return std::nullopt;
    }
    return static_cast<double>(timegm(&parts)) + fraction;
}

JournalContents ReadJournal(const std::string& path) {
    const auto unreadable = [&path] {
        return ToolError(ExitCode::kRefused,
                         "cannot read the journal " + Printable(path) + ": " + strerror(errno));
    };
    const auto invalid = [&path](int line, const std::string& why) {
        return ToolError(ExitCode::kRefused, Printable(path) + ":" + std::to_string(line) +
                                                 ": not a line of a journal" + why);
    };
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        throw unreadable();
    }
    Reader reader;
    uint64_t whole = 0;
    bool torn = false;
    std::string text;
    for (int number = 1; std::getline(file, text); ++number) {
        // Every complete line ends with a line feed.
        if (file.eof()) {
            torn = true;
            break;
        }
        whole += text.size() + 1;
        try {
            reader.Line(Json::parse(text));
        } catch (const std::runtime_error& error) {
            throw invalid(number, std::string(": ") + error.what());
        } catch (const std::exception&) {
            throw invalid(number, "");  // no JSON, a key of another type, a step that cannot be
        }
    }
    if (file.bad()) {
        throw unreadable();
    }
    JournalContents contents = reader.Take();
    contents.torn = torn;
    contents.whole = whole;
    // Without a complete run, only the beginning of the first line shows that this is a journal. No
    // other file may be cut.
    const size_t compared = std::min(text.size(), kLineBegin.size());
    const bool begins = text.compare(0, compared, kLineBegin, 0, compared) == 0;
    if (contents.runs == 0 && (whole > 0 || (torn && !begins))) {
        throw ToolError(ExitCode::kRefused, Printable(path) + " is not the journal of a fleet run");
    }
    return contents;
}

void Journal::Fail(int error) {
    // Remove the part of the line that went onto a full disk, or the next line would follow it.
    const int ignored = ftruncate(fd_.Get(), static_cast<off_t>(size_));
    (void)ignored;
    throw ToolError(ExitCode::kInternal,
                    "cannot write the journal " + Printable(path_) + ": " + strerror(error));
}

Journal Journal::Open(const std::string& path) {
    UniqueFd fd(open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666));
    if (!fd) {
        throw ToolError(ExitCode::kInternal,
                        "cannot open the journal " + Printable(path) + ": " + strerror(errno));
    }
    if (flock(fd.Get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK) {
            throw ToolError(ExitCode::kInternal,
                            "cannot lock the journal " + Printable(path) + ": " + strerror(errno));
        }
        throw ToolError(ExitCode::kBusy,
                        "another process is writing the journal " + Printable(path));
    }
    const uint64_t whole = ReadJournal(path).whole;
    Journal journal(path, std::move(fd), whole);
    if (ftruncate(journal.fd_.Get(), static_cast<off_t>(whole)) != 0) {
        journal.Fail(errno);
    }
    // The name of a new file must be on the disk too.
    const size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const UniqueFd parent(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!parent || fsync(parent.Get()) != 0) {
        journal.Fail(errno);
    }
    return journal;
}

Journal Journal::Continue(const std::string& path, const JournalContents& read) {
    Journal journal = Open(path);
    if (journal.size_ != read.whole) {
        throw ToolError(
            ExitCode::kBusy,
            "another process has written the journal " + Printable(path) +
                " since it was read; nothing was sent; start again (fleet upgrade: with "
                "--resume)");
    }
    return journal;
}

double Journal::Write(const char* event, const Json& details) {
    const std::lock_guard<std::mutex> guard(mutex_);
    const double now = Now();
    Json line = {{"schema", kSchema}, {"time", TimeText(now)}, {"event", event}};
    line.update(details);
    const std::string text = JsonLine(line) + "\n";
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = write(fd_.Get(), text.data() + done, text.size() - done);
        if (n < 0 && errno != EINTR) {
            Fail(errno);
        }
        done += n > 0 ? static_cast<size_t>(n) : 0;
    }
    if (fdatasync(fd_.Get()) != 0) {
        Fail(errno);
    }
    size_ += text.size();
    if (watcher_ != nullptr) {
        watcher_->Written(line);
    }
    return now;
}

void Journal::WriteRun(int run, const PackageName& package, const std::vector<Member>& members) {
    Json devices = Json::array();
    for (const Member& member : members) {
        devices.push_back(PlannedJson(member));
    }
    (void)Write(
        "run", {{"run", run},
                {"tool", kv::kVersion},
                {"process", getpid()},
                {"package",
                 {{"file", Printable(package.file)}, {"size", package.size}, {"md5", package.md5}}},
                {"devices", devices}});
}

void Journal::WritePlanned(const Member& member) {
    (void)Write("planned", PlannedJson(member));
}

void Journal::WriteState(Member* member) {
    member->history.emplace_back(member->progress.state, Write("state", StateDetails(*member)));
}

void Journal::WriteEnd(int run, ExitCode code) {
    (void)Write("end", {{"run", run}, {"exit_code", static_cast<int>(code)}});
}

}  // namespace kvtool::fleet

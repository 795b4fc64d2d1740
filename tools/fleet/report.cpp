#include "tools/fleet/report.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <numeric>
#include <optional>

#include "tools/base/text.h"

namespace kvtool::fleet {

namespace {

// A phase lasts from entering a state to leaving it.
struct PhaseRow {
    const char* name;
    State state;
};
constexpr std::array<PhaseRow, 4> kPhases = {{{"connect", State::kConnecting},
                                              {"upload", State::kUploading},
                                              {"verify", State::kFinishing},
                                              {"follow", State::kAccepted}}};

// The time of a phase in the latest attempt. Nothing if the attempt did not reach the phase, or its
// end is not known.
std::optional<double> PhaseSeconds(const Member& member, State state) {
    const auto& history = member.history;
    for (auto entry = history.rbegin(); entry != history.rend(); ++entry) {
        if (entry->first == state) {
            return entry == history.rbegin()
                       ? std::nullopt
                       : std::optional<double>(std::prev(entry)->second - entry->second);
        }
        if (entry->first == State::kConnecting) {
            break;
        }
    }
    return std::nullopt;
}

std::string Decimal(std::optional<double> seconds) {
    if (!seconds) {
        return "";
    }
    std::array<char, 32> text{};
    (void)snprintf(text.data(), text.size(), "%.1f", *seconds);
    return text.data();
}

// One row, the same in every format of the report.
std::vector<std::string> Cells(const Member& member) {
    const auto& history = member.history;
    std::vector<std::string> cells = {member.id,
                                      member.address,
                                      Printable(member.firmware),
                                      StateName(member.progress.state),
                                      HasText(member),
                                      std::to_string(member.progress.attempts),
                                      history.empty() ? "" : TimeText(history.front().second),
                                      history.empty() ? "" : TimeText(history.back().second)};
    for (const PhaseRow& phase : kPhases) {
        cells.push_back(Decimal(PhaseSeconds(member, phase.state)));
    }
    cells.push_back(member.text);
    return cells;
}

std::vector<std::string> Headings() {
    std::vector<std::string> names = {"device", "address",  "firmware before", "state",
                                      "has",    "attempts", "began",           "ended"};
    for (const PhaseRow& phase : kPhases) {
        names.push_back(std::string(phase.name) + " s");
    }
    names.emplace_back("reason");
    return names;
}

constexpr size_t kGap = 2;  // between columns

// Sets the widths of columns to 0, the least important first, until a line of `width` characters
// (0: no limit) holds the others. The reason is the first to go: it needs a line of its own.
// Returns whether all columns fit.
bool FitColumns(std::vector<size_t>* widths, size_t width) {
    constexpr std::array<size_t, 10> kLeastImportant = {12, 2, 6, 7, 8, 10, 5, 9, 11, 1};
    for (const size_t column : kLeastImportant) {
        const size_t all = std::accumulate(widths->begin(), widths->end(), size_t{0});
        if (width == 0 || all <= width + kGap) {
            return column == kLeastImportant.front();
        }
        widths->at(column) = 0;
    }
    return false;
}

std::string CsvCell(const std::string& text) {
    if (text.find_first_of(",\"\r\n") == std::string::npos) {
        return text;
    }
    std::string quoted = "\"";
    for (const char c : text) {
        quoted += c == '"' ? "\"\"" : std::string(1, c);
    }
    return quoted + "\"";
}

std::string Summary(const JournalContents& journal) {
    const Counts counts = Count(journal.members);
    return DevicesText(journal.members.size()) + ": " + std::to_string(counts.done) + " done, " +
           std::to_string(counts.failed) + " failed, " + std::to_string(counts.open) + " open; " +
           std::to_string(journal.runs) + (journal.runs == 1 ? " run" : " runs") +
           (journal.torn ? "; a crash has cut off the last line" : "");
}

std::string PackageText(const JournalContents& journal) {
    return "package " + journal.package.file + ", " + SizeText(journal.package.size) + ", MD5 " +
           journal.package.md5;
}

}  // namespace

std::string DevicesText(size_t count) {
    return std::to_string(count) + (count == 1 ? " device" : " devices");
}

Counts Count(const std::vector<Member>& members) {
    Counts counts;
    for (const Member& member : members) {
        size_t& count = member.progress.state == State::kDone     ? counts.done
                        : member.progress.state == State::kFailed ? counts.failed
                                                                  : counts.open;
        ++count;
    }
    return counts;
}

const char* HasText(const Member& member) {
    if (member.progress.state == State::kDone) {
        return "the package";
    }
    return member.progress.reached >= State::kFinishing ? "not known" : "as before";
}

void WriteTable(std::ostream& out, const JournalContents& journal, size_t width) {
    std::vector<std::vector<std::string>> rows = {Headings()};
    for (const Member& member : journal.members) {
        rows.push_back(Cells(member));
    }
    std::vector<size_t> widths(rows.front().size());
    for (const auto& row : rows) {
        for (size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], row[i].size() + kGap);
        }
    }
    const bool whole = FitColumns(&widths, width);
    out << PackageText(journal) << '\n';
    for (const auto& row : rows) {
        std::string line;
        for (size_t i = 0; i < row.size(); ++i) {
            line += widths[i] > 0 ? row[i] + std::string(widths[i] - row[i].size(), ' ') : "";
        }
        line.erase(line.find_last_not_of(' ') + 1);
        out << line << '\n';
    }
    if (!whole) {
        WriteTroubles(out, journal.members);
    }
    out << Summary(journal) << '\n';
}

void WriteCsv(std::ostream& out, const JournalContents& journal) {
    const auto row = [&out](const std::vector<std::string>& cells) {
        for (size_t i = 0; i < cells.size(); ++i) {
            out << (i == 0 ? "" : ",") << CsvCell(cells[i]);
        }
        out << "\r\n";
    };
    row(Headings());
    for (const Member& member : journal.members) {
        row(Cells(member));
    }
}

void WriteHtml(std::ostream& out, const JournalContents& journal) {
    const auto row = [&out](const std::vector<std::string>& cells, const char* tag,
                            const char* kind) {
        out << "<tr class=\"" << kind << "\">";
        for (const std::string& cell : cells) {
            out << '<' << tag << '>' << MarkupText(cell) << "</" << tag << '>';
        }
        out << "</tr>\n";
    };
    out << "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><title>Fleet "
           "upgrade</title>\n<style>body{font-family:sans-serif}table{border-collapse:collapse}"
           "td,th{border:1px solid #aaa;padding:.2em .5em;text-align:left}.failed{background:#fdd}"
           ".done{background:#dfd}</style></head><body>\n<p>"
        << MarkupText(PackageText(journal)) << "</p>\n<p>" << MarkupText(Summary(journal))
        << "</p>\n<table>\n";
    row(Headings(), "th", "heading");
    for (const Member& member : journal.members) {
        row(Cells(member), "td", StateName(member.progress.state));
    }
    out << "</table>\n</body></html>\n";
}

void WriteTroubles(std::ostream& out, const std::vector<Member>& members) {
    for (const Member& member : members) {
        const Progress& progress = member.progress;
        if (progress.state == State::kDone) {
            continue;
        }
        out << member.id << "  " << (member.address.empty() ? "-" : member.address) << "  ";
        if (progress.state == State::kFailed) {
            out << "failed (" << static_cast<int>(member.code) << "): " << member.text;
            if (progress.reached == State::kUploading) {
                out << "; " << LeftText(progress.reached);
            }
        } else if (progress.state == State::kPlanned) {
            out << "not started";
        } else {
            out << "left while " << StateName(progress.state) << ": " << LeftText(progress.reached);
        }
        out << '\n';
    }
}

Json MemberJson(const Member& member) {
    Json json = {{"device", member.id},
                 {"mac", member.mac},
                 {"address", member.address},
                 {"firmware", Printable(member.firmware)},
                 {"state", StateName(member.progress.state)},
                 {"reached", StateName(member.progress.reached)},
                 {"attempts", member.progress.attempts},
                 {"code", static_cast<int>(member.code)},
                 {"text", member.text},
                 {"observed", member.observed},
                 {"assumed", member.assumed}};
    Json phases = Json::array();
    for (const PhaseRow& phase : kPhases) {
        if (const auto seconds = PhaseSeconds(member, phase.state)) {
            phases.push_back({{"name", phase.name}, {"seconds", *seconds}});
        }
    }
    json["phases"] = phases;
    return json;
}

Json MembersJson(const std::vector<Member>& members) {
    Json devices = Json::array();
    for (const Member& member : members) {
        devices.push_back(MemberJson(member));
    }
    return devices;
}

Json PackageNameJson(const PackageName& package) {
    return {{"file", package.file}, {"size", package.size}, {"md5", package.md5}};
}

Json ReportJson(const JournalContents& journal) {
    return {{"package", PackageNameJson(journal.package)},
            {"runs", journal.runs},
            {"torn", journal.torn},
            {"devices", MembersJson(journal.members)}};
}

}  // namespace kvtool::fleet

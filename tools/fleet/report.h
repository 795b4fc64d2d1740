// Reports on a journal or on the members of a run, for people and for other programs.
#pragma once

#include <ostream>
#include <vector>

#include "tools/fleet/journal.h"

namespace kvtool::fleet {

struct Counts {
    size_t done = 0;
    size_t failed = 0;
    size_t open = 0;  // not started, or left under way
};
Counts Count(const std::vector<Member>& members);
// "1 device", "2 devices".
std::string DevicesText(size_t count);

// What the device has now, in words: the package, what it had before, or not known.
const char* HasText(const Member& member);

// A table of all devices: state, attempts, and how long each phase of the latest attempt took. If
// it is wider than `width` (0: no limit), it loses columns, and the reasons follow it.
void WriteTable(std::ostream& out, const JournalContents& journal, size_t width);
// A heading and a line for each device, quoted as in RFC 4180.
void WriteCsv(std::ostream& out, const JournalContents& journal);
// A self-contained page.
void WriteHtml(std::ostream& out, const JournalContents& journal);

// The table at the end of a run: each device that is not done, with the reason.
void WriteTroubles(std::ostream& out, const std::vector<Member>& members);

Json MemberJson(const Member& member);
Json MembersJson(const std::vector<Member>& members);
Json PackageNameJson(const PackageName& package);
// The keys `package`, `runs`, `torn` and `devices`.
Json ReportJson(const JournalContents& journal);

}  // namespace kvtool::fleet

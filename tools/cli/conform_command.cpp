#include "tools/cli/conform_command.h"

#include <algorithm>
#include <iostream>
#include <sstream>

#include "tools/base/files.h"
#include "tools/base/wait.h"
#include "tools/cli/load_package.h"
#include "tools/conform/transcript.h"

namespace kvtool {

namespace {

using conform::Outcome;

void Print(const conform::Finding& finding) {
    const char* word = finding.outcome == Outcome::kKept     ? "ok     "
                       : finding.outcome == Outcome::kBroken ? "BROKEN "
                                                             : "skipped";
    std::cout << word << ' ' << finding.text << '\n';
    for (const std::string& remark : finding.remarks) {
        std::cout << "          " << Printable(remark) << '\n';
    }
    std::cout.flush();
}

size_t Count(const std::vector<conform::Finding>& findings, Outcome outcome) {
    return static_cast<size_t>(std::count_if(
        findings.begin(), findings.end(),
        [outcome](const conform::Finding& finding) { return finding.outcome == outcome; }));
}

// An interrupt that has ended the rules does not end this too.
void SaveTranscript(const std::string& path, const std::vector<conform::Finding>& findings) {
    const Interrupt never;
    const InterruptedBy onlyThat(never);
    std::ostringstream text;
    WriteTranscript(text, findings);
    const std::string bytes = text.str();
    WriteWholeFile(path, Bytes(bytes.begin(), bytes.end()));
}

// Returns whether the device keeps all rules tried.
bool Conclude(const ConformCommand& command, const std::vector<conform::Finding>& findings,
              Json* json) {
    const size_t broken = Count(findings, Outcome::kBroken);
    const size_t skipped = Count(findings, Outcome::kSkipped);
    const size_t kept = findings.size() - broken - skipped;
    json->update({{"kept", kept}, {"broken", broken}, {"skipped", skipped}});
    if (!command.transcript.empty() && !findings.empty()) {
        SaveTranscript(command.transcript, findings);
    }
    if (!command.json) {
        std::cout << kept << " rules kept, " << broken << " broken, " << skipped << " skipped\n";
    }
    return broken == 0;
}

}  // namespace

ExitCode RunConform(const ConformCommand& command, const Layout& layout, Json* json) {
    (*json)["host"] = Printable(command.request.host);
    conform::ConformRequest request = command.request;
    if (!command.package.empty()) {
        request.package =
            LoadPackage({command.package, false, {}, command.json}, layout, json).bytes;
    }
    (*json)["rules"] = Json::array();
    std::vector<conform::Finding> findings;
    try {
        Conform(request, [&](const conform::Finding& finding) {
            findings.push_back(finding);
            (*json)["rules"].push_back(FindingJson(finding));
            if (!command.json) {
                Print(finding);
            }
        });
    } catch (const ToolError&) {
        (void)Conclude(command, findings, json);
        throw;
    }
    return Conclude(command, findings, json) ? ExitCode::kDone : ExitCode::kBadReply;
}

}  // namespace kvtool

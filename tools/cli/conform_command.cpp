#include "tools/cli/conform_command.h"

#include <algorithm>
#include <iostream>
#include <sstream>

#include "tools/base/files.h"
#include "tools/conform/transcript.h"

namespace kvtool {

namespace {

using conform::Finding;
using conform::Outcome;

void Print(const Finding& finding) {
    const char* word = finding.outcome == Outcome::kKept     ? "ok     "
                       : finding.outcome == Outcome::kBroken ? "BROKEN "
                                                             : "skipped";
    std::cout << word << ' ' << finding.text << '\n';
    for (const std::string& remark : finding.remarks) {
        std::cout << "          " << Printable(remark) << '\n';
    }
    std::cout.flush();
}

size_t Count(const std::vector<Finding>& findings, Outcome outcome) {
    return static_cast<size_t>(
        std::count_if(findings.begin(), findings.end(),
                      [outcome](const Finding& finding) { return finding.outcome == outcome; }));
}

void SaveTranscript(const std::string& path, const std::vector<Finding>& findings) {
    std::ostringstream text;
    WriteTranscript(text, findings);
    const std::string bytes = text.str();
    WriteWholeFile(path, Bytes(bytes.begin(), bytes.end()));
}

}  // namespace

ExitCode RunConform(const ConformCommand& command, Json* json) {
    (*json)["host"] = Printable(command.request.host);
    conform::ConformRequest request = command.request;
    if (!command.package.empty()) {
        request.package = ReadWholeFile(command.package);
    }
    (*json)["rules"] = Json::array();
    const std::vector<Finding> findings = Conform(request, [&](const Finding& finding) {
        (*json)["rules"].push_back(FindingJson(finding));
        if (!command.json) {
            Print(finding);
        }
    });
    const size_t broken = Count(findings, Outcome::kBroken);
    const size_t skipped = Count(findings, Outcome::kSkipped);
    (*json)["kept"] = findings.size() - broken - skipped;
    (*json)["broken"] = broken;
    (*json)["skipped"] = skipped;
    if (!command.transcript.empty()) {
        SaveTranscript(command.transcript, findings);
    }
    if (!command.json) {
        std::cout << findings.size() - broken - skipped << " rules kept, " << broken << " broken, "
                  << skipped << " skipped\n";
    }
    return broken > 0 ? ExitCode::kBadReply : ExitCode::kDone;
}

}  // namespace kvtool

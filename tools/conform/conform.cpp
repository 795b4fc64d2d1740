#include "tools/conform/conform.h"

#include "tools/base/errors.h"
#include "tools/package/builder.h"

namespace kvtool::conform {

namespace {

// A package that the device accepts and that selects none of its partitions.
Bytes PackageForNothing(const Known& known) {
    constexpr size_t kSize = 200000;
    BuildRequest request{
        known.ic, known.sensor, {{"nothing", Bytes(kSize, 0xFF)}}, Layout::Default()};
    request.force = true;
    return BuildPackage(request).bytes;
}

void Try(const Rule& rule, const ConformRequest& request, Known* known, const Found& found) {
    Trial trial(rule.name, rule.text);
    try {
        rule.run(request, known, &trial);
    } catch (const ToolError& error) {
        if (error.Code() == ExitCode::kInterrupted) {
            trial.Skip(error.what());
            found(trial.Result());
            throw;
        }
        trial.Differs(error.what());
    }
    found(trial.Result());
}

}  // namespace

void Conform(const ConformRequest& request, const Found& found) {
    // Without a device there is nothing to compare.
    (void)ConnectAny(request.host, request.commandPort, request.times.connect);
    Known known;
    for (const auto* rules : {&CommandRules(), &DiscoveryRules()}) {
        for (const Rule& rule : *rules) {
            Try(rule, request, &known, found);
        }
    }
    if (!request.destructive) {
        return;
    }
    ConformRequest uploads = request;
    std::string trouble;
    if (uploads.package.empty()) {
        try {
            uploads.package = PackageForNothing(known);
        } catch (const ToolError&) {
            trouble = "the device names no chip and sensor type to make a package for";
        }
    }
    for (const Rule& rule : UploadRules()) {
        if (trouble.empty()) {
            Try(rule, uploads, &known, found);
        } else {
            Trial trial(rule.name, rule.text);
            trial.Skip(trouble);
            found(trial.Result());
        }
    }
}

const char* OutcomeName(Outcome outcome) {
    switch (outcome) {
        case Outcome::kKept:
            return "kept";
        case Outcome::kBroken:
            return "broken";
        case Outcome::kSkipped:
            break;
    }
    return "skipped";
}

Json FindingJson(const Finding& finding) {
    return {{"rule", finding.rule},
            {"text", finding.text},
            {"outcome", OutcomeName(finding.outcome)},
            {"remarks", finding.remarks}};
}

}  // namespace kvtool::conform

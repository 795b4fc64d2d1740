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

Finding Try(const Rule& rule, const ConformRequest& request, Known* known) {
    Trial trial(rule.name, rule.text);
    try {
        rule.run(request, known, &trial);
    } catch (const ToolError& error) {
        if (error.Code() == ExitCode::kInterrupted) {
            throw;
        }
        trial.Differs(error.what());
    }
    return trial.Result();
}

}  // namespace

std::vector<Finding> Conform(const ConformRequest& request,
                             const std::function<void(const Finding&)>& found) {
    // Without a device there is nothing to compare.
    (void)ConnectAny(request.host, request.commandPort, request.times.connect);
    std::vector<Finding> findings;
    Known known;
    const auto tryAll = [&](const std::vector<Rule>& rules, const ConformRequest& what) {
        for (const Rule& rule : rules) {
            findings.push_back(Try(rule, what, &known));
            found(findings.back());
        }
    };
    tryAll(CommandRules(), request);
    tryAll(DiscoveryRules(), request);
    if (request.destructive) {
        ConformRequest uploads = request;
        if (uploads.package.empty()) {
            uploads.package = PackageForNothing(known);
        }
        tryAll(UploadRules(), uploads);
    }
    return findings;
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

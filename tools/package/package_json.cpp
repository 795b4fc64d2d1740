#include "tools/package/package_json.h"

#include <algorithm>
#include <cmath>

#include "flash/kv_upgrade_package.h"
#include "tools/base/nor_times.h"
#include "tools/package/flash_time.h"

namespace kvtool {

namespace {

Json EntryJson(const EntryReport& entry) {
    Json partitions = Json::array();
    for (const LayoutRow& row : entry.targets) {
        partitions.push_back({{"name", row.name}, {"device", row.device}, {"size", row.size}});
    }
    return {{"index", entry.index},
            {"name", Printable(entry.name)},
            {"partitions", partitions},
            {"offset", entry.dataOffset},
            {"length", entry.dataLen},
            {"in_file", entry.inFile},
            {"check_code", entry.checkCode},
            {"reached", entry.reached},
            {"md5", entry.md5.empty() ? Json() : Json(entry.md5)},
            {"written_behind", entry.behind},
            {"written_behind_blank", entry.behindBlank}};
}

Json FindingsJson(const PackageReport& report) {
    Json findings = Json::array();
    for (const Finding& finding : report.findings) {
        Json item = {{"severity", SeverityName(finding.severity)},
                     {"kind", finding.kind},
                     {"text", finding.text}};
        if (finding.entry >= 0) {
            item["entry"] = finding.entry;
        }
        findings.push_back(std::move(item));
    }
    return findings;
}

double Milliseconds(double seconds) {
    return std::round(seconds * 1000) / 1000;
}

double ChipSeconds(std::chrono::microseconds time) {
    return std::chrono::duration<double>(time).count();
}

Json FlashTimeJson(const FlashTime& time) {
    Json windows = Json::array();
    for (const PowerWindow& window : time.windows) {
        windows.push_back({{"partition", window.partition},
                           {"risk", CutRiskName(window.risk)},
                           {"from", Milliseconds(window.from)},
                           {"seconds", Milliseconds(window.seconds)}});
    }
    const Json chip = {{"page_bytes", kv::kNorPageBytes},
                       {"page_seconds", ChipSeconds(kv::kNorPageProgram)},
                       {"block_bytes", kv::kNorLargestErase.bytes},
                       {"block_seconds", ChipSeconds(kv::kNorLargestErase.typical)}};
    return {{"seconds", Milliseconds(time.seconds)}, {"windows", windows}, {"chip", chip}};
}

Json PlaceJson(const std::optional<ImagePlace>& place) {
    if (!place) {
        return {};
    }
    return {{"index", place->index}, {"offset", place->offset}, {"size", place->size}};
}

}  // namespace

Json PackageSummaryJson(const PackageReport& report) {
    Json json = {{"size", report.size}, {"md5", report.md5}, {"acceptable", report.Acceptable()}};
    if (report.headerComplete) {
        json["ic"] = Printable(report.ic);
        json["sensor"] = Printable(report.sensor);
    }
    json["findings"] = FindingsJson(report);
    return json;
}

Json PackageJson(const PackageReport& report) {
    Json json = {{"size", report.size}, {"md5", report.md5}, {"acceptable", report.Acceptable()}};
    if (report.headerComplete) {
        json["ic"] = Printable(report.ic);
        json["sensor"] = Printable(report.sensor);
        json["total_length"] = report.totalLen;
        json["file_num"] = report.fileNum;
    }
    if (report.signature) {
        json["embedded_signature"] = SignatureJson(report.signature->text);
    }
    json["entries"] = Json::array();
    for (const EntryReport& entry : report.entries) {
        json["entries"].push_back(EntryJson(entry));
    }
    json["power"] = FlashTimeJson(PredictFlashTime(report));
    json["findings"] = FindingsJson(report);
    return json;
}

Json FlashMapJson(const PackageReport& report, const Layout& layout) {
    Json map = Json::array();
    for (const LayoutRow& row : layout.Rows()) {
        Json written = Json::array();
        for (const EntryReport& entry : report.entries) {
            const bool selects =
                std::any_of(entry.targets.begin(), entry.targets.end(),
                            [&row](const LayoutRow& target) { return target.name == row.name; });
            // The device stops at a bad check code and skips an image that is too large.
            if (selects && entry.reached && entry.checkCode == kv::kEntryCheckCode &&
                report.totalLen != 0 && entry.dataLen <= row.size) {
                written.push_back({{"entry", entry.index},
                                   {"offset", 0},
                                   {"length", entry.inFile},
                                   {"behind", entry.behind}});
            }
        }
        const bool stays = written.empty();
        map.push_back({{"name", row.name},
                       {"device", row.device},
                       {"size", row.size},
                       {"assumed", true},
                       {"written", std::move(written)},
                       {"stays", stays}});
    }
    return map;
}

Json SignatureJson(const Signature& signature) {
    return {{"key_id", signature.keyId},
            {"trusted_comment", Printable(signature.comment)},
            {"form", signature.form == SignatureForm::kEmbedded ? "embedded" : "detached"}};
}

Json ComparisonJson(const PackageComparison& comparison) {
    Json header = Json::array();
    for (const HeaderDifference& field : comparison.header) {
        header.push_back({{"field", field.field}, {"a", field.a}, {"b", field.b}});
    }
    Json images = Json::array();
    for (const ImageComparison& image : comparison.images) {
        Json item = {{"name", Printable(image.name)},
                     {"change", ImageChangeName(image.change)},
                     {"a", PlaceJson(image.a)},
                     {"b", PlaceJson(image.b)}};
        if (image.change == ImageChange::kChanged) {
            item["first_difference"] = image.difference.first;
            item["bytes_differ"] = image.difference.count;
        }
        images.push_back(std::move(item));
    }
    return {{"identical", comparison.identical}, {"header", header}, {"images", images}};
}

Json VerdictJson(const DumpVerdict& verdict) {
    Json json = {{"name", verdict.name},
                 {"same", verdict.difference.count == 0},
                 {"size", verdict.size},
                 {"image", verdict.image},
                 {"written_behind", verdict.behind}};
    if (verdict.difference.count > 0) {
        json["first_difference"] = verdict.difference.first;
        json["bytes_differ"] = verdict.difference.count;
    }
    return json;
}

}  // namespace kvtool

#include "tools/ladder/timeline_json.h"

#include "main/kv_monitor_decision.h"

namespace kvtool::ladder {

namespace {

double InSeconds(Ms time) {
    return static_cast<double>(time) / 1000;
}

Json BeatMarginJson(const BeatMargin& margin) {
    Json later = Json::object();
    for (const StepMargin& step : margin.steps) {
        later[EventName(step.step)] = InSeconds(step.later);
    }
    return {{"at", InSeconds(margin.at)},
            {"silence", InSeconds(margin.silence)},
            {"later", std::move(later)}};
}

Json MarginsJson(const Margins& margins) {
    Json json = {{"closest", nullptr}, {"heartbeats", Json::array()}, {"steps", Json::array()}};
    if (margins.closest) {
        json["closest"] = BeatMarginJson(*margins.closest);
    }
    for (const BeatMargin& margin : margins.beats) {
        json["heartbeats"].push_back(BeatMarginJson(margin));
    }
    for (const MissedBeat& missed : margins.missed) {
        Json late = missed.late ? Json(InSeconds(*missed.late)) : Json(nullptr);
        json["steps"].push_back({{"event", EventName(missed.step)},
                                 {"at", InSeconds(missed.at)},
                                 {"late", std::move(late)}});
    }
    return json;
}

Json BootJson(const Boot& boot, bool margins) {
    Json json = {
        {"boot", boot.number},      {"marker", boot.marker},   {"seconds", InSeconds(boot.length)},
        {"end", EndName(boot.end)}, {"events", Json::array()}, {"periods", Json::array()},
        {"notes", boot.notes}};
    for (const Event& event : boot.events) {
        Json item = {{"at", InSeconds(event.at)}, {"event", EventName(event.kind)}};
        if (event.silence > 0) {
            item["silence"] = event.silence;
        }
        if (event.seen) {
            item["seen"] = InSeconds(*event.seen);
        }
        json["events"].push_back(std::move(item));
    }
    for (const Period& period : boot.periods) {
        json["periods"].push_back({{"from", InSeconds(period.from)},
                                   {"to", InSeconds(period.to)},
                                   {"state", StateName(period.state)},
                                   {"heartbeats", period.beats}});
    }
    if (margins) {
        json["what_if"] = MarginsJson(boot.margins);
    }
    return json;
}

}  // namespace

Json TimelineJson(const Timeline& timeline, bool margins) {
    Json json = {{"check_period", InSeconds(kMonitorCheckPeriodMs)},
                 {"result", ResultText(timeline)},
                 {"repeats", timeline.repeats ? Json(*timeline.repeats) : Json(nullptr)},
                 {"boots", Json::array()},
                 {"differences", timeline.differences}};
    for (const Boot& boot : timeline.boots) {
        json["boots"].push_back(BootJson(boot, margins));
    }
    return json;
}

}  // namespace kvtool::ladder

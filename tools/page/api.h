// The addresses of the page's server; docs/page.md lists them.
#pragma once

#include <atomic>
#include <map>
#include <string>

#include "tools/page/access.h"
#include "tools/page/assets.h"
#include "tools/page/http_server.h"
#include "tools/page/run_control.h"

namespace kvtool::page {

// Its functions may be called on any thread.
class Api {
  public:
    Api(Gate* gate, Model* model, RunControl* runs, Archive* archive, const RunSettings& settings);

    HttpReply Handle(HttpCall* call);

    // More open pages get status 503.
    static constexpr int kMostStreams = 32;

  private:
    using Route = HttpReply (Api::*)(HttpCall*);
    struct Endpoint {
        std::string method;
        Route route;
    };

    HttpReply Dispatch(HttpCall* call);
    HttpReply Enter(HttpCall* call);
    HttpReply File(const Asset& asset, const HttpCall& call) const;
    HttpReply GetState(HttpCall* call);
    HttpReply GetEvents(HttpCall* call);
    HttpReply PostPackage(HttpCall* call);
    HttpReply DeletePackage(HttpCall* call);
    HttpReply PostSignature(HttpCall* call);
    HttpReply PostPlan(HttpCall* call);
    HttpReply PostRun(HttpCall* call);
    HttpReply PostStop(HttpCall* call);
    HttpReply PostRetry(HttpCall* call);
    HttpReply PostResume(HttpCall* call);
    HttpReply GetReport(HttpCall* call);
    HttpReply GetHistory(HttpCall* call);
    void SendEvents(HttpStream* stream);

    Gate* gate_;
    Model* model_;
    RunControl* runs_;
    Archive* archive_;
    const RunSettings& settings_;
    std::multimap<std::string, Endpoint> endpoints_;
    std::map<std::string, std::string> tags_;  // ETag of each asset
    std::atomic<int> streams_{0};
};

}  // namespace kvtool::page

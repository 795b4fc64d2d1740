#include <CLI/CLI.hpp>
#include <iostream>
#include <memory>

#include "common/kv_platform.h"
#include "tools/cli/command_line.h"
#include "tools/cli/fleet_view.h"
#include "tools/page/service.h"

namespace kvtool {

namespace {

struct ServeCommand {
    page::ServeRequest request;
    LayoutOptions layout;
    bool noBrowser = false;
};

class Announcer : public page::ServeListener {
  public:
    Announcer(const page::ServeRequest& request, bool json) : request_(request), json_(json) {}

    void Ready(const std::string& address, uint16_t port) override {
        if (json_) {
            std::cout << JsonLine({{"schema", kJsonSchema},
                                   {"command", "serve"},
                                   {"event", "ready"},
                                   {"address", address},
                                   {"port", port},
                                   {"journal", Printable(request_.journal)}})
                      << std::endl;
            return;
        }
        std::cout << "The page is at\n\n  " << address << "\n\nIts journal is "
                  << Printable(request_.journal) << ". Ctrl-C ends kvtool.\n"
                  << std::flush;
    }

    void Ending(const page::Flying& flying) override {
        std::cerr << UnderWayText(
                         flying.rows, flying.total,
                         Seconds(request_.settings.times.leave + request_.settings.times.back),
                         Clock::now())
                  << std::endl;
    }

    void Warn(const std::string& text) override { std::cerr << "kvtool: " << text << std::endl; }

  private:
    const page::ServeRequest& request_;
    bool json_;
};

}  // namespace

void AddServeCommand(CLI::App* root, Chosen* chosen) {
    const auto command = std::make_shared<ServeCommand>();
    page::ServeRequest& request = command->request;
    page::RunSettings& settings = request.settings;
    request.journal = "kvtool-serve.journal";
    settings.discovery.port = kv::kDiscoveryPort;
    CLI::App* app = root->add_subcommand("serve", "Serve a page for a browser on this PC");
    app->add_option("--port", request.port, "TCP port of the page (default: any free port)")
        ->check(CLI::Range(1, 65535));
    app->add_flag("--no-browser", command->noBrowser, "Do not start a browser");
    app->add_option("--journal", request.journal, "Journal of the upgrades")
        ->capture_default_str()
        ->type_name("FILE");
    app->add_option("--trusted-key", settings.trustedKey,
                    "minisign public keys; refuse a package that none of them has signed")
        ->type_name("FILE");
    AddLayout(app, &command->layout);
    app->add_option("--interface", settings.discovery.interfaces, "Search on this interface only")
        ->allow_extra_args(false);
    AddAnswerTimes(app, &settings.times);
    AddUpgradeTimes(app, &settings.times);
    app->add_flag("--json", chosen->json, "Print the address and the result as lines of JSON");
    app->callback([command, chosen] {
        chosen->run = [command, chosen](Json*) {
            page::ServeRequest& serve = command->request;
            serve.settings.layout = command->layout.Make();
            serve.openBrowser = !command->noBrowser;
            Announcer announcer(serve, chosen->json);
            return page::Serve(serve, &announcer);
        };
    });
}

}  // namespace kvtool

// A board's network on a site: plugs the board into the site's bridges.
#pragma once

#include "vboard/control.h"
#include "vboard/network.h"

namespace vboard::site {

class SiteLink : public BoardNetwork {
  public:
    // Joins the site with the state folder `site` as board `number`; 0 takes the lowest free one.
    // An empty `ethAddress` gives eth0 the address for the number; kNoEth leaves eth0 out. Throws
    // when no site runs there or the number is taken. The board leaves when the object is
    // destroyed.
    SiteLink(const StateDir& site, int number, const std::string& ethAddress);

    static constexpr char kNoEth[] = "none";

    // The board's state folder.
    std::filesystem::path Folder() const;

    void Create() override;
    void Attach(pid_t init) override;
    void Detach() override;
    void AccessPoint(const std::string& action) override;
    void WlanLink(pid_t init, bool up) override { SetWlan(init, up); }
    std::string Describe() const override;
    const std::string& EthAddress() const override { return ethAddress_; }
    int Number() const override { return number_; }
    int EndFd() const override { return site_.Fd(); }

  private:
    std::filesystem::path folder_;
    ControlClient site_;
    int number_ = 0;
    pid_t runner_ = -1;    // the site's
    std::string airPath_;  // the air's namespace, as a file
    UniqueFd air_;
    bool attached_ = false;
    std::string ethAddress_;
    bool carrier_ = true;
    bool muted_ = false;
};

}  // namespace vboard::site

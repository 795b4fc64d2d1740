// The journals of the page and the package beside them. FILE is the journal of the present package;
// FILE.1, FILE.2, … are those of earlier ones, the oldest first. FILE.package is the package of
// FILE. If kvtool is killed, its next start goes on with both.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/base/json.h"
#include "tools/base/text.h"
#include "tools/fleet/journal.h"

namespace kvtool::page {

class Archive {
  public:
    // Opens or creates the journal. Throws ToolError: kBusy while another process writes it,
    // kRefused if it is damaged.
    explicit Archive(std::string path);
    // Removes a journal without a run.
    ~Archive();
    Archive(const Archive&) = delete;
    Archive& operator=(const Archive&) = delete;

    const std::string& Path() const { return path_; }
    std::string Folder() const;
    // What the journal has now. May be called while a run writes it.
    fleet::JournalContents Read() const { return fleet::ReadJournal(path_); }
    fleet::Journal* Writer() { return journal_.get(); }

    // Begins a new journal; the present one gets the next number. The package beside it is removed.
    // Throws ToolError(kInternal).
    void BeginNew();

    // Keeps the bytes beside the journal. Throws ToolError(kInternal).
    void KeepPackage(const Bytes& bytes) const;
    // The kept package if its MD5 is this one, or nothing.
    std::optional<Bytes> KeptPackage(const std::string& md5) const;

    // What all journals have of one device: a list, the latest journal last.
    Json History(const std::string& device) const;

  private:
    std::string NumberedPath(int number) const;
    int Numbered() const;

    std::string path_;
    std::unique_ptr<fleet::Journal> journal_;
};

}  // namespace kvtool::page

#include "tools/conform/transcript.h"

#include <algorithm>

namespace kvtool::conform {

namespace {

constexpr size_t kRow = 16;
constexpr size_t kShown = 544;       // the longest reply
constexpr size_t kShownOfMore = 48;  // of a piece that is longer

void WriteBytes(std::ostream& out, char way, const Bytes& bytes) {
    const size_t shown = bytes.size() > kShown ? kShownOfMore : bytes.size();
    std::string last;
    for (size_t at = 0; at < shown; at += kRow) {
        const std::string row = Hex(bytes.data() + at, std::min(kRow, shown - at), " ");
        // One star replaces all further rows that are equal, as in hexdump.
        if (row != last) {
            out << (at == 0 ? way : ' ') << ' ' << row << '\n';
        } else if (at < 2 * kRow || Hex(bytes.data() + at - 2 * kRow, kRow, " ") != last) {
            out << "  *\n";
        }
        last = row;
    }
    if (shown < bytes.size()) {
        out << "  ... " << bytes.size() << " bytes in all\n";
    }
}

}  // namespace

void WriteTranscript(std::ostream& out, const std::vector<Finding>& findings) {
    for (const Finding& finding : findings) {
        out << "# " << finding.rule << ": " << finding.text << '\n';
        for (const Piece& piece : finding.exchange) {
            switch (piece.way) {
                case Piece::Way::kSent:
                    WriteBytes(out, '>', piece.bytes);
                    break;
                case Piece::Way::kReceived:
                    WriteBytes(out, '<', piece.bytes);
                    break;
                case Piece::Way::kRemark:
                    out << "  (" << piece.text << ")\n";
                    break;
            }
        }
        out << '\n';
    }
}

}  // namespace kvtool::conform

// Packages as the input describes them, for the fuzzers of both readers.
#pragma once

#include "common/kv_platform.h"
#include "tests/fuzz/world.h"
#include "tests/support/wire.h"

namespace fuzz {

// Header and table as the input says, mostly with valid check codes, then a part of `data`.
inline std::string MakePackage(Input* in, const std::string& data) {
    using namespace kv_test;
    const size_t count = in->Below(5);
    std::string package = Padded(in->Piece(), 16) + Little(1) +
                          Little(static_cast<uint32_t>(count + in->Below(16) / 15));
    for (size_t i = 0; i < count; ++i) {
        const uint8_t row = in->Byte();
        const uint32_t unit = in->Below(2) == 0 ? 1 : 4096;
        const std::string name =
            row < 192 ? kv::kPartitions[row % 6].name + in->Text(row / 64) : in->Piece();
        package += Padded(name, 128) + Little(in->Short() * unit) + Little(in->Short() * unit) +
                   Little(0) + Little(in->Below(16) == 15 ? in->Byte() : 0x12345) +
                   std::string(112, '\0');
    }
    return package.substr(0, in->Below(8) == 7 ? in->Short() : package.npos) +
           data.substr(0, in->Short() * size_t{4});
}

}  // namespace fuzz

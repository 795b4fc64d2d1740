#include "hv/md5.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace {

std::string Digest(const std::string& text, size_t step) {
    HV_MD5_CTX context;
    HV_MD5Init(&context);
    std::string rest = text;
    while (!rest.empty()) {
        std::string part = rest.substr(0, step);
        rest.erase(0, part.size());
        HV_MD5Update(&context, reinterpret_cast<unsigned char*>(&part[0]),
                     static_cast<unsigned>(part.size()));
    }
    unsigned char digest[16];
    HV_MD5Final(&context, digest);
    std::string hex;
    for (const unsigned char byte : digest) {
        char two[3];
        (void)snprintf(two, sizeof(two), "%02x", byte);
        hex += two;
    }
    return hex;
}

TEST(HvMd5, GivesThePublishedDigestsWhateverTheSteps) {
    const struct {
        const char* text;
        const char* digest;
    } vectors[] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
    };
    for (const auto& vector : vectors) {
        for (const size_t step : {size_t{1}, size_t{63}, size_t{1024}}) {
            EXPECT_EQ(Digest(vector.text, step), vector.digest);
        }
    }
}

}  // namespace

#include "hv/md5.h"

void HV_MD5Init(HV_MD5_CTX* ctx) {
    MD5Init(ctx);
}

void HV_MD5Update(HV_MD5_CTX* ctx, unsigned char* input, unsigned int inputlen) {
    MD5Update(ctx, input, inputlen);
}

void HV_MD5Final(HV_MD5_CTX* ctx, unsigned char digest[16]) {
    MD5Final(digest, ctx);
}

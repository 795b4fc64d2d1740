// MD5 with libhv's names, on libmd. Any thread, one context each; nothing blocks or fails.
#pragma once

#include <md5.h>

typedef MD5_CTX HV_MD5_CTX;

void HV_MD5Init(HV_MD5_CTX* ctx);
void HV_MD5Update(HV_MD5_CTX* ctx, unsigned char* input, unsigned int inputlen);
void HV_MD5Final(HV_MD5_CTX* ctx, unsigned char digest[16]);

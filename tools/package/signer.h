// Signs packages with the program minisign, which asks for the key's password itself. kvtool never
// reads a secret key.
#pragma once

#include <string>

#include "tools/base/text.h"

namespace kvtool {

// Signs a package that was built with room for a signature and writes the signature into it. `key`
// is a secret key file of minisign. Blocks while minisign asks for a password, at most 10 minutes.
// Throws ToolError: kRefused if minisign cannot sign with the key or gets no password in that time,
// kInternal if minisign is missing, kInterrupted.
void SignPackage(Bytes* package, const std::string& key);

}  // namespace kvtool

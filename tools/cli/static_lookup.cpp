// Name look-up of the static kvtool: /etc/hosts and DNS, whatever /etc/nsswitch.conf says.
//
// Other services are modules that the C library loads at run time, and they fit only the version of
// it that they were built with. The two named here are part of the library itself.
#include <nss.h>

namespace {

struct OnlyBuiltInLookup {
    OnlyBuiltInLookup() { (void)__nss_configure_lookup("hosts", "files dns"); }
} g_onlyBuiltInLookup;

}  // namespace

// The static kvtool looks names up in /etc/hosts and by DNS, whatever /etc/nsswitch.conf says.
//
// The C library loads other services as modules at run time. They work only with the version that
// they were built for. The two named here are part of the library itself.
#include <nss.h>

namespace {

struct OnlyBuiltInLookup {
    OnlyBuiltInLookup() { (void)__nss_configure_lookup("hosts", "files dns"); }
} g_onlyBuiltInLookup;

}  // namespace

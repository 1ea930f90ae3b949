// dorvand: neighbour key holders for fast roaming and background channel
// scans of a wireless access point.
#include "core/daemon.h"

int main()
{
    return daemon_main();
}

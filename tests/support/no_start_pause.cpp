// Linked into the suites of the server loop, which start a server in every
// case: the pause before a fixed DCH port is bound (two seconds, for an
// earlier copy to let go of the port) returns at once, and the cases run in
// the time of what they test. The port's suite times the pause itself.
// Nothing else these suites run sleeps.
#include "zev0.h"

extern "C" void OSV1_Sleep(int seconds) { (void)seconds; }

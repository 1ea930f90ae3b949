// Compiled for a 32-bit target only (g++ -m32 -fsyntax-only): the headers'
// static assertions on the driver's, the configuration store's and the
// neighbour records' sizes and offsets hold where pointers are 4 bytes, as on
// the access points this daemon ships on.
#include "configstore/dbcom_msg.h"
#include "neighbours/nb_internal.h"
#include "scan/driver.h"

static_assert(sizeof(void*) == 4, "this check must be compiled for a 32-bit target");

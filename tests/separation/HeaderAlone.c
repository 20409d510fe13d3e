/* The header needs no other one before it, in any C since 1999. */
#include "zevrant_separation.h"

ZevrantSeparationStatus (*open)(const ZevrantSeparationOptions*, ZevrantSeparation**) = zevrantSeparationOpen;

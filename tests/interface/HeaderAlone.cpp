// Compiled as C++11: the header alone gives a C++ host C linkage and the same records.
#include "zevrant.h"

static_assert(sizeof(ProcessorInfo) == 24 && sizeof(ModelInfo) == 32, "records as in C");

extern "C" {
typedef ProcessorState* (*Create)(const char*, int, double);
}
extern const Create create;
const Create create = zevrantCreateProcessor;

/* Compiled as C99 and C11: the header needs nothing before it, may be included twice, and its records and
   functions have the types that C hosts count on. */
#include "zevrant.h"

typedef char ProcessorInfoHasItsSize[sizeof(ProcessorInfo) == 24 ? 1 : -1];
typedef char ModelInfoHasItsSize[sizeof(ModelInfo) == 32 ? 1 : -1];

struct FunctionTable {
    struct ProcessorState* (*create)(const char*, int, double);
    struct ProcessorState* (*createStemSeparator)(int, const char**, int, double);
    void (*addAudio)(struct ProcessorState*, const float**, int);
    bool (*getAudio)(struct ProcessorState*, float* const*, int);
    void (*getInfo)(struct ProcessorState*, ProcessorInfo*);
    void (*addTensor)(struct ModelState*, const float*, int, const int*);
};

extern const struct FunctionTable functionTable;
const struct FunctionTable functionTable = {zevrantCreateProcessor,  zevrantCreateStemSeparator,
                                            zevrantAddAudio,         zevrantGetAudio,
                                            zevrantGetProcessorInfo, zevrantAddTensor};

/* A C host on the shared library: what cannot be opened gives a null handle, and null handles may be deleted.
 */
#include <stdio.h>
#include <string.h>

#include "zevrant.h"

static int failures = 0;

static void expect(int condition, const char* what) {
    if (condition) return;
    fprintf(stderr, "failed: %s\n", what);
    ++failures;
}

int main(void) {
    const char* missing[] = {"no-such-file.model", "nor-this-one.model"};
    char name[64];
    memset(name, 'x', sizeof name);

    expect(!zevrantCreateProcessor(missing[0], 2, 48000.0), "a processor on a missing file is null");
    expect(!zevrantCreateProcessor(".", 2, 48000.0), "a processor on a folder is null");
    expect(!zevrantCreateStemSeparator(2, missing, 2, 48000.0), "a separator on missing files is null");
    expect(!zevrantCreateStemSeparator(0, missing, 2, 48000.0), "a separator on no file is null");
    expect(!zevrantCreateModel(missing[0]), "a model of a missing file is null");
    zevrantDeleteProcessor(NULL);
    zevrantDeleteModel(NULL);

    zevrantGetVectorArithmeticWrapperName(name, sizeof name);
    expect(name[0] != '\0' && memchr(name, '\0', sizeof name) != NULL, "the vector arithmetic has a name");
    printf("%s\n", name);
    return failures;
}

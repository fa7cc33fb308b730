#include <orvaccess/orvaccess.h>

#include <stdio.h>
#include <string.h>

int main(void) {
    char version[16];
    OrvAccess* access = OrvAccess_create();
    int ok;
    if (access == NULL) return 1;
    ok = strcmp(OrvAccess_getVersion(access, version, sizeof version), "1.23.00") == 0;
    printf("C consumer: liborvaccess %s\n", version);
    OrvAccess_destroy(access);
    return ok ? 0 : 1;
}

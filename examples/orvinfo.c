/* The same as orvinfo, through the C interface. */
#include <orvaccess/orvaccess.h>

#include <stdio.h>

int main(void) {
    char version[16];
    char date[32];
    OrvAccess* access = OrvAccess_create();
    if (access == NULL) {
        fprintf(stderr, "could not create the access object\n");
        return 1;
    }
    printf("liborvaccess %s (interface built %s)\n", OrvAccess_getVersion(access, version, sizeof version),
           OrvAccess_getBuildDate(access, date, sizeof date));
    printf("library clock: %.3f ms\n", OrvosiUtil_getTimeMs());
    OrvAccess_destroy(access);
    return 0;
}

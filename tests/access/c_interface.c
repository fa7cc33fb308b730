/* A C99 application of the library: create, configure, open, poll, close. */
#define _POSIX_C_SOURCE 200809L

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <orvaccess/orvaccess.h>

static int failures = 0;

static void check(int ok, const char* what) {
    if (!ok) {
        fprintf(stderr, "c_interface: FAILED: %s\n", what);
        ++failures;
    }
}

/* A UDP port in 20000..32767 that nobody holds now. */
static int freeUdpPort(void) {
    int tries;
    for (tries = 0; tries < 1000; ++tries) {
        const int port = 20000 + (int)((getpid() * 31 + tries * 7) % 12768);
        struct sockaddr_in a;
        int fd = socket(AF_INET, SOCK_DGRAM, 0);
        int ok;
        if (fd < 0) return 0;
        memset(&a, 0, sizeof a);
        a.sin_family = AF_INET;
        a.sin_port = htons((unsigned short)port);
        a.sin_addr.s_addr = htonl(INADDR_ANY);
        ok = bind(fd, (struct sockaddr*)&a, sizeof a) == 0;
        close(fd);
        if (ok) return port;
    }
    return 0;
}

int main(void) {
    char dir[] = "/tmp/orvac-XXXXXX";
    char ini[64];
    char text[64];
    FILE* f;
    int port, delivered;
    OrvAccess* h;
    s_OrvAccessStatus status;
    s_OrvAccessTrkData trk;
    s_OrvAccessErrorCode code;

    port = freeUdpPort();
    if (port == 0 || mkdtemp(dir) == NULL) {
        fprintf(stderr, "c_interface: no free port or temporary folder\n");
        return 2;
    }
    snprintf(ini, sizeof ini, "%s/orvaccess.ini", dir);
    f = fopen(ini, "w");
    if (f == NULL) return 2;
    fprintf(f, "[Communication]\ntcpOrvRxEnabled = 0\nudpOrvRxPort = 0\nudpOrvRxImgPort = 0\n"
               "udpOrvRxInputPort = 0\nudpOrvCorePort = %d\nudpOrvHubPort = 0\nudpNftPort = 0\n"
               "sMemImgName =\n",
            port);
    fclose(f);

    h = OrvAccess_create();
    if (h == NULL) {
        fprintf(stderr, "c_interface: OrvAccess_create returned NULL\n");
        return 1;
    }
    check(strcmp(OrvAccess_getVersion(h, text, sizeof text), "1.23.00") == 0, "getVersion");
    OrvAccess_setIniPath(h, ini);
    check(OrvAccess_open(h) == 1, "open");

    check(OrvAccess_getStatus(h, &status) == 1, "getStatus result");
    /* The hub endpoint follows orvCore's setting: its own "0" is an ephemeral port. */
    check(status.connections == (ORVACCESS_CONN_ORVCORE | ORVACCESS_CONN_ORVHUB), "getStatus connections (orvCore, orvHub)");

    memset(&trk, 0x5A, sizeof trk);
    delivered = 42;
    check(OrvAccess_getTrackingDataLatest(h, &delivered, &trk) == 1, "getTrackingDataLatest result");
    check(delivered == 0, "getTrackingDataLatest delivered nothing");
    check(trk.packetTag == 0x5A5A5A5Au, "getTrackingDataLatest left the record alone");

    code.code = 99;
    code.value = 7;
    check(OrvAccess_getErrorCode(h, &code) == 0 && code.code == 0, "getErrorCode on an empty queue");
    check(strcmp(OrvAccess_getErrorMessage(h, text, sizeof text, 0x302), "[ORVACCESS] ERROR: Bad tracking packet") == 0,
          "getErrorMessage");
    check(OrvAccess_getImageBufSize(h) == 0x400000u, "getImageBufSize default");

    check(OrvAccess_close(h) == 1, "close");
    OrvAccess_destroy(h);
    OrvAccess_destroy(NULL);

    remove(ini);
    rmdir(dir);
    if (failures == 0) printf("c_interface: ok\n");
    return failures == 0 ? 0 : 1;
}

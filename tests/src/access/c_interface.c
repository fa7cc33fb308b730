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
    char area[8];
    int port, delivered, width, height, bytesPerPixel;
    unsigned long size, got;
    unsigned char tx[1] = {0}, rx[4];
    OrvAccess* h;
    s_OrvAccessStatus status;
    s_OrvAccessTrkData trk;
    s_OrvAccessErrorCode code;
    s_OrvAccessImuData imu;

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
    check(strcmp(OrvAccess_getErrorMessage(h, text, sizeof text, ORVACCESS_ERR_BAD_TRACKING_PKT), "[ORVACCESS] ERROR: Bad tracking packet") == 0,
          "getErrorMessage");
    check(OrvAccess_getImageBufSize(h) == 0x400000u, "getImageBufSize default");

    /* Values that C passes freely but the library's enumerations cannot hold
     * (sanitized builds stop at once on such a value reaching C++). */
    check(OrvAccess_getImageInfo(h, (e_OrvAccessImageFormat)13, &size, &width, &height, &bytesPerPixel) == 0 &&
              strcmp(OrvAccess_getLastError(h, text, sizeof text), "Illegal image format (13)") == 0,
          "getImageInfo of an illegal code the enumeration holds");
    size = 0;
    width = height = bytesPerPixel = 0;
    check(OrvAccess_getImageInfo(h, (e_OrvAccessImageFormat)200, &size, &width, &height, &bytesPerPixel) == 0 &&
              size == 307200 && width == 640 && height == 480 && bytesPerPixel == 1 &&
              strcmp(OrvAccess_getLastError(h, text, sizeof text), "Illegal image format (200)") == 0,
          "getImageInfo refuses format 200 with the geometry and text of an illegal code");
    delivered = 42;
    check(OrvAccess_getImuData(h, (e_OrvAccessImuSelect)2, &delivered, &imu) == 0 && delivered == 0,
          "getImuData refuses selector 2");
    check(strcmp(OrvAccess_getLastError(h, text, sizeof text), "Invalid source IMU selector") == 0,
          "a refused selector says why");
    check(OrvAccess_transactImu(h, (e_OrvAccessImuSelect)2, tx, 1, rx, sizeof rx, 1, &got) == 0 &&
              strcmp(OrvAccess_getLastError(h, text, sizeof text), "TCP not open") == 0,
          "transactImu takes selector 2 for the first channel");
    check(OrvAccess_getFile(h, "remote", (e_OrvAccessFileLoc)300, "local") == 0, "getFile with location 300");

    /* A buffer of no bytes is left alone; a caller may want the code only. */
    memset(area, 'x', sizeof area);
    check(OrvAccess_getErrorMessage(h, area + 4, 0, ORVACCESS_ERR_BAD_TRACKING_PKT) == area + 4 && area[3] == 'x' && area[4] == 'x',
          "getErrorMessage with len 0");
    check(OrvAccess_getErrorCode(h, NULL) == 0, "getErrorCode without a record");

    check(OrvAccess_close(h) == 1, "close");
    OrvAccess_destroy(h);
    OrvAccess_destroy(NULL);

    /* The pose feed on the same port: its own thread, its object lent under its lock. */
    {
        OrvPoseFeed* feed = OrvPoseFeed_create(ini, text, sizeof text);
        OrvPoseFeedReader* reader;
        OrvAccess* lent;
        s_OrvPoseFeedPose pose;
        s_OrvPoseFeedRecovery recovery;
        check(feed != NULL, "OrvPoseFeed_create");
        if (feed != NULL) {
            check(OrvPoseFeed_isRunning(feed) == 1, "OrvPoseFeed_isRunning");
            check(OrvPoseFeed_getLatest(feed, &pose) == 0 && pose.valid == 0 && pose.stale == 1 && pose.sequence == 0,
                  "OrvPoseFeed_getLatest before any pose");
            lent = OrvPoseFeed_lockAccess(feed);
            check(lent != NULL && OrvAccess_getStatus(lent, &status) == 1 &&
                      (status.connections & ORVACCESS_CONN_ORVCORE) != 0,
                  "OrvPoseFeed_lockAccess lends the open object");
            OrvPoseFeed_unlockAccess(feed);
            reader = OrvPoseFeedReader_create(feed);
            check(reader != NULL && OrvPoseFeedReader_getAtTime(reader, 1000, &pose) == 0, "a reader before any pose");
            OrvPoseFeedReader_destroy(reader);
            check(OrvPoseFeed_getRecovery(feed, &recovery) == 1 && recovery.outages == 0 &&
                      recovery.recoveries == 0 && recovery.state != ORVACCESS_FEED_STOPPED &&
                      memchr(recovery.text, 0, sizeof recovery.text) != NULL,
                  "OrvPoseFeed_getRecovery while running");
            check(OrvPoseFeed_getRecovery(feed, NULL) == 0, "OrvPoseFeed_getRecovery without a record");
            check(OrvPoseFeed_stop(feed) == 1 && OrvPoseFeed_isRunning(feed) == 0, "OrvPoseFeed_stop");
            check(OrvPoseFeed_getRecovery(feed, &recovery) == 1 && recovery.state == ORVACCESS_FEED_STOPPED &&
                      strcmp(recovery.text, "stopped") == 0,
                  "OrvPoseFeed_getRecovery when stopped");
            check(OrvPoseFeed_start(feed) == 1 && OrvPoseFeed_isRunning(feed) == 1, "OrvPoseFeed_start again");
            OrvPoseFeed_destroy(feed);
        }
        f = fopen(ini, "w");
        if (f == NULL) return 2;
        fprintf(f, "[Communication]\ntcpOrvRxEnabled = 0\nudpOrvRxPort = 0\nudpOrvRxImgPort = 0\n"
                   "udpOrvRxInputPort = 0\nudpOrvCorePort = 0\nudpOrvHubPort = 0\nudpNftPort = 0\nsMemImgName =\n");
        fclose(f);
        check(OrvPoseFeed_create(ini, text, sizeof text) == NULL && strcmp(text, "Unable to open any connections") == 0,
              "OrvPoseFeed_create says why it cannot open");
    }

    remove(ini);
    rmdir(dir);
    if (failures == 0) printf("c_interface: ok\n");
    return failures == 0 ? 0 : 1;
}

/* orvsub: prints the poses that orvbridge publishes, one line each, from any
 * process on any host of the DDS domain. Nothing of liborvaccess is needed:
 * Cyclone DDS's C API and the geometry_msgs/PoseStamped type from idlc.
 *
 *   orvsub [--domain N] [--namespace NS] [--topic pose|pose_predicted]
 *          [--reliable] [--count N] [--until-publisher-leaves]
 *
 * Each line: stamp (s), frame, position x y z (m), quaternion x y z w.
 * The count goes to standard error at the end. */
#include <dds/dds.h>

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "RosMessages.h"

#define BATCH 64

static volatile sig_atomic_t stop = 0;

static void onSignal(int sig) {
    (void)sig;
    stop = 1;
}

static const char* const kUsage =
    "usage: orvsub [--domain N] [--namespace NS] [--topic pose|pose_predicted] [--reliable]\n"
    "              [--count N] [--until-publisher-leaves]\n";

static int usage(const char* why) {
    fprintf(stderr, "orvsub: %s\n%s", why, kUsage);
    return 2;
}

/* An argument no option knows, named. */
static int unknown(const char* arg) {
    const char* what = strncmp(arg, "--", 2) == 0 ? "unknown option" : "unknown argument";
    fprintf(stderr, "orvsub: %s %s\n%s", what, arg, kUsage);
    return 2;
}

static int help(void) {
    printf("orvsub: prints the poses orvbridge publishes on a DDS domain, one line each\n\n%s\n"
           "Options:\n"
           "  --domain N                DDS domain id, 0 to 232 (default 0); the Cyclone DDS\n"
           "                            configuration comes from CYCLONEDDS_URI\n"
           "  --namespace NS            the bridge's namespace: topics rt/NS/... (default orv)\n"
           "  --topic pose|pose_predicted\n"
           "                            the poses as reported, or as predicted (default pose)\n"
           "  --reliable                read without loss from a bridge started with --reliable\n"
           "  --count N                 stop after N poses\n"
           "  --until-publisher-leaves  stop when the bridge goes\n"
           "  --help                    print this help and exit\n"
           "  --version                 print the version and exit\n\n"
           "Each line: stamp (s), frame, position x y z (m), quaternion x y z w. The count goes to\n"
           "standard error at the end. Exit status: 0 a run; 1 DDS cannot be joined; 2 bad arguments.\n",
           kUsage);
    return 0;
}

/* A whole decimal number from min to max, or -1. */
static long number(const char* text, long min, long max) {
    char* end = NULL;
    const long v = strtol(text, &end, 10);
    return end != text && *end == '\0' && v >= min && v <= max ? v : -1;
}

int main(int argc, char** argv) {
    unsigned domain = 0;
    const char* ns = "orv";
    const char* leaf = "pose";
    int reliable = 0, untilLeft = 0;
    long limit = 0;
    for (int i = 1; i < argc; ++i) {
        const char* a = argv[i];
        const char* v = i + 1 < argc ? argv[i + 1] : NULL;
        if (strcmp(a, "--help") == 0 || strcmp(a, "-h") == 0) {
            return help();
        } else if (strcmp(a, "--version") == 0) {
            printf("orvsub %s\n", ORVA_TOOL_VERSION);
            return 0;
        } else if (strcmp(a, "--reliable") == 0) {
            reliable = 1;
        } else if (strcmp(a, "--until-publisher-leaves") == 0) {
            untilLeft = 1;
        } else if (strcmp(a, "--domain") != 0 && strcmp(a, "--namespace") != 0 && strcmp(a, "--topic") != 0 &&
                   strcmp(a, "--count") != 0) {
            return unknown(a);
        } else if (v == NULL) {
            fprintf(stderr, "orvsub: %s lacks its value\n%s", a, kUsage);
            return 2;
        } else if (strcmp(a, "--domain") == 0) {
            const long d = number(v, 0, 232);
            if (d < 0) return usage("--domain takes a domain id from 0 to 232");
            domain = (unsigned)d;
            ++i;
        } else if (strcmp(a, "--namespace") == 0) {
            ns = v;
            ++i;
        } else if (strcmp(a, "--topic") == 0) {
            if (strcmp(v, "pose") != 0 && strcmp(v, "pose_predicted") != 0)
                return usage("--topic takes pose or pose_predicted: the other topics carry other types");
            leaf = v;
            ++i;
        } else if (strcmp(a, "--count") == 0) {
            limit = number(v, 1, 2000000000L);
            if (limit < 0) return usage("--count takes a number of poses, 1 or more");
            ++i;
        }
    }
    char topicName[256];
    snprintf(topicName, sizeof topicName, "rt/%s/%s", ns, leaf);

    const dds_entity_t participant = dds_create_participant((dds_domainid_t)domain, NULL, NULL);
    if (participant < 0) {
        fprintf(stderr, "orvsub: cannot join DDS domain %u: %s; check CYCLONEDDS_URI\n", domain,
                dds_strretcode(participant));
        return 1;
    }
    const dds_entity_t topic =
        dds_create_topic(participant, &geometry_msgs_msg_dds__PoseStamped__desc, topicName, NULL, NULL);
    dds_qos_t* qos = dds_create_qos();
    /* Best effort matches every writer; reliable, keeping all, loses nothing
     * when the bridge's streams are reliable too (orvbridge --reliable). */
    if (reliable) {
        dds_qset_reliability(qos, DDS_RELIABILITY_RELIABLE, DDS_SECS(1));
        dds_qset_history(qos, DDS_HISTORY_KEEP_ALL, 0);
    } else {
        dds_qset_reliability(qos, DDS_RELIABILITY_BEST_EFFORT, 0);
        dds_qset_history(qos, DDS_HISTORY_KEEP_LAST, 16);
    }
    const dds_entity_t reader = topic < 0 ? topic : dds_create_reader(participant, topic, qos, NULL);
    dds_delete_qos(qos);
    if (reader < 0) {
        fprintf(stderr, "orvsub: cannot subscribe to %s: %s\n", topicName, dds_strretcode(reader));
        dds_delete(participant);
        return 1;
    }
    dds_set_status_mask(reader, DDS_DATA_AVAILABLE_STATUS | DDS_SUBSCRIPTION_MATCHED_STATUS |
                                    DDS_REQUESTED_INCOMPATIBLE_QOS_STATUS);
    const dds_entity_t waitset = dds_create_waitset(participant);
    dds_waitset_attach(waitset, reader, reader);
    signal(SIGINT, onSignal);
    signal(SIGTERM, onSignal);
    fprintf(stderr, "orvsub: reading %s on domain %u\n", topicName, domain);

    long count = 0;
    int matched = 0;
    while (!stop && (limit <= 0 || count < limit)) {
        dds_waitset_wait(waitset, NULL, 0, DDS_MSECS(100));
        void* samples[BATCH] = {NULL}; /* a null first entry: Cyclone lends its own */
        dds_sample_info_t infos[BATCH];
        dds_return_t n;
        while ((n = dds_take(reader, samples, infos, BATCH, BATCH)) > 0) {
            for (int i = 0; i < n && (limit <= 0 || count < limit); ++i) {
                if (!infos[i].valid_data) continue;
                const geometry_msgs_msg_dds__PoseStamped_* p = samples[i];
                printf("%d.%09u %s p %.9g %.9g %.9g q %.9g %.9g %.9g %.9g\n", p->header.stamp.sec,
                       p->header.stamp.nanosec, p->header.frame_id, p->pose.position.x, p->pose.position.y,
                       p->pose.position.z, p->pose.orientation.x, p->pose.orientation.y, p->pose.orientation.z,
                       p->pose.orientation.w);
                ++count;
            }
            dds_return_loan(reader, samples, n);
        }
        dds_requested_incompatible_qos_status_t incompatible;
        if (dds_get_requested_incompatible_qos_status(reader, &incompatible) == 0 &&
            incompatible.total_count_change > 0)
            fprintf(stderr, "orvsub: a publisher of %s does not offer what this reader asks for%s\n", topicName,
                    reliable ? ": it is best effort, so drop --reliable or start orvbridge with --reliable" : "");
        dds_subscription_matched_status_t st;
        if (dds_get_subscription_matched_status(reader, &st) == 0) {
            if (st.current_count > 0) matched = 1;
            /* Everything the publisher wrote has been taken above: a
             * reliable writer that leaves has delivered it first. */
            if (untilLeft && matched && st.current_count == 0) break;
        }
    }
    fflush(stdout);
    fprintf(stderr, "orvsub: %ld poses\n", count);
    dds_delete(participant);
    return 0;
}

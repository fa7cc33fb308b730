// A Fast DDS participant for the bridge's tests: what a ROS 2 node on
// Fast DDS (ROS 2's default middleware) would be. It reads the bridge's
// poses and IMU samples and prints each one, and with --uplink publishes a
// fixed set of uplink samples once the bridge reads them. The types are
// built at run time (DynamicTypes) with the names and layouts of the
// bridge's IDL, so nothing is generated and nothing of Cyclone DDS is used.
//
//   fastdds_peer --domain N [--namespace orv] [--interface ADDR] [--uplink]
//                [--uplink-after FILE] [--type-information] [--type-object]
//                [--timeout S]
//
// A writer matched here may not be matched yet at the bridge, whose
// volatile reader then never gets what was written before: with
// --uplink-after the samples go out once FILE exists, which the test
// creates when the bridge reports the uplink writers.
//
// stdout: "pose SEC NSEC FRAME px py pz qx qy qz qw" and "imu SEC NSEC FRAME
// wx wy wz ax ay az cov0", numbers as C's %a (exact). stderr: progress, the
// lease of each participant that joins, and at the end "fastdds_peer: N
// poses, M imu samples". Exit status 0 when the
// bridge came and went, 1 when it never came or a call failed, 2 bad
// arguments.
#include <fastdds/dds/domain/DomainParticipant.hpp>
#include <fastdds/dds/domain/DomainParticipantFactory.hpp>
#include <fastdds/dds/domain/DomainParticipantListener.hpp>
#include <fastdds/dds/publisher/DataWriter.hpp>
#include <fastdds/dds/publisher/Publisher.hpp>
#include <fastdds/dds/subscriber/DataReader.hpp>
#include <fastdds/dds/subscriber/SampleInfo.hpp>
#include <fastdds/dds/subscriber/Subscriber.hpp>
#include <fastdds/dds/topic/Topic.hpp>
#include <fastdds/rtps/transport/UDPv4TransportDescriptor.h>
#include <fastrtps/types/DynamicDataFactory.h>
#include <fastrtps/types/DynamicPubSubType.h>
#include <fastrtps/types/DynamicTypeBuilderFactory.h>
#include <fastrtps/types/DynamicTypeBuilderPtr.h>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace eprosima::fastdds::dds;
using eprosima::fastrtps::types::DynamicData;
using eprosima::fastrtps::types::DynamicData_ptr;
using eprosima::fastrtps::types::DynamicDataFactory;
using eprosima::fastrtps::types::DynamicPubSubType;
using eprosima::fastrtps::types::DynamicType_ptr;
using eprosima::fastrtps::types::DynamicTypeBuilder_ptr;
using eprosima::fastrtps::types::DynamicTypeBuilderFactory;

struct Options {
    int domain = -1;
    std::string ns = "orv";
    std::string interface;
    bool uplink = false;
    std::string uplinkAfter;
    bool typeInformation = false;
    bool typeObject = false;
    double timeoutS = 60.0;
};

// ---- the types, member by member as in the bridge's IDL ---------------------

DynamicTypeBuilderFactory& types() { return *DynamicTypeBuilderFactory::get_instance(); }

// A struct builder that numbers its members in order.
class Struct {
public:
    explicit Struct(const std::string& name) : b_(types().create_struct_builder()) { b_->set_name(name); }
    Struct& add(const std::string& member, DynamicType_ptr type) {
        b_->add_member(next_++, member, type);
        return *this;
    }
    DynamicType_ptr build() { return b_->build(); }

private:
    DynamicTypeBuilder_ptr b_;
    uint32_t next_ = 0;
};

DynamicType_ptr f64() { return types().create_float64_type(); }
DynamicType_ptr f32() { return types().create_float32_type(); }
DynamicType_ptr u32() { return types().create_uint32_type(); }
// Fast DDS 2.9 has no uint8: an octet travels the same.
DynamicType_ptr u8() { return types().create_byte_type(); }
DynamicType_ptr array(DynamicType_ptr element, uint32_t n) {
    DynamicTypeBuilder_ptr b(types().create_array_builder(element, {n}));
    return b->build();
}

DynamicType_ptr headerType() {
    DynamicType_ptr time = Struct("builtin_interfaces::msg::dds_::Time_")
                               .add("sec", types().create_int32_type())
                               .add("nanosec", u32())
                               .build();
    return Struct("std_msgs::msg::dds_::Header_")
        .add("stamp", time)
        .add("frame_id", types().create_string_type())
        .build();
}
DynamicType_ptr xyz(const char* name) {
    return Struct(std::string("geometry_msgs::msg::dds_::") + name)
        .add("x", f64())
        .add("y", f64())
        .add("z", f64())
        .build();
}
DynamicType_ptr quaternionType() {
    return Struct("geometry_msgs::msg::dds_::Quaternion_")
        .add("x", f64())
        .add("y", f64())
        .add("z", f64())
        .add("w", f64())
        .build();
}
DynamicType_ptr poseStampedType() {
    DynamicType_ptr pose =
        Struct("geometry_msgs::msg::dds_::Pose_")
            .add("position", xyz("Point_"))
            .add("orientation", quaternionType())
            .build();
    return Struct("geometry_msgs::msg::dds_::PoseStamped_").add("header", headerType()).add("pose", pose).build();
}
DynamicType_ptr imuType() {
    return Struct("sensor_msgs::msg::dds_::Imu_")
        .add("header", headerType())
        .add("orientation", quaternionType())
        .add("orientation_covariance", array(f64(), 9))
        .add("angular_velocity", xyz("Vector3_"))
        .add("angular_velocity_covariance", array(f64(), 9))
        .add("linear_acceleration", xyz("Vector3_"))
        .add("linear_acceleration_covariance", array(f64(), 9))
        .build();
}
DynamicType_ptr platformPoseType() {
    return Struct("orv_msgs::msg::dds_::PlatformPose_")
        .add("tag", u32())
        .add("roll", f32())
        .add("pitch", f32())
        .add("yaw", f32())
        .build();
}
DynamicType_ptr gpsType() {
    return Struct("orv_msgs::msg::dds_::GpsData_")
        .add("valid", u8())
        .add("gpsWord1", u32())
        .add("lat", f64())
        .add("lon", f64())
        .add("gpsValue1", f32())
        .add("gpsHalf", types().create_uint16_type())
        .add("gpsByte1", u8())
        .add("gpsValue2", f32())
        .add("gpsValue3", f32())
        .add("gpsWord2", u32())
        .add("gpsDouble1", f64())
        .add("gpsDouble2", f64())
        .add("gpsValue4", f32())
        .add("gpsValue5", f32())
        .add("gpsValue6", f32())
        .add("gpsByte2", u32())
        .build();
}
DynamicType_ptr inputType() { return Struct("orv_msgs::msg::dds_::InputData_").add("code", u8()).build(); }

// ---- reading the samples ------------------------------------------------------

// A member of a struct (or an element of an array) that is itself complex,
// loaned for the scope.
class Loan {
public:
    Loan(DynamicData* parent, uint32_t id) : parent_(parent), d_(parent->loan_value(id)) {}
    ~Loan() {
        if (d_ != nullptr) parent_->return_loaned_value(d_);
    }
    Loan(const Loan&) = delete;
    Loan& operator=(const Loan&) = delete;
    DynamicData* operator->() const { return d_; }
    DynamicData* get() const { return d_; }
    bool ok() const { return d_ != nullptr; }

private:
    DynamicData* parent_;
    DynamicData* d_;
};

// "SEC NSEC FRAME" of a std_msgs Header_.
bool printHeader(DynamicData* msg, std::string& line) {
    Loan header(msg, 0);
    if (!header.ok()) return false;
    Loan stamp(header.get(), 0);
    if (!stamp.ok()) return false;
    char buf[64];
    std::snprintf(buf, sizeof buf, " %d %u ", stamp->get_int32_value(0), stamp->get_uint32_value(1));
    line += buf;
    line += header->get_string_value(1);
    return true;
}

void appendDoubles(DynamicData* d, uint32_t n, std::string& line) {
    for (uint32_t i = 0; i < n; ++i) {
        char buf[40];
        std::snprintf(buf, sizeof buf, " %a", d->get_float64_value(i));
        line += buf;
    }
}

bool printPose(DynamicData* msg) {
    std::string line = "pose";
    if (!printHeader(msg, line)) return false;
    Loan pose(msg, 1);
    if (!pose.ok()) return false;
    Loan position(pose.get(), 0), orientation(pose.get(), 1);
    if (!position.ok() || !orientation.ok()) return false;
    appendDoubles(position.get(), 3, line);
    appendDoubles(orientation.get(), 4, line);
    std::printf("%s\n", line.c_str());
    return true;
}

bool printImu(DynamicData* msg) {
    std::string line = "imu";
    if (!printHeader(msg, line)) return false;
    Loan rate(msg, 3), accel(msg, 5), cov(msg, 2);
    if (!rate.ok() || !accel.ok() || !cov.ok()) return false;
    appendDoubles(rate.get(), 3, line);
    appendDoubles(accel.get(), 3, line);
    appendDoubles(cov.get(), 1, line);
    std::printf("%s\n", line.c_str());
    return true;
}

// ---- the participant ------------------------------------------------------------

// Tells each participant that joins, with the lease it announces: how long
// this side waits before it takes a silent participant for gone.
class Discovery : public DomainParticipantListener {
public:
    void on_participant_discovery(DomainParticipant*,
                                  eprosima::fastrtps::rtps::ParticipantDiscoveryInfo&& info) override {
        if (info.status != eprosima::fastrtps::rtps::ParticipantDiscoveryInfo::DISCOVERED_PARTICIPANT) return;
        std::fprintf(stderr, "fastdds_peer: a participant joined, lease %.1f s\n",
                     static_cast<double>(info.info.m_leaseDuration.to_ns()) / 1e9);
    }
};

class Peer {
public:
    explicit Peer(const Options& o) : opt_(o) {}
    ~Peer() {
        if (participant_ != nullptr) {
            participant_->delete_contained_entities();
            DomainParticipantFactory::get_instance()->delete_participant(participant_);
        }
    }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    bool open(std::string& error) {
        DomainParticipantQos pq = PARTICIPANT_QOS_DEFAULT;
        pq.name("orv fastdds_peer");
        if (!opt_.interface.empty()) {
            // UDP on the one interface only: no shared memory, no other link.
            auto udp = std::make_shared<eprosima::fastdds::rtps::UDPv4TransportDescriptor>();
            udp->interfaceWhiteList.push_back(opt_.interface);
            pq.transport().use_builtin_transports = false;
            pq.transport().user_transports.push_back(udp);
        }
        participant_ = DomainParticipantFactory::get_instance()->create_participant(
            static_cast<DomainId_t>(opt_.domain), pq, &discovery_, StatusMask::none());
        if (participant_ == nullptr) {
            error = "cannot create a Fast DDS participant on domain " + std::to_string(opt_.domain);
            return false;
        }
        subscriber_ = participant_->create_subscriber(SUBSCRIBER_QOS_DEFAULT);
        publisher_ = participant_->create_publisher(PUBLISHER_QOS_DEFAULT);
        if (subscriber_ == nullptr || publisher_ == nullptr) {
            error = "cannot create a subscriber or publisher";
            return false;
        }
        DataReaderQos rq = DATAREADER_QOS_DEFAULT;
        rq.reliability().kind = RELIABLE_RELIABILITY_QOS;
        rq.history().kind = KEEP_ALL_HISTORY_QOS;
        // The IMU reader before the pose reader: a bridge that counts the pose
        // readers has then seen this one too.
        imu_ = reader("imu", imuType(), rq, error);
        pose_ = reader("pose", poseStampedType(), rq, error);
        if (imu_ == nullptr || pose_ == nullptr) return false;
        if (opt_.uplink) {
            DataWriterQos wq = DATAWRITER_QOS_DEFAULT;
            wq.reliability().kind = RELIABLE_RELIABILITY_QOS;
            wq.history().kind = KEEP_ALL_HISTORY_QOS;
            wq.durability().kind = VOLATILE_DURABILITY_QOS;
            platform_ = writer("uplink/platform_pose", platformPoseType(), wq, error);
            gps_ = writer("uplink/gps", gpsType(), wq, error);
            input_ = writer("uplink/input", inputType(), wq, error);
            if (platform_ == nullptr || gps_ == nullptr || input_ == nullptr) return false;
        }
        return true;
    }

    int run() {
        const auto start = std::chrono::steady_clock::now();
        const auto elapsed = [&] {
            return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        };
        bool seen = false, sent = false;
        for (;;) {
            const int writers = matchedWriters();
            if (writers > 0 && !seen) {
                seen = true;
                std::fprintf(stderr, "fastdds_peer: the bridge's pose and IMU writers matched after %.2f s\n",
                             elapsed());
            }
            if (opt_.uplink && !sent && uplinkMatched() &&
                (opt_.uplinkAfter.empty() || access(opt_.uplinkAfter.c_str(), F_OK) == 0)) {
                if (!sendUplink()) return 1;
                sent = true;
            }
            if (!drain()) return 1;
            if (seen && writers == 0) {
                const double epochS =
                    std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
                std::fprintf(stderr, "fastdds_peer: the bridge left; noticed at %.3f s since the epoch\n", epochS);
                break;
            }
            if (!seen && elapsed() > opt_.timeoutS) {
                std::fprintf(stderr,
                             "fastdds_peer: no writer of rt/%s/pose matched within %.0f s: is the bridge running on "
                             "domain %d with --reliable (these readers are reliable), and can this host reach it?\n",
                             opt_.ns.c_str(), opt_.timeoutS, opt_.domain);
                return 1;
            }
            pose_->wait_for_unread_message(eprosima::fastrtps::Duration_t(0, 20000000));
        }
        if (!drain()) return 1;
        std::fflush(stdout);
        std::fprintf(stderr, "fastdds_peer: %llu poses, %llu imu samples\n", static_cast<unsigned long long>(poses_),
                     static_cast<unsigned long long>(imus_));
        return 0;
    }

private:
    std::string topic(const std::string& leaf) const { return "rt/" + opt_.ns + "/" + leaf; }

    Topic* makeTopic(const std::string& leaf, DynamicType_ptr type, std::string& error) {
        TypeSupport ts(new DynamicPubSubType(type));
        // Fast DDS announces a type's description with each endpoint unless
        // told not to; Cyclone DDS 0.10 rejects what 2.9 sends.
        ts->auto_fill_type_information(opt_.typeInformation);
        ts->auto_fill_type_object(opt_.typeObject);
        if (ts.register_type(participant_) != ReturnCode_t::RETCODE_OK) {
            error = "cannot register type " + ts.get_type_name();
            return nullptr;
        }
        Topic* t = participant_->create_topic(topic(leaf), ts.get_type_name(), TOPIC_QOS_DEFAULT);
        if (t == nullptr) error = "cannot create topic " + topic(leaf);
        return t;
    }

    DataReader* reader(const std::string& leaf, DynamicType_ptr type, const DataReaderQos& q, std::string& error) {
        Topic* t = makeTopic(leaf, type, error);
        if (t == nullptr) return nullptr;
        DataReader* r = subscriber_->create_datareader(t, q);
        if (r == nullptr) error = "cannot create a reader of " + topic(leaf);
        types_.emplace_back(r, type);
        return r;
    }

    DataWriter* writer(const std::string& leaf, DynamicType_ptr type, const DataWriterQos& q, std::string& error) {
        Topic* t = makeTopic(leaf, type, error);
        if (t == nullptr) return nullptr;
        DataWriter* w = publisher_->create_datawriter(t, q);
        if (w == nullptr) error = "cannot create a writer of " + topic(leaf);
        types_.emplace_back(w, type);
        return w;
    }

    // The type a reader or writer was made with, for its samples.
    DynamicType_ptr typeOf(const void* endpoint) const {
        for (const auto& [e, type] : types_)
            if (e == endpoint) return type;
        return DynamicType_ptr(nullptr);
    }

    int matchedWriters() const {
        SubscriptionMatchedStatus p{}, i{};
        pose_->get_subscription_matched_status(p);
        imu_->get_subscription_matched_status(i);
        return std::min(p.current_count, i.current_count);
    }

    bool uplinkMatched() const {
        for (DataWriter* w : {platform_, gps_, input_}) {
            PublicationMatchedStatus s{};
            w->get_publication_matched_status(s);
            if (s.current_count == 0) return false;
        }
        return true;
    }

    // The samples test_bridge.cpp also sends: five platform poses, two GPS
    // records and three input codes.
    bool sendUplink() {
        DynamicDataFactory& f = *DynamicDataFactory::get_instance();
        for (uint32_t tag = 101; tag <= 105; ++tag) {
            DynamicData_ptr d(f.create_data(typeOf(platform_)));
            d->set_uint32_value(tag, 0);
            d->set_float32_value(0.01f * static_cast<float>(tag), 1);
            d->set_float32_value(-0.02f, 2);
            d->set_float32_value(1.5f, 3);
            if (!platform_->write(d.get())) return fail("platform pose");
        }
        for (double lat : {47.25, 47.5}) {
            DynamicData_ptr d(f.create_data(typeOf(gps_)));
            d->set_byte_value(1, 0);
            d->set_float64_value(lat, 2);
            d->set_float64_value(8.125, 3);
            if (!gps_->write(d.get())) return fail("GPS record");
        }
        for (uint8_t code : {1, 7, 0x2A}) {
            DynamicData_ptr d(f.create_data(typeOf(input_)));
            d->set_byte_value(code, 0);
            if (!input_->write(d.get())) return fail("input code");
        }
        for (DataWriter* w : {platform_, gps_, input_})
            if (w->wait_for_acknowledgments(eprosima::fastrtps::Duration_t(30, 0)) != ReturnCode_t::RETCODE_OK)
                return fail("acknowledgement of an uplink sample");
        std::fprintf(stderr, "fastdds_peer: uplink sent: 5 platform poses, 2 GPS records, 3 input codes\n");
        return true;
    }

    static bool fail(const char* what) {
        std::fprintf(stderr, "fastdds_peer: writing a %s failed\n", what);
        return false;
    }

    // Takes and prints everything the readers hold.
    bool drain() {
        DynamicDataFactory& f = *DynamicDataFactory::get_instance();
        for (DataReader* r : {imu_, pose_}) {
            DynamicData_ptr d(f.create_data(typeOf(r)));
            SampleInfo info;
            while (r->take_next_sample(d.get(), &info) == ReturnCode_t::RETCODE_OK) {
                if (!info.valid_data) continue;
                const bool ok = r == pose_ ? printPose(d.get()) : printImu(d.get());
                if (!ok) {
                    std::fprintf(stderr, "fastdds_peer: a sample of %s could not be read\n",
                                 r->get_topicdescription()->get_name().c_str());
                    return false;
                }
                ++(r == pose_ ? poses_ : imus_);
            }
        }
        return true;
    }

    Options opt_;
    Discovery discovery_;
    DomainParticipant* participant_ = nullptr;
    Subscriber* subscriber_ = nullptr;
    Publisher* publisher_ = nullptr;
    DataReader* pose_ = nullptr;
    DataReader* imu_ = nullptr;
    DataWriter* platform_ = nullptr;
    DataWriter* gps_ = nullptr;
    DataWriter* input_ = nullptr;
    std::vector<std::pair<const void*, DynamicType_ptr>> types_;
    uint64_t poses_ = 0, imus_ = 0;
};

}  // namespace

// Under AddressSanitizer: Debian's Fast DDS 2.9 (built with its statistics
// module) deletes each reader through a base of the class it allocated, with
// a sized delete of the wrong size; the library's bug, not ours, and the
// one report this program's run gets. Not called in other builds.
extern "C" const char* __asan_default_options() { return "new_delete_type_mismatch=0"; }

namespace {

int usage(const char* why) {
    std::fprintf(stderr,
                 "fastdds_peer: %s\nusage: fastdds_peer --domain N [--namespace orv] [--interface ADDR] [--uplink] "
                 "[--uplink-after FILE] [--type-information] [--type-object] [--timeout S]\n",
                 why);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        const bool hasValue = i + 1 < argc;
        if (a == "--domain" && hasValue) {
            o.domain = std::atoi(argv[++i]);
        } else if (a == "--namespace" && hasValue) {
            o.ns = argv[++i];
        } else if (a == "--interface" && hasValue) {
            o.interface = argv[++i];
        } else if (a == "--timeout" && hasValue) {
            o.timeoutS = std::atof(argv[++i]);
        } else if (a == "--uplink") {
            o.uplink = true;
        } else if (a == "--uplink-after" && hasValue) {
            o.uplink = true;
            o.uplinkAfter = argv[++i];
        } else if (a == "--type-information") {
            o.typeInformation = true;
        } else if (a == "--type-object") {
            o.typeObject = true;
        } else {
            return usage(("unknown or incomplete argument " + a).c_str());
        }
    }
    if (o.domain < 0 || o.domain > 232) return usage("--domain 0 to 232 is needed");
    Peer peer(o);
    std::string error;
    if (!peer.open(error)) {
        std::fprintf(stderr, "fastdds_peer: %s\n", error.c_str());
        return 1;
    }
    return peer.run();
}

// Platform pose, GPS and input data sent to orvRx, one datagram each, at
// once: nothing is queued or retried. The setters check the uplink sender;
// the packet builders assume it is open.
#include "access/State.hpp"
#include "wire/Fields.hpp"
#include "wire/OrvosiCursor.hpp"

namespace {

// Fills in the length word, seals the datagram, dumps it and sends it. On a
// failed write the last error becomes `errorPrefix` and the sender's reason.
bool transmit(OrvAccess::State& s, OrvosiWriter& w, const char* errorPrefix) {
    w.patch16(1, w.pos() + 1);
    w.seal();
    const unsigned long length = w.pos();
    const unsigned int verbosity = s.cfg.verbosity;
    if (verbosity & ORVACCESS_VERB_DUMP_UDP_OUT)
        OrvUtil::dumpBuf(w.data(), length, ORVACCESS_VERB_DUMP_UDP_OUT);
    if (s.input.write(reinterpret_cast<const char*>(w.data()), length)) return true;
    s.fail(errorPrefix + s.input.getLastError(), true);
    return false;
}

// Start byte, length, tag, format 3, roll, pitch, yaw, checksum.
bool sendPlatformPosePkt(OrvAccess::State& s, const s_OrvAccessPlatPoseData* pose) {
    unsigned char buf[ORVWIRE_UPLINK_PLATPOSE_SIZE];
    OrvosiWriter w(buf, sizeof buf);
    w.u8(ORVWIRE_START_PLATPOSE);
    w.u16(0);
    orvwire::UplinkPose out{pose->tag, ORVWIRE_PLATPOSE_FORMAT3, {pose->pose[0], pose->pose[1], pose->pose[2]}};
    orvwire::encodeUplinkPose(w, out);
    return transmit(s, w, "Error transmitting pose to orvRx: ");
}

// The record's fields packed without padding, checksum last.
bool sendGpsDataPkt(OrvAccess::State& s, const s_OrvAccessGpsData* gps) {
    unsigned char buf[ORVWIRE_UPLINK_GPS_SIZE];
    OrvosiWriter w(buf, sizeof buf);
    w.u8(ORVWIRE_START_GPS);
    w.u16(0);
    orvwire::encodeUplinkGps(w, *gps);
    orvwire::encodeGpsBody(w, *gps);
    return transmit(s, w, "Error transmitting GPS to orvHub: ");
}

// Shares its start byte with the GPS packet, told apart by the length.
bool sendInputDataPkt(OrvAccess::State& s, unsigned char code) {
    unsigned char buf[ORVWIRE_UPLINK_INPUT_SIZE];
    OrvosiWriter w(buf, sizeof buf);
    w.u8(ORVWIRE_START_INPUT);
    w.u16(0);
    orvwire::encodeInput(w, orvwire::UplinkInput{code});
    return transmit(s, w, "Error transmitting input data to orvRx: ");
}

}  // namespace

bool OrvAccess::setPlatformPoseData(s_OrvAccessPlatPoseData pose) {
    State& s = *st_;
    if (!s.inputOpen) {
        s.fail("UDP input port not open", false);
        return false;
    }
    const unsigned int verbosity = s.cfg.verbosity;
    OrvUtil::infoLine(verbosity, "Setting platform pose: t=", pose.tag,
                      " r=", static_cast<double>(pose.pose[0]), " p=", static_cast<double>(pose.pose[1]),
                      " y=", static_cast<double>(pose.pose[2]));
    if (verbosity & ORVACCESS_VERB_PLATPOSE_TRACE)
        OrvUtil::textLine(std::cout, "ORVAPLATPOSE: tin=", pose.tag);
    return sendPlatformPosePkt(s, &pose);
}

bool OrvAccess::setGpsData(s_OrvAccessGpsData* gps) {
    State& s = *st_;
    if (!s.inputOpen) {
        s.fail("GPS UDP input port not open", false);
        return false;
    }
    OrvUtil::infoLine(s.cfg.verbosity, "Setting GPS data [lat, long]: [", gps->lat, ", ", gps->lon, "]");
    return sendGpsDataPkt(s, gps);
}

bool OrvAccess::sendInputData(unsigned char input) {
    State& s = *st_;
    if (!s.inputOpen) {
        s.fail("UDP input port not open", false);
        return false;
    }
    OrvUtil::infoLine(s.cfg.verbosity, "Sending input data: ", static_cast<unsigned int>(input));
    return sendInputDataPkt(s, input);
}

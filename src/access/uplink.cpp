// Platform pose, GPS and input data sent to orvRx, one datagram each, at
// once: nothing is queued or retried. The setters check the uplink sender;
// the packet builders assume it is open.
#include "access/State.hpp"
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
    w.u32(pose->tag);
    w.u8(ORVWIRE_PLATPOSE_FORMAT3);
    for (float v : pose->pose) w.f32(v);
    return transmit(s, w, "Error transmitting pose to orvRx: ");
}

// The record's fields packed without padding, checksum last.
bool sendGpsDataPkt(OrvAccess::State& s, const s_OrvAccessGpsData* gps) {
    unsigned char buf[ORVWIRE_UPLINK_GPS_SIZE];
    OrvosiWriter w(buf, sizeof buf);
    w.u8(ORVWIRE_START_GPS);
    w.u16(0);
    w.u8(gps->valid);
    w.u32(gps->gpsWord1);
    w.f64(gps->lat);
    w.f64(gps->lon);
    w.f32(gps->gpsValue1);
    w.u16(gps->gpsHalf);
    w.u8(gps->gpsByte1);
    w.f32(gps->gpsValue2);
    w.f32(gps->gpsValue3);
    w.u32(gps->gpsWord2);
    w.f64(gps->gpsDouble1);
    w.f64(gps->gpsDouble2);
    w.f32(gps->gpsValue4);
    w.f32(gps->gpsValue5);
    w.f32(gps->gpsValue6);
    // Only the low byte of the widened field travels.
    w.u8(static_cast<unsigned char>(gps->gpsByte2));
    return transmit(s, w, "Error transmitting GPS to orvHub: ");
}

// Shares its start byte with the GPS packet, told apart by the length.
bool sendInputDataPkt(OrvAccess::State& s, unsigned char code) {
    unsigned char buf[ORVWIRE_UPLINK_INPUT_SIZE];
    OrvosiWriter w(buf, sizeof buf);
    w.u8(ORVWIRE_START_INPUT);
    w.u16(0);
    w.u8(code);
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

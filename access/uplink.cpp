// Platform pose, GPS and input data sent to orvRx.
//
// The packet builders arrive with the uplink; until then nothing is sent.
#include "access/State.hpp"

bool OrvAccess::setPlatformPoseData(s_OrvAccessPlatPoseData /*pose*/) { return false; }

bool OrvAccess::setGpsData(s_OrvAccessGpsData* /*gps*/) { return false; }

bool OrvAccess::sendInputData(unsigned char /*input*/) { return false; }

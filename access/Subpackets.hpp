// Parsers of the subpackets that a meta packet points to. Each reads the
// subpacket at `sub`; `available` is how many bytes the buffer holds from
// there on, and no parser reads beyond it.
#pragma once

#include <cstddef>

#include "access/State.hpp"

void processPlatPoseSubPkt(OrvAccess& access, OrvAccess::State& s, const unsigned char* sub,
                           size_t available);
void processTargetSubPkt(OrvAccess& access, OrvAccess::State& s, const unsigned char* sub, size_t available);
void processDiagSubPkt(OrvAccess& access, OrvAccess::State& s, const unsigned char* sub, size_t available);
void processGpsSubPkt(OrvAccess& access, OrvAccess::State& s, const unsigned char* sub, size_t available);

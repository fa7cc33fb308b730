// The UDP service loop: drain every open port and dispatch each datagram.
#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "access/State.hpp"
#include "access/receive/Dispatch.hpp"

namespace {

using orvwire::Check;
using orvwire::Family;
using orvwire::Port;

struct Endpoint {
    OrvosiUdpClient OrvAccess::State::*endpoint;
    bool OrvAccess::State::*open;
    const char* readErrorLabel;
};

constexpr Endpoint kEndpoints[orvwire::kPortCount] = {
    {&OrvAccess::State::meta, &OrvAccess::State::metaOpen, "Error receiving from orvRx: "},
    {&OrvAccess::State::image, &OrvAccess::State::imageOpen, "Error receiving from image port: "},
    {&OrvAccess::State::core, &OrvAccess::State::coreOpen, "Error receiving from orvCore: "},
    {&OrvAccess::State::hub, &OrvAccess::State::hubOpen, "Error receiving from orvHub: "},
    {&OrvAccess::State::nft, &OrvAccess::State::nftOpen, "Error receiving from NFT: "},
};

const Family* findFamily(Port port, unsigned char firstByte) {
    for (const orvwire::Route& r : orvwire::kRoutes) {
        if (r.port == port && (r.firstByte == orvwire::kAnyByte || r.firstByte == firstByte)) return r.family;
    }
    return nullptr;
}

constexpr const char* kPastReach = "Runs past the end of the buffer";

// The failed check or refusal of a packet: the problem line under verbosity
// 0x1 and the family's code. The reason is only copied when the line is on.
void refuse(OrvAccess::State& s, const Family& f, const char* reason) {
    const unsigned int verbosity = s.cfg.verbosity;
    if (verbosity & ORVACCESS_VERB_LOG) {
        if (reason != nullptr)
            OrvUtil::logLine(verbosity, f.problemText, reason);
        else
            OrvUtil::logLine(verbosity, f.problemText, OrvUtil::getLastError());
    }
    s.addErrorCode(f.badCode, 0);
}

// An inertial chip packet: its sync byte, a type the chip decoder knows,
// and a zero byte sum over the length that type has.
bool chipOk(const Family& f, const OrvosiBytes& p) {
    const unsigned int length = OrvosiUtil::GetBvPacketLength(p.at(1));
    return p.at(0) == f.startByte && length != 0 && length <= p.reach &&
           OrvosiUtil::checksum(p.data, length < p.size ? length : p.size) == 0;
}

// Image pieces are read straight into the image being filled: the piece
// header into a small buffer, the pixels where the next piece belongs (the
// start of the buffer while no image is under way), whatever does not fit
// there into the port's slot at its own offset, so that the slot holds the
// datagram's layout should it have to be put together after all. A piece
// that passes the framing check with all its pixels in place is taken there;
// anything else (a failed check, a piece the image has no room for, a dump or
// log that wants the whole datagram) is put together in the slot and goes
// the common way, with exactly its outcome. Where a piece lands before its
// check is never read as image: the buffer being filled is never the one
// holding a complete image, and only bytes past what the current image has
// assembled are written. False on a read error; *got says whether a
// datagram came.
bool readImagePiece(OrvAccess::State& s, OrvosiUdpClient& endpoint, bool* got) {
    ImageState& img = s.img;
    const Family& f = orvwire::kImage;
    constexpr size_t kHead = ORVWIRE_IMAGE_PIXELS_AT;
    constexpr size_t kBody = kReceiveBufferSize - kHead;
    unsigned char head[kHead];
    unsigned char* slot = s.ahead[orvwire::kImagePort].slot(0);
    const size_t at = img.waiting ? 0 : img.received;
    unsigned char* const image = img.buf[img.fill].get();
    unsigned char* const place = image != nullptr && at <= img.size ? image + at : nullptr;
    size_t room = place != nullptr ? img.size - at : 0;
    if (room > kBody) room = kBody;
    const iovec pieces[3] = {{head, kHead}, {place, room}, {slot + kHead + room, kBody - room}};
    size_t n = 0;
    uint32_t from = 0;
    *got = false;
    if (!endpoint.readScattered(pieces, 3, &n, s.senders.active() ? &from : nullptr)) return false;
    if (n == 0) return true;
    *got = true;
    // What a refused sender wrote lies only past what the image has
    // assembled, where the next piece overwrites it.
    if (s.senders.active() && !s.senders.allows(from)) {
        ++s.senderDrops[orvwire::kImagePort];
        return true;
    }

    const unsigned int verbosity = s.cfg.verbosity;
    const size_t body = n > kHead ? n - kHead : 0;
    const size_t inPlace = body < room ? body : room;
    const bool whole = (verbosity & f.dumpBit) != 0 || (s.cfg.logging & f.logChannel) != 0;
    const auto sum = [&] {
        return OrvosiUtil::checksum(head, kHead) + OrvosiUtil::checksum(place, inPlace) +
               OrvosiUtil::checksum(slot + kHead + room, body - inPlace);
    };
    if (!whole && n >= ORVWIRE_IMAGE_OVERHEAD && n - ORVWIRE_IMAGE_OVERHEAD <= room &&
        OrvUtil::framingOk(head[0], OrvosiUtil::word16(head + 1), n, f.startByte, sum)) {
        OrvUtil::infoLine(verbosity, f.infoText, n);
        orvwire::takeImagePiece(s, head, place, n - ORVWIRE_IMAGE_OVERHEAD);
        s.receivedMask |= f.receivedBit;
        return true;
    }
    std::memcpy(slot, head, n < kHead ? n : kHead);
    if (inPlace > 0) std::memcpy(slot + kHead, place, inPlace);
    orvwire::handle(s, f, OrvosiBytes{slot, n, kReceiveBufferSize});
    return true;
}

}  // namespace

namespace orvwire {

bool handle(OrvAccess::State& s, const Family& f, const OrvosiBytes& packet) {
    const unsigned int verbosity = s.cfg.verbosity;
    const bool datagram = f.check == Check::datagram || f.check == Check::none;
    if (f.infoText != nullptr) {
        if (datagram)
            OrvUtil::infoLine(verbosity, f.infoText, packet.size);
        else
            OrvUtil::infoLine(verbosity, f.infoText);
    }
    // How many bytes the packet claims: a datagram's own size, a subpacket's
    // length word, a chip packet's fixed slot.
    size_t length = packet.size;
    if (f.check == Check::subpacket) {
        if (packet.reach < ORVWIRE_HEADER_SIZE) {
            refuse(s, f, kPastReach);
            return false;
        }
        length = static_cast<size_t>(packet.at(1) | packet.at(2) << 8);
    } else if (f.check == Check::chip) {
        length = f.fixedSize;
    }
    const size_t real = length < packet.size ? length : packet.size;
    // Dumped before the check, so that bad packets can be seen too.
    if (verbosity & f.dumpBit) OrvUtil::dumpBuf(packet.data, real, f.dumpBit);

    bool passed = true;
    if (f.check == Check::datagram || f.check == Check::subpacket) {
        if (length > packet.reach) {
            refuse(s, f, kPastReach);
            return false;
        }
        passed = OrvUtil::udpPktOk(packet, length, f.startByte);
    } else if (f.check == Check::chip) {
        passed = chipOk(f, packet);
    }
    if (!passed) {
        // A chip packet's line carries no reason.
        refuse(s, f, f.check == Check::chip ? "" : nullptr);
        return false;
    }
    if (s.cfg.logging & f.logChannel) OrvUtil::logBuf(packet.data, real, f.logChannel, s.cfg.logPath);
    if (const char* reason = f.parse(s, packet)) {
        refuse(s, f, reason);
        return false;
    }
    s.receivedMask |= f.receivedBit;
    return true;
}

void reportOverrun(OrvAccess::State& s, const Family& f, uint32_t tag) {
    OrvUtil::logLine(s.cfg.verbosity, f.overrunText);
    s.addErrorCode(f.overrunCode, tag);
}

}  // namespace orvwire

// Readiness and reading ahead. When no endpoint holds datagrams read ahead,
// one epoll_wait() on the set of open sockets says which have any; each of those is
// read, in its turn within the pass, with one recvmmsg() for up to a batch.
// Every pass then hands on one datagram per endpoint that holds one, in the
// fixed order, until a pass hands on nothing. Everything pending when the
// call starts is thus dispatched in exactly the order of one read per
// endpoint per pass, at one poll and one read per batch instead of one per
// datagram; a datagram that arrives on a quiet port during a burst waits at
// most a batch behind the busy one.
bool OrvAccess::serviceUdp(bool startStreaming) {
    State& s = *st_;
    if (!s.isOpen) {
        s.fail("Unable to service UDP: Interface not open", true);
        return false;
    }
    const uint32_t rxStateBefore = s.rxState;
    if (startStreaming) setStreaming(true);

    static_assert(sizeof s.ahead / sizeof s.ahead[0] == orvwire::kPortCount, "one read-ahead per endpoint");
    static_assert(sizeof s.openPorts / sizeof s.openPorts[0] == orvwire::kPortCount, "one slot per endpoint");
    const size_t count = s.openPortCount;
    const unsigned char* ids = s.openPorts;

    // A call reads one datagram from an endpoint first, with a plain read,
    // and whole batches when it comes back to it: a lone datagram costs what
    // it always did (a batch read costs one more attempt in the kernel,
    // whatever its size), a burst goes by batches from its second datagram on.
    size_t batch[orvwire::kPortCount] = {1, 1, 1, 1, 1};
    bool imageBusy = false;  // the image port's last read brought a piece
    size_t held = s.heldDatagrams();
    // Senders are asked for, and checked, only while a list is configured.
    const bool filter = s.senders.active();
    bool ok = true;
    size_t passes = 0;
    for (bool dispatched = true; dispatched && ok && (s.passLimit == 0 || passes < s.passLimit); ++passes) {
        dispatched = false;
        const bool holding = held > 0;
        // Room for a wake descriptor beside the ports; it is never read here.
        bool readyNow[OrvosiReadySet::kMaxMembers] = {};
        int ready = 0;
        if (!holding) {
            // Without a ready set (or should it fail) every open socket is read.
            ready = count > 0 ? s.readySet.wait(readyNow) : 0;
            if (ready == 0) break;
        }
        for (size_t i = 0; i < count; ++i) {
            if (ids[i] == orvwire::kImagePort) {
                // Read at its turn, one piece a pass, never ahead (where a
                // piece goes depends on the pieces before it): in every pass
                // while it yields pieces, else when the ready set names it.
                if (holding ? !imageBusy : (ready > 0 && !readyNow[i])) continue;
                if (!readImagePiece(s, s.image, &imageBusy)) {
                    s.lastError = kEndpoints[ids[i]].readErrorLabel;
                    s.lastError += s.image.getLastError();
                    ok = false;
                    break;
                }
                dispatched = dispatched || imageBusy;
                continue;
            }
            ReadAhead& ahead = s.ahead[ids[i]];
            if (ahead.empty()) {
                if (holding || (ready > 0 && !readyNow[i])) continue;
                const Endpoint& port = kEndpoints[ids[i]];
                OrvosiUdpClient& endpoint = s.*(port.endpoint);
                ahead.clear();
                size_t& want = batch[ids[i]];
                bool read = true;
                if (want == 1) {
                    int n = 0;
                    read = endpoint.read(reinterpret_cast<char*>(ahead.slot(0)), kReceiveBufferSize, &n,
                                         filter ? ahead.from : nullptr);
                    ahead.sizes[0] = n > 0 ? static_cast<size_t>(n) : 0;
                    ahead.count = n > 0 ? 1 : 0;
                } else {
                    read = endpoint.readMany(ahead.slot(0), kReceiveBufferSize, want, ahead.sizes, &ahead.count,
                                             filter ? ahead.from : nullptr);
                }
                want = ReadAhead::kSlots;
                if (!read) {
                    s.lastError = port.readErrorLabel;
                    s.lastError += endpoint.getLastError();
                    ok = false;
                    break;
                }
                held += ahead.count;
                if (ahead.empty()) continue;
            }
            const size_t at = ahead.next++;
            const unsigned char* data = ahead.slot(at);
            const size_t n = ahead.sizes[at];
            --held;
            // Dropped before anything looks at it; the pass still counts, so
            // that the ports are drained as far as ever.
            if (filter && !s.senders.allows(ahead.from[at])) {
                ++s.senderDrops[ids[i]];
                dispatched = true;
                continue;
            }
            if (n == 0) continue;
            const Family* family = findFamily(static_cast<Port>(ids[i]), data[0]);
            if (family == nullptr) continue;  // dropped unseen, and not counted
            dispatched = true;
            // Past the datagram's end a parser reads zeros, never what an
            // earlier datagram left in the slot.
            orvwire::handle(s, *family, OrvosiBytes{data, n, kReceiveBufferSize});
        }
    }

    if (!ok) OrvUtil::errLine(s.cfg.verbosity, s.lastError);
    // orvRx reporting state 3 has stopped streaming; the next getter restarts it.
    if (s.rxState != rxStateBefore && s.rxState == ORVACCESS_RX_STATE_STOPPED) s.streaming = false;
    return ok;
}

bool OrvAccess::waitUdp(int timeoutMs, bool* ready) {
    State& s = *st_;
    *ready = false;
    if (!s.isOpen) {
        s.fail("Unable to wait for UDP: Interface not open", true);
        return false;
    }
    if (s.openPortCount == 0) {
        s.fail("Unable to wait for UDP: No receiving port open", true);
        return false;
    }
    if (s.heldDatagrams() > 0) {
        *ready = true;
        return true;
    }
    // Without the set (it could not be made at open) this fails with the reason.
    bool readyNow[OrvosiReadySet::kMaxMembers] = {};
    const int n = s.readySet.wait(readyNow, timeoutMs);
    if (n < 0) {
        s.fail("Unable to wait for UDP: " + s.readySet.getLastError(), true);
        return false;
    }
    *ready = n > 0;
    return true;
}

bool OrvAccess::getSenderDrops(s_OrvAccessSenderDrops* drops) {
    if (drops == nullptr) return false;
    const uint64_t* n = st_->senderDrops;
    *drops = s_OrvAccessSenderDrops{n[orvwire::kMetaPort], n[orvwire::kImagePort], n[orvwire::kCorePort],
                                    n[orvwire::kHubPort], n[orvwire::kNftPort],
                                    static_cast<uint32_t>(st_->senders.size())};
    return true;
}

void OrvAccess::State::prepareReadAhead() {
    int fds[orvwire::kPortCount + 1];
    openPortCount = 0;
    for (int p = 0; p < orvwire::kPortCount; ++p) {
        ahead[p].clear();
        if (!(this->*(kEndpoints[p].open))) continue;
        // The image port reads one piece at a time and needs one slot only.
        ahead[p].reserve(p == orvwire::kImagePort ? 1 : ReadAhead::kSlots);
        fds[openPortCount] = (this->*(kEndpoints[p].endpoint)).descriptor();
        openPorts[openPortCount++] = static_cast<unsigned char>(p);
    }
    // Without the set the loop still works, reading every socket each pass.
    // A wake descriptor joins last, so that member i is still port openPorts[i].
    size_t members = openPortCount;
    if (wakeFd >= 0 && openPortCount > 0) fds[members++] = wakeFd;
    if (!readySet.open(fds, members)) OrvUtil::logLine(cfg.verbosity, readySet.getLastError());
}

// The hub port is left alone: hub packets survive a flush.
void OrvAccess::flushUdp() {
    State& s = *st_;
    for (Port p : {orvwire::kMetaPort, orvwire::kImagePort, orvwire::kCorePort, orvwire::kNftPort}) {
        if (!(s.*(kEndpoints[p].open))) continue;
        s.ahead[p].clear();
        (s.*(kEndpoints[p].endpoint)).flush();
    }
}

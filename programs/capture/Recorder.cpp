#include "capture/Recorder.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pcap/pcap.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "wire/CommandCodes.hpp"
#include "wire/OrvosiCursor.hpp"
#include "os/OrvosiUdp.hpp"
#include "os/OrvosiUtil.hpp"
#include "capture/Pcap.hpp"

namespace orvtools {

namespace {

constexpr int kSnapLength = 262144;           // any UDP datagram with its headers
constexpr int kCaptureBuffer = 8 << 20;       // a few seconds of camera images
constexpr int kReceiveBuffer = 4 << 20;
constexpr int kPollMs = 100;                  // how late a stop or a duration's end is noticed
constexpr int kConnectMs = 1000;
constexpr uint64_t kDrainUs = 300000;         // after streaming off: the acknowledgement, datagrams in flight
constexpr int kDatagramsPerTurn = 256;        // per port, so that no port starves the others
constexpr uint64_t kProgressUs = 500000;
constexpr uint32_t kLoopbackNet = 127;

std::string withSystemText(const std::string& what) { return what + ": " + OrvosiUtil::getSystemErrorMsg(); }

sockaddr_in ipv4(uint32_t address, int port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(address);
    a.sin_port = htons(static_cast<uint16_t>(port));
    return a;
}

// The register write the library makes to start or stop orvRx's streams.
Bytes streamingFrame(bool on) {
    Bytes f(7);
    OrvosiWriter w(f.data(), f.size());
    w.u8(orvcmd::kFrameStart);
    w.u8(orvcmd::kSetRegister);
    w.u24(orvcmd::kStreamingRegister);
    w.u8(on ? 1 : 0);
    w.seal();
    return f;
}

}  // namespace

struct Recorder::Capture {
    pcap_t* handle = nullptr;
    PcapWriter writer;
    std::unique_ptr<FrameDecoder> decoder;

    ~Capture() {
        std::string ignored;
        writer.close(ignored);
        if (handle != nullptr) pcap_close(handle);
    }
};

struct Recorder::Receive {
    struct Port {
        ChannelId id;
        int fd;
    };
    std::vector<Port> ports;
    PcapWriter writer;
    std::unique_ptr<OrvosiUdpServer> forward[kChannelCount];
    int tcp = -1;
    std::unique_ptr<TcpFlow> flow;
    uint16_t ipId = 1;
    Bytes buf = Bytes(65536);

    ~Receive() {
        for (const Port& p : ports) ::close(p.fd);
        if (tcp >= 0) ::close(tcp);
    }
    void writeFrame(const Bytes& frame) { writer.write(OrvosiUtil::getTimeSysUs(), frame.data(), frame.size()); }
};

Recorder::Recorder(RecordOptions options) : opt_(std::move(options)) {}
Recorder::~Recorder() = default;

std::string Recorder::filterFor(const Channels& channels) {
    std::string data, own;
    for (const Channel& c : channels.all()) {
        if (c.port == 0) continue;
        const std::string port = std::to_string(c.port);
        if (c.id == ChannelId::Uplink || c.id == ChannelId::Commands)
            own += (own.empty() ? "" : " or ") + std::string(c.proto == Proto::Tcp ? "tcp" : "udp") + " port " + port;
        else
            data += (data.empty() ? "" : " or ") + std::string("dst port ") + port;
    }
    std::string filter;
    if (!data.empty()) filter = "(udp and (" + data + "))";
    if (!own.empty()) filter += (filter.empty() ? "" : " or ") + std::string("(host ") + channels.address() + " and (" + own + "))";
    return filter;
}

bool Recorder::open(std::string& error, std::string& notice) {
    if (!Channels::fromIni(opt_.ini, channels_, error)) return false;
    if (!opt_.forwardIni.empty() && opt_.mode == RecordMode::Capture) {
        error = "--forward goes with receiving; a capture leaves the datagrams to the application anyway";
        return false;
    }
    bool noPrivilege = false;
    if (opt_.mode != RecordMode::Receive && opt_.forwardIni.empty()) {
        if (openCapture(error, noPrivilege)) {
            report_.mode = RecordMode::Capture;
            notice = "capturing on " + report_.interface + " with the filter \"" + report_.filter +
                     "\"; applications keep receiving";
            return true;
        }
        if (opt_.mode == RecordMode::Capture || !noPrivilege) {
            if (noPrivilege)
                error += " (run as root, or give orvrec the privilege: setcap cap_net_raw,cap_net_admin=eip orvrec;"
                         " or record with --receive)";
            return false;
        }
        notice = "no capture privilege (" + error + "): ";
        capture_.reset();
    }
    if (!openReceive(error)) return false;
    report_.mode = RecordMode::Receive;
    notice += "recording as the receiver of the configured ports; no application can receive on them meanwhile";
    if (!opt_.forwardIni.empty()) notice += " (each datagram is forwarded to the ports of " + opt_.forwardIni + ")";
    if (!report_.commands.empty()) notice += "\n" + report_.commands;
    return true;
}

bool Recorder::openCapture(std::string& error, bool& noPrivilege) {
    capture_.reset(new Capture);
    Capture& c = *capture_;
    report_.interface = !opt_.interface.empty()                             ? opt_.interface
                        : channels_.addressValue() >> 24 == kLoopbackNet ? "lo"
                                                                          : "any";
    char text[PCAP_ERRBUF_SIZE] = {};
    c.handle = pcap_create(report_.interface.c_str(), text);
    if (c.handle == nullptr) {
        error = "Cannot capture on " + report_.interface + ": " + text;
        return false;
    }
    pcap_set_snaplen(c.handle, kSnapLength);
    pcap_set_immediate_mode(c.handle, 1);
    pcap_set_buffer_size(c.handle, kCaptureBuffer);
    const int status = pcap_activate(c.handle);
    if (status < 0) {
        noPrivilege = status == PCAP_ERROR_PERM_DENIED;
        error = "Cannot capture on " + report_.interface + ": " + pcap_statustostr(status) + " (" +
                pcap_geterr(c.handle) + ")";
        return false;
    }
    report_.filter = filterFor(channels_);
    bpf_program program{};
    if (pcap_compile(c.handle, &program, report_.filter.c_str(), 1, PCAP_NETMASK_UNKNOWN) != 0 ||
        pcap_setfilter(c.handle, &program) != 0) {
        error = "Cannot set the capture filter \"" + report_.filter + "\": " + pcap_geterr(c.handle);
        pcap_freecode(&program);
        return false;
    }
    pcap_freecode(&program);
    if (pcap_setnonblock(c.handle, 1, text) != 0) {
        error = std::string("Cannot capture without blocking: ") + text;
        return false;
    }
    c.decoder.reset(new FrameDecoder(pcap_datalink(c.handle)));
    return c.writer.open(opt_.output, c.handle, error);
}

bool Recorder::openReceive(std::string& error) {
    receive_.reset(new Receive);
    Receive& r = *receive_;
    Channels forward;
    if (!opt_.forwardIni.empty() && !Channels::fromIni(opt_.forwardIni, forward, error)) return false;
    for (const Channel& c : channels_.all()) {
        if (c.port == 0 || Channels::wirePort(c.id) == orvwire::kPortCount) continue;
        const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
        if (fd < 0) {
            error = withSystemText("Cannot make a UDP socket");
            return false;
        }
        r.ports.push_back({c.id, fd});
        const int size = kReceiveBuffer, on = 1;
        // Beyond the system's ceiling only with privilege; the plain request caps quietly.
        if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) != 0)
            setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
        setsockopt(fd, IPPROTO_IP, IP_PKTINFO, &on, sizeof on);
        const sockaddr_in any = ipv4(INADDR_ANY, c.port);
        if (bind(fd, reinterpret_cast<const sockaddr*>(&any), sizeof any) != 0) {
            error = withSystemText("Cannot receive on UDP port " + std::to_string(c.port) + " (" + c.name + ")") +
                    "; is an application (orvmon?) receiving there? Stop it, or record with the capture privilege";
            return false;
        }
        if (!opt_.forwardIni.empty() && forward[c.id].port != 0) {
            if (forward[c.id].port == c.port) {
                error = "--forward: " + opt_.forwardIni + " uses the same " + c.name + " port " +
                        std::to_string(c.port) + " as " + opt_.ini;
                return false;
            }
            std::unique_ptr<OrvosiUdpServer>& s = r.forward[static_cast<int>(c.id)];
            s.reset(new OrvosiUdpServer());
            const std::string to = "127.0.0.1:" + std::to_string(forward[c.id].port);
            if (!s->open(to.c_str())) {
                error = "Cannot forward to " + to + ": " + s->getLastError();
                return false;
            }
        }
    }
    if (!r.writer.open(opt_.output, DLT_RAW, error)) return false;

    const Channel& cmd = channels_[ChannelId::Commands];
    if (!opt_.stream || cmd.port == 0) return true;
    const std::string where = channels_.address() + ":" + std::to_string(cmd.port);
    r.tcp = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    const sockaddr_in server = ipv4(channels_.addressValue(), cmd.port);
    int failure = 0;
    if (r.tcp < 0) {
        failure = errno;
    } else if (connect(r.tcp, reinterpret_cast<const sockaddr*>(&server), sizeof server) != 0) {
        failure = errno;
        if (failure == EINPROGRESS) {
            pollfd p{r.tcp, POLLOUT, 0};
            socklen_t len = sizeof failure;
            failure = poll(&p, 1, kConnectMs) == 1 ? 0 : ETIMEDOUT;
            if (failure == 0) getsockopt(r.tcp, SOL_SOCKET, SO_ERROR, &failure, &len);
        }
    }
    if (failure != 0) {
        errno = failure;
        report_.commands = withSystemText("no command channel to " + where) +
                           ": recording what arrives without asking orvRx to stream";
        if (r.tcp >= 0) ::close(r.tcp);
        r.tcp = -1;
        return true;
    }
    sockaddr_in local{};
    socklen_t len = sizeof local;
    getsockname(r.tcp, reinterpret_cast<sockaddr*>(&local), &len);
    r.flow.reset(new TcpFlow(ntohl(local.sin_addr.s_addr), ntohs(local.sin_port), channels_.addressValue(),
                             static_cast<uint16_t>(cmd.port)));
    for (int step = 0; step < 3; ++step) r.writeFrame(r.flow->open(step));
    const Bytes on = streamingFrame(true);
    if (send(r.tcp, on.data(), on.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(on.size())) {
        report_.commands = withSystemText("cannot ask orvRx to stream over " + where);
        return true;
    }
    r.writeFrame(r.flow->data(true, on.data(), on.size()));
    report_.counts.add(ChannelId::Commands, "to-orvRx", on.size());
    report_.commands = "asked orvRx at " + where + " to stream, as the library does; it stops at the end";
    return true;
}

void Recorder::count(const Segment& s) {
    const ChannelId ch = channels_.classify(s);
    if (ch == ChannelId::Count) return;
    if (ch == ChannelId::Commands) {
        if (s.payload.empty()) return;
        const bool toRx = s.dstPort == channels_[ChannelId::Commands].port;
        report_.counts.add(ch, toRx ? "to-orvRx" : "from-orvRx", s.payload.size());
        return;
    }
    report_.counts.add(ch, Channels::kindOf(ch, s.payload.data(), s.payload.size()), s.payload.size());
}

bool Recorder::run(const std::atomic<bool>& stop, const std::function<void(const RecordReport&)>& progress,
                   std::string& error) {
    const uint64_t start = OrvosiUtil::getTimeSysUs();
    const uint64_t limit = opt_.durationS > 0 ? static_cast<uint64_t>(opt_.durationS * 1e6) : 0;
    uint64_t nextProgress = start + kProgressUs;
    Receive* r = receive_.get();
    Capture* c = capture_.get();

    // Reads what one command-channel read brings and records it.
    auto readCommands = [&]() {
        char buf[4096];
        const ssize_t n = recv(r->tcp, buf, sizeof buf, 0);
        if (n > 0) {
            const auto* b = reinterpret_cast<const unsigned char*>(buf);
            r->writeFrame(r->flow->data(false, b, static_cast<size_t>(n)));
            report_.counts.add(ChannelId::Commands, "from-orvRx", static_cast<size_t>(n));
        } else if (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) {
            report_.commands += "; orvRx closed the command channel";
            r->writeFrame(r->flow->close(1));
            ::close(r->tcp);
            r->tcp = -1;
        }
    };

    std::vector<pollfd> fds;
    PcapWriter& file = c != nullptr ? c->writer : r->writer;
    uint64_t closeAt = 0;  // set once the end has come: what is still under way is recorded until then
    for (;;) {
        const uint64_t now = OrvosiUtil::getTimeSysUs();
        // A file that cannot take more ends the recording, as a stop would.
        if (closeAt == 0 && (stop.load() || (limit != 0 && now - start >= limit) || file.failed())) {
            closeAt = now + 1;
            if (r != nullptr && r->tcp >= 0) {
                // Leave orvRx as the library would: streaming off, and what it still sends recorded.
                const Bytes off = streamingFrame(false);
                if (send(r->tcp, off.data(), off.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(off.size())) {
                    r->writeFrame(r->flow->data(true, off.data(), off.size()));
                    report_.counts.add(ChannelId::Commands, "to-orvRx", off.size());
                    closeAt = now + kDrainUs;
                }
            }
        }
        if (closeAt != 0 && now >= closeAt) break;
        if (now >= nextProgress) {
            nextProgress += kProgressUs;
            report_.seconds = static_cast<double>(now - start) / 1e6;
            report_.fileBytes = c != nullptr ? c->writer.bytes() : r->writer.bytes();
            if (progress) progress(report_);
        }
        fds.clear();
        if (c != nullptr) fds.push_back({pcap_get_selectable_fd(c->handle), POLLIN, 0});
        if (r != nullptr) {
            for (const Receive::Port& p : r->ports) fds.push_back({p.fd, POLLIN, 0});
            if (r->tcp >= 0) fds.push_back({r->tcp, POLLIN, 0});
        }
        const int waitMs = closeAt != 0 ? 10 : kPollMs;
        if (poll(fds.data(), fds.size(), waitMs) < 0 && errno != EINTR) {
            error = withSystemText("Waiting for traffic failed");
            return false;
        }
        if (c != nullptr) {
            const int n = pcap_dispatch(
                c->handle, -1,
                [](u_char* self, const pcap_pkthdr* h, const u_char* bytes) {
                    Recorder& me = *reinterpret_cast<Recorder*>(self);
                    me.capture_->writer.write(h, bytes);
                    const uint64_t t = static_cast<uint64_t>(h->ts.tv_sec) * 1000000u +
                                       static_cast<uint64_t>(h->ts.tv_usec);
                    Segment s;
                    if (me.capture_->decoder->decode(t, bytes, h->caplen, s)) me.count(s);
                },
                reinterpret_cast<u_char*>(this));
            if (n < 0) {
                error = std::string("Capture failed: ") + pcap_geterr(c->handle);
                return false;
            }
            continue;
        }
        for (size_t i = 0; i < r->ports.size(); ++i) {
            if ((fds[i].revents & POLLIN) == 0) continue;
            const Receive::Port& p = r->ports[i];
            for (int k = 0; k < kDatagramsPerTurn; ++k) {
                sockaddr_in from{};
                char control[CMSG_SPACE(sizeof(in_pktinfo))];
                iovec io{r->buf.data(), r->buf.size()};
                msghdr msg{};
                msg.msg_name = &from;
                msg.msg_namelen = sizeof from;
                msg.msg_iov = &io;
                msg.msg_iovlen = 1;
                msg.msg_control = control;
                msg.msg_controllen = sizeof control;
                const ssize_t n = recvmsg(p.fd, &msg, 0);
                if (n < 0) break;
                // The destination address as the datagram's IP header had it.
                uint32_t to = INADDR_LOOPBACK;
                for (cmsghdr* cm = CMSG_FIRSTHDR(&msg); cm != nullptr; cm = CMSG_NXTHDR(&msg, cm))
                    if (cm->cmsg_level == IPPROTO_IP && cm->cmsg_type == IP_PKTINFO)
                        to = ntohl(reinterpret_cast<const in_pktinfo*>(CMSG_DATA(cm))->ipi_addr.s_addr);
                const size_t size = static_cast<size_t>(n);
                const Channel& ch = channels_[p.id];
                r->writeFrame(makeUdpPacket(ntohl(from.sin_addr.s_addr), ntohs(from.sin_port), to,
                                            static_cast<uint16_t>(ch.port), r->buf.data(), size, r->ipId++));
                report_.counts.add(p.id, Channels::kindOf(p.id, r->buf.data(), size), size);
                if (OrvosiUdpServer* f = r->forward[static_cast<int>(p.id)].get()) {
                    if (f->write(reinterpret_cast<const char*>(r->buf.data()), size))
                        ++report_.forwarded;
                    else
                        ++report_.forwardFailures;
                }
            }
        }
        if (r->tcp >= 0 && (fds.back().revents & (POLLIN | POLLHUP | POLLERR)) != 0) readCommands();
    }

    if (r != nullptr && r->tcp >= 0) {
        for (int step = 0; step < 3; ++step) r->writeFrame(r->flow->close(step));
        ::close(r->tcp);
        r->tcp = -1;
    }
    if (c != nullptr) {
        pcap_stat st{};
        if (pcap_stats(c->handle, &st) == 0) report_.kernelDrops = st.ps_drop + st.ps_ifdrop;
        report_.decode = c->decoder->counts();
    }
    report_.seconds = static_cast<double>(OrvosiUtil::getTimeSysUs() - start) / 1e6;
    const bool closed = file.close(error);
    report_.fileBytes = file.bytes();
    return closed;
}

}  // namespace orvtools

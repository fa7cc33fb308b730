// orvaccess.Access: the C++ class OrvAccess for Python. Every call runs
// without the GIL, under the object's own lock; failures raise
// orvaccess.Error with the library's reason.
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <optional>
#include <thread>

#include "orvpy.hpp"

namespace orvpy {

namespace {

using Clock = std::chrono::steady_clock;

// Runs f on the access object without the GIL, so that other Python threads
// go on while the library waits on a socket, a reply or a semaphore.
template <typename F>
auto locked(PyAccess& a, F&& f) {
    py::gil_scoped_release nogil;
    std::lock_guard<std::mutex> lock(a.mutex);
    return f(*a.access);
}

// Leaves a with block. close() keeps the shared-memory region mapped until
// the next open() or the object's end; a block's end ends the C++ object
// itself, so that no descriptor or mapping outlives the block. What a closed
// object still tells (queued error codes, the last error) moves on to the
// fresh object that takes its place.
void finish(PyAccess& a) {
    py::gil_scoped_release nogil;
    std::lock_guard<std::mutex> lock(a.mutex);
    OrvAccess& old = *a.access;
    old.close();
    std::vector<s_OrvAccessErrorCode> codes;
    for (s_OrvAccessErrorCode e{}; old.getErrorCode(&e) != 0;) codes.push_back(e);
    const std::string lastError = old.getLastError();
    auto fresh = std::make_unique<OrvAccess>();
    fresh->setIniPath(a.iniPath);
    for (const s_OrvAccessErrorCode& e : codes) fresh->addErrorCode(e.code, e.value);
    a.access = std::move(fresh);
    a.carriedLastError = lastError;
}

// The same for a call that says false on failure: raises Error with the
// library's reason, read under the same lock.
template <typename F>
void checked(PyAccess& a, const char* call, F&& f, const std::string& hint = "") {
    std::string reason;
    const bool ok = locked(a, [&](OrvAccess& o) {
        if (f(o)) return true;
        reason = o.getLastError();
        return false;
    });
    if (!ok) raiseError(call, reason, hint);
}

// A getter that hands out at most one record: the record, or None.
template <typename S, typename Get>
py::object one(PyAccess& a, const char* call, Get get) {
    S rec{};
    bool valid = false;
    checked(a, call, [&](OrvAccess& o) { return get(o, &valid, &rec); });
    return valid ? py::cast(rec) : py::none();
}

// The same getter until the queue is empty (or max rows): one structured
// array, so that a thousand records cost one call from Python.
template <typename S, typename Get>
py::array drain(PyAccess& a, const char* call, std::optional<size_t> max, Get get) {
    std::vector<S> rows;
    std::string reason;
    bool ok = true;
    const size_t limit = max.value_or(SIZE_MAX);
    locked(a, [&](OrvAccess& o) {
        const Clock::time_point start = Clock::now();
        rows.reserve(std::min<size_t>(limit, 1024));
        S rec{};
        for (bool valid = true; valid && rows.size() < limit;) {
            valid = false;
            if (!get(o, &valid, &rec)) {
                ok = false;
                reason = o.getLastError();
                break;
            }
            if (valid) rows.push_back(rec);
        }
        a.lastDrainLibraryS.store(std::chrono::duration<double>(Clock::now() - start).count());
    });
    py::array out = toArray(rows);
    if (!ok) raiseError(call, reason, "", out);
    return out;
}

// C++ may not hold a value its enumeration has no room for; refuse such
// selectors the way the library refuses the others.
e_OrvAccessImuSelect imuSelect(int imu, const char* call) {
    if (imu != ORVACCESS_IMU_PLATFORM && imu != ORVACCESS_IMU_CAMERA)
        raiseError(call, "Invalid source IMU selector",
                   "use ImuSelect.ORVACCESS_IMU_CAMERA (1) or ImuSelect.ORVACCESS_IMU_PLATFORM (0)");
    return static_cast<e_OrvAccessImuSelect>(imu);
}

// Every code the format enumeration can hold goes to the library, which
// names the illegal ones itself.
OrvAccess::ImageFormat imageFormat(int format, const char* call) {
    if (format < 0 || format > 63)
        raiseError(call, "Illegal image format (" + std::to_string(format) + ")",
                   "the format codes are listed in ImageFormat");
    return static_cast<OrvAccess::ImageFormat>(format);
}

e_OrvAccessFileLoc fileLocation(int location) {
    if (location < 0 || location > ORVACCESS_FILE_LOC_MAX)
        throw py::value_error("location is one byte, 0..255, not " + std::to_string(location));
    return static_cast<e_OrvAccessFileLoc>(location);
}

unsigned char byteArg(int value, const char* what) {
    if (value < 0 || value > 255)
        throw py::value_error(std::string(what) + " is one byte, 0..255, not " + std::to_string(value));
    return static_cast<unsigned char>(value);
}

// A path given as str or os.PathLike.
std::string pathText(py::handle path) {
    return py::str(py::module_::import("os").attr("fspath")(path)).cast<std::string>();
}

// Three numbers from any sequence or array.
std::array<float, 3> three(py::handle values, const char* call, const char* meaning) {
    const auto a = py::array_t<float, py::array::c_style | py::array::forcecast>::ensure(values);
    if (!a || a.ndim() != 1 || a.size() != 3)
        throw py::value_error(std::string(call) + " takes three numbers (" + meaning + ")");
    return {a.at(0), a.at(1), a.at(2)};
}

// A packet handed in by the caller must hold everything its length word
// claims: the parsers trust that word.
std::vector<unsigned char> packetBytes(py::buffer packet, const char* call) {
    const py::buffer_info info = packet.request();
    if (info.itemsize != 1 || info.ndim != 1 || info.strides[0] != 1)
        throw py::value_error(std::string(call) +
                              " takes the datagram's bytes (bytes, bytearray or a "
                              "contiguous uint8 array)");
    const auto* p = static_cast<const unsigned char*>(info.ptr);
    const size_t n = static_cast<size_t>(info.size);
    if (n < ORVWIRE_HEADER_SIZE)
        throw py::value_error(std::string(call) +
                              ": a packet holds at least its start byte and length word (" +
                              std::to_string(ORVWIRE_HEADER_SIZE) + " bytes), this one " + std::to_string(n));
    const size_t claimed = static_cast<size_t>(p[1]) | static_cast<size_t>(p[2]) << 8;
    if (claimed > n)
        throw py::value_error(std::string(call) + ": the length word says " + std::to_string(claimed) +
                              " bytes but " + std::to_string(n) + " were given; pass the whole datagram");
    return std::vector<unsigned char>(p, p + n);
}

std::string openHint(const std::string& iniPath) {
    struct stat st {};
    if (::stat(iniPath.c_str(), &st) != 0)
        return "configuration file '" + iniPath +
               "' not found, so every setting kept its default; "
               "name your INI file with Access(path) or set_ini_path";
    return "check the ports in '" + iniPath + "': each receive port must be free, and not all of them 0";
}

}  // namespace

void requireReadable(const std::string& path) {
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) {
        const int err = errno;
        // OSError picks its subclass by the number: FileNotFoundError,
        // PermissionError, ...
        errno = err;
        PyErr_SetFromErrnoWithFilename(PyExc_OSError, path.c_str());
        throw py::error_already_set();
    }
    std::fclose(f);
}

namespace {

void open(PyAccess& a) {
    // The library takes its defaults for a file it cannot open; a file the
    // user named is meant to be read.
    if (a.iniNamed) requireReadable(a.iniPath);
    checked(
        a, "open",
        [&](OrvAccess& o) {
            a.carriedLastError.clear();
            return o.open();
        },
        openHint(a.iniPath));
}

py::object namedTuple(const char* name, const char* fields) {
    return py::module_::import("collections").attr("namedtuple")(name, fields);
}

// Types made once at import and kept for the life of the process.
PyObject* g_imageType = nullptr;
PyObject* g_imageInfoType = nullptr;
PyObject* g_targetCountType = nullptr;

py::object make(PyObject* type) { return py::reinterpret_borrow<py::object>(type); }

struct ImageInfo {
    unsigned long size = 0;
    int width = 0, height = 0, bytesPerPixel = 0;
};

// The largest image of any legal format: the most getImage can deliver.
size_t largestImage(OrvAccess& o) {
    size_t largest = 0;
    for (const EnumEntry& e : enumTable("e_OrvAccessImageFormat").entries) {
        ImageInfo i;
        if (o.getImageInfo(static_cast<OrvAccess::ImageFormat>(e.value), &i.size, &i.width, &i.height,
                           &i.bytesPerPixel))
            largest = std::max<size_t>(largest, i.size);
    }
    return largest;
}

// Pixels as (height, width) of uint8 or little-endian uint16, or
// (height, width, bytes per pixel) of uint8.
py::array pixels(const unsigned char* data, const ImageInfo& info) {
    const auto h = static_cast<py::ssize_t>(info.height), w = static_cast<py::ssize_t>(info.width),
               b = static_cast<py::ssize_t>(info.bytesPerPixel);
    py::array out = info.bytesPerPixel == 2   ? py::array(py::dtype("<u2"), std::vector<py::ssize_t>{h, w})
                    : info.bytesPerPixel == 1 ? py::array(py::dtype("u1"), std::vector<py::ssize_t>{h, w})
                                              : py::array(py::dtype("u1"), std::vector<py::ssize_t>{h, w, b});
    std::memcpy(out.mutable_data(), data, static_cast<size_t>(h * w * b));
    return out;
}

py::object getImage(PyAccess& a) {
    int percent = 0;
    OrvAccess::ImageFormat format{};
    unsigned int sequenceId = 0;
    ImageInfo info;
    std::vector<unsigned char> delivered;  // taken while the buffer is ours
    std::string reason;
    const bool ok = locked(a, [&](OrvAccess& o) {
        if (a.image.empty()) a.image.resize(std::max<size_t>(largestImage(o), 1));
        if (!o.getImage(&percent, &format, &sequenceId, a.image.data(), a.image.size())) {
            reason = o.getLastError();
            return false;
        }
        if (percent == 100 &&
            o.getImageInfo(format, &info.size, &info.width, &info.height, &info.bytesPerPixel))
            delivered.assign(a.image.begin(), a.image.begin() + static_cast<std::ptrdiff_t>(info.size));
        return true;
    });
    a.imagePercent = percent;
    if (!ok) raiseError("get_image", reason);
    if (delivered.empty()) return py::none();
    return make(g_imageType)(pixels(delivered.data(), info), static_cast<int>(format), sequenceId, percent);
}

// Iterates over the poses the tracker sends, oldest first, waiting for
// each; ends when the duration has passed.
struct PoseIterator {
    py::object owner;  // keeps the Access alive
    std::optional<Clock::time_point> end;
    std::chrono::microseconds poll;

    py::object next() {
        PyAccess& a = owner.cast<PyAccess&>();
        for (;;) {
            py::object pose = one<s_OrvAccessTrkDataExt>(
                a, "poses",
                [](OrvAccess& o, bool* v, s_OrvAccessTrkDataExt* r) { return o.getTrackingData(v, r); });
            if (!pose.is_none()) return pose;
            const Clock::time_point now = Clock::now();
            if (end && now >= *end) throw py::stop_iteration();
            // Sleeps in the library until the next datagram, so that a pose
            // is handed on as it arrives; a plain sleep where it cannot wait.
            const Clock::duration wait = end ? std::min<Clock::duration>(poll, *end - now) : poll;
            const auto ms = std::chrono::ceil<std::chrono::milliseconds>(wait).count();
            bool ready = false;
            if (!locked(a, [&](OrvAccess& o) { return o.waitUdp(static_cast<int>(ms), &ready); })) {
                py::gil_scoped_release nogil;
                std::this_thread::sleep_for(wait);
            }
            // Ctrl-C reaches a script that waits here.
            if (PyErr_CheckSignals() != 0) throw py::error_already_set();
        }
    }
};

// Getters and drains of the queues, bound under one naming scheme:
// get_<name> hands out one record or None, drain_<name> all of them.
template <typename S, typename Get>
void bindQueue(py::class_<PyAccess>& cls, const char* getName, const char* drainName, Get get,
               const char* what) {
    cls.def(
        getName, [get, getName](PyAccess& a) { return one<S>(a, getName, get); },
        (std::string("The oldest queued ") + what + " (removed), or None.").c_str());
    cls.def(
        drainName,
        [get, drainName](PyAccess& a, std::optional<size_t> maxRecords) {
            return drain<S>(a, drainName, maxRecords, get);
        },
        py::arg("max_records") = py::none(),
        (std::string("Every queued ") + what +
         " (at most max_records) as one structured array, oldest first.")
            .c_str());
}

}  // namespace

void bindAccess(py::module_& m) {
    g_imageType = namedTuple("Image", "pixels format sequenceId percent").release().ptr();
    g_imageInfoType = namedTuple("ImageInfo", "size width height bytesPerPixel").release().ptr();
    g_targetCountType = namedTuple("TargetCount", "tag count").release().ptr();
    m.attr("Image") = make(g_imageType);
    m.attr("ImageInfo") = make(g_imageInfoType);
    m.attr("TargetCount") = make(g_targetCountType);

    py::class_<PoseIterator>(m, "PoseIterator", "The iterator of Access.poses().")
        .def("__iter__", [](py::object self) { return self; })
        .def("__next__", &PoseIterator::next);

    py::class_<PyAccess> cls(
        m, "Access",
        "One tracking system: the C++ class OrvAccess. Use it from any thread; calls on one "
        "object take turns. `with Access(path) as a:` opens it and closes it at the end.");

    // ---- lifecycle and configuration ----
    cls.def(py::init([](py::object iniPath) {
                auto a = std::make_unique<PyAccess>();
                if (!iniPath.is_none()) {
                    a->iniPath = pathText(iniPath);
                    a->iniNamed = true;
                    a->access->setIniPath(a->iniPath);
                }
                return a;
            }),
            py::arg("ini_path") = py::none(),
            "An access object reading ini_path (default orvaccess.ini in the working directory) at open().");
    cls.def(
        "open", [](PyAccess& a) { open(a); },
        "Closes what is open, re-reads the INI file and opens every enabled channel.");
    cls.def(
        "close", [](PyAccess& a) { locked(a, [](OrvAccess& o) { return o.close(); }); },
        "Stops streaming and closes every channel; the object may be opened again. The shared-memory region "
        "stays mapped until the next open() (leaving a with block releases it too).");
    cls.def("__enter__", [](py::object self) {
        open(self.cast<PyAccess&>());
        return self;
    });
    cls.def("__exit__", [](PyAccess& a, py::args) {
        finish(a);
        return false;
    });
    cls.def(
        "init", [](PyAccess& a) { locked(a, [](OrvAccess& o) { o.init(); }); },
        "Re-reads the INI file and resets the run-time state (open() does this itself).");
    cls.def(
        "set_ini_path",
        [](PyAccess& a, py::object path) {
            const std::string text = pathText(path);
            locked(a, [&](OrvAccess& o) { o.setIniPath(text); });
            a.iniPath = text;
            a.iniNamed = true;
        },
        py::arg("path"), "The INI file the next open() reads.");
    cls.def_property_readonly("ini_path", [](const PyAccess& a) { return a.iniPath; });
    cls.def(
        "set_verbosity",
        [](PyAccess& a, unsigned int mask) { locked(a, [&](OrvAccess& o) { o.setVerbosity(mask); }); },
        py::arg("mask"), "Verbosity bits (Verbosity); open() replaces them with the INI file's.");
    cls.def(
        "set_logging",
        [](PyAccess& a, unsigned int mask, py::object logPath) {
            const std::string path = pathText(logPath);
            locked(a, [&](OrvAccess& o) { o.setLogging(mask, path); });
        },
        py::arg("mask"), py::arg("log_path"),
        "Binary log channels (LogChannel) written below log_path (a prefix: end it with '/').");

    // ---- identity, clock, status ----
    cls.def("get_version",
            [](PyAccess& a) { return locked(a, [](OrvAccess& o) { return o.getVersion(); }); });
    cls.def("get_build_date",
            [](PyAccess& a) { return locked(a, [](OrvAccess& o) { return o.getBuildDate(); }); });
    cls.def(
        "get_time_us", [](PyAccess& a) { return locked(a, [](OrvAccess& o) { return o.getTimeUs(); }); },
        "The library clock in microseconds: the clock of every record's time.");
    cls.def(
        "get_status",
        [](PyAccess& a) {
            s_OrvAccessStatus st{};
            checked(a, "get_status", [&](OrvAccess& o) { return o.getStatus(&st); });
            return st;
        },
        "Services the ports, then reports the channels and what arrived since the last call (Status).");
    cls.def(
        "get_sender_drops",
        [](PyAccess& a) {
            s_OrvAccessSenderDrops d{};
            checked(a, "get_sender_drops", [&](OrvAccess& o) { return o.getSenderDrops(&d); });
            py::dict out;
            out["meta"] = d.meta;
            out["image"] = d.image;
            out["core"] = d.core;
            out["hub"] = d.hub;
            out["nft"] = d.nft;
            out["entries"] = d.entries;
            return out;
        },
        "Extension: datagrams dropped per port since open() because their sender is not in udpAllowedSenders, "
        "and the list's entries (0: every sender is taken); a dict. Does not service the ports.");
    cls.def("get_image_buf_size",
            [](PyAccess& a) { return locked(a, [](OrvAccess& o) { return o.getImageBufSize(); }); });
    cls.def(
        "get_streaming", [](PyAccess& a) { return locked(a, [](OrvAccess& o) { return o.getStreaming(); }); },
        "Whether streaming was last set on (no traffic).");

    // ---- errors ----
    cls.def(
        "get_last_error",
        [](PyAccess& a) {
            return locked(a, [&](OrvAccess& o) {
                const std::string text = o.getLastError();
                return text.empty() ? a.carriedLastError : text;
            });
        },
        "Why the last failing call failed.");
    cls.def("clear_last_error", [](PyAccess& a) {
        locked(a, [&](OrvAccess& o) {
            o.clearLastError();
            a.carriedLastError.clear();
        });
    });
    cls.def(
        "get_error_code",
        [](PyAccess& a) -> py::object {
            s_OrvAccessErrorCode e{};
            const unsigned short code = locked(a, [&](OrvAccess& o) { return o.getErrorCode(&e); });
            return code != 0 ? py::cast(e) : py::none();
        },
        "The oldest queued error code (QueuedErrorCode, removed), or None.");
    cls.def(
        "drain_error_codes",
        [](PyAccess& a, std::optional<size_t> maxRecords) {
            return drain<s_OrvAccessErrorCode>(a, "drain_error_codes", maxRecords,
                                               [](OrvAccess& o, bool* v, s_OrvAccessErrorCode* e) {
                                                   *v = o.getErrorCode(e) != 0;
                                                   return true;
                                               });
        },
        py::arg("max_records") = py::none(),
        "Every queued error code as one structured array, oldest first.");
    cls.def(
        "get_error_message",
        [](PyAccess& a, int code) {
            if (code < 0 || code > 0xFFFF) throw py::value_error("error codes are 16 bits: 0..65535");
            return locked(a,
                          [&](OrvAccess& o) { return o.getErrorMessage(static_cast<unsigned short>(code)); });
        },
        py::arg("code"));
    cls.def(
        "add_error_code",
        [](PyAccess& a, int code, unsigned int value) {
            if (code < 0 || code > 0xFFFF) throw py::value_error("error codes are 16 bits: 0..65535");
            locked(a, [&](OrvAccess& o) { o.addErrorCode(static_cast<unsigned short>(code), value); });
        },
        py::arg("code"), py::arg("value") = 0);

    // ---- reception ----
    cls.def(
        "service_udp",
        [](PyAccess& a, bool startStreaming) {
            checked(a, "service_udp", [&](OrvAccess& o) { return o.serviceUdp(startStreaming); });
        },
        py::arg("start_streaming") = true, "Drains every open UDP port into the queues.");
    cls.def(
        "wait_udp",
        [](PyAccess& a, double timeout) {
            // Seconds, as Python counts time; a signal (Ctrl-C) ends the wait.
            if (std::isnan(timeout)) throw py::value_error("timeout must be a number of seconds (negative: no limit)");
            const int ms = timeout < 0 ? -1 : static_cast<int>(std::min(timeout * 1000.0, 2147483647.0));
            bool ready = false;
            checked(a, "wait_udp", [&](OrvAccess& o) { return o.waitUdp(ms, &ready); });
            return ready;
        },
        py::arg("timeout") = -1.0,
        "Sleeps (without the GIL) until a datagram waits on an open port or timeout seconds pass "
        "(negative: no limit); True when one waits.");
    cls.def(
        "flush_udp", [](PyAccess& a) { locked(a, [](OrvAccess& o) { o.flushUdp(); }); },
        "Discards what waits on the meta, image, orvCore and NFT ports.");
    cls.def(
        "process_tracking_pkt",
        [](PyAccess& a, py::buffer packet) {
            const std::vector<unsigned char> bytes = packetBytes(packet, "process_tracking_pkt");
            locked(a, [&](OrvAccess& o) { o.processTrackingPkt(bytes.data()); });
        },
        py::arg("packet"), "Parses a tracking datagram the application holds, as if it had arrived.");
    cls.def(
        "process_meta_pkt",
        [](PyAccess& a, py::buffer packet) {
            const std::vector<unsigned char> bytes = packetBytes(packet, "process_meta_pkt");
            locked(a, [&](OrvAccess& o) { o.processMetaPkt(bytes.data()); });
        },
        py::arg("packet"), "Parses a meta datagram the application holds, as if it had arrived.");

    // ---- tracking ----
    using Trk = s_OrvAccessTrkDataExt;
    cls.def(
        "get_tracking_data_latest",
        [](PyAccess& a) {
            return one<Trk>(a, "get_tracking_data_latest",
                            [](OrvAccess& o, bool* v, Trk* r) { return o.getTrackingDataLatest(v, r); });
        },
        "The newest pose (TrkDataExt, adjusted by prediction, tip offset and boresight), or None before the "
        "first.");
    bindQueue<Trk>(
        cls, "get_tracking_data", "drain_tracking_data",
        [](OrvAccess& o, bool* v, Trk* r) { return o.getTrackingData(v, r); }, "pose (TrkDataExt)");
    cls.def(
        "get_tracking_data_at_time",
        [](PyAccess& a, unsigned long displayTimeUs) {
            return one<Trk>(a, "get_tracking_data_at_time", [displayTimeUs](OrvAccess& o, bool* v, Trk* r) {
                return o.getTrackingDataAtTime(displayTimeUs, v, r);
            });
        },
        py::arg("display_time_us"),
        "The newest pose predicted to display_time_us (library clock), or None when no pose came since the "
        "last "
        "call; empties the pose queue.");
    cls.def(
        "update_exports",
        [](PyAccess& a, double predictionS, Trk& rec) {
            locked(a, [&](OrvAccess& o) { o.updateExports(predictionS, &rec); });
        },
        py::arg("prediction_s"), py::arg("record"),
        "Adjusts a pose in place: predicted by prediction_s seconds, tip offset, boresight, Euler angles.");
    cls.def(
        "set_prediction",
        [](PyAccess& a, float seconds) { locked(a, [&](OrvAccess& o) { return o.setPrediction(seconds); }); },
        py::arg("seconds"), "The prediction interval in seconds.");
    cls.def(
        "set_boresight_ref",
        [](PyAccess& a, py::handle rpy) {
            std::array<float, 3> v = three(rpy, "set_boresight_ref", "roll, pitch, yaw in rad");
            locked(a, [&](OrvAccess& o) { return o.setBoresightRef(v.data()); });
        },
        py::arg("roll_pitch_yaw"), "The boresight reference: roll, pitch, yaw in rad.");
    cls.def(
        "set_tip_offset",
        [](PyAccess& a, py::handle xyz) {
            std::array<float, 3> v = three(xyz, "set_tip_offset", "x, y, z in metres, body axes");
            locked(a, [&](OrvAccess& o) { return o.setTipOffset(v.data()); });
        },
        py::arg("xyz"), "The tip offset: x, y, z in metres, body axes.");
    cls.def(
        "init_vs_data", [](PyAccess& a) { locked(a, [](OrvAccess& o) { o.initVsData(); }); },
        "Restarts the display-clock and IMU-clock estimates.");
    cls.def(
        "poses",
        [](py::object self, std::optional<double> durationS, double pollS) {
            if (!(pollS > 0.0 && pollS <= 3600.0))
                throw py::value_error("poll_s must be a number of seconds above 0, up to 3600");
            if (durationS && !(*durationS >= 0.0))
                throw py::value_error("duration_s must be a number of seconds, 0 or more (None or inf: no end)");
            // Beyond about 30 years the end could not be represented: no end.
            if (durationS && *durationS > 1e9) durationS.reset();
            PoseIterator it{self, std::nullopt,
                            std::chrono::microseconds(static_cast<long long>(pollS * 1e6))};
            if (durationS)
                it.end = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                            std::chrono::duration<double>(*durationS));
            return it;
        },
        py::arg("duration_s") = py::none(), py::arg("poll_s") = 0.001,
        "Every pose the tracker sends (TrkDataExt, orvCore's and the NFT source's), oldest first, each as it "
        "arrives (looking again at least every poll_s); for duration_s seconds, or without end.");
    bindQueue<OrvAccess::s_TgtResData>(
        cls, "get_target_res_data", "drain_target_res_data",
        [](OrvAccess& o, bool* v, OrvAccess::s_TgtResData* r) { return o.getTargetResData(v, r); },
        "target residual (TgtResData)");
    bindQueue<s_OrvAccessPoseRecStats>(
        cls, "get_pose_recovery_stats", "drain_pose_recovery_stats",
        [](OrvAccess& o, bool* v, s_OrvAccessPoseRecStats* r) { return o.getPoseRecoveryStats(v, r); },
        "pose-recovery record (PoseRecStats)");
    bindQueue<OrvAccess::s_FeatData>(
        cls, "get_feature_data", "drain_feature_data",
        [](OrvAccess& o, bool* v, OrvAccess::s_FeatData* r) { return o.getFeatureData(v, r); },
        "natural feature (FeatData)");
    bindQueue<s_OrvAccessHubData>(
        cls, "get_hub_data", "drain_hub_data",
        [](OrvAccess& o, bool* v, s_OrvAccessHubData* r) { return o.getHubData(v, r); },
        "hub record (HubData)");

    // ---- inertial and meta data ----
    using Imu = s_OrvAccessImuData;
    cls.def(
        "get_imu_data",
        [](PyAccess& a, int imu) {
            const e_OrvAccessImuSelect sel = imuSelect(imu, "get_imu_data");
            return one<Imu>(a, "get_imu_data",
                            [sel](OrvAccess& o, bool* v, Imu* r) { return o.getImuData(sel, v, r); });
        },
        py::arg("imu") = static_cast<int>(ORVACCESS_IMU_CAMERA),
        "The oldest queued IMU sample (ImuData), or None.");
    cls.def(
        "drain_imu_data",
        [](PyAccess& a, int imu, std::optional<size_t> maxRecords) {
            const e_OrvAccessImuSelect sel = imuSelect(imu, "drain_imu_data");
            return drain<Imu>(a, "drain_imu_data", maxRecords,
                              [sel](OrvAccess& o, bool* v, Imu* r) { return o.getImuData(sel, v, r); });
        },
        py::arg("imu") = static_cast<int>(ORVACCESS_IMU_CAMERA), py::arg("max_records") = py::none(),
        "Every queued IMU sample (at most max_records) as one structured array, oldest first.");
    cls.def(
        "get_imu_data_latest",
        [](PyAccess& a) {
            return one<Imu>(a, "get_imu_data_latest",
                            [](OrvAccess& o, bool* v, Imu* r) { return o.getImuDataLatest(v, r); });
        },
        "The newest IMU sample (not removed), or None before the first.");
    cls.def(
        "get_imu_crs",
        [](PyAccess& a, int imu) {
            const e_OrvAccessImuSelect sel = imuSelect(imu, "get_imu_crs");
            return one<OrvAccess::s_ImuCrs>(
                a, "get_imu_crs",
                [sel](OrvAccess& o, bool* v, OrvAccess::s_ImuCrs* r) { return o.getImuCrs(sel, v, r); });
        },
        py::arg("imu") = static_cast<int>(ORVACCESS_IMU_CAMERA),
        "The last completed clock-relation row (ImuCrs, consumed), or None.");
    bindQueue<s_OrvAccessAuxData>(
        cls, "get_aux_data", "drain_aux_data",
        [](OrvAccess& o, bool* v, s_OrvAccessAuxData* r) { return o.getAuxData(v, r); },
        "auxiliary byte (AuxData)");
    cls.def("get_aux_data_latest", [](PyAccess& a) {
        return one<s_OrvAccessAuxData>(
            a, "get_aux_data_latest",
            [](OrvAccess& o, bool* v, s_OrvAccessAuxData* r) { return o.getAuxDataLatest(v, r); });
    });
    bindQueue<OrvAccess::s_TgtData>(
        cls, "get_target_data", "drain_target_data",
        [](OrvAccess& o, bool* v, OrvAccess::s_TgtData* r) { return o.getTargetData(v, r); },
        "target-list entry (TgtData)");
    cls.def(
        "get_target_count",
        [](PyAccess& a) -> py::object {
            bool valid = false;
            unsigned int tag = 0, count = 0;
            checked(a, "get_target_count",
                    [&](OrvAccess& o) { return o.getTargetCount(&valid, &tag, &count); });
            return valid ? make(g_targetCountType)(tag, count) : py::none();
        },
        "Consumes one whole target list: TargetCount(tag, count), or None.");
    bindQueue<s_OrvAccessDiagData>(
        cls, "get_diag_data", "drain_diag_data",
        [](OrvAccess& o, bool* v, s_OrvAccessDiagData* r) { return o.getDiagData(v, r); },
        "diagnostic record (DiagData)");
    cls.def("get_diag_data_latest", [](PyAccess& a) {
        return one<s_OrvAccessDiagData>(
            a, "get_diag_data_latest",
            [](OrvAccess& o, bool* v, s_OrvAccessDiagData* r) { return o.getDiagDataLatest(v, r); });
    });
    bindQueue<s_OrvAccessPlatPoseData>(
        cls, "get_platform_pose_data", "drain_platform_pose_data",
        [](OrvAccess& o, bool* v, s_OrvAccessPlatPoseData* r) { return o.getPlatformPoseData(v, r); },
        "platform pose (PlatPoseData)");
    bindQueue<s_OrvAccessGpsData>(
        cls, "get_gps_data", "drain_gps_data",
        [](OrvAccess& o, bool* v, s_OrvAccessGpsData* r) { return o.getGpsData(v, r); },
        "GPS record (GpsData)");

    // ---- uplink ----
    cls.def(
        "set_platform_pose_data",
        [](PyAccess& a, const s_OrvAccessPlatPoseData& pose) {
            checked(a, "set_platform_pose_data", [&](OrvAccess& o) { return o.setPlatformPoseData(pose); });
        },
        py::arg("pose"), "Sends a platform pose (PlatPoseData) to orvRx at once.");
    cls.def(
        "set_gps_data",
        [](PyAccess& a, s_OrvAccessGpsData gps) {
            checked(a, "set_gps_data", [&](OrvAccess& o) { return o.setGpsData(&gps); });
        },
        py::arg("gps"), "Sends GPS data (GpsData) to orvRx at once.");
    cls.def(
        "send_input_data",
        [](PyAccess& a, int input) {
            const unsigned char code = byteArg(input, "input");
            checked(a, "send_input_data", [&](OrvAccess& o) { return o.sendInputData(code); });
        },
        py::arg("input"), "Sends a one-byte input code to orvRx at once.");

    // ---- commands to orvRx ----
    cls.def(
        "set_register",
        [](PyAccess& a, unsigned int address, int value, unsigned int timeoutMs) {
            const unsigned char byte = byteArg(value, "value");
            checked(a, "set_register", [&](OrvAccess& o) { return o.setRegister(timeoutMs, address, byte); });
        },
        py::arg("address"), py::arg("value"), py::arg("timeout_ms") = 500,
        "Writes one byte register of orvRx (24-bit address), waiting up to timeout_ms for the "
        "acknowledgement.");
    cls.def(
        "get_register",
        [](PyAccess& a, unsigned int address, unsigned int timeoutMs) {
            unsigned char value = 0;
            checked(a, "get_register",
                    [&](OrvAccess& o) { return o.getRegister(timeoutMs, address, &value); });
            return static_cast<int>(value);
        },
        py::arg("address"), py::arg("timeout_ms") = 500,
        "Reads one byte register of orvRx; stops streaming (the next getter restarts it).");
    cls.def(
        "set_streaming",
        [](PyAccess& a, bool on) {
            checked(a, "set_streaming", [&](OrvAccess& o) { return o.setStreaming(on); });
        },
        py::arg("on"), "Switches streaming on or off; switching clears the record queues.");
    cls.def(
        "transact_imu",
        [](PyAccess& a, int imu, py::bytes transmit, size_t receiveCapacity, unsigned int timeout) {
            // Any selector but the camera's goes to the first channel.
            const e_OrvAccessImuSelect sel =
                imu == ORVACCESS_IMU_CAMERA ? ORVACCESS_IMU_CAMERA : ORVACCESS_IMU_PLATFORM;
            std::string tx = transmit;
            // A reply holds at most 255 bytes: a larger capacity would only
            // allocate memory nothing can fill.
            const size_t capacity = std::min<size_t>(receiveCapacity, 255);
            std::vector<unsigned char> rx(std::max<size_t>(capacity, 1));
            unsigned long received = 0;
            checked(a, "transact_imu", [&](OrvAccess& o) {
                return o.transactImu(sel, reinterpret_cast<unsigned char*>(tx.data()), tx.size(), rx.data(),
                                     capacity, timeout, &received);
            });
            return py::bytes(reinterpret_cast<const char*>(rx.data()), received);
        },
        py::arg("imu"), py::arg("transmit"), py::arg("receive_capacity") = 255, py::arg("timeout") = 100,
        "One raw IMU transaction: sends transmit (at most 255 bytes), returns what came back (at most "
        "receive_capacity bytes, capped at 255). Stops streaming.");
    cls.def(
        "put_file",
        [](PyAccess& a, py::object localPath, const std::string& remoteName, int location) {
            const std::string path = pathText(localPath);
            const e_OrvAccessFileLoc loc = fileLocation(location);
            checked(a, "put_file", [&](OrvAccess& o) { return o.putFile(path, remoteName, loc); });
        },
        py::arg("local_path"), py::arg("remote_name"), py::arg("location") = 0,
        "Copies a local file to orvRx. Stops streaming.");
    cls.def(
        "get_file",
        [](PyAccess& a, const std::string& remoteName, py::object localPath, int location) {
            const std::string path = pathText(localPath);
            const e_OrvAccessFileLoc loc = fileLocation(location);
            checked(a, "get_file", [&](OrvAccess& o) { return o.getFile(remoteName, loc, path); });
        },
        py::arg("remote_name"), py::arg("local_path"), py::arg("location") = 0,
        "Copies a file of orvRx to local_path. Stops streaming.");

    // ---- images ----
    cls.def(
        "get_image_info",
        [](PyAccess& a, int format) {
            const OrvAccess::ImageFormat f = imageFormat(format, "get_image_info");
            ImageInfo i;
            checked(a, "get_image_info", [&](OrvAccess& o) {
                return o.getImageInfo(f, &i.size, &i.width, &i.height, &i.bytesPerPixel);
            });
            return make(g_imageInfoType)(i.size, i.width, i.height, i.bytesPerPixel);
        },
        py::arg("format"), "ImageInfo(size, width, height, bytesPerPixel) of an image format.");
    cls.def(
        "get_image", &getImage,
        "A complete camera image, over UDP or from shared memory: Image(pixels, format, sequenceId, percent) "
        "with pixels of shape (height, width) (uint8, or uint16 for two bytes a pixel) or (height, width, "
        "3); "
        "None while none is complete (image_percent then tells how far the UDP image has come).");
    cls.def_property_readonly(
        "image_percent", [](const PyAccess& a) { return a.imagePercent; },
        "What the last get_image reported: 100 with an image, else how much of the UDP image has arrived.");

    cls.def_property_readonly(
        "_last_drain_library_s", [](const PyAccess& a) { return a.lastDrainLibraryS.load(); },
        "Seconds the last drain spent in the library's getters (for benchmarks).");
}

}  // namespace orvpy

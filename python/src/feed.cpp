// orvaccess.PoseFeed: the pose feed for render threads. The feed's own
// thread services the ports; Python reads the newest pose, or the pose
// predicted to a display time, without waiting for it.
#include <orvaccess/OrvPoseFeed.hpp>

#include <memory>
#include <string>

#include "orvpy.hpp"

namespace orvpy {

namespace {

PyObject* g_feedPoseType = nullptr;
PyObject* g_feedRecoveryType = nullptr;

// The pose with what the renderer needs to judge it; pose is None before
// the first record.
py::object feedPose(bool delivered, const s_OrvPoseFeedPose& p) {
    return py::reinterpret_borrow<py::object>(g_feedPoseType)(
        delivered ? py::cast(p.data) : py::none(), p.sequence, p.receivedUs, p.ageUs, p.predictionS,
        p.stale != 0);
}

// A reader keeps its feed alive: Python may drop the feed first.
struct PyFeedReader {
    std::shared_ptr<OrvPoseFeed> feed;
    OrvPoseFeed::Reader reader;
    explicit PyFeedReader(std::shared_ptr<OrvPoseFeed> f) : feed(std::move(f)), reader(*feed) {}
};

// Runs f on the feed's access object under the feed's lock, with the GIL
// released while the service thread finishes its pass.
template <typename F>
auto withAccess(OrvPoseFeed& feed, F&& f) {
    OrvAccess* object = nullptr;
    {
        py::gil_scoped_release nogil;
        object = feed.lockAccess();
    }
    struct Unlock {
        OrvPoseFeed& feed;
        ~Unlock() { feed.unlockAccess(); }
    } unlock{feed};
    return f(*object);
}

}  // namespace

void bindFeed(py::module_& m) {
    g_feedPoseType = py::module_::import("collections")
                         .attr("namedtuple")("FeedPose", "pose sequence received_us age_us prediction_s stale")
                         .release()
                         .ptr();
    m.attr("FeedPose") = py::reinterpret_borrow<py::object>(g_feedPoseType);
    g_feedRecoveryType = py::module_::import("collections")
                             .attr("namedtuple")("FeedRecovery",
                                                 "state outages recoveries requests requests_failed reopens "
                                                 "reopens_failed longest_outage_us last_outage_us text")
                             .release()
                             .ptr();
    m.attr("FeedRecovery") = py::reinterpret_borrow<py::object>(g_feedRecoveryType);

    py::class_<PyFeedReader>(m, "PoseFeedReader",
                             "One render thread's reader of a PoseFeed (OrvPoseFeed::Reader): it keeps the "
                             "display-clock estimate learnt from its own display times. PoseFeed.reader() makes one.")
        .def(
            "at_time",
            [](PyFeedReader& r, unsigned long displayTimeUs) {
                s_OrvPoseFeedPose p{};
                const bool delivered = r.reader.getAtTime(displayTimeUs, &p);
                return feedPose(delivered, p);
            },
            py::arg("display_time_us"),
            "The newest pose predicted to display_time_us (us on the library clock, get_time_ms() * 1000), "
            "as Access.get_tracking_data_at_time predicts it: a FeedPose whose pose is None before the first.")
        .def(
            "reset_display_clock", [](PyFeedReader& r) { r.reader.resetDisplayClock(); },
            "Forgets the display period and bias learnt so far.");

    py::class_<OrvPoseFeed, std::shared_ptr<OrvPoseFeed>>(
        m, "PoseFeed",
        "A pose feed for render loops (the C++ class OrvPoseFeed): an access object serviced by a thread of "
        "its own, whose newest pose any thread reads without waiting. `with PoseFeed(path) as feed:` stops it "
        "at the end.")
        .def(py::init([](py::object iniPath) {
                 const std::string path =
                     iniPath.is_none() ? "orvaccess.ini"
                                       : py::str(py::module_::import("os").attr("fspath")(iniPath)).cast<std::string>();
                 if (!iniPath.is_none()) requireReadable(path);
                 auto feed = std::make_shared<OrvPoseFeed>(path);
                 if (!feed->isRunning())
                     raiseError("PoseFeed", feed->getLastError(),
                                "check the receive ports in '" + path + "': each must be free, and not all 0");
                 return feed;
             }),
             py::arg("ini_path") = py::none(),
             "Opens an access object with ini_path (default orvaccess.ini) and starts the service thread; "
             "raises FileNotFoundError (or another OSError) for a named file it cannot read, orvaccess.Error "
             "with the library's reason when it cannot open.")
        .def("__enter__", [](py::object self) { return self; })
        .def("__exit__",
             [](OrvPoseFeed& f, py::args) {
                 py::gil_scoped_release nogil;
                 f.stop();
             })
        .def(
            "start",
            [](OrvPoseFeed& f) {
                bool ok = false;
                {
                    py::gil_scoped_release nogil;
                    ok = f.start();
                }
                if (!ok) raiseError("start", f.getLastError());
            },
            "Reopens (re-reading the INI file) and restarts the thread; nothing when running.")
        .def(
            "stop",
            [](OrvPoseFeed& f) {
                py::gil_scoped_release nogil;
                f.stop();
            },
            "Stops and joins the thread and closes the access object; the last pose stays readable.")
        .def_property_readonly("running", &OrvPoseFeed::isRunning, "Whether the service thread runs.")
        .def_property_readonly("service_error", &OrvPoseFeed::getServiceError,
                               "What the service thread last ran into, or a note that no pose came for longer "
                               "than the stale time; '' while all is well.")
        .def_property_readonly(
            "recovery",
            [](const OrvPoseFeed& f) {
                s_OrvPoseFeedRecovery r{};
                f.getRecovery(&r);
                return py::reinterpret_borrow<py::object>(g_feedRecoveryType)(
                    r.state, r.outages, r.recoveries, r.requests, r.requestsFailed, r.reopens, r.reopensFailed,
                    r.longestOutageUs, r.lastOutageUs, std::string(r.text));
            },
            "How the feed keeps its poses coming (OrvPoseFeed::getRecovery()): a FeedRecovery with the state "
            "(a FeedStream value), the outages, recoveries, requests to stream and reopens since the last "
            "start, the longest and the last outage in us, and the state in words.")
        .def_property("stale_time_us", &OrvPoseFeed::getStaleTimeUs, &OrvPoseFeed::setStaleTimeUs,
                      "us without a new pose after which a pose is stale (default 100000).")
        .def(
            "latest",
            [](const OrvPoseFeed& f) {
                s_OrvPoseFeedPose p{};
                const bool delivered = f.getLatest(&p);
                return feedPose(delivered, p);
            },
            "The newest pose adjusted as Access.get_tracking_data_latest adjusts it: a FeedPose whose pose is "
            "None before the first.")
        .def(
            "reader", [](std::shared_ptr<OrvPoseFeed> f) { return PyFeedReader(std::move(f)); },
            "A PoseFeedReader for one render loop.")
        // A few of the access object's calls, made under the feed's lock.
        .def(
            "error_codes",
            [](OrvPoseFeed& f) {
                py::list out;
                withAccess(f, [&](OrvAccess& o) {
                    s_OrvAccessErrorCode e{};
                    while (o.getErrorCode(&e) != 0) out.append(py::make_tuple(e.code, e.value));
                    return 0;
                });
                return out;
            },
            "Every queued error code as (code, value), oldest first (see error_message()).")
        .def(
            "set_prediction",
            [](OrvPoseFeed& f, float seconds) {
                withAccess(f, [&](OrvAccess& o) { return o.setPrediction(seconds); });
            },
            py::arg("seconds"), "The fixed prediction interval, s; readers use it from their next call.")
        .def(
            "set_tip_offset",
            [](OrvPoseFeed& f, float x, float y, float z) {
                float xyz[3] = {x, y, z};
                withAccess(f, [&](OrvAccess& o) { return o.setTipOffset(xyz); });
            },
            py::arg("x"), py::arg("y"), py::arg("z"), "The tip offset in body axes, m.")
        .def(
            "set_boresight_ref",
            [](OrvPoseFeed& f, float roll, float pitch, float yaw) {
                float rpy[3] = {roll, pitch, yaw};
                withAccess(f, [&](OrvAccess& o) { return o.setBoresightRef(rpy); });
            },
            py::arg("roll"), py::arg("pitch"), py::arg("yaw"), "The boresight reference, rad.");
}

}  // namespace orvpy

// The public records as Python classes and NumPy structured types. Each
// record is listed here once, field by field in C order; the class, its
// `dtype` and the bulk arrays all follow from that one list.
#include <climits>
#include <cstdint>
#include <memory>
#include <sstream>

#include "orvpy.hpp"

namespace orvpy {

namespace {

using Fields = std::shared_ptr<const std::vector<Field>>;

py::dtype elementType(const Field& f) { return py::dtype(f.format()); }

py::tuple shapeOf(const Field& f) {
    py::tuple t(f.shape.size());
    for (size_t i = 0; i < f.shape.size(); ++i) t[i] = py::int_(f.shape[i]);
    return t;
}

// A field of the record under `self`: a number, or a writable NumPy view of
// the record's own memory (which keeps the record alive).
py::object readField(py::handle self, const unsigned char* rec, const Field& f) {
    const unsigned char* at = rec + f.offset;
    if (f.shape.empty()) {
        if (f.kind == 'f') {
            if (f.itemSize == sizeof(float)) {
                float v;
                std::memcpy(&v, at, sizeof v);
                return py::float_(v);
            }
            double v;
            std::memcpy(&v, at, sizeof v);
            return py::float_(v);
        }
        if (f.kind == 'i') {
            int64_t v = 0;
            if (f.itemSize == 1) v = static_cast<int8_t>(*at);
            if (f.itemSize == 2) v = static_cast<int16_t>(at[0] | at[1] << 8);
            if (f.itemSize == 4) {
                int32_t w;
                std::memcpy(&w, at, sizeof w);
                v = w;
            }
            if (f.itemSize == 8) std::memcpy(&v, at, sizeof v);
            return py::int_(v);
        }
        uint64_t v = 0;
        std::memcpy(&v, at, f.itemSize);  // little-endian: the low bytes
        return py::int_(v);
    }
    std::vector<py::ssize_t> strides(f.shape.size(), static_cast<py::ssize_t>(f.itemSize));
    if (f.shape.size() == 2) strides[0] = f.shape[1] * static_cast<py::ssize_t>(f.itemSize);
    return py::array(elementType(f), f.shape, strides, at, self);
}

std::string text(py::handle h) { return py::str(h).cast<std::string>(); }

[[noreturn]] void refuse(const char* record, const Field& f, const std::string& what) {
    throw py::value_error(std::string(record) + "." + f.name + " " + what);
}

void writeField(const char* record, unsigned char* rec, py::handle self, const Field& f, py::handle value) {
    unsigned char* at = rec + f.offset;
    if (!f.shape.empty()) {
        py::module_ np = py::module_::import("numpy");
        const py::tuple given = np.attr("shape")(value);
        const py::tuple wanted = shapeOf(f);
        if (!given.equal(wanted))
            refuse(record, f, "takes an array of shape " + text(wanted) + ", not " + text(given));
        readField(self, rec, f).attr("__setitem__")(py::ellipsis(), value);
        return;
    }
    if (f.kind == 'f') {
        const double v = py::float_(py::reinterpret_borrow<py::object>(value));
        if (f.itemSize == sizeof(float)) {
            const float narrow = static_cast<float>(v);
            std::memcpy(at, &narrow, sizeof narrow);
        } else {
            std::memcpy(at, &v, sizeof v);
        }
        return;
    }
    // Integers only (no silent truncation of 2.5), within the field's range.
    PyObject* index = PyNumber_Index(value.ptr());
    if (index == nullptr) throw py::error_already_set();
    const py::int_ number = py::reinterpret_steal<py::int_>(index);
    const unsigned bits = static_cast<unsigned>(f.itemSize * CHAR_BIT);
    if (f.kind == 'u') {
        const unsigned long long high = bits == 64 ? ULLONG_MAX : (1ULL << bits) - 1;
        const unsigned long long v = PyLong_AsUnsignedLongLong(number.ptr());
        const bool failed = v == ULLONG_MAX && PyErr_Occurred() != nullptr;
        if (failed) PyErr_Clear();
        if (failed || v > high)
            refuse(record, f, "takes an integer in 0.." + std::to_string(high) + ", not " + text(number));
        std::memcpy(at, &v, f.itemSize);  // little-endian: the low bytes
        return;
    }
    const long long high = bits == 64 ? LLONG_MAX : (1LL << (bits - 1)) - 1;
    const long long low = -high - 1;
    const long long v = PyLong_AsLongLong(number.ptr());
    const bool failed = v == -1 && PyErr_Occurred() != nullptr;
    if (failed) PyErr_Clear();
    if (failed || v < low || v > high)
        refuse(record, f,
               "takes an integer in " + std::to_string(low) + ".." + std::to_string(high) + ", not " +
                   text(number));
    std::memcpy(at, &v, f.itemSize);
}

std::string show(py::handle value) {
    if (py::isinstance<py::array>(value)) return py::repr(value.attr("tolist")()).cast<std::string>();
    return py::repr(value).cast<std::string>();
}

template <typename S>
unsigned char* bytesOf(py::handle self) {
    return reinterpret_cast<unsigned char*>(&self.cast<S&>());
}

template <typename S>
void bindRecord(py::module_& m, const char* name, const char* doc, std::vector<Field> list) {
    static_assert(std::is_trivially_copyable_v<S> && std::is_standard_layout_v<S>,
                  "records are plain C structures");
    const Fields fields = std::make_shared<const std::vector<Field>>(std::move(list));
    py::class_<S> cls(m, name, doc);

    py::list names, formats, offsets;
    for (const Field& f : *fields) {
        names.append(f.name);
        offsets.append(f.offset);
        if (f.shape.empty())
            formats.append(elementType(f));
        else
            formats.append(py::make_tuple(elementType(f), shapeOf(f)));
    }
    cls.attr("fields") = py::tuple(names);
    cls.attr("dtype") = py::dtype(names, formats, offsets, static_cast<py::ssize_t>(sizeof(S)));

    cls.def(py::init([fields, name](py::kwargs values) {
                S rec{};
                py::object self = py::cast(rec);
                for (auto item : values) {
                    const std::string key = py::str(item.first);
                    const Field* f = nullptr;
                    for (const Field& g : *fields)
                        if (key == g.name) f = &g;
                    if (f == nullptr)
                        throw py::type_error(std::string(name) + " has no field '" + key +
                                             "'; its fields are listed in " + name + ".fields");
                    writeField(name, bytesOf<S>(self), self, *f, item.second);
                }
                return self.cast<S>();
            }),
            "A record of zeros; keyword arguments set fields by their C names.");

    for (const Field& f : *fields) {
        cls.def_property(
            f.name, [f](py::object self) { return readField(self, bytesOf<S>(self), f); },
            [f, name](py::object self, py::handle value) {
                writeField(name, bytesOf<S>(self), self, f, value);
            });
    }

    cls.def_static(
        "from_row",
        [](py::handle row) {
            const py::dtype type = dtypeOf<S>();
            if (!py::hasattr(row, "dtype") || !type.attr("__eq__")(row.attr("dtype")).cast<bool>())
                throw py::value_error("from_row takes a row of an array of this record's dtype");
            const py::bytes raw = row.attr("tobytes")();
            const std::string bytes = raw;
            // An empty or longer array of the right dtype is not one row.
            if (bytes.size() != sizeof(S))
                throw py::value_error("from_row takes one row (" + std::to_string(sizeof(S)) + " bytes), not " +
                                      std::to_string(bytes.size()) + " bytes");
            S rec{};
            std::memcpy(&rec, bytes.data(), sizeof rec);
            return rec;
        },
        "The record in one row of a structured array of this record's dtype.");

    cls.def("__eq__", [fields](py::handle self, py::handle other) -> py::object {
        if (!py::isinstance<S>(other)) return py::reinterpret_borrow<py::object>(Py_NotImplemented);
        const unsigned char* a = bytesOf<S>(self);
        const unsigned char* b = bytesOf<S>(other);
        // Field by field: the padding between them carries nothing.
        for (const Field& f : *fields)
            if (std::memcmp(a + f.offset, b + f.offset, f.size()) != 0) return py::bool_(false);
        return py::bool_(true);
    });
    cls.def("__copy__", [](const S& self) { return self; });
    cls.def("__deepcopy__", [](const S& self, py::handle) { return self; });
    cls.def("__repr__", [fields, name](py::handle self) {
        std::ostringstream out;
        out << name << '(';
        for (size_t i = 0; i < fields->size(); ++i) {
            const Field& f = (*fields)[i];
            out << (i ? ", " : "") << f.name << '=' << show(readField(self, bytesOf<S>(self), f));
        }
        out << ')';
        return out.str();
    });
}

// One field of the record S, by its C name.
#define ORVPY_FIELD(f) makeField<decltype(S::f)>(#f, offsetof(S, f))

}  // namespace

void bindRecords(py::module_& m) {
    {
        using S = s_OrvAccessTrkDataExt;
        bindRecord<S>(
            m, "TrkDataExt",
            "One fused pose (s_OrvAccessTrkDataExt). Times in us on the library clock; cbn is body to "
            "navigation, row-major; euler is roll, pitch, yaw in rad; position in m; angularRate in rad/s.",
            {ORVPY_FIELD(packetTag),  ORVPY_FIELD(poseTime),    ORVPY_FIELD(platPoseTime),
             ORVPY_FIELD(time2),      ORVPY_FIELD(statusWord),  ORVPY_FIELD(vecA),
             ORVPY_FIELD(vecB),       ORVPY_FIELD(vecC),        ORVPY_FIELD(vecD),
             ORVPY_FIELD(vecE),       ORVPY_FIELD(vecF),        ORVPY_FIELD(countA),
             ORVPY_FIELD(countB),     ORVPY_FIELD(cbn),         ORVPY_FIELD(euler),
             ORVPY_FIELD(cbn2),       ORVPY_FIELD(position),    ORVPY_FIELD(vecG),
             ORVPY_FIELD(vecH),       ORVPY_FIELD(angularRate), ORVPY_FIELD(vecI),
             ORVPY_FIELD(extA),       ORVPY_FIELD(vecJ),        ORVPY_FIELD(extB),
             ORVPY_FIELD(vecK),       ORVPY_FIELD(extC),        ORVPY_FIELD(vecL),
             ORVPY_FIELD(vecM),       ORVPY_FIELD(scalarA),     ORVPY_FIELD(scalarB),
             ORVPY_FIELD(errorCodes), ORVPY_FIELD(vecN),        ORVPY_FIELD(vecO),
             ORVPY_FIELD(extD)});
    }
    {
        using S = s_OrvAccessImuData;
        bindRecord<S>(
            m, "ImuData", "One IMU sample (s_OrvAccessImuData): time in us, dt in s, rates per second.",
            {ORVPY_FIELD(time), ORVPY_FIELD(tag), ORVPY_FIELD(pid), ORVPY_FIELD(status), ORVPY_FIELD(dt),
             ORVPY_FIELD(gyroRaw), ORVPY_FIELD(accelRaw), ORVPY_FIELD(gyroRate), ORVPY_FIELD(accelRate)});
    }
    {
        using S = s_OrvAccessAuxData;
        bindRecord<S>(m, "AuxData", "The auxiliary byte of a chip packet (s_OrvAccessAuxData).",
                      {ORVPY_FIELD(aux)});
    }
    {
        using S = s_OrvAccessDiagData;
        bindRecord<S>(m, "DiagData", "A diagnostic subpacket from orvRx (s_OrvAccessDiagData).",
                      {ORVPY_FIELD(tag), ORVPY_FIELD(diagValue1), ORVPY_FIELD(diagCount),
                       ORVPY_FIELD(diagByte1), ORVPY_FIELD(diagValue2), ORVPY_FIELD(diagByte2),
                       ORVPY_FIELD(errorCodes), ORVPY_FIELD(state), ORVPY_FIELD(optional)});
    }
    {
        using S = s_OrvAccessPlatPoseData;
        bindRecord<S>(m, "PlatPoseData",
                      "A platform pose (s_OrvAccessPlatPoseData): tag, pose = roll, pitch, yaw in rad.",
                      {ORVPY_FIELD(tag), ORVPY_FIELD(pose)});
    }
    {
        using S = s_OrvAccessGpsData;
        bindRecord<S>(
            m, "GpsData", "GPS data (s_OrvAccessGpsData).",
            {ORVPY_FIELD(valid), ORVPY_FIELD(gpsWord1), ORVPY_FIELD(lat), ORVPY_FIELD(lon),
             ORVPY_FIELD(gpsValue1), ORVPY_FIELD(gpsHalf), ORVPY_FIELD(gpsByte1), ORVPY_FIELD(gpsValue2),
             ORVPY_FIELD(gpsValue3), ORVPY_FIELD(gpsWord2), ORVPY_FIELD(gpsDouble1), ORVPY_FIELD(gpsDouble2),
             ORVPY_FIELD(gpsValue4), ORVPY_FIELD(gpsValue5), ORVPY_FIELD(gpsValue6), ORVPY_FIELD(gpsByte2)});
    }
    {
        using S = s_OrvAccessPoseRecStats;
        bindRecord<S>(
            m, "PoseRecStats",
            "Pose-recovery statistics from an optical subpacket or a PRA packet "
            "(s_OrvAccessPoseRecStats).",
            {ORVPY_FIELD(tag), ORVPY_FIELD(stat0), ORVPY_FIELD(stat1), ORVPY_FIELD(stat2), ORVPY_FIELD(stat3),
             ORVPY_FIELD(value0), ORVPY_FIELD(flagA), ORVPY_FIELD(flagB), ORVPY_FIELD(value1),
             ORVPY_FIELD(vec1), ORVPY_FIELD(vec2), ORVPY_FIELD(vec3), ORVPY_FIELD(vec4), ORVPY_FIELD(value2),
             ORVPY_FIELD(value3), ORVPY_FIELD(value4), ORVPY_FIELD(value5), ORVPY_FIELD(extra)});
    }
    {
        using S = s_OrvAccessHubData;
        bindRecord<S>(
            m, "HubData",
            "A hub data packet (s_OrvAccessHubData): time in us, cbn body to navigation, row-major, "
            "euler roll, pitch, yaw in rad.",
            {ORVPY_FIELD(word), ORVPY_FIELD(halfWord), ORVPY_FIELD(status), ORVPY_FIELD(words),
             ORVPY_FIELD(time), ORVPY_FIELD(cbn), ORVPY_FIELD(euler), ORVPY_FIELD(vec),
             ORVPY_FIELD(lastByte)});
    }
    {
        using S = s_OrvAccessStatus;
        bindRecord<S>(
            m, "Status",
            "What getStatus reports (s_OrvAccessStatus): Connection and Received bits, the new-error "
            "flag and the last orvRx state.",
            {ORVPY_FIELD(connections), ORVPY_FIELD(received), ORVPY_FIELD(newError), ORVPY_FIELD(diagState)});
    }
    {
        using S = s_OrvAccessErrorCode;
        bindRecord<S>(
            m, "QueuedErrorCode",
            "One queued error code (s_OrvAccessErrorCode); ErrorCode names the library's own codes.",
            {ORVPY_FIELD(code), ORVPY_FIELD(value)});
    }
    {
        using S = OrvAccess::s_TgtResData;
        bindRecord<S>(m, "TgtResData",
                      "One target residual of an optical subpacket (OrvAccess::s_TgtResData); id 0 closes a "
                      "subpacket's residuals.",
                      {ORVPY_FIELD(tag), ORVPY_FIELD(index), ORVPY_FIELD(id), ORVPY_FIELD(resid)});
    }
    {
        using S = OrvAccess::s_TgtData;
        bindRecord<S>(m, "TgtData",
                      "One entry of a target list (OrvAccess::s_TgtData); kind 0 and id 0 close a list.",
                      {ORVPY_FIELD(tag), ORVPY_FIELD(index), ORVPY_FIELD(kind), ORVPY_FIELD(id),
                       ORVPY_FIELD(hdrByte), ORVPY_FIELD(word1), ORVPY_FIELD(word2), ORVPY_FIELD(word3),
                       ORVPY_FIELD(word4), ORVPY_FIELD(value1), ORVPY_FIELD(value2), ORVPY_FIELD(value3),
                       ORVPY_FIELD(value4), ORVPY_FIELD(value5), ORVPY_FIELD(value6), ORVPY_FIELD(trailer)});
    }
    {
        using S = OrvAccess::s_FeatData;
        bindRecord<S>(
            m, "FeatData", "One natural feature of an NFT packet (OrvAccess::s_FeatData).",
            {ORVPY_FIELD(sequenceId), ORVPY_FIELD(index), ORVPY_FIELD(valid), ORVPY_FIELD(position)});
    }
    {
        using S = OrvAccess::s_ImuCrs;
        bindRecord<S>(m, "ImuCrs",
                      "One completed 256-bit clock-relation row (OrvAccess::s_ImuCrs): bit n of bits[n // 8] "
                      "came with chip packet id n.",
                      {ORVPY_FIELD(bits)});
    }
}

}  // namespace orvpy

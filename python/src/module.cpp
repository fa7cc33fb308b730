// orvaccess._orvaccess: the compiled half of the Python package. The build
// writes the enumeration tables out as the package's _enums.py (IntEnum and
// IntFlag classes, gen_pyenums.py); everything else lives here.
#include <orvaccess/orvaccess.h>

#include <stdexcept>

#include "Names.hpp"
#include "orvpy.hpp"

namespace orvpy {

namespace {

// Owned for the life of the process: raising must work until the very end.
PyObject* g_error = nullptr;

const std::vector<EnumTable> kEnumTables = {
#include "enums.inc"
};

// getErrorMessage reads a fixed table; one object serves every caller.
OrvAccess& messages() {
    static OrvAccess* access = new OrvAccess();
    return *access;
}

}  // namespace

const std::vector<EnumTable>& enumTables() { return kEnumTables; }

const EnumTable& enumTable(const char* name) {
    for (const EnumTable& t : kEnumTables)
        if (std::string(t.name) == name) return t;
    throw std::logic_error(std::string("no enumeration ") + name + " in the public headers");
}

void bindError(py::module_& m) {
    g_error = PyErr_NewExceptionWithDoc(
        "orvaccess.Error",
        "A call of the library failed. str() is the library's reason; .text is that reason alone, .call the "
        "method that failed, .records the rows a drain had taken before it failed (else None).",
        nullptr, nullptr);
    if (g_error == nullptr) throw py::error_already_set();
    m.attr("Error") = py::reinterpret_borrow<py::object>(g_error);
}

void raiseError(const std::string& call, const std::string& text, const std::string& hint,
                py::object records) {
    const std::string message = hint.empty() ? text : text + " (" + hint + ")";
    py::object error = py::reinterpret_borrow<py::object>(g_error)(message);
    error.attr("text") = text;
    error.attr("call") = call;
    error.attr("records") = records;
    PyErr_SetObject(g_error, error.ptr());
    throw py::error_already_set();
}

}  // namespace orvpy

PYBIND11_MODULE(_orvaccess, m) {
    namespace py = pybind11;
    using namespace orvpy;

    m.doc() = "The compiled half of orvaccess; import orvaccess instead.";
    bindError(m);
    bindRecords(m);
    bindAccess(m);
    bindFeed(m);

    py::dict enums;
    for (const EnumTable& t : enumTables()) {
        py::list members;
        for (const EnumEntry& e : t.entries) members.append(py::make_tuple(e.name, e.value));
        enums[t.name] = members;
    }
    m.attr("_enums") = enums;

    m.def(
        "error_message",
        [](int code) {
            if (code < 0 || code > 0xFFFF) throw py::value_error("error codes are 16 bits: 0..65535");
            return messages().getErrorMessage(static_cast<unsigned short>(code));
        },
        py::arg("code"), "The message of an error code, as Access.get_error_message gives it.");
    m.def(
        "error_text",
        [](int code) {
            if (code < 0 || code > 0xFFFF) throw py::value_error("error codes are 16 bits: 0..65535");
            return orvnames::errorText(static_cast<unsigned>(code),
                                       messages().getErrorMessage(static_cast<unsigned short>(code)));
        },
        py::arg("code"),
        "The message of an error code; where the library's message says only \"Unknown error\" for a code of "
        "its own (781 to 784), the code's meaning and name instead.");
    m.def("get_time_ms", &OrvosiUtil_getTimeMs, "The library clock in milliseconds.");
    m.def(
        "snooze_ms",
        [](int ms) {
            py::gil_scoped_release nogil;
            OrvosiUtil_snoozeMs(ms);
        },
        py::arg("ms"), "Sleeps ms milliseconds (0 for a negative time), letting other Python threads run.");
    m.attr("__version__") = messages().getVersion();
}

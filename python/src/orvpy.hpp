// The Python module's shared pieces: records described field by field, the
// Error exception, the enumerations of the public headers, and the access
// object as Python holds it.
#pragma once

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>  // std::optional arguments

#include <orvaccess/OrvAccess.hpp>

#include <atomic>
#include <cstddef>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <type_traits>
#include <vector>

namespace orvpy {

namespace py = pybind11;

// ---- records ------------------------------------------------------------------

// One field of a C record: where it lies, what one element is and the
// array's shape (empty for a number). The offsets are the compiler's, so the
// record classes and the structured arrays read the records as C does.
struct Field {
    const char* name;
    size_t offset;
    char kind;        // 'u' unsigned, 'i' signed, 'f' floating point
    size_t itemSize;  // bytes of one element
    std::vector<py::ssize_t> shape;

    size_t count() const {
        size_t n = 1;
        for (py::ssize_t d : shape) n *= static_cast<size_t>(d);
        return n;
    }
    size_t size() const { return count() * itemSize; }
    // NumPy's name of one element, e.g. "<f4".
    std::string format() const { return std::string("<") + kind + std::to_string(itemSize); }
};

template <typename M>
Field makeField(const char* name, size_t offset) {
    using E = std::remove_all_extents_t<M>;
    static_assert(std::is_arithmetic_v<E> && std::rank_v<M> <= 2,
                  "a record field is a number or an array of numbers of up to two dimensions");
    Field f{
        name, offset, std::is_floating_point_v<E> ? 'f' : (std::is_signed_v<E> ? 'i' : 'u'), sizeof(E), {}};
    if constexpr (std::rank_v<M> >= 1) f.shape.push_back(static_cast<py::ssize_t>(std::extent_v<M, 0>));
    if constexpr (std::rank_v<M> == 2) f.shape.push_back(static_cast<py::ssize_t>(std::extent_v<M, 1>));
    return f;
}

// Registers the Python class of every public record (records.cpp).
void bindRecords(py::module_& m);

// The structured-array type of a record, kept by its class as `dtype`.
template <typename S>
py::dtype dtypeOf() {
    return py::type::of<S>().attr("dtype").template cast<py::dtype>();
}

// Records as one structured array, one row each.
template <typename S>
py::array toArray(const std::vector<S>& rows) {
    py::array out(dtypeOf<S>(), std::vector<py::ssize_t>{static_cast<py::ssize_t>(rows.size())});
    if (!rows.empty()) std::memcpy(out.mutable_data(), rows.data(), rows.size() * sizeof(S));
    return out;
}

// ---- errors ---------------------------------------------------------------------

// Creates orvaccess.Error in the module (module.cpp).
void bindError(py::module_& m);

// Raises orvaccess.Error: str() is the text (with the hint in brackets, when
// there is one); `text` is the text alone, `call` the method that failed and
// `records` what a drain had taken before it failed (None elsewhere).
[[noreturn]] void raiseError(const std::string& call, const std::string& text, const std::string& hint = "",
                             py::object records = py::none());

// ---- enumerations -----------------------------------------------------------

struct EnumEntry {
    const char* name;
    long long value;
};
struct EnumTable {
    const char* name;
    std::vector<EnumEntry> entries;
};
// Every e_OrvAccess... enumeration of the public headers, member by member.
const std::vector<EnumTable>& enumTables();
const EnumTable& enumTable(const char* name);

// ---- the access object --------------------------------------------------------

// The access object as Python holds it. The library allows one thread at a
// time per object; the lock lets Python threads share one all the same.
struct PyAccess {
    std::unique_ptr<OrvAccess> access = std::make_unique<OrvAccess>();
    std::mutex mutex;
    // The last error of the object a with block ended (see finish in access.cpp).
    std::string carriedLastError;
    std::string iniPath = "orvaccess.ini";
    bool iniNamed = false;  // named by the user: then it must exist
    std::vector<unsigned char> image;  // getImage's buffer, the largest format's size
    int imagePercent = 0;
    std::atomic<double> lastDrainLibraryS{0.0};  // for the drain benchmark
};

// Raises OSError (FileNotFoundError, PermissionError, ...) for a file the
// user named that cannot be read: the library would take its defaults.
void requireReadable(const std::string& path);

void bindAccess(py::module_& m);
// orvaccess.PoseFeed and its reader (feed.cpp).
void bindFeed(py::module_& m);

}  // namespace orvpy

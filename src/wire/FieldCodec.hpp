// How one field list becomes code: a row type for tools and tests, and the
// typed reads and writes that the lists' decoders and encoders expand to.
// A field list is an X-macro whose rows are
//
//   X(name, offset, type, count, store, unit, label, description)
//
// `offset` is where the field starts (the lists are checked to run on
// without gaps), `type` one of Type below, `count` how many of it follow,
// and `store` where the field goes in the structure it is decoded into:
//   rec(m)   the member m (an element address for arrays), converted by value;
//   bits(m)  the field's bytes as little-endian words of m's own width;
//   flag(m)  1 when the byte is non-zero, else 0;
//   none()   not kept: skipped on reading, zeros on writing.
// `label` is what a reader calls the field where its record name (vecA,
// value3) says nothing; empty where the name says it all.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "wire/OrvosiCursor.hpp"

namespace orvwire {

// Wire types. x8/x16/x32 are unsigned shown in hex; v3 is three f32 (x, y,
// z), m33 nine f32 row by row; skip is bytes nothing reads.
enum class Type : uint8_t { u8, x8, u16, x16, u24, u32, x32, u64, f32, f64, v3, m33, skip };

constexpr size_t elementSize(Type t) {
    switch (t) {
    case Type::u16: case Type::x16: return 2;
    case Type::u24: return 3;
    case Type::u32: case Type::x32: case Type::f32: case Type::v3: case Type::m33: return 4;
    case Type::u64: case Type::f64: return 8;
    default: return 1;
    }
}
constexpr size_t elementsOf(Type t) { return t == Type::v3 ? 3 : t == Type::m33 ? 9 : 1; }
constexpr size_t fieldSize(Type t, size_t count) { return elementSize(t) * elementsOf(t) * count; }
constexpr bool isReal(Type t) { return t == Type::f32 || t == Type::v3 || t == Type::m33 || t == Type::f64; }

constexpr const char* typeName(Type t) {
    switch (t) {
    case Type::u8: return "u8";
    case Type::x8: return "x8";
    case Type::u16: return "u16";
    case Type::x16: return "x16";
    case Type::u24: return "u24";
    case Type::u32: return "u32";
    case Type::x32: return "x32";
    case Type::u64: return "u64";
    case Type::f32: return "f32";
    case Type::f64: return "f64";
    case Type::v3: return "v3";
    case Type::m33: return "m33";
    case Type::skip: return "skip";
    }
    return "?";
}

struct Field {
    const char* name;
    size_t offset;
    Type type;
    unsigned int count;
    const char* unit;   // empty when the value has none
    const char* label;  // empty when the name says what the field is
    const char* description;
    size_t size() const { return fieldSize(type, count); }
};

// A list's end: where the byte after its last field lies.
template <size_t N>
constexpr size_t endOf(const Field (&list)[N]) {
    return list[N - 1].offset + fieldSize(list[N - 1].type, list[N - 1].count);
}
// Every field starts where the one before it ends.
template <size_t N>
constexpr bool contiguous(const Field (&list)[N]) {
    for (size_t i = 1; i < N; ++i)
        if (list[i].offset != list[i - 1].offset + fieldSize(list[i - 1].type, list[i - 1].count)) return false;
    return true;
}
constexpr bool sameName(const char* a, const char* b) {
    while (*a != '\0' && *a == *b) ++a, ++b;
    return *a == *b;
}
// The offset of a named field; a name the list lacks does not compile.
template <size_t N>
constexpr size_t offsetOf(const Field (&list)[N], const char* name) {
    for (const Field& f : list)
        if (sameName(f.name, name)) return f.offset;
    throw "no such field";
}
template <size_t N>
constexpr Type typeOf(const Field (&list)[N], const char* name) {
    for (const Field& f : list)
        if (sameName(f.name, name)) return f.type;
    throw "no such field";
}

// ---- where a field goes ------------------------------------------------
template <class T> struct ByValue { T* p; };
template <class T> struct ByBits { T* p; };
template <class T> struct AsFlag { T* p; };
struct Dropped {};
template <class T> constexpr ByValue<T> byValue(T* p) { return {p}; }
template <class T> constexpr ByBits<T> byBits(T* p) { return {p}; }
template <class T> constexpr AsFlag<T> asFlag(T* p) { return {p}; }

template <Type T>
[[gnu::always_inline]] inline auto readOne(OrvosiReader& r) {
    if constexpr (T == Type::u8 || T == Type::x8) return r.u8();
    else if constexpr (T == Type::u16 || T == Type::x16) return r.u16();
    else if constexpr (T == Type::u24) return r.u24();
    else if constexpr (T == Type::u32 || T == Type::x32) return r.u32();
    else if constexpr (T == Type::u64) return r.u64();
    else if constexpr (T == Type::f64) return r.f64();
    else return r.f32();
}

template <Type T, class V>
inline void writeOne(OrvosiWriter& w, V v) {
    if constexpr (isReal(T)) {
        if constexpr (T == Type::f64) w.f64(static_cast<double>(v));
        else w.f32(static_cast<float>(v));
    } else {
        const unsigned long u = static_cast<unsigned long>(v);
        switch (elementSize(T)) {
        case 1: w.u8(static_cast<unsigned char>(u)); break;
        case 2: w.u16(u); break;
        case 3: w.u24(u); break;
        case 4: w.u32(u); break;
        default: w.u64(u); break;
        }
    }
}

// ---- reading --------------------------------------------------------------
template <Type T, unsigned N, class D>
[[gnu::always_inline]] inline void get(OrvosiReader& r, ByValue<D> d) {
    constexpr size_t n = elementsOf(T) * N;
    if constexpr (isReal(T) && T != Type::f64 && std::is_same<D, float>::value) {
        r.f32s(d.p, n);
    } else {
        for (size_t i = 0; i < n; ++i) d.p[i] = static_cast<D>(readOne<T>(r));
    }
}
template <Type T, unsigned N, class D>
[[gnu::always_inline]] inline void get(OrvosiReader& r, ByBits<D> d) {
    constexpr size_t words = fieldSize(T, N) / sizeof(D);
    static_assert(words * sizeof(D) == fieldSize(T, N), "a field stored as words fills them exactly");
    for (size_t i = 0; i < words; ++i) {
        if constexpr (sizeof(D) == 4) d.p[i] = static_cast<D>(r.u32());
        else if constexpr (sizeof(D) == 2) d.p[i] = static_cast<D>(r.u16());
        else d.p[i] = static_cast<D>(r.u8());
    }
}
template <Type T, unsigned N, class D>
[[gnu::always_inline]] inline void get(OrvosiReader& r, AsFlag<D> d) {
    for (size_t i = 0; i < N; ++i) d.p[i] = readOne<T>(r) != 0 ? 1 : 0;
}
template <Type T, unsigned N>
[[gnu::always_inline]] inline void get(OrvosiReader& r, Dropped) {
    r.skip(fieldSize(T, N));
}

// ---- writing --------------------------------------------------------------
template <Type T, unsigned N, class S>
inline void put(OrvosiWriter& w, ByValue<S> s) {
    for (size_t i = 0; i < elementsOf(T) * N; ++i) writeOne<T>(w, s.p[i]);
}
template <Type T, unsigned N, class S>
inline void put(OrvosiWriter& w, ByBits<S> s) {
    constexpr size_t words = fieldSize(T, N) / sizeof(S);
    static_assert(words * sizeof(S) == fieldSize(T, N), "a field stored as words fills them exactly");
    for (size_t i = 0; i < words; ++i) {
        if constexpr (sizeof(S) == 4) w.u32(s.p[i]);
        else if constexpr (sizeof(S) == 2) w.u16(s.p[i]);
        else w.u8(static_cast<unsigned char>(s.p[i]));
    }
}
template <Type T, unsigned N, class S>
inline void put(OrvosiWriter& w, AsFlag<S> s) {
    for (size_t i = 0; i < N; ++i) w.u8(s.p[i] != 0 ? 1 : 0);
}
template <Type T, unsigned N>
inline void put(OrvosiWriter& w, Dropped) {
    w.zeros(fieldSize(T, N));
}

}  // namespace orvwire

// ---- expansion of a list ----------------------------------------------------
#define ORVWIRE_STORE_rec(m) ::orvwire::byValue(&rec.m)
#define ORVWIRE_STORE_bits(m) ::orvwire::byBits(&rec.m)
#define ORVWIRE_STORE_flag(m) ::orvwire::asFlag(&rec.m)
#define ORVWIRE_STORE_none() ::orvwire::Dropped{}

#define ORVWIRE_FIELD_ROW(name, at, type, count, store, unit, label, desc) \
    {#name, at, ::orvwire::Type::type, count, unit, label, desc},
#define ORVWIRE_FIELD_GET(name, at, type, count, store, unit, label, desc) \
    ::orvwire::get<::orvwire::Type::type, count>(r, ORVWIRE_STORE_##store);
#define ORVWIRE_FIELD_PUT(name, at, type, count, store, unit, label, desc) \
    ::orvwire::put<::orvwire::Type::type, count>(w, ORVWIRE_STORE_##store);

// Makes, from the list LIST, the table kNameFields, the check that it runs
// without gaps, decodeName(reader, rec), reading from the reader's position,
// and encodeName(writer, rec), writing at the writer's. The decoder is
// inlined into its parser so that the reader's position stays in registers.
#define ORVWIRE_FIELD_LIST(Name, LIST)                                                         \
    inline constexpr ::orvwire::Field k##Name##Fields[] = {LIST(ORVWIRE_FIELD_ROW)};            \
    static_assert(::orvwire::contiguous(k##Name##Fields), #Name " fields leave a gap");        \
    template <class Rec>                                                                        \
    [[gnu::always_inline]] inline void decode##Name(OrvosiReader& r, [[maybe_unused]] Rec& rec) { \
        LIST(ORVWIRE_FIELD_GET)                                                                 \
    }                                                                                           \
    template <class Rec>                                                                        \
    inline void encode##Name(OrvosiWriter& w, [[maybe_unused]] const Rec& rec) {                \
        LIST(ORVWIRE_FIELD_PUT)                                                                 \
    }

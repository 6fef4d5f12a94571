#pragma once

#include "Unlocked.h"
#include "qvlmf500/qvl.h"

#include <pybind11/stl.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

namespace native {

/// What a wait asks now and then: for Ctrl-C, and for an end that a signal handler has asked for.
inline bool goOn() {
    if (mustEnd()) return false;
    const py::gil_scoped_acquire locked;
    if (PyErr_CheckSignals() != 0) throw py::error_already_set();
    if (closesReader) throw qvl::Error(qvl::Reason::noReader, "the reader was closed");
    return true;
}

/// Of seconds; none is without end.
inline qvl::Limit limitOf(std::optional<double> seconds) {
    const qvl::Limit limit =
        seconds ? qvl::Limit(std::chrono::duration<double>(std::max(*seconds, 0.0))) : qvl::Limit();
    return limit.asking(goOn);
}

/// Keeps an argument that Python gives in another shape than the layer.
template <typename T>
struct ArgumentCaster {
    static constexpr auto name = py::detail::const_name("object");
    template <typename>
    using cast_op_type = const T&;
    operator const T&() const { return *value; }  // NOLINT: pybind11 converts by it

    std::optional<T> value;
};

}  // namespace native

namespace pybind11::detail {

/// Bytes from any buffer, and to `bytes`.
template <>
struct type_caster<qvl::Bytes> : native::ArgumentCaster<qvl::Bytes> {
    bool load(handle source, bool) {
        Py_buffer view;
        if (PyObject_GetBuffer(source.ptr(), &view, PyBUF_SIMPLE) != 0) {
            PyErr_Clear();
            return false;
        }
        const auto* begin = static_cast<const std::uint8_t*>(view.buf);
        value.emplace(begin, begin + view.len);
        PyBuffer_Release(&view);
        return true;
    }
    static handle cast(const qvl::Bytes& bytes, return_value_policy, handle) {
        return pybind11::bytes(reinterpret_cast<const char*>(bytes.data()), bytes.size()).release();
    }
};

template <>
struct type_caster<qvl::Uid> : native::ArgumentCaster<qvl::Uid> {
    bool load(handle source, bool convert) {
        type_caster<qvl::Bytes> bytes;
        if (!bytes.load(source, convert)) return false;
        value.emplace(static_cast<const qvl::Bytes&>(bytes));
        return true;
    }
    static handle cast(const qvl::Uid& uid, return_value_policy policy, handle parent) {
        return type_caster<qvl::Bytes>::cast({uid.bytes().begin(), uid.bytes().end()}, policy, parent);
    }
};

template <>
struct type_caster<qvl::Limit> : native::ArgumentCaster<qvl::Limit> {
    bool load(handle source, bool convert) {
        make_caster<std::optional<double>> seconds;
        if (!seconds.load(source, convert)) return false;
        value = native::limitOf(cast_op<std::optional<double>>(seconds));
        return true;
    }
};

/// A pair of a key and whether it is key B.
template <>
struct type_caster<qvl::Login> : native::ArgumentCaster<qvl::Login> {
    bool load(handle source, bool convert) {
        make_caster<std::pair<qvl::Key, bool>> pair;
        if (!pair.load(source, convert)) return false;
        const auto [key, isB] = cast_op<std::pair<qvl::Key, bool>>(pair);
        value = qvl::Login{key, isB ? qvl::KeyType::b : qvl::KeyType::a};
        return true;
    }
};

template <>
struct type_caster<qvl::KeyPair> : native::ArgumentCaster<qvl::KeyPair> {
    bool load(handle source, bool convert) {
        make_caster<std::pair<qvl::Key, qvl::Key>> pair;
        if (!pair.load(source, convert)) return false;
        const auto [a, b] = cast_op<std::pair<qvl::Key, qvl::Key>>(pair);
        value = qvl::KeyPair{a, b};
        return true;
    }
};

/// Conditions go by their bits, such as "110".
template <typename Access>
struct AccessCaster : native::ArgumentCaster<Access> {
    bool load(handle source, bool convert) {
        make_caster<std::string> bits;
        if (!bits.load(source, convert)) return false;
        const auto isIt = [&](const auto& rule) { return rule.bits == cast_op<std::string&>(bits); };
        if constexpr (std::is_same_v<Access, qvl::DataAccess>)
            return find(qvl::detail::kDataRules, isIt);
        else
            return find(qvl::detail::kTrailerRules, isIt);
    }
    static handle cast(Access access, return_value_policy, handle) { return str(qvl::rule(access).bits).release(); }

  private:
    template <typename Rules, typename Test>
    bool find(const Rules& rules, Test isIt) {
        const auto* found = std::ranges::find_if(rules, isIt);
        if (found == std::end(rules)) return false;
        this->value = found->access;
        return true;
    }
};
template <>
struct type_caster<qvl::DataAccess> : AccessCaster<qvl::DataAccess> {};
template <>
struct type_caster<qvl::TrailerAccess> : AccessCaster<qvl::TrailerAccess> {};

/// The three conditions of data and that of the trailer.
template <>
struct type_caster<qvl::SectorAccess> : native::ArgumentCaster<qvl::SectorAccess> {
    using Plain = std::pair<std::array<qvl::DataAccess, 3>, qvl::TrailerAccess>;
    bool load(handle source, bool) {
        const auto [data, trailer] = source.cast<Plain>();
        value = qvl::SectorAccess{data, trailer};
        return true;
    }
    static handle cast(const qvl::SectorAccess& access, return_value_policy, handle) {
        return pybind11::cast(Plain(access.data, access.trailer)).release();
    }
};

template <>
struct type_caster<qvl::KeyType> : native::ArgumentCaster<qvl::KeyType> {
    bool load(handle source, bool) {
        value = source.cast<bool>() ? qvl::KeyType::b : qvl::KeyType::a;
        return true;
    }
};

/// What became of each block or sector, as pairs of number and status.
template <>
struct type_caster<qvl::Results> {
    static constexpr auto name = const_name("list[tuple[int, int]]");
    static handle cast(const qvl::Results& results, return_value_policy, handle) {
        list pairs;
        for (const qvl::Result& each : results.list())
            pairs.append(make_tuple(each.number, each.status));
        return pairs.release();
    }
};
template <>
struct type_caster<qvl::Blocks> {
    static constexpr auto name = const_name("tuple[list[tuple[int, int]], bytes]");
    static handle cast(const qvl::Blocks& blocks, return_value_policy, handle) {
        const qvl::Results& results = blocks;
        return pybind11::make_tuple(results, blocks.bytesWithGaps()).release();
    }
};

}  // namespace pybind11::detail

#pragma once

#include "Arguments.h"
#include "Unlocked.h"

#include <functional>
#include <string_view>
#include <type_traits>

/// The module qvlmf500._native: the objects of the host layer with plain values in and out. The Python files beside it
/// give them their shape, and only they use it.
namespace native {

void bindValues(py::module_& module);
void bindReader(py::module_& module);
void bindTag(py::module_& module);
void bindCard(py::module_& module);
void bindVirtualReader(py::module_& module);

/// How an argument is kept while the interpreter runs on.
template <typename T>
struct Kept {
    using Type = std::remove_cvref_t<T>;
};
template <>
struct Kept<qvl::ByteView> {
    using Type = qvl::Bytes;
};
template <>
struct Kept<std::string_view> {
    using Type = std::string;
};

/// An operation of the layer as a function for Python, which lets other threads run meanwhile.
template <typename R, typename C, typename... A>
auto operation(R (C::*method)(A...) const) {
    return [method](const C& self, const typename Kept<A>::Type&... arguments) {
        return unlocked([&] { return (self.*method)(arguments...); });
    };
}
template <typename R, typename C, typename... A>
auto operation(R (C::*method)(A...)) {
    return [method](C& self, const typename Kept<A>::Type&... arguments) {
        return unlocked([&] { return (self.*method)(arguments...); });
    };
}

/// Text of any origin; what is no UTF-8 is replaced.
inline py::str text(std::string_view bytes) {
    return py::reinterpret_steal<py::str>(
        PyUnicode_DecodeUTF8(bytes.data(), static_cast<Py_ssize_t>(bytes.size()), "replace"));
}

}  // namespace native

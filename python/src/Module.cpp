#include "Native.h"

namespace {

namespace py = pybind11;

/// Errors become those of qvlmf500._errors, which has a class for each reason.
void translate(std::exception_ptr thrown) {
    try {
        if (thrown) std::rethrow_exception(thrown);
    } catch (const qvl::Error& error) {
        const py::object made =
            py::module_::import("qvlmf500._errors")
                .attr("error")(qvl::name(error.reason()), native::text(error.what()), error.status());
        PyErr_SetObject(py::type::handle_of(made).ptr(), made.ptr());
    }
}

}  // namespace

PYBIND11_MODULE(_native, module) {
    py::register_local_exception_translator(translate);
    module.attr("version") = QVL_VERSION;
    module.def("begin_exit", [] { native::exiting = std::this_thread::get_id(); });
    native::bindValues(module);
    native::bindTag(module);
    native::bindCard(module);
    native::bindReader(module);
    native::bindVirtualReader(module);
}

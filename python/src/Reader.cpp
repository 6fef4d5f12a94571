#include "Handles.h"

#include <pybind11/functional.h>

namespace native {
namespace {

using qvl::Limit;
using qvl::Reader;

using PortQuestion = std::function<bool(const std::string& port, bool isNamed)>;

void bindWatch(py::module_& module) {
    py::class_<WatchHandle>(module, "Watch").def("next", [](WatchHandle& handle, const Limit& limit) {
        const auto event =
            unlocked([&] { return handle.use(limit, [&](qvl::Watch& watch) { return watch.next(limit); }); });
        if (!event) return py::object(py::none());
        const std::chrono::duration<double> sinceEpoch = event->time.time_since_epoch();
        return py::object(
            py::make_tuple(qvl::name(event->kind), sinceEpoch.count(), event->uid, tagInfoByType(event->type).name));
    });
}

/// The name of the adaptor, the model, the firmware, the serial number and the device.
py::tuple identity(const ReaderHandle& handle, const Limit& limit) {
    const qvl::Identity is = unlocked([&] { return handle->identity(limit); });
    return py::make_tuple(text(is.adaptor), text(is.model), text(is.firmware), is.id, text(is.device));
}

}  // namespace

void bindReader(py::module_& module) {
    bindWatch(module);
    py::class_<ReaderHandle>(module, "Reader")
        .def(py::init([](const Limit& limit, PortQuestion mayTryPort) {
            return unlocked([&] { return std::make_unique<ReaderHandle>(Reader(limit, std::move(mayTryPort))); });
        }))
        .def("close", &ReaderHandle::close)
        .def("identity", &identity)
        .def("set_light", [](const ReaderHandle& handle, int light, bool on, int duration,
                             const Limit& limit) { unlocked([&] { handle->setLight(light, on, duration, limit); }); })
        .def("relay", [](const ReaderHandle& handle, const qvl::Bytes& command,
                         const Limit& limit) { return unlocked([&] { return handle->relay(command, limit); }); })
        .def("tags", [](const ReaderHandle& handle,
                        const Limit& limit) { return unlocked([&] { return handle->tags(limit); }); })
        .def("wait_for_tag", [](const ReaderHandle& handle,
                                const Limit& limit) { return unlocked([&] { return handle->waitForTag(limit); }); })
        .def("wait_for_uid",
             [](const ReaderHandle& handle, const qvl::Uid& uid, const Limit& limit) {
                 return unlocked([&] { return handle->waitForTag(uid, limit); });
             })
        .def("wait_for_application",
             [](const ReaderHandle& handle, std::uint16_t id, const qvl::Login& directory, const Limit& limit) {
                 return unlocked([&] { return handle->waitForTag(qvl::ApplicationQuery{id, directory}, limit); });
             })
        .def("watch",
             [](const ReaderHandle& handle) {
                 return unlocked([&] { return std::make_unique<WatchHandle>(handle->watch()); });
             })
        .def("wait_for_card", [](const ReaderHandle& handle, const qvl::Uid& uid, const Limit& limit) {
            return unlocked([&] { return std::make_unique<CardHandle>(handle->waitForCard(uid, limit)); });
        });
}

}  // namespace native

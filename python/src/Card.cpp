#include "Handles.h"

namespace native {
namespace {

using qvl::Limit;

qvl::SendOptions options(std::uint8_t nad, bool raw, bool retry) { return {.nad = nad, .raw = raw, .retry = retry}; }

/// Does `work` with the card when it is this thread's turn.
template <typename Work>
auto with(CardHandle& handle, const Limit& limit, Work work) {
    return unlocked([&] { return handle->use(limit, work); });
}

qvl::Bytes transmit(CardHandle& handle, const qvl::Bytes& command, const Limit& limit, std::uint8_t nad, bool raw,
                    bool retry) {
    return with(handle, limit,
                [&](qvl::Card& card) { return card.transmit(command, limit, options(nad, raw, retry)); });
}

py::tuple exchange(CardHandle& handle, const qvl::Bytes& command, const Limit& limit, std::uint8_t nad, bool raw,
                   bool retry) {
    const auto answer =
        with(handle, limit, [&](qvl::Card& card) { return card.exchange(command, limit, options(nad, raw, retry)); });
    return py::make_tuple(answer.data, answer.sw1, answer.sw2, answer.followUps);
}

}  // namespace

void bindCard(py::module_& module) {
    py::class_<CardHandle>(module, "Card")
        .def("uid", [](const CardHandle& handle) { return (*handle).uid(); })
        .def("ats", [](const CardHandle& handle) { return (*handle).ats(); })
        .def("number", [](const CardHandle& handle) { return (*handle).number(); })
        .def("transmit", &transmit)
        .def("exchange", &exchange)
        .def("read_ndef",
             [](CardHandle& handle, const Limit& limit) {
                 return with(handle, limit, [&](qvl::Card& card) { return qvl::readNdef(card, limit); });
             })
        .def("close", [](CardHandle& handle) { with(handle, limitOf({}), [](qvl::Card& card) { card.close(); }); });
}

}  // namespace native

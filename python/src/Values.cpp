#include "Native.h"

namespace native {
namespace {

using qvl::Geometry;
using qvl::Key;
using qvl::KeyRing;

Key keyOf(const qvl::Bytes& bytes) {
    if (bytes.size() != Key::kSize)
        throw qvl::Error(qvl::Reason::badArgument, "a key has 6 bytes; these are " + std::to_string(bytes.size()));
    return Key(std::span(bytes).first<Key::kSize>());
}

void bindKeys(py::module_& module) {
    py::class_<Key>(module, "Key")
        .def(py::init(&keyOf))
        .def(py::init([](const std::string& digits) { return Key::parse(digits); }))
        .def_static("factory", &Key::factory)
        .def_static("directory", &Key::directory)
        .def("bytes", [](const Key& key) { return qvl::Bytes(key.bytes().begin(), key.bytes().end()); })
        .def("is_blank", &Key::isBlank)
        .def("equals", [](const Key& left, const Key& right) { return left == right; });
    py::class_<KeyRing>(module, "KeyRing")
        .def(py::init<>())
        .def("add", &KeyRing::add)
        .def("add_a", &KeyRing::addA)
        .def("add_b", &KeyRing::addB)
        .def("add_image", [](KeyRing& ring, const qvl::Bytes& image) { ring.addImage(image); })
        .def("empty", &KeyRing::empty)
        .def("candidates", &KeyRing::candidates);
}

void bindGeometry(py::module_& module) {
    py::class_<Geometry> geometry(
        module, "Geometry", "Where the blocks of a tag are, by type. A page of an Ultralight is a block of 4 bytes.");
    geometry.attr("__module__") = "qvlmf500";
    geometry.def_readonly("sectors", &Geometry::sectors)
        .def_readonly("blocks", &Geometry::blocks)
        .def_readonly("block_size", &Geometry::blockSize, "Bytes.")
        .def_readonly("has_trailers", &Geometry::hasTrailers)
        .def_property_readonly("size", &Geometry::bytes, "Bytes of the whole tag.")
        .def("first_block", &Geometry::firstBlock, py::arg("sector"))
        .def("blocks_of", &Geometry::blocksOf, py::arg("sector"), "Blocks of the sector, its trailer included.")
        .def("trailer_of", &Geometry::trailerOf, py::arg("sector"))
        .def("sector_of", &Geometry::sectorOf, py::arg("block"))
        .def("is_trailer", &Geometry::isTrailer, py::arg("block"))
        .def("group_size", &Geometry::groupSize, py::arg("sector"), "Data blocks that share an access condition.")
        .def("group_of", &Geometry::groupOf, py::arg("block"), "The group of a block in its sector, 0 to 2.")
        .def("__repr__",
             [](const Geometry& each) {
                 return "<Geometry: " + std::to_string(each.sectors) + " sectors, " + std::to_string(each.blocks) +
                        " blocks of " + std::to_string(each.blockSize) + " bytes>";
             })
        .def(
            "__eq__", [](const Geometry& left, const Geometry& right) { return left == right; }, py::is_operator());
}

int number(qvl::Who who) { return static_cast<int>(who); }

/// All conditions by their bits: their word, and who may do what.
py::dict dataRules() {
    py::dict rules;
    for (const qvl::DataRule& each : qvl::detail::kDataRules)
        rules[each.bits] = py::make_tuple(each.word, number(each.read), number(each.write), number(each.increment),
                                          number(each.decrement));
    return rules;
}
py::dict trailerRules() {
    py::dict rules;
    for (const qvl::TrailerRule& each : qvl::detail::kTrailerRules)
        rules[each.bits] = py::make_tuple(number(each.writeKeyA), number(each.readAccess), number(each.writeAccess),
                                          number(each.readKeyB), number(each.writeKeyB));
    return rules;
}

std::optional<qvl::SectorAccess> decodeAccess(const qvl::Bytes& bytes) {
    if (bytes.size() != qvl::SectorAccess::kBytes)
        throw qvl::Error(qvl::Reason::badArgument, "the conditions of a sector are 3 bytes");
    return qvl::SectorAccess::decode(std::span(bytes).first<qvl::SectorAccess::kBytes>());
}

qvl::Bytes encodeAccess(const qvl::SectorAccess& access) {
    const auto bytes = access.encode();
    return {bytes.begin(), bytes.end()};
}

py::list parseNdef(const qvl::Bytes& bytes) {
    py::list records;
    for (const qvl::NdefRecord& each : qvl::NdefMessage::parse(bytes).records) {
        const auto uri = each.uri();
        const auto words = each.text();
        records.append(py::make_tuple(
            each.typeNameFormat, each.type, each.id, each.payload, uri ? py::object(text(*uri)) : py::none(),
            words ? py::object(py::make_tuple(text(words->language), text(words->text))) : py::none(),
            text(each.typeName())));
    }
    return records;
}

}  // namespace

void bindValues(py::module_& module) {
    bindKeys(module);
    bindGeometry(module);
    module.def("status_info", [](int status) {
        const qvl::StatusInfo info = qvl::statusInfo(status);
        return py::make_tuple(qvl::name(info.reason), info.meaning);
    });
    module.def("data_rules", &dataRules);
    module.def("trailer_rules", &trailerRules);
    module.def("encode_access", &encodeAccess);
    module.def("decode_access", &decodeAccess);
    module.def("parse_ndef", &parseNdef);
}

}  // namespace native

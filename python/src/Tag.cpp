#include "Native.h"

#include <cstdint>

namespace native {
namespace {

using qvl::Application;
using qvl::Limit;
using qvl::Login;
using qvl::Memory;
using qvl::Tag;

/// Before each sector `progress` is told of it; what it throws ends the work.
qvl::SectorStep stepOf(std::optional<double> seconds, const std::optional<py::function>& progress) {
    return [seconds, &progress](int sector, int sectors) {
        if (progress) {
            const py::gil_scoped_acquire locked;
            (*progress)(sector, sectors);
        }
        return limitOf(seconds);
    };
}

void bindMemory(py::module_& module) {
    using Write = qvl::Results (Memory::*)(int, qvl::ByteView, const Login&, const Limit&) const;
    using WriteCount = qvl::Results (Memory::*)(int, int, qvl::ByteView, const Login&, const Limit&) const;
    py::class_<Memory>(module, "Memory")
        .def("read", operation(&Memory::read))
        .def("write", operation(static_cast<Write>(&Memory::write)))
        .def("write_count", operation(static_cast<WriteCount>(&Memory::write)))
        .def("value", operation(&Memory::value))
        .def("set_value", operation(&Memory::setValue))
        .def("increment", operation(&Memory::increment))
        .def("decrement", operation(&Memory::decrement))
        .def("make_value_block", operation(&Memory::makeValueBlock))
        .def("make_decrement_only_block", operation(&Memory::makeDecrementOnlyBlock))
        .def("access", operation(&Memory::access))
        .def("set_access", operation(&Memory::setAccess));
}

qvl::Results writeAll(const Application& application, const qvl::Bytes& data, const Login& login,
                      const std::optional<qvl::Bytes>& fill, const Limit& limit) {
    std::optional<std::array<std::uint8_t, 16>> block;
    if (fill) {
        if (fill->size() != block.emplace().size())
            throw qvl::Error(qvl::Reason::badArgument, "the bytes that fill a block are 16");
        std::ranges::copy(*fill, block->begin());
    }
    return unlocked([&] { return application.writeAll(data, login, block, limit); });
}

void bindApplication(py::module_& module) {
    py::class_<Application, Memory>(module, "Application")
        .def("id", &Application::id)
        .def("sectors", operation(&Application::sectors))
        .def("read_all", operation(&Application::readAll))
        .def("write_all", &writeAll)
        .def("add_sectors", operation(&Application::addSectors))
        .def("remove_sectors", operation(&Application::removeSectors))
        .def("set_keys", operation(&Application::setKeys))
        .def("set_trailers", operation(&Application::setTrailers));
}

void bindImage(py::module_& module) {
    using qvl::TagImage;
    py::class_<TagImage>(module, "TagImage")
        .def_readonly("geometry", &TagImage::geometry)
        .def_property_readonly("bytes", [](const TagImage& image) { return image.bytes; })
        .def_readonly("read", &TagImage::read)
        .def_readonly("composed", &TagImage::composed)
        .def_readonly("unproven_b", &TagImage::unprovenB)
        .def_readonly("missing", &TagImage::missing);
    module.def("read_image", [](const Tag& tag, qvl::KeyRing keys, std::optional<double> seconds,
                                std::optional<py::function> progress) {
        return unlocked([&] { return TagImage::of(tag, keys, stepOf(seconds, progress)); });
    });
    module.def("write_image", [](const Tag& tag, const qvl::Bytes& image, qvl::KeyRing keys, bool trailers,
                                 const std::vector<int>& without, std::optional<double> seconds,
                                 std::optional<py::function> progress) {
        return unlocked(
            [&] { return qvl::writeImage(tag, image, keys, trailers, without, stepOf(seconds, progress)); });
    });
    module.def("open_sector", [](const Tag& tag, int number, qvl::KeyRing keys, const Limit& limit) {
        const auto sector = unlocked([&] { return qvl::OpenSector::of(tag, number, keys, limit); });
        return py::make_tuple(sector.keyA, sector.keyB, sector.access);
    });
}

}  // namespace

void bindTag(py::module_& module) {
    bindMemory(module);
    bindApplication(module);
    py::class_<Tag, Memory>(module, "Tag")
        .def("uid", &Tag::uid)
        .def("type_name", &Tag::typeName)
        .def("geometry", &Tag::geometry)
        .def("applications", operation(&Tag::applications))
        .def("directory", operation(&Tag::directory))
        .def("application", operation(&Tag::application))
        .def("create_application", operation(&Tag::createApplication))
        .def("format",
             [](const Tag& tag, const qvl::Key& keyB, int directory, const std::optional<qvl::Key>& keyA,
                const Limit& limit) {
                 return unlocked([&] { return tag.format(keyB, static_cast<Tag::Directory>(directory), keyA, limit); });
             })
        .def("unformat",
             [](const Tag& tag, const qvl::Key& keyB, int directory, const Limit& limit) {
                 return unlocked([&] { return tag.unformat(keyB, static_cast<Tag::Directory>(directory), limit); });
             })
        .def("set_keys", operation(&Tag::setKeys))
        .def("set_trailers", operation(&Tag::setTrailers));
    bindImage(module);
}

}  // namespace native

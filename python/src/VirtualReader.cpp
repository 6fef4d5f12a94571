#include "Native.h"
#include "qvlmf500/qvl_virtual.h"

namespace native {
namespace {

using qvl::VirtualReader;

/// Names of files come as Python has them.
py::str fileName(const std::string& name) {
    return py::reinterpret_steal<py::str>(
        PyUnicode_DecodeFSDefaultAndSize(name.data(), static_cast<Py_ssize_t>(name.size())));
}

std::string bytesOf(const py::bytes& bytes) { return bytes; }

std::unique_ptr<VirtualReader> start(bool isMfRc500, const std::vector<py::bytes>& tags, bool serialPort,
                                     bool saveOnExit, const std::vector<py::bytes>& more, const py::bytes& program) {
    VirtualReader::Options options{.model = isMfRc500 ? VirtualReader::Model::mfRc500 : VirtualReader::Model::pn531,
                                   .serialPort = serialPort,
                                   .saveOnExit = saveOnExit,
                                   .program = program};
    std::ranges::transform(tags, std::back_inserter(options.tags), bytesOf);
    std::ranges::transform(more, std::back_inserter(options.more), bytesOf);
    return unlocked([&] { return std::make_unique<VirtualReader>(options); });
}

py::list tags(VirtualReader& reader) {
    py::list all;
    for (const auto& each : unlocked([&] { return reader.tags(); }))
        all.append(
            py::make_tuple(text(each.name), text(each.kind), text(each.uid), text(each.state), fileName(each.source)));
    return all;
}

py::str command(VirtualReader& reader, const py::bytes& line) {
    const std::string bytes = line;
    return text(unlocked([&] { return reader.command(bytes); }));
}

}  // namespace

void bindVirtualReader(py::module_& module) {
    py::class_<VirtualReader>(module, "VirtualReader")
        .def(py::init(&start))
        .def("root", [](const VirtualReader& reader) { return fileName(reader.root()); })
        .def("remarks",
             [](const VirtualReader& reader) {
                 py::list remarks;
                 for (const std::string& each : unlocked([&] { return reader.remarks(); }))
                     remarks.append(text(each));
                 return remarks;
             })
        .def("place",
             [](VirtualReader& reader, const py::bytes& tag, const std::string& name) {
                 const std::string what = tag;
                 return text(unlocked([&] { return reader.place(what, name); }));
             })
        .def("remove", operation(&VirtualReader::remove))
        .def("take_away", operation(&VirtualReader::takeAway))
        .def("bring_back", operation(&VirtualReader::bringBack))
        .def("tags", &tags)
        .def("save",
             [](VirtualReader& reader, const std::string& name, const py::bytes& file) {
                 const std::string path = file;
                 unlocked([&] { reader.save(name, path); });
             })
        .def("image", operation(&VirtualReader::image))
        .def("fault", operation(&VirtualReader::fault))
        .def("clear_faults", operation(&VirtualReader::clearFaults))
        .def("unplug", operation(&VirtualReader::unplug))
        .def("plug_in", operation(&VirtualReader::plugIn))
        .def("field_is_on", operation(&VirtualReader::fieldIsOn))
        .def("led", operation(&VirtualReader::led))
        .def("command", &command)
        .def("end", [](VirtualReader& reader) { return text(unlocked([&] { return reader.end(); })); });
}

}  // namespace native

// Any bytes as a settings file; every entry can be found again, the first of its name.

#include "Fuzz.h"
#include "IniParser.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    IniTable root(kIniRootBuckets);
    int lines = 0;
    for (int line : parseIni(text, root)) {
        require(line > lines);
        lines = line;
    }
    require(static_cast<std::size_t>(lines) <= size);

    // Names that the text may hold: what stands between the separators.
    for (std::size_t i = 0; i < size; ++i) {
        const std::size_t end = std::min(text.find_first_of("]=\n", i), size);
        const std::string name(text.substr(i, end - i));
        const IniNode* node = root.find(name.c_str());
        require(!node || (node->type == INI_TABLE && node->table && node->name == name.c_str()));
        if (node) node->table->find(name.c_str());
        i = end;
    }
    return 0;
}

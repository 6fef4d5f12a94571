#include "ImageFile.h"

#include "Json.h"
#include "PrivateFile.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

#include <nlohmann/json.hpp>

namespace fs = std::filesystem;

std::vector<int> ImageFile::missing() const {
    std::ifstream file(companion());
    if (!file) return {};
    try {
        return nlohmann::json::parse(file).at("missing").get<std::vector<int>>();
    } catch (const nlohmann::json::exception&) {
        throw std::invalid_argument(companion() + " does not name the missing blocks of the image");
    }
}

bool ImageFile::isBetterThan(const qvl::TagImage& image) const {
    std::error_code problem;
    if (fs::file_size(mName, problem) != image.bytes.size() || problem) return false;
    return missing().size() < image.missing.size();
}

std::string ImageFile::write(const qvl::TagImage& image) const {
    // An image with gaps never stands without its companion, even if this ends in the middle.
    if (!image.missing.empty()) {
        const std::string text = Json{{"missing", image.missing}, {"keyBNotProven", image.unprovenB}}.text() + "\n";
        const qvl::ByteView bytes(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
        if (std::string complaint = writePrivateFile(companion(), bytes); !complaint.empty()) return complaint;
    }
    std::string complaint = writePrivateFile(mName, image.bytes);
    std::error_code ignored;
    if (complaint.empty() && image.missing.empty()) fs::remove(companion(), ignored);
    return complaint;
}

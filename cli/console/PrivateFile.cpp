#include "PrivateFile.h"

#include "Descriptor.h"

#include <cerrno>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>

std::string writePrivateFile(const std::string& name, std::span<const std::uint8_t> bytes) {
    const Descriptor file(::open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, S_IRUSR | S_IWUSR));
    const auto problem = [&] { return name + " cannot be written: " + std::generic_category().message(errno); };
    if (!file.isOpen()) return problem();
    for (std::size_t done = 0; done < bytes.size();) {
        const auto written = ::write(file.get(), bytes.data() + done, bytes.size() - done);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return problem();
        done += static_cast<std::size_t>(written);
    }
    return {};
}

// The smallest host: starts the reader, waits for one tag, says which it was.
//
//     example_host [seconds]

#include <ReaderImpl.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <thread>

namespace {

class Service : public QVLReaderServiceIntf {
  public:
    void readerStateChanged(bool ready) override { std::printf("reader %s\n", ready ? "ready" : "lost"); }
    void readerMessage(int, const char*) override {}
};

void report(ReaderImpl& adaptor, EventObject* event) {
    std::uint32_t length = 0;
    std::uint8_t* uid = nullptr;
    event->getUid(length, uid);
    std::printf("tag ");
    for (std::uint32_t i = 0; i < length; ++i)
        std::printf("%02x", uid[i]);
    std::printf(", %s\n", tagInfoByType(wireToTagType(event->getType())).name);
    adaptor.freeMemory(uid);
    adaptor.freeMemory(event);
}

}  // namespace

int main(int argc, char** argv) {
    Service service;
    const std::unique_ptr<ReaderImpl> adaptor(createAdaptorInstance(&service));
    if (!adaptor) return 1;
    adaptor->loadReaderConfig();

    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(argc > 1 ? std::atoi(argv[1]) : 30);
    while (std::chrono::steady_clock::now() < end) {
        EventObject* event = nullptr;
        if (adaptor->pollTag(event, false, false)) {
            report(*adaptor, event);
            return 0;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    std::printf("no tag\n");
    return 1;
}

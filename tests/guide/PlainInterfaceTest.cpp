// What the page on the plain interface shows, as it stands there.

#include "ReaderImpl.h"

#include "ReaderUnderTest.h"
#include "ScopedEnvironment.h"
#include "TempDirectory.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <thread>

namespace {

std::uint8_t factoryKey[6] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
std::uint8_t keyA[6] = {1, 1, 1, 1, 1, 1}, keyB[6] = {2, 2, 2, 2, 2, 2}, masterKey[6] = {3, 3, 3, 3, 3, 3};
TagUID tag;

#define check(condition) ASSERT_TRUE(condition)
#include "plain_examples.inc"
#undef check

class Service : public QVLReaderServiceIntf {
  public:
    void readerStateChanged(bool) override {}
    void readerMessage(int, const char*) override {}
};

/// The last example is about a smart card: it takes the place of the tag.
void layCardDown(ReaderImpl& adaptor, FILE* simulator) {
    std::fprintf(simulator, "remove tag1\nplace %s/link.card\n", DEMO);
    std::fflush(simulator);
    for (int i = 0; i < 200; ++i) {
        EventObject* event = nullptr;
        const bool isCard = adaptor.pollTag(event, false, false) && event->getType() == 2005;
        adaptor.freeMemory(event);
        if (isCard) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    FAIL() << "no card";
}

TEST(ThePlainInterface, IsShownAsItWorks) {
    const TempDirectory directory;
    directory.write("data/conf/QVLReader.ini", "[READER]\nSERIAL_PORT=77\n[/READER]\n");
    const ScopedEnvironment path("QVL_PATH", directory.path().c_str());
    const ScopedEnvironment root("QVL_DEVICE_ROOT", directory.path().c_str());
    const bool isMf500 = isMf500UnderTest();
    const std::string command = std::string(QVLREADERSIM) + (isMf500 ? " --reader mf500" : " --com 77") +
                                " --quiet --root " + directory.path() + " new:1k > /dev/null";
    const std::string device = directory / (isMf500 ? "a518e23b-d631-426f-b8f0-e17a61065f1d/mf500" : "COM77");
    const std::unique_ptr<FILE, int (*)(FILE*)> simulator(::popen(command.c_str(), "w"), ::pclose);
    for (int i = 0; i < 200 && !std::filesystem::exists(device); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    Service service;
    const std::unique_ptr<ReaderImpl> adaptor(createAdaptorInstance(&service));
    for (const Example example : examples) {
        if (example == examples[std::size(examples) - 1]) layCardDown(*adaptor, simulator.get());
        example(*adaptor);
        ASSERT_FALSE(HasFatalFailure());
    }
    EXPECT_EQ(std::size(examples), 9u);
}

}  // namespace

// The whole interface from many threads at once. What matters is what the sanitizers see, and that it ends.

#include "QvlMf500ReaderImpl.h"
#include "TagPrompt.h"
#include "TagPromptControl.h"
#include "Workplace.h"

#include <barrier>
#include <thread>

namespace {

class QuietSurface : public TagPromptSurface {
  public:
    bool show() override { return true; }
    void hide() override {}
};

TEST(SixteenThreads, UseOneAdaptor) {
    Workplace place;
    ReaderImpl& adaptor = place.start();
    QuietSurface surface;
    setTagPromptSurface(&surface);
    for (std::uint8_t i = 0; i < 3; ++i)
        place.placeClassic({1, 2, 3, i});
    const std::function<void()> work[] = {
        [&] { place.poll(true); },
        [&] { place.poll(false, true); },
        [&] { adaptor.initReader(); },
        [&] { adaptor.stopReader(); },
        [&] {
            place.clock->advance(600);
            adaptor.scanUSBDevice(1);
        },
        [&] {
            std::uint8_t id[6];
            std::uint16_t length = 0;
            adaptor.getReaderId(id, length);
        },
        [&] {
            std::uint8_t version[55];
            std::uint16_t length = 0;
            adaptor.getReaderFwVersion(version, length);
        },
        [&] { adaptor.switchReaderLED(2, 1, 3); },
        [&] { adaptor.switchReaderLED(3, 0, 3); },
        [&] { adaptor.haltAllTag(true); },
        [&] {
            TagUID tag;
            adaptor.suspendPoll(tag);
            adaptor.resumePoll(tag);
        },
        [&] { adaptor.loadReaderConfig(); },
        [&] { adaptor.resetSuspendTime(5000); },
        [&] {
            if (dynamic_cast<QvlMf500ReaderImpl&>(adaptor).showTagPrompt()) closeTagPrompt();
        },
        [&] { cancelTagPrompt(); },
        [&] {
            place.reader->vanish();
            place.reader->comeBack();
        },
    };
    std::barrier gate(static_cast<std::ptrdiff_t>(std::size(work)));
    std::vector<std::thread> threads;
    for (const auto& task : work)
        threads.emplace_back([&gate, &task] {
            gate.arrive_and_wait();
            for (int i = 0; i < 60; ++i)
                task();
        });
    for (std::thread& thread : threads)
        thread.join();
    ASSERT_TRUE(adaptor.initReader());
    EXPECT_NE(place.poll(true), "");
    setTagPromptSurface(nullptr);
}

TEST(ManyAdaptors, ComeAndGoBesideEachOther) {
    Workplace place;
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([] {
            Host host;
            for (int i = 0; i < 25; ++i) {
                const std::unique_ptr<ReaderImpl> adaptor(createAdaptorInstance(&host));
                adaptor->initReader();
                EventObject* event = nullptr;
                if (adaptor->pollTag(event, false, false)) adaptor->freeMemory(event);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    place.start();
    EXPECT_TRUE(place.adaptor->initReader());
}

}  // namespace

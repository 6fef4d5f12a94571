// The whole interface from many threads at once. What matters is what the sanitizers see, and that it ends.

#include "QvlMf500ReaderImpl.h"
#include "TagPrompt.h"
#include "TagPromptControl.h"
#include "Workplace.h"

#include <barrier>
#include <thread>

namespace {

TEST(ManyThreads, UseOneAdaptor) {
    Workplace place;
    ReaderImpl& adaptor = place.start();
    const OpenPrompt prompt;
    for (std::uint8_t i = 0; i < 3; ++i)
        place.placeClassic({1, 2, 3, i});
    const std::function<void()> work[] = {
        [&] { place.poll(true); },
        [] {
            Host host;
            const std::unique_ptr<ReaderImpl> another(createAdaptorInstance(&host));
            another->initReader();
        },
        [&] { place.poll(false, true); },
        [&] { adaptor.initReader(); },
        [&] { adaptor.stopReader(); },
        [&] {
            place.clock->advance(600);
            adaptor.scanUSBDevice(1);
        },
        [&] {
            std::uint8_t bytes[55];
            std::uint16_t length = 0;
            adaptor.getReaderId(bytes, length);
            adaptor.getReaderFwVersion(bytes, length);
        },
        [&] { adaptor.switchReaderLED(2, 1, 3); },
        [&] { adaptor.haltAllTag(true); },
        [&] {
            TagUID tag;
            adaptor.suspendPoll(tag);
            adaptor.resumePoll(tag);
        },
        [&] {
            adaptor.loadReaderConfig();
            adaptor.resetSuspendTime(5000);
        },
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
}

}  // namespace

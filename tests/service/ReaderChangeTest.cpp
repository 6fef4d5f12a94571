// One reader takes the place of the other, on a machine that may have both: by a scan, between two operations and while
// operations of other threads are under way.

#include "QvlMf500ReaderImpl.h"
#include "TagPrompt.h"
#include "TagPromptControl.h"
#include "Workplace.h"

#include <array>
#include <atomic>
#include <filesystem>
#include <functional>
#include <set>
#include <thread>

namespace {

enum Model { kTama, kMf500 };
constexpr std::array<int, 2> kClassOf{0, 3};
const std::array<Bytes, 2> kUidOn{{{0x11, 1, 1, 1}, {0x55, 5, 5, 5}}};
const std::array<std::string, 2> kFoundOn{"11010101 2002", "55050505 2002"};

/// A reader of each model, each with a tag of its own. None is plugged in.
class ReaderChange : public ::testing::Test {
  protected:
    ReaderChange() {
        setTamaDeviceFactory([this](const TamaDeviceRequest&) { return std::make_unique<VirtualTamaDevice>(tama); });
        setMf500DeviceFactory([this] { return std::make_unique<VirtualMf500Device>(mf500); });
        for (const Model model : {kTama, kMf500}) {
            const Bytes& uid = kUidOn[model];
            reader(model).field().place(
                std::make_shared<MifareClassicTag>(MifareClassicTag::blankImage(1024, uid), uid));
            plug(model, false);
        }
        place.start();
    }
    ~ReaderChange() override { place.adaptor.reset(); }

    VirtualReader& reader(Model model) const { return model == kTama ? static_cast<VirtualReader&>(*tama) : *mf500; }
    void plug(Model model, bool in) const {
        const std::string name = std::string(kReaderClasses[static_cast<std::size_t>(kClassOf[model])].guid) + "/it";
        in ? reader(model).comeBack() : reader(model).vanish();
        if (in)
            place.root.makeDevice(name);
        else
            std::filesystem::remove(place.root / name);
    }
    void scan() {
        place.clock->advance(500);
        place.adaptor->scanUSBDevice(1);
    }
    /// The readers that a driver has open.
    std::string open() const { return std::string(tama->hasHost() ? "tama" : "") + (mf500->hasHost() ? "mf500" : ""); }

    std::shared_ptr<VirtualTamaReader> tama = std::make_shared<VirtualTamaReader>();
    std::shared_ptr<VirtualMf500Reader> mf500 = std::make_shared<VirtualMf500Reader>();
    Workplace place;
};

TEST_F(ReaderChange, TakesTheFirstInTheOrderOfTheClasses) {
    EXPECT_EQ(place.poll(), "");
    plug(kMf500, true);
    scan();
    EXPECT_EQ(place.poll(), kFoundOn[kMf500]);
    EXPECT_EQ(open(), "mf500");
    plug(kTama, true);
    EXPECT_EQ(place.poll(true), kFoundOn[kMf500]) << "no scan, no change";
    scan();
    EXPECT_EQ(open(), "") << "the replaced driver lets go of its device";
    EXPECT_EQ(place.poll(), kFoundOn[kTama]) << "a PN531 goes before an MF RC500";
    EXPECT_EQ(open(), "tama");
    plug(kTama, false);
    scan();
    EXPECT_EQ(place.poll(true), kFoundOn[kMf500]);
    EXPECT_EQ(open(), "mf500");
    plug(kMf500, false);
    scan();
    EXPECT_EQ(place.poll(), "");
    EXPECT_EQ(open(), "");
    EXPECT_EQ(place.host.heard(), "+-+-+-") << "each reader when it was ready, and when another took its place";
}

TEST_F(ReaderChange, LeavesNoOperationToADriverThatNobodyHasOpened) {
    plug(kMf500, true);
    scan();
    ASSERT_TRUE(place.adaptor->initReader());
    for (const bool toTama : {true, false}) {
        plug(kTama, toTama);
        scan();
        TagUID* tag = nullptr;
        EXPECT_EQ(place.adaptor->getTagId(0, TagAppNone, 0, tag, AuthKeyA, nullptr, false), kReaderNotReady);
        EXPECT_EQ(tag, nullptr);
        EXPECT_EQ(place.poll(true), kFoundOn[toTama ? kTama : kMf500]) << "the next poll opens it";
        EXPECT_EQ(place.adaptor->getTagId(0, TagAppNone, 0, tag, AuthKeyA, nullptr, true), kOk);
        place.adaptor->freeMemory(tag);
    }
}

// What matters is also what the sanitizers see, and that it ends.
TEST_F(ReaderChange, MayHappenUnderTheWholeInterfaceOnManyThreads) {
    plug(kMf500, true);
    scan();
    const OpenPrompt prompt;
    ReaderImpl& ai = *place.adaptor;
    ai.resetSuspendTime(1000);
    std::atomic<bool> over{false};
    std::atomic<int> strange{0}, found{0};
    const std::set<std::string> possible{"", kFoundOn[kTama], kFoundOn[kMf500]};
    const std::function<void()> work[] = {
        [&] {
            const std::string tag = place.poll(true, true);
            found += tag.empty() ? 0 : 1;
            strange += possible.count(tag) == 0 ? 1 : 0;
        },
        [&] {
            TagUID* tags = nullptr;
            short count = 0;
            const int status = ai.getAllTagId(0, TagAppNone, 0, AuthKeyA, nullptr, count, tags);
            for (short i = 0; status == kOk && i < count; ++i)
                strange += tags[i].getUidLen() != 4 || (tags[i].getUid()[0] != 0x11 && tags[i].getUid()[0] != 0x55);
            ai.freeMemory(tags);
        },
        [&] {
            for (const Bytes& uid : kUidOn) {
                const Bytes key(6, 0xFF);
                std::uint8_t* data = nullptr;
                int length = 0;
                const int status = ai.getBlockData(0, TagAppNone, TagUID(uid.data(), 4, kTagStandard), 0, AuthKeyA,
                                                   key.data(), 0, 1, data, length, AuthKeyA, nullptr, nullptr);
                strange += status == kOk && !std::equal(uid.begin(), uid.end(), data);
                ai.freeMemory(data);
            }
        },
        [&] {
            Host host;
            std::unique_ptr<ReaderImpl>(createAdaptorInstance(&host))->initReader();
        },
        [&] { ai.stopReader(); },
        [&] {
            std::uint8_t bytes[55];
            std::uint16_t length = 0;
            ai.getReaderId(bytes, length);
            ai.getReaderFwVersion(bytes, length);
            ai.switchReaderLED(2, 1, 3);
            ai.haltAllTag(true);
            ai.loadReaderConfig();
            ai.resetSuspendTime(1000);
        },
        [&] {
            TagUID tag;
            ai.suspendPoll(tag);
            ai.resumePoll(tag);
            if (dynamic_cast<QvlMf500ReaderImpl&>(ai).showTagPrompt()) closeTagPrompt();
            cancelTagPrompt();
        },
    };
    std::vector<std::thread> threads;
    for (const auto& task : work)
        threads.emplace_back([&over, &task] {
            for (; !over; std::this_thread::yield())
                task();
        });
    for (int i = 0; i < 150; ++i) {
        plug(kTama, i % 2 == 0);
        scan();
        std::this_thread::yield();
    }
    over = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(strange, 0);
    EXPECT_GT(found, 0);
    scan();
    ASSERT_TRUE(ai.initReader()) << "another adaptor may have had the device last";
    EXPECT_EQ(place.poll(true), kFoundOn[kMf500]);
    EXPECT_EQ(open(), "mf500");
    place.adaptor.reset();
    EXPECT_EQ(open(), "");
}

}  // namespace

// The prompt's life and its order, as operations and hosts use it.

#include "TagPrompt.h"
#include "../platform/ForkedChild.h"
#include "QvlMf500ReaderImpl.h"
#include "TagPromptControl.h"
#include "TagPromptScope.h"
#include "Workplace.h"

#include <atomic>
#include <stdexcept>
#include <thread>

namespace {

class Surface : public TagPromptSurface {
  public:
    Surface() { setTagPromptSurface(this); }
    ~Surface() override { setTagPromptSurface(nullptr); }
    bool show() override {
        ++shown;
        if (throws) throw std::runtime_error("no screen");
        return !fails;
    }
    void hide() override {
        for (int i = 0; i < 1000; ++i)
            std::this_thread::yield();  // whoever does not wait for this comes too early
        ++hidden;
        EXPECT_FALSE(tagPromptStands()) << "first nothing stands any more";
        EXPECT_FALSE(tagPromptEvent().isSet()) << "last the event";
    }
    std::atomic<int> shown{0}, hidden{0};
    std::atomic<bool> fails{false}, throws{false};
};

class ThePrompt : public ::testing::Test {
  protected:
    ThePrompt() : adaptor(dynamic_cast<QvlMf500ReaderImpl&>(place.start())) { tagPromptEvent().reset(); }
    bool showAnew() {
        tagPromptEvent().reset();
        return adaptor.showTagPrompt();
    }
    bool gone() { return tagPromptEvent().waitFor(std::chrono::seconds(10)) && !tagPromptStands(); }

    Workplace place;
    QvlMf500ReaderImpl& adaptor;
};

TEST_F(ThePrompt, IsAbsentWithoutAFlagOrASurface) {
    EXPECT_TRUE(adaptor.showTagPrompt());
    EXPECT_FALSE(tagPromptStands());
    closeTagPrompt();
    cancelTagPrompt();
    Surface surface;
    adaptor.setTagPromptFlag(false);
    EXPECT_TRUE(adaptor.showTagPrompt());
    EXPECT_EQ(surface.shown, 0);
    for (const auto& [setting, shown] : {std::pair{"1", 1}, {"0", 1}, {"2", 1}, {"x", 1}, {"1", 2}}) {
        place.loadSettings(std::string("TAGPROMPT=") + setting + "\n");
        EXPECT_TRUE(showAnew());
        EXPECT_EQ(surface.shown, shown) << setting;
        endTagPrompt(&adaptor);
    }
}

TEST_F(ThePrompt, StandsUntilItsOperationTakesItDown) {
    Surface surface;
    EXPECT_TRUE(adaptor.showTagPrompt());
    EXPECT_TRUE(tagPromptStands()) << "it is up when showTagPrompt returns";
    { const TagPromptScope anotherOperation(adaptor); }
    EXPECT_FALSE(adaptor.showTagPrompt()) << "it is somebody else's";
    EXPECT_TRUE(tagPromptStands());
    closeTagPrompt();
    EXPECT_TRUE(gone());
    EXPECT_TRUE(showAnew()) << "one that is on its way out is nobody's";
    EXPECT_EQ(surface.shown, 2);
    cancelTagPrompt();
    cancelTagPrompt();
    EXPECT_TRUE(gone());
}

TEST_F(ThePrompt, ThatCannotBeMadeIsNone) {
    Surface surface;
    for (std::atomic<bool>* trouble : {&surface.fails, &surface.throws}) {
        *trouble = true;
        EXPECT_TRUE(adaptor.showTagPrompt());
        EXPECT_FALSE(tagPromptStands());
        *trouble = false;
    }
    EXPECT_EQ(surface.hidden, 0);
    EXPECT_TRUE(adaptor.showTagPrompt());
    EXPECT_TRUE(tagPromptStands());
}

TEST_F(ThePrompt, EndsWithItsSurfaceItsOperationAndItsAdaptor) {
    Surface first;
    EXPECT_TRUE(adaptor.showTagPrompt());
    {
        Surface second;
        EXPECT_EQ(first.hidden, 1) << "the one that stood has gone when another takes its place";
        EXPECT_TRUE(showAnew());
        setTagPromptSurface(nullptr);
        EXPECT_EQ(second.hidden, 1);
    }
    Surface surface;
    tagPromptEvent().reset();
    place.placeClassic();
    ASSERT_TRUE(adaptor.initReader());
    EXPECT_EQ(place.findTag(TagAppNone, 0, true), kOk);
    EXPECT_EQ(surface.shown, 1);
    EXPECT_TRUE(gone()) << "that of an operation ends with it";
    std::unique_ptr<ReaderImpl> other(createAdaptorInstance(&place.host));
    EXPECT_TRUE(showAnew());
    other.reset();
    EXPECT_TRUE(tagPromptStands()) << "it is not the prompt of the one that went";
    place.adaptor.reset();
    EXPECT_FALSE(tagPromptStands());
    EXPECT_EQ(surface.hidden, 2) << "destruction waits for the prompt's thread";
}

// The thread that would end it has stayed with the parent.
TEST_F(ThePrompt, IsNoneOfAForkedChild) {
    Surface surface;
    EXPECT_TRUE(adaptor.showTagPrompt());
    ForkedChild child([] {
        setTagPromptSurface(nullptr);
        return tagPromptStands() ? 1 : 0;
    });
    EXPECT_EQ(child.wait(), 0);
    EXPECT_TRUE(tagPromptStands());
}

TEST_F(ThePrompt, ComesAndGoesManyTimesUnderCancels) {
    Surface surface;
    std::atomic<bool> stop{false};
    std::thread user([&stop] {
        for (; !stop; std::this_thread::yield())
            cancelTagPrompt();
    });
    for (int i = 0; i < 200; ++i) {
        ASSERT_TRUE(showAnew());
        closeTagPrompt();
        ASSERT_TRUE(gone());
    }
    stop = true;
    user.join();
    endTagPrompt(&adaptor);
    EXPECT_EQ(surface.shown, surface.hidden);
}

}  // namespace

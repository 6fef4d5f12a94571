// The prompt's life and its order, as operations and hosts use it.

#include "TagPrompt.h"
#include "QvlMf500ReaderImpl.h"
#include "TagPromptControl.h"
#include "Workplace.h"

#include <atomic>
#include <future>
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
        place.settings(std::string("TAGPROMPT=") + setting + "\n");
        adaptor.loadReaderConfig();
        tagPromptEvent().reset();
        EXPECT_TRUE(adaptor.showTagPrompt());
        EXPECT_EQ(surface.shown, shown) << setting;
        endTagPrompt(&adaptor);
    }
}

TEST_F(ThePrompt, StandsUntilItsOperationTakesItDown) {
    Surface surface;
    EXPECT_TRUE(adaptor.showTagPrompt());
    EXPECT_TRUE(tagPromptStands()) << "it is up when showTagPrompt returns";
    EXPECT_FALSE(adaptor.showTagPrompt()) << "it is somebody else's";
    EXPECT_TRUE(tagPromptStands());
    closeTagPrompt();
    EXPECT_TRUE(gone());
    tagPromptEvent().reset();
    EXPECT_TRUE(adaptor.showTagPrompt()) << "one that is on its way out is nobody's";
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

TEST_F(ThePrompt, EndsWithItsSurfaceAndItsAdaptor) {
    {
        Surface surface;
        EXPECT_TRUE(adaptor.showTagPrompt());
    }
    EXPECT_FALSE(tagPromptStands());
    Surface surface;
    tagPromptEvent().reset();
    EXPECT_TRUE(adaptor.showTagPrompt());
    place.adaptor.reset();
    EXPECT_FALSE(tagPromptStands());
    EXPECT_EQ(surface.hidden, 1) << "destruction waits for the prompt's thread";
}

TEST_F(ThePrompt, ComesAndGoesAThousandTimesUnderCancels) {
    Surface surface;
    std::atomic<bool> stop{false};
    std::thread user([&stop] {
        while (!stop) {
            cancelTagPrompt();
            std::this_thread::yield();
        }
    });
    for (int i = 0; i < 1000; ++i) {
        tagPromptEvent().reset();
        ASSERT_TRUE(adaptor.showTagPrompt());
        closeTagPrompt();
        ASSERT_TRUE(gone());
    }
    stop = true;
    user.join();
    endTagPrompt(&adaptor);
    EXPECT_EQ(surface.shown, surface.hidden);
}

}  // namespace

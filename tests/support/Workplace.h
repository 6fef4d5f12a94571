#pragma once

#include "HexText.h"
#include "IniManager.h"
#include "ManualClock.h"
#include "MifareClassicTag.h"
#include "NamedMutex.h"
#include "QVLReaderServiceIntf.h"
#include "ReaderClasses.h"
#include "ReaderImpl.h"
#include "ReaderUnderTest.h"
#include "ScopedEnvironment.h"
#include "SmartCard.h"
#include "SocketEndpoint.h"
#include "TagPrompt.h"
#include "TagPromptControl.h"
#include "TamaDeviceFactory.h"
#include "TempDirectory.h"
#include "TerminalEndpoint.h"
#include "UltralightTag.h"
#include "VirtualMf500Device.h"
#include "VirtualMf500Reader.h"
#include "VirtualTamaDevice.h"
#include "VirtualTamaReader.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

using Bytes = std::vector<std::uint8_t>;

constexpr unsigned kComPort = 77;

/// What a host's service object heard.
class Host : public QVLReaderServiceIntf {
  public:
    void readerStateChanged(bool ready) override {
        {
            const std::lock_guard lock(mMutex);
            mHeard += ready ? '+' : '-';
        }
        if (onChange) onChange(ready);
    }
    void readerMessage(int, const char*) override { ADD_FAILURE() << "never called"; }

    /// One character a call, + for ready and - for lost; forgets them.
    std::string heard() {
        const std::lock_guard lock(mMutex);
        return std::exchange(mHeard, {});
    }

    std::function<void(bool)> onChange;

  private:
    std::mutex mMutex;
    std::string mHeard;
};

/// A host's prompt under which an operation may wait.
class OpenPrompt : public TagPromptSurface {
  public:
    OpenPrompt() { setTagPromptSurface(this); }
    ~OpenPrompt() override { setTagPromptSurface(nullptr); }
    bool show() override { return true; }
    void hide() override {}
};

/// How the adaptor reaches its reader.
enum class Line { inProcess, terminal, socket };

/// A test on each line that the model under test has: an MF RC500 has no serial port.
class OnALine : public ::testing::TestWithParam<Line> {
  protected:
    void SetUp() override {
        if (isMf500UnderTest() && GetParam() == Line::terminal) GTEST_SKIP() << "no serial port";
    }
};
constexpr Line kLines[] = {Line::inProcess, Line::terminal, Line::socket};

/// Commands that both models have, each under a code of its own.
enum class Op { configure, fieldReset, request, activate, halt, authenticate, read, exchangeBlock, askId, agreeOnKey };
inline std::uint8_t codeOf(Op op) {
    constexpr std::uint8_t kTama[] = {0x12, 0x32, 0x4A, 0x4A, 0x44, 0x40, 0x40, 0x42, 0x24, 0x1C};
    constexpr std::uint8_t kMf500[] = {0x10, 0x20, 0x11, 0x43, 0x1D, 0x18, 0x19, 0x48, 0x22, 0x10};
    return (isMf500UnderTest() ? kMf500 : kTama)[static_cast<int>(op)];
}

/// A machine with a virtual reader of the model under test on one kind of line, settings of its own, and a host. The
/// clock is in the hands of the test where the reader is in process.
class Workplace {
  public:
    explicit Workplace(Line line = Line::inProcess, ReaderOptions options = {})
        : environment("QVL_DEVICE_ROOT", root.path().c_str()), mLine(line) {
        if (isMf500UnderTest())
            useMf500(std::make_shared<VirtualMf500Reader>(options));
        else
            useTama(std::make_shared<VirtualTamaReader>(options));
        settings("");
        useOwnLock();
        if (line == Line::inProcess) clock = std::make_unique<ManualClock>();
        connect();
    }
    ~Workplace() {
        adaptor.reset();
        setTamaDeviceFactory({});
        setMf500DeviceFactory({});
    }

    /// The keys of section READER. The serial port is one that no machine has by itself.
    void settings(const std::string& readerKeys) {
        root.write("settings.ini", "[READER]\n" + readerKeys + "SERIAL_PORT=77\n[/READER]\n");
        IniManager::instance().setDirectoryAndReload(root.path().c_str());
        IniManager::instance().loadAndReplace("settings.ini");
    }
    void loadSettings(const std::string& readerKeys) {
        settings(readerKeys);
        adaptor->loadReaderConfig();
    }
    ReaderImpl& start() {
        adaptor.reset(createAdaptorInstance(&host));
        return *adaptor;
    }
    /// One poll. @return UID of the tag as text and its type; empty for none.
    std::string poll(bool forced = false, bool ignoreSuspend = false) {
        EventObject* event = nullptr;
        if (!adaptor->pollTag(event, forced, ignoreSuspend)) {
            EXPECT_EQ(event, nullptr);
            return {};
        }
        EXPECT_EQ(event->getKind(), 1);
        EXPECT_EQ(event->getCode(), 103u);
        EXPECT_NEAR(event->getTime(), static_cast<double>(std::time(nullptr)), 600);
        std::uint32_t length = 0;
        std::uint8_t* uid = nullptr;
        EXPECT_TRUE(event->getUid(length, uid));
        const std::string found = hexText(uid, length) + " " + std::to_string(event->getType());
        EXPECT_EQ(adaptor->freeMemory(uid), 3000);
        EXPECT_EQ(adaptor->freeMemory(event), 3000);
        return found;
    }

    /// One poll: the tag, then what the host heard.
    std::string polled(bool forced = false) {
        const std::string tag = poll(forced);
        return tag + host.heard();
    }
    int findTag(TagAppType kind = TagAppNone, short app = 0, bool halt = false) {
        TagUID* tag = nullptr;
        const int status = adaptor->getTagId(0, kind, app, tag, AuthKeyA, nullptr, halt);
        return keepFound(status, tag, tag != nullptr);
    }
    int findAll(TagAppType kind = TagAppNone, short app = 0) {
        TagUID* tags = nullptr;
        short count = -1;
        const int status = adaptor->getAllTagId(0, kind, app, AuthKeyA, nullptr, count, tags);
        return keepFound(status, tags, count);
    }
    int askReaderId() {
        std::uint16_t length = 0;
        return adaptor->getReaderId(readerId, length);
    }

    /// A prompt that was asked to go away is gone when this returns.
    static void awaitPromptEnd() { EXPECT_TRUE(tagPromptEvent().waitFor(std::chrono::seconds(10))); }

    void connect() {
        if (mLine == Line::inProcess) return;
        if (mLine == Line::terminal && mTama) {
            terminal = std::make_unique<TerminalEndpoint>(mTama, root.path(), kComPort);
            EXPECT_EQ(terminal->start(), "");
        } else {
            const char* const guid = kReaderClasses[mTama ? 0 : 3].guid;
            socket = std::make_unique<SocketEndpoint>(reader, root.path(), guid, "reader");
            EXPECT_EQ(socket->start(), "");
        }
    }
    void unplug() {
        terminal.reset();
        socket.reset();
    }

    /// Lets something go wrong at a command, "1 no reply". @return what is wrong with the rule.
    std::string spoil(Op op, const std::string& rule) {
        char code[8];
        std::snprintf(code, sizeof code, "%02X ", codeOf(op));
        return reader->addFaults(code + rule);
    }
    /// Whether the model has such a fault: a link of messages has no ACK, no check sum and no other frames.
    static bool hasFault(const std::string& effect) {
        return !isMf500UnderTest() || FaultPlan(VirtualMf500Reader::hasFault).addRule("any 1 " + effect).empty();
    }
    /// How the reader refuses a command that it did not carry out.
    static std::string refusal() { return isMf500UnderTest() ? "status 17" : "error"; }

    /// Commands that the reader has heard, with one code or in all.
    std::uint32_t heard(Op op) const { return reader->commandCount(codeOf(op)); }
    std::uint32_t heardInAll() const {
        std::uint32_t all = 0;
        for (int code = 0; code < 256; ++code)
            all += reader->commandCount(static_cast<std::uint8_t>(code));
        return all;
    }

    std::string placeClassic(const Bytes& uid = {0xDE, 0xAD, 0xBE, 0xEF}) {
        return reader->field().place(std::make_shared<MifareClassicTag>(MifareClassicTag::blankImage(1024, uid), uid));
    }

    TempDirectory root;
    ScopedEnvironment environment;
    std::unique_ptr<ManualClock> clock;
    std::shared_ptr<VirtualReader> reader;
    std::unique_ptr<TerminalEndpoint> terminal;
    std::unique_ptr<SocketEndpoint> socket;
    Host host;
    std::unique_ptr<ReaderImpl> adaptor;
    std::string foundTags;  ///< By the last search: " " and its UID for each tag.
    int foundCount = 0;
    std::uint8_t readerId[10] = {};

  private:
    int keepFound(int status, TagUID* tags, int count) {
        foundTags.clear();
        foundCount = count;
        for (int i = 0; tags != nullptr && i < count; ++i)
            foundTags += " " + hexText(tags[i].getUid(), tags[i].getUidLen());
        adaptor->freeMemory(tags);
        return status;
    }
    void useTama(const std::shared_ptr<VirtualTamaReader>& tama) {
        reader = mTama = tama;
        if (mLine == Line::inProcess)
            setTamaDeviceFactory(
                [tama](const TamaDeviceRequest&) { return std::make_unique<VirtualTamaDevice>(tama); });
    }
    void useMf500(const std::shared_ptr<VirtualMf500Reader>& mf500) {
        reader = mf500;
        if (mLine != Line::inProcess) return;
        root.makeDevice(std::string(kReaderClasses[3].guid) + "/reader");  // for the device scan
        setMf500DeviceFactory([mf500] { return std::make_unique<VirtualMf500Device>(mf500); });
    }

    /// The machine's own lock belongs to whatever product is installed here.
    static void useOwnLock() {
        static const TempDirectory directory;
        platform::setNamedMutexDirectory(directory.path().c_str());
    }

    Line mLine;
    std::shared_ptr<VirtualTamaReader> mTama;
};

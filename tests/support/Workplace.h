#pragma once

#include "IniManager.h"
#include "ManualClock.h"
#include "MifareClassicTag.h"
#include "NamedMutex.h"
#include "QVLReaderServiceIntf.h"
#include "ReaderImpl.h"
#include "ScopedEnvironment.h"
#include "SmartCard.h"
#include "SocketEndpoint.h"
#include "TagPrompt.h"
#include "TagPromptControl.h"
#include "TamaDeviceFactory.h"
#include "TempDirectory.h"
#include "TerminalEndpoint.h"
#include "UltralightTag.h"
#include "VirtualTamaDevice.h"
#include "VirtualTamaReader.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

using Bytes = std::vector<std::uint8_t>;

constexpr const char* kTamaClass = "fe2f504b-5f97-4d4d-873d-559e49009dc6";

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

/// A machine with a virtual reader on one kind of line, settings of its own, and a host. The clock is in the hands of
/// the test where the reader is in process.
class Workplace {
  public:
    explicit Workplace(Line line = Line::inProcess, ReaderOptions options = {})
        : environment("QVL_DEVICE_ROOT", root.path().c_str()), reader(std::make_shared<VirtualTamaReader>(options)),
          mLine(line) {
        settings("");
        useOwnLock();
        if (line == Line::inProcess) {
            clock = std::make_unique<ManualClock>();
            setTamaDeviceFactory(
                [this](const TamaDeviceRequest&) { return std::make_unique<VirtualTamaDevice>(reader); });
        }
        connect();
    }
    ~Workplace() {
        adaptor.reset();
        setTamaDeviceFactory({});
    }

    /// The keys of section READER. The serial port is one that no machine has by itself.
    void settings(const std::string& readerKeys) {
        root.write("settings.ini", "[READER]\n" + readerKeys + "SERIAL_PORT=77\n[/READER]\n");
        IniManager::instance().setDirectoryAndReload(root.path().c_str());
        IniManager::instance().loadAndReplace("settings.ini");
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
        std::uint32_t length = 0;
        std::uint8_t* uid = nullptr;
        EXPECT_TRUE(event->getUid(length, uid));
        const TagUID tag(uid, length, 0);
        char* text = tag.toHexString();
        std::string found = std::string(text) + " " + std::to_string(event->getType());
        delete[] text;
        EXPECT_EQ(adaptor->freeMemory(uid), 3000);
        EXPECT_EQ(adaptor->freeMemory(event), 3000);
        return found;
    }

    /// A prompt that was asked to go away is gone when this returns.
    static void awaitPromptEnd() { EXPECT_TRUE(tagPromptEvent().waitFor(std::chrono::seconds(10))); }

    void connect() {
        if (mLine == Line::terminal) {
            terminal = std::make_unique<TerminalEndpoint>(reader, root.path(), kComPort);
            EXPECT_EQ(terminal->start(), "");
        } else if (mLine == Line::socket) {
            socket = std::make_unique<SocketEndpoint>(reader, root.path(), kTamaClass, "reader");
            EXPECT_EQ(socket->start(), "");
        }
    }

    std::string placeClassic(const Bytes& uid = {0xDE, 0xAD, 0xBE, 0xEF}) {
        return reader->field().place(std::make_shared<MifareClassicTag>(MifareClassicTag::blankImage(1024, uid), uid));
    }

    TempDirectory root;
    ScopedEnvironment environment;
    std::unique_ptr<ManualClock> clock;
    std::shared_ptr<VirtualTamaReader> reader;
    std::unique_ptr<TerminalEndpoint> terminal;
    std::unique_ptr<SocketEndpoint> socket;
    Host host;
    std::unique_ptr<ReaderImpl> adaptor;

  private:
    /// The machine's own lock belongs to whatever product is installed here.
    static void useOwnLock() {
        static const TempDirectory directory;
        platform::setNamedMutexDirectory(directory.path().c_str());
    }

    Line mLine;
};

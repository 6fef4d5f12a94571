#include "EventObject.h"
#include "FailingMemory.h"
#include "FreshProcess.h"
#include "IniManager.h"
#include "LogService.h"
#include "NamedMutex.h"
#include "QVLParamCollection.h"
#include "ServiceStatus.h"
#include "TagUID.h"
#include "TagUIDList.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <tuple>
#include <utility>

namespace {

constexpr std::uint8_t kUid[] = {0x04, 0xA1, 0xB2, 0xC3};

/// Runs `action` with memory for 0, 1, 2... allocations until it is enough. `check` sees each outcome; the last one is
/// the success.
template <typename Action, typename Check>
void withFailingMemory(Action action, Check check) {
    for (long allowed = 0;; ++allowed) {
        ASSERT_LT(allowed, 1000);
        gHasFailed = false;
        gAllowed = allowed;
        auto outcome = action();
        const bool wasEnough = !gHasFailed;
        gAllowed = -1;
        check(outcome, wasEnough);
        if (wasEnough) return;
    }
}

TEST(OutOfMemory, StreamThatCannotGrowIsEmpty) {
    const std::string text(200, 'x');
    withFailingMemory(
        [&] {
            QVLParamCollection stream;
            int status = stream.addByte(1);
            if (status == kMemoryOk) status = stream.addString(text.c_str());
            return std::pair(status, stream);
        },
        [](auto& outcome, bool wasEnough) {
            auto& [status, stream] = outcome;
            EXPECT_EQ(status, wasEnough ? kMemoryOk : kStreamFull);
            EXPECT_EQ(stream.getSize(), wasEnough ? 207u : 0u);
            EXPECT_EQ(stream.getCapacity(), wasEnough ? 256u : 0u);
            EXPECT_EQ(stream.addByte(1), kMemoryOk);  // goes on as soon as there is memory
        });
}

TEST(OutOfMemory, SumsOver32BitsAreRefusedBeforeAnyMemoryIsTaken) {
    for (std::uint32_t length : {0xFFFFFFFFu, 0xFFFFFFFBu, 0xFFFFFFBCu}) {
        QVLParamCollection stream;
        gLargest = 0;
        EXPECT_EQ(stream.addBytes(length, kUid), kStreamFull);
        EXPECT_EQ(stream.getSize(), 0u);
        EXPECT_LE(gLargest, 64u);
    }
}

TEST(OutOfMemory, WriterOfASharedBufferLosesOnlyItsOwnShare) {
    QVLParamCollection original;
    original.addByte(1);
    for (int write = 0; write < 4; ++write) {
        QVLParamCollection copy(original);
        gAllowed = 0;
        int status = kStreamFull;
        if (write == 0) status = copy.addByte(2);
        if (write == 1) status = copy.setData(4, kUid);
        if (write == 2) copy.clear();
        if (write == 3 && copy.detachData()) status = kMemoryOk;
        gAllowed = -1;
        EXPECT_EQ(status, kStreamFull);
        EXPECT_EQ(copy.getSize(), 0u);
        EXPECT_EQ(original.getSize(), 2u);
    }
}

TEST(OutOfMemory, ReadsAndOwnBytesReportIt) {
    QVLParamCollection stream;
    stream.addString("text");
    stream.addBytes(4, kUid);
    stream.rewind();
    char* text = nullptr;
    std::uint32_t length = 0;
    std::uint8_t* bytes = nullptr;
    gAllowed = 0;
    EXPECT_EQ(stream.getString(text), kStreamFull);
    gAllowed = -1;
    stream.rewind();
    EXPECT_EQ(stream.getString(text), kMemoryOk);
    delete[] text;
    gAllowed = 0;
    EXPECT_EQ(stream.getBytes(length, bytes), kStreamFull);
    EXPECT_EQ(stream.addBytes(stream.getSize(), stream.getData()), kStreamFull);
    gAllowed = -1;
    EXPECT_EQ(bytes, nullptr);
    EXPECT_EQ(length, 0u);
}

TEST(OutOfMemory, TagsEndUpWithoutUid) {
    TagUID tag(kUid, 4, kTag4K);
    const TagUID other(kUid, 3, kTagProX);
    withFailingMemory([&] { return TagUID(tag); },
                      [&](TagUID& copy, bool wasEnough) { EXPECT_EQ(copy.getUidLen(), wasEnough ? 4u : 0u); });
    withFailingMemory(
        [&] {
            TagUID target(other);
            target = tag;  // never the old UID under the new type
            return target;
        },
        [&](TagUID& target, bool wasEnough) { EXPECT_EQ(target.getUidLen(), wasEnough ? 4u : 0u); });
    withFailingMemory([] { return std::unique_ptr<TagUID>(TagUID::fromHexString("04a1", 0)); },
                      [](auto& read, bool wasEnough) { EXPECT_EQ(read != nullptr, wasEnough); });
    withFailingMemory(
        [&] {
            std::uint32_t length = 9;
            std::uint8_t* data = nullptr;
            const int status = tag.serialize(length, data);
            return std::tuple(status, length, std::unique_ptr<std::uint8_t[]>(data));
        },
        [](auto& outcome, bool wasEnough) {
            EXPECT_EQ(std::get<0>(outcome), wasEnough ? kMemoryOk : kStreamFull);
            EXPECT_EQ(std::get<1>(outcome), wasEnough ? 12u : 0u);
            EXPECT_EQ(std::get<2>(outcome) != nullptr, wasEnough);
        });
    withFailingMemory(
        [&] {
            QVLParamCollection stream;
            int status = stream.addParameter(tag);
            stream.rewind();
            TagUID read;
            if (status == kMemoryOk) status = stream.getParameter(read);
            return std::pair(status, read.getUidLen());
        },
        [](auto& outcome, bool wasEnough) {
            EXPECT_EQ(outcome.first, wasEnough ? kMemoryOk : kStreamFull);
            EXPECT_EQ(outcome.second, wasEnough ? 4u : 0u);
        });
}

TEST(OutOfMemory, EventsAndListsStaySound) {
    const TagUID tag(kUid, 4, kTag4K);
    withFailingMemory(
        [&] {
            EventObject event(103, 1, tag);
            event.set(103, 2, tag, 4, kUid);
            return EventObject(event);
        },
        [](EventObject& event, bool wasEnough) {
            EXPECT_EQ(event.getTime(), 2u);
            EXPECT_EQ(event.getExtra() != nullptr, event.getExtraLen() > 0);
            EXPECT_TRUE(!wasEnough || event.getUidLen() + event.getExtraLen() == 8u);
        });
    const EventObject event(103, 1, tag);
    std::uint32_t length = 9;
    std::uint8_t* bytes = nullptr;
    gAllowed = 0;
    EXPECT_TRUE(event.getUid(length, bytes));
    TagUIDListNode node(tag, nullptr);
    TagUIDList list;
    EXPECT_EQ(list.newIterator(), nullptr);
    gAllowed = -1;
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(node.getTag(), nullptr);
}

TEST(OutOfMemory, SettingsAndLogDisturbNobody) {
    TempDirectory install;
    const std::string log = install / "log";
    writeFile(install / "data/conf/QVLReader.ini", "[LOGSERVICE]\nLOGENABLE=1\nLOGPATH=" + log + "\n[/LOGSERVICE]\n");
    ::setenv("QVL_PATH", install.path().c_str(), 1);
    platform::setNamedMutexDirectory(install.path().c_str());
    bool isWritten = false;
    for (long allowed = 0; !isWritten && allowed < 1000; ++allowed) {
        inFreshProcess([allowed] {
            gAllowed = allowed;
            logMessage(kLogFailure, "a text that is too long to be kept in place", 1, "file", kLogFileReader);
            iniLookup(getIniRoot(), iniGetValue("LOGSERVICE", "LOGPATH"));
            gAllowed = -1;
        });
        isWritten = readFile(log + "/rdrlog0000.txt").find("in place\n") != std::string::npos;
    }
    EXPECT_TRUE(isWritten);
    platform::setNamedMutexDirectory(nullptr);
}

}  // namespace

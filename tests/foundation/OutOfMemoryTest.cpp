// Each allocation of the foundation fails once.

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
#include "TempDirectory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace {

// A buffer whose release is watched.
const std::uint8_t* gWatched = nullptr;
std::size_t gWatchedSize = 0;
bool gWasWiped = false;

extern "C" void __real_free(void*);
extern "C" void __wrap_free(void* buffer);
void __wrap_free(void* buffer) {
    if (buffer && buffer == gWatched) {
        gWasWiped = std::all_of(gWatched, gWatched + gWatchedSize, [](std::uint8_t byte) { return byte == 0; });
        gWatched = nullptr;
    }
    __real_free(buffer);
}

constexpr std::uint8_t kUid[] = {0x04, 0xA1, 0xB2, 0xC3};

/// Runs an operation with memory for 0, 1, 2... allocations until it is enough. Only then it gives its size.
void withFailingMemory(const std::function<std::uint32_t()>& operate, std::uint32_t size) {
    gHasFailed = true;
    for (long allowed = 0; gHasFailed; ++allowed) {
        ASSERT_LT(allowed, 1000);
        gHasFailed = false;
        gAllowed = allowed;
        const std::uint32_t outcome = operate();
        gAllowed = -1;
        EXPECT_EQ(outcome, gHasFailed ? 0u : size) << allowed;
    }
}

TEST(OutOfMemory, StreamThatCannotGrowIsEmpty) {
    const std::string text(200, 'x');
    const auto fill = [&] {
        QVLParamCollection stream;
        int status = stream.addByte(1);
        if (status == kMemoryOk) status = stream.addString(text.c_str());
        gAllowed = -1;
        EXPECT_EQ(status, gHasFailed ? kStreamFull : kMemoryOk);
        EXPECT_EQ(stream.getCapacity(), gHasFailed ? 0u : 256u);
        const std::uint32_t size = stream.getSize();
        EXPECT_EQ(stream.addByte(1), kMemoryOk);  // goes on as soon as there is memory
        return size;
    };
    withFailingMemory(fill, 207);
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
    const std::function<bool(QVLParamCollection&)> writes[] = {
        [](auto& copy) { return copy.addByte(2) == kMemoryOk; },
        [](auto& copy) { return copy.setData(4, kUid) == kMemoryOk; },
        [](auto& copy) { return copy.clear(), false; },
        [](auto& copy) { return copy.detachData() != nullptr; },
    };
    for (const auto& write : writes) {
        QVLParamCollection copy(original);
        gAllowed = 0;
        const bool isWritten = write(copy);
        gAllowed = -1;
        EXPECT_FALSE(isWritten);
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
    gAllowed = 1;
    stream.rewind();
    EXPECT_EQ(stream.getString(text), kMemoryOk);
    EXPECT_EQ(stream.getBytes(length, bytes), kStreamFull);
    EXPECT_EQ(stream.addBytes(stream.getSize(), stream.getData()), kStreamFull);
    gAllowed = -1;
    delete[] text;
    EXPECT_TRUE(bytes == nullptr && length == 0);
}

TEST(OutOfMemory, TagsAndEventsKeepNoLengthWithoutBytes) {
    TagUID tag(kUid, 4, kTag4K);
    const EventObject event(103, 1, tag);
    const std::pair<std::function<std::uint32_t()>, std::uint32_t> operations[] = {
        {[&] { return TagUID(tag).getUidLen(); }, 4},
        {[&] {
             TagUID target(kUid, 3, kTagProX);
             target = tag;  // never the old UID under the new type
             return target.getUidLen();
         },
         4},
        {[] {
             const std::unique_ptr<TagUID> read(TagUID::fromHexString("04a1", 0));
             return read ? read->getUidLen() : 0;
         },
         2},
        {[&] {
             std::uint32_t length = 9;
             std::uint8_t* data = nullptr;
             const int status = tag.serialize(length, data);
             EXPECT_EQ(status, data ? kMemoryOk : kStreamFull);
             delete[] data;
             return length;
         },
         12},
        {[&] {
             QVLParamCollection stream;
             int status = stream.addParameter(tag);
             stream.rewind();
             TagUID read;
             if (status == kMemoryOk) status = stream.getParameter(read);
             EXPECT_EQ(status, read.getUid() ? kMemoryOk : kStreamFull);
             return read.getUidLen();
         },
         4},
        {[&] {
             std::uint32_t length = 9;
             std::uint8_t* uid = nullptr;
             event.getUid(length, uid);
             delete[] uid;
             return length;
         },
         4},
        {[&] {
             EventObject set(103, 1, TagUID());
             set.set(103, 2, TagUID(), 4, kUid);
             const EventObject copy(set);
             EXPECT_EQ(copy.getExtra() != nullptr, copy.getExtraLen() > 0);
             return copy.getExtraLen();
         },
         4},
    };
    for (const auto& [operate, size] : operations)
        withFailingMemory(operate, size);
    gAllowed = 0;
    TagUIDListNode node(tag, nullptr);
    TagUIDList list;
    EXPECT_EQ(list.newIterator(), nullptr);
    gAllowed = -1;
    EXPECT_EQ(node.getTag(), nullptr);
}

TEST(Memory, OfAStreamIsWipedBeforeItIsReleased) {
    QVLParamCollection stream;
    stream.addBytes(4, kUid);
    gWatched = stream.getData();
    gWatchedSize = stream.getSize();
    stream = QVLParamCollection();
    EXPECT_EQ(gWatched, nullptr) << "released";
    EXPECT_TRUE(gWasWiped);
}

TEST(OutOfMemory, SettingsAndLogDisturbNobody) {
    TempDirectory install;
    const std::string log = install / "log";
    install.write("data/conf/QVLReader.ini", "[LOGSERVICE]\nLOGENABLE=1\nLOGPATH=" + log + "\n[/LOGSERVICE]\n");
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
        isWritten = install.read("log/rdrlog0000.txt").find("in place\n") != std::string::npos;
    }
    EXPECT_TRUE(isWritten);
    platform::setNamedMutexDirectory(nullptr);
}

}  // namespace

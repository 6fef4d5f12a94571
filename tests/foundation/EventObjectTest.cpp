#include "EventObject.h"
#include "HexText.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace {

constexpr std::uint8_t kUid[] = {0x04, 0xA1, 0xB2, 0xC3};
constexpr std::uint8_t kExtra[] = {0x11, 0x22};

/// All fields as one line: kind, code, time, type, UID, extra.
std::string text(const EventObject& event) {
    std::uint32_t length = 99;
    std::uint8_t* bytes = nullptr;
    EXPECT_TRUE(event.getUid(length, bytes));
    const std::unique_ptr<std::uint8_t[]> owner(bytes);
    EXPECT_EQ(length, event.getUidLen());
    return std::to_string(event.getKind()) + ' ' + std::to_string(event.getCode()) + ' ' +
           std::to_string(event.getTime()) + ' ' + std::to_string(event.getType()) + " [" + hexText(bytes, length) +
           "] [" + hexText(event.getExtra(), event.getExtraLen()) + ']';
}

TEST(EventObject, EveryConstructorFillsItsFields) {
    EXPECT_EQ(text(EventObject()), "1 103 0 2002 [] []");
    EXPECT_EQ(text(EventObject(1, 5, 77, kTag4K, kUid, 4, 2, kExtra)), "1 5 77 2003 [04a1b2c3] [1122]");
    EXPECT_EQ(text(EventObject(2, 5, 77, kTag4K, kUid, 4, 0, kExtra)), "2 5 77 512 [04a1b2c3] []");
    EXPECT_EQ(text(EventObject(1, 5, 77, 0x9999, nullptr, 4, 2, nullptr)), "1 5 77 2000 [] []");
    EXPECT_EQ(text(EventObject(103, 8, TagUID(kUid, 4, kTagUltralight))), "1 103 8 2001 [04a1b2c3] []");
    EXPECT_EQ(text(EventObject(103, 8, TagUID(nullptr, 0, kTagUltralight))), "1 103 8 2002 [] []");
}

TEST(EventObject, SetReplacesEverything) {
    EventObject event(2, 5, 77, 9, kUid, 4, 2, kExtra);
    event.set(103, 8, TagUID(kExtra, 2, kTagDesFire), 3, kUid);
    EXPECT_EQ(text(event), "1 103 8 2005 [1122] [04a1b2]");
    event.set(103, 9, TagUID(kUid, 4, kTagDesFire), event.getExtraLen() - 1, event.getExtra() + 1);
    EXPECT_EQ(text(event), "1 103 9 2005 [04a1b2c3] [a1b2]");
    event.set(104, 0, TagUID(), 0, nullptr);
    EXPECT_EQ(text(event), "1 104 0 2002 [] []");
    EXPECT_EQ(event.getExtra(), nullptr);
}

TEST(EventObject, CopiesAreDeep) {
    EventObject event(1, 5, 77, kTag4K, kUid, 4, 2, kExtra);
    const std::string before = text(event);
    const EventObject copy(event);
    EventObject assigned(103, 1, TagUID(kUid, 3, kTag4K));
    assigned = event;
    event.set(0, 0, TagUID(), 0, nullptr);
    EXPECT_EQ(text(copy), before);
    EXPECT_EQ(text(assigned), before);
    const EventObject& same = assigned;
    assigned = same;
    EXPECT_EQ(text(assigned), before);
}

}  // namespace

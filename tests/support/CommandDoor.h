#pragma once

#include "CardScript.h"
#include "QVLParamCollection.h"
#include "Workplace.h"

#include <functional>
#include <string>

/// A card whose commands 80 00 .. answer with 90 00, 80 01 .. with what came and 90 00; 80 02 asks twice for time, and
/// 80 NN with N tens has NN * 10 bytes to say for NN from 10 on.
inline std::shared_ptr<SmartCard> scriptedCard(const Bytes& uid, const Bytes& ats = {0x75, 0x77, 0x81, 0x02, 0x80}) {
    std::vector<CardRule> rules;
    const auto add = [&rules](const std::string& text) {
        rules.emplace_back();
        EXPECT_EQ(parseCardRule(text, rules.back()), "") << text;
    };
    add("8000* 9000");
    add("8001* echo 9000");
    add("8002* 9002 wtx 5x2");
    for (const int tens : {10, 20, 30, 60, 99})
        add("80" + std::to_string(tens) + "* count " + std::to_string(tens * 10));
    add("8003* count 4096");
    add("8004* count 5000");
    return std::make_shared<SmartCard>(uid, ats, std::make_unique<CardScript>(std::move(rules)));
}

/// The command door as a host uses it: what comes back is "status" and what stands in the collection, a value a word.
class CommandDoor {
  public:
    using Fill = std::function<void(QVLParamCollection&)>;

    explicit CommandDoor(ReaderImpl& adaptor) : mAdaptor(adaptor) {}

    /// "status", then " -" for no collection, or its size.
    std::string raw(int id, const Fill& fill) {
        QVLParamCollection in;
        fill(in);
        in.rewind();
        return run(id, in, [](QVLParamCollection& out) { return " " + std::to_string(out.getSize()); });
    }
    int send(const Bytes& uid, const Bytes& command, bool retry = false, std::uint8_t nad = 0) {
        QVLParamCollection in;
        addTag(in, uid);
        in.addByte(nad);
        addBytes(in, command);
        in.addByte(retry);
        in.rewind();
        return takeBytes(40, in);
    }
    int sendRaw(const Bytes& uid, const Bytes& command, bool retry = false) {
        QVLParamCollection in;
        addTag(in, uid);
        addBytes(in, command);
        in.addLong(77);
        in.addByte(retry);
        in.rewind();
        return takeBytes(41, in);
    }
    int wait(const Bytes& wanted = {}, std::int32_t timeout = 1000) {
        QVLParamCollection in;
        addTag(in, wanted);
        in.addLong(static_cast<std::uint32_t>(timeout));
        in.rewind();
        QVLParamCollection* out = nullptr;
        const int status = mAdaptor.runCommand(42, in, out);
        if (status == kOk) {
            out->rewind();
            EXPECT_EQ(out->getParameter(tag), 3000);
            EXPECT_EQ(out->getByte(cid), 3000);
            ats = bytesOf(*out);
        } else {
            EXPECT_EQ(out, nullptr);
        }
        mAdaptor.freeMemory(out);
        return status;
    }
    int deselect(const Bytes& uid) {
        QVLParamCollection in;
        addTag(in, uid);
        in.rewind();
        QVLParamCollection* out = nullptr;
        const int status = mAdaptor.runCommand(43, in, out);
        EXPECT_EQ(out != nullptr, status == kOk);
        mAdaptor.freeMemory(out);
        return status;
    }
    int relay(const Bytes& command) {
        QVLParamCollection in;
        addBytes(in, command);
        in.rewind();
        return takeBytes(46, in);
    }

    static void addTag(QVLParamCollection& in, const Bytes& uid) {
        TagUID named(uid.data(), static_cast<std::uint32_t>(uid.size()), 0);
        in.addParameter(named);
    }
    static void addBytes(QVLParamCollection& in, const Bytes& bytes) {
        in.addBytes(static_cast<std::uint32_t>(bytes.size()), bytes.data());
    }

    Bytes answer, ats;
    TagUID tag;
    std::uint8_t cid = 0xFF;

  private:
    static Bytes bytesOf(QVLParamCollection& from) {
        std::uint32_t length = 0;
        std::uint8_t* bytes = nullptr;
        EXPECT_EQ(from.getBytes(length, bytes), 3000);
        Bytes all(bytes, bytes + (bytes != nullptr ? length : 0));
        delete[] bytes;
        return all;
    }
    int takeBytes(int id, QVLParamCollection& in) {
        QVLParamCollection* out = nullptr;
        const int status = mAdaptor.runCommand(id, in, out);
        answer.clear();
        EXPECT_EQ(out != nullptr, status == kOk);
        if (out != nullptr) {
            out->rewind();
            answer = bytesOf(*out);
        }
        mAdaptor.freeMemory(out);
        return status;
    }
    template <typename Say>
    std::string run(int id, QVLParamCollection& in, Say say) {
        QVLParamCollection* out = nullptr;
        const int status = mAdaptor.runCommand(id, in, out);
        const std::string said = std::to_string(status) + (out != nullptr ? say(*out) : " -");
        mAdaptor.freeMemory(out);
        return said;
    }

    ReaderImpl& mAdaptor;
};

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

/// The command door as a host uses it.
class CommandDoor {
  public:
    using Stream = QVLParamCollection;
    using Fill = std::function<void(Stream&)>;

    explicit CommandDoor(ReaderImpl& adaptor) : mAdaptor(adaptor) {}

    /// "status", then " -" for no collection, or its size.
    std::string raw(int id, const Fill& fill) {
        std::string size = " -";
        const int status = run(id, fill, [&](Stream& out) { size = " " + std::to_string(out.getSize()); });
        return std::to_string(status) + size;
    }
    int send(const Bytes& uid, const Bytes& command, bool retry = false, std::uint8_t nad = 0) {
        return ask(40, [&](Stream& in) { addTag(in, uid), in.addByte(nad), addBytes(in, command), in.addByte(retry); });
    }
    int sendRaw(const Bytes& uid, const Bytes& command, bool retry = false) {
        return ask(41, [&](Stream& in) { addTag(in, uid), addBytes(in, command), in.addLong(77), in.addByte(retry); });
    }
    int relay(const Bytes& command) {
        return ask(46, [&](Stream& in) { addBytes(in, command); });
    }
    int wait(const Bytes& wanted = {}, std::int32_t timeout = 1000) {
        const auto fill = [&](Stream& in) { addTag(in, wanted), in.addLong(static_cast<std::uint32_t>(timeout)); };
        return run(42, fill, [&](Stream& out) {
            EXPECT_EQ(out.getParameter(tag), 3000);
            EXPECT_EQ(out.getByte(cid), 3000);
            ats = bytesOf(out);
        });
    }
    int deselect(const Bytes& uid) {
        return run(
            43, [&](Stream& in) { addTag(in, uid); }, [](Stream&) {});
    }

    static void addTag(Stream& in, const Bytes& uid) {
        TagUID named(uid.data(), static_cast<std::uint32_t>(uid.size()), 0);
        in.addParameter(named);
    }
    static void addBytes(Stream& in, const Bytes& bytes) {
        in.addBytes(static_cast<std::uint32_t>(bytes.size()), bytes.data());
    }

    Bytes answer, ats;
    TagUID tag;
    std::uint8_t cid = 0xFF;

  private:
    static Bytes bytesOf(Stream& from) {
        std::uint32_t length = 0;
        std::uint8_t* bytes = nullptr;
        EXPECT_EQ(from.getBytes(length, bytes), 3000);
        const std::unique_ptr<std::uint8_t[]> owner(bytes);
        return Bytes(bytes, bytes + (bytes != nullptr ? length : 0));
    }
    int ask(int id, const Fill& fill) {
        answer.clear();
        return run(id, fill, [this](Stream& out) { answer = bytesOf(out); });
    }
    int run(int id, const Fill& fill, const Fill& take) {
        Stream in;
        Stream* out = nullptr;
        fill(in);
        in.rewind();
        const int status = mAdaptor.runCommand(id, in, out);
        EXPECT_EQ(out != nullptr, status == kOk || status == kReaderFailed);  // that of an unknown command
        if (out != nullptr) out->rewind(), take(*out);
        mAdaptor.freeMemory(out);
        return status;
    }

    ReaderImpl& mAdaptor;
};

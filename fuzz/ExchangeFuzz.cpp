// A card that answers with whatever the input holds, at a reader that the host tells every block. The first
// bytes choose how the card was activated, the size of the command and of the buffer; then each answer of the card is a
// length byte and that many bytes, the highest length being no answer.

#include "Fuzz.h"
#include "ManualClock.h"
#include "QvlTclUtil.h"

namespace {

constexpr std::size_t kHead = 6;

struct Input {
    const std::uint8_t* bytes;
    std::size_t size;

    std::uint8_t next() { return size > 0 ? --size, *bytes++ : std::uint8_t{0xFF}; }
};

class InputReader : public Qvl14443bfl {
  public:
    BflType getBflType() override { return BflTypeMf500; }
    short pcdSetAttrib(std::uint8_t, std::uint8_t) override { return kBflOk; }
    short piccExchangeBlock(std::uint8_t* block, std::uint16_t length, std::uint8_t* answer, std::uint16_t* capacity,
                            std::uint8_t, std::uint32_t) override {
        constexpr std::uint8_t kSilence = 0xFF;
        require(length >= 3 && length <= 258);
        touch(block, length);
        const std::uint8_t count = input->next();
        if (count == kSilence) return kBflNoTag;
        if (count > *capacity) return kBflBadFrame;
        for (std::uint8_t i = 0; i < count; ++i)
            answer[i] = input->next();
        *capacity = count;
        return kBflOk;
    }
    Input* input = nullptr;
};

void activate(QvlTcl& tcl, const std::uint8_t* head) {
    QvlTclUtil::resetmPicc(&tcl, head[0] & 0x0F);
    PiccInfo& card = *tcl.mPicc[head[0] & 0x0F];
    card.mCID = head[0] & 0x0F;
    card.mUidLen = 4;
    card.mFlags = head[1] & 0x0B;
    card.mNADSupp = head[1] & 1;
    card.mFSI = head[1] >> 4 & 7;
    card.mFSD = QvlTclUtil::convertFSDI2FSD(head[0] >> 4);
    card.mParams.flags = card.mFlags & 3;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static ManualClock clock;
    clock.setMsPerLook(1000);  // a card that asks for time without end comes to one
    if (size < kHead) return 0;
    Input input{data + kHead, size - kHead};
    const auto reader = std::make_shared<InputReader>();
    reader->input = &input;
    QvlTcl tcl;
    tcl.setDriver(reader);
    tcl.reset(static_cast<std::uint8_t>(1 + (data[2] & 3)));
    activate(tcl, data);
    const std::uint8_t cid = data[0] & 0x0F;
    Bytes command(data[3] * 3u, 0x5A);
    for (int call = 0; call < 4 && (call == 0 || input.size > 0); ++call) {
        Bytes answer(data[4] * std::size_t{1u + (data[5] & 7)});
        auto length = static_cast<std::uint32_t>(answer.size());
        const short status =
            tcl.TclExchange(cid, data[2] >> 2, command.data(), static_cast<std::uint32_t>(command.size()), nullptr,
                            answer.data(), &length);
        constexpr short kDocumented[] = {0, -21, -50, -52, -53};
        require(std::ranges::count(kDocumented, status) == 1 && length <= answer.size());
        if (status == -52 || status == -53) activate(tcl, data);
    }
    return 0;
}

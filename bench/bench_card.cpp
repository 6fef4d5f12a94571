// Exchanges with a smart card in an open session, and prints what one took. The activation and a first exchange are
// left out of the figures.
//
//     bench_card WHERE OUT BACK FRAME ROUNDS [door] [mf500] [counted]
//
//     WHERE    virtual: a reader in this process; line: the serial port that the settings name
//     OUT      bytes of the command, at least 2
//     BACK     bytes of the answer
//     FRAME    the card's frame size index of ISO/IEC 14443-4: 5 for 64 bytes, 8 for 256
//     door     by the command door of the service; else TclExchange alone
//     mf500    the reader is an MF RC500, and a line its message socket
//     counted  counts commands and bytes on the way to the device, which costs a few instructions

#include "Allocations.h"
#include "BenchReader.h"
#include "CardScript.h"
#include "QVLParamCollection.h"
#include "QvlTcl.h"
#include "ServiceStatus.h"
#include "SmartCard.h"
#include "Times.h"

#include <array>
#include <cinttypes>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

constexpr std::uint8_t kUid[] = {0x08, 1, 2, 3};
constexpr int kSend = 40;
constexpr int kWaitForCard = 42;

struct Exchange {
    std::size_t out, back;
    std::uint8_t frame;
    std::size_t rounds;
};

std::shared_ptr<SmartCard> cardFor(const Exchange& wanted) {
    std::vector<CardRule> rules(1);
    parseCardRule("42* count " + std::to_string(wanted.back), rules[0]);
    const auto t0 = static_cast<std::uint8_t>(0x70 | wanted.frame);
    return std::make_shared<SmartCard>(kUid, std::vector<std::uint8_t>{t0, 0x77, 0x81, 0x02},
                                       std::make_unique<CardScript>(std::move(rules)));
}

/// A session on the card layer.
class Layer {
  public:
    Layer(std::shared_ptr<Qvl14443bfl> driver, const Exchange& wanted)
        : mWanted(wanted), mCommand(wanted.out, 0x42), mAnswer(wanted.back + 1) {
        mTcl.setDriver(std::move(driver));
    }
    bool open() {
        std::uint8_t atq[2], sak = 0, uid[10], uidLen = 0, ats[255], takesCid = 0, takesNad = 0;
        std::uint16_t atsLen = sizeof ats, historicalLen = 0;
        std::uint8_t* historical = nullptr;
        if (mTcl.TclInit(1) != kTclOk || mTcl.TclActivateIdle(0, atq, &sak, uid, &uidLen) != kTclOk) return false;
        const short status = mTcl.TclGetAts(0, ats, &atsLen, &historical, &historicalLen, &takesCid, &takesNad);
        delete[] historical;
        return status == kTclOk;
    }
    bool exchange() {
        auto length = static_cast<std::uint32_t>(mAnswer.size());
        return mTcl.TclExchange(0, 0, mCommand.data(), static_cast<std::uint32_t>(mCommand.size()), nullptr,
                                mAnswer.data(), &length) == kTclOk &&
               length == mWanted.back;
    }

  private:
    const Exchange& mWanted;
    QvlTcl mTcl;
    std::vector<std::uint8_t> mCommand, mAnswer;
};

/// A session by the command door; the argument stream is made once.
class Door {
  public:
    Door(ReaderImpl& adaptor, const Exchange& wanted) : mAdaptor(adaptor), mWanted(wanted) {
        const std::vector<std::uint8_t> command(wanted.out, 0x42);
        TagUID tag(kUid, sizeof kUid, 0);
        mIn.addParameter(tag);
        mIn.addByte(0);
        mIn.addBytes(static_cast<std::uint32_t>(command.size()), command.data());
        mIn.addByte(0);
    }
    bool open() {
        mAdaptor.setTagPromptFlag(false);
        TagUID any;
        QVLParamCollection in;
        in.addParameter(any);
        in.addLong(1000);
        in.rewind();
        return mAdaptor.initReader() && run(kWaitForCard, in) > 0;
    }
    bool exchange() {
        constexpr std::uint32_t kTypeAndLength = 5;
        mIn.rewind();
        return run(kSend, mIn) == mWanted.back + kTypeAndLength;
    }

  private:
    /// @return the size of what came back.
    std::uint32_t run(int id, QVLParamCollection& in) {
        QVLParamCollection* out = nullptr;
        const int status = mAdaptor.runCommand(id, in, out);
        const std::uint32_t size = status == kOk ? out->getSize() : 0;
        mAdaptor.freeMemory(out);
        return size;
    }

    ReaderImpl& mAdaptor;
    const Exchange& mWanted;
    QVLParamCollection mIn;
};

/// The only function that the profile collects.
template <typename Session>
[[gnu::noinline]] bool exchangeOnce(Session& session) {
    return session.exchange();
}

template <typename Session>
int run(Session session, const Exchange& wanted, const LineCount& line) {
    if (!session.open() || !session.exchange())
        return std::fputs("bench_card: no reader, no card, or not the answer\n", stderr), 1;
    const LineCount before = line;
    const std::uint64_t firstAllocations = allocationCount();
    Times times(wanted.rounds);
    const std::uint64_t timesAllocations = allocationCount() - firstAllocations;
    const std::size_t done = timeRounds(times, [&] { return exchangeOnce(session); });
    if (done != wanted.rounds) return std::fputs("bench_card: an exchange failed\n", stderr), 1;
    std::printf("allocations %" PRIu64 "\ncommands %" PRIu64 "\nbytes %" PRIu64 "\n",
                (allocationCount() - firstAllocations - timesAllocations) / wanted.rounds,
                (line.commands - before.commands) / wanted.rounds, (line.bytes - before.bytes) / wanted.rounds);
    printTimes(times);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 6)
        return std::fputs("usage: bench_card virtual|line OUT BACK FRAME ROUNDS [door] [mf500] [counted]\n", stderr), 2;
    const auto number = [argv](int at) { return std::strtoul(argv[at], nullptr, 10); };
    const Exchange wanted{number(2), number(3), static_cast<std::uint8_t>(number(4)), number(5)};
    BenchReader bench(argc, argv);
    bench.reader().field().place(cardFor(wanted));
    const std::unique_ptr<ReaderImpl> adaptor = bench.createAdaptor();
    if (!adaptor) return 1;
    if (bench.said("door")) return run(Door(*adaptor, wanted), wanted, bench.line());
    return run(Layer(bench.driver(), wanted), wanted, bench.line());
}

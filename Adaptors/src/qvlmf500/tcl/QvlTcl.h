#pragma once

#include "Qvl14443bfl.h"

#include <cstdint>
#include <memory>
#include <mutex>

/// Status values of the card layer, beside those of the driver, which go up unchanged.
enum TclStatus : std::int16_t {
    kTclOk = 0,
    kTclNoCardSelected = -1,  ///< TclGetAts without a selected card.
    kTclBadArgument = -21,    ///< reset with 0 repetitions; TclExchange: nothing to send, or a NAD with reserved bits.
    kTclUidTooLong = -22,     ///< UID longer than 10 bytes.
    kTclBadAts = -48,         ///< ATS malformed.
    kTclRestPending = -50,    ///< TclExchange: the buffer is full; the next call delivers the rest.
    kTclDeselected = -52,     ///< TclExchange: the protocol failed; the card was deselected and its CID is free.
    kTclNotDeselected = -53,  ///< TclExchange: the protocol failed, and so did the deselection.
    kTclPpsRefused = -58,     ///< PPS arguments out of range, or the card did not answer with the PPSS.
    kTclOutOfRange = -60,     ///< baudrate or CID out of range, a null pointer, or no memory.

    // What the checks of a received block say.
    kTclWrongAddress = -21,     ///< The CID or the NAD does not fit.
    kTclUnexpectedBlock = -23,  ///< Not the block that was expected.
    kTclBufferFull = -24,       ///< More data than the caller's buffer holds.
    kTclWrongNumber = -25,      ///< The block number does not fit.
    kTclWaitingTime = -26,      ///< A request for time is being answered.
};

/// State of the block protocol with one card; outlives a single exchange.
struct QVL_API QvlTclInternalParams {
    std::unique_ptr<std::uint8_t[]> block;  ///< Block to send and block received; kept only while a rest is pending.
    std::uint16_t blockSize = 0;            ///< Largest block without CRC.
    std::uint8_t dsi = 0;
    std::uint8_t dri = 0;
    std::uint8_t cid = 0;
    std::uint8_t* nad = nullptr;  ///< The NAD to send; set during an exchange only, as are the positions.
    std::uint8_t flags = 0;
    std::uint8_t state = 0;  ///< Low nibble: the state to run next. High nibble: the state that ran last.
    std::uint8_t blockNumber = 0;
    std::uint8_t* dataPos = nullptr;
    std::uint8_t* dataMark = nullptr;
    std::uint8_t maxTry = 0;
    std::uint8_t fwi = 0;
    std::uint16_t restPos = 0;  ///< Offset of the first byte of `block` not delivered.
    std::uint16_t restEnd = 0;  ///< Length of the block that overflowed.
};

/// One card of the table, as its ATS (ISO/IEC 14443-4) describes it.
struct QVL_API PiccInfo {
    std::uint8_t mCID = 0;
    std::uint8_t mFSCI = 0;  ///< Frame size index of the card, at most 8.
    std::uint8_t mFSDI = 0;  ///< Frame size index of the reader.
    std::uint16_t mFSC = 0;  ///< Frame sizes in bytes.
    std::uint16_t mFSD = 0;
    std::uint8_t mFWI = 0;
    std::uint8_t mWTX = 0;
    std::uint8_t mCIDSupp = 1;
    std::uint8_t mNADSupp = 0;
    std::uint8_t mPiccDiv = 0;  ///< Highest divisors that the reader supports, towards the card and back.
    std::uint8_t mPcdDiv = 0;
    std::uint8_t mBlknr = 0;
    std::uint8_t mDSI = 0;  ///< Divisors in use.
    std::uint8_t mDRI = 0;
    std::uint8_t mFSI = 0;  ///< Index of the frame size used for sending.
    std::uint8_t mTA1 = 0;
    std::uint8_t mTB1 = 0;
    std::uint8_t mTC1 = 2;
    std::uint8_t mSFGI = 0;
    /// Bit 0: the card takes a NAD. Bit 1: it takes a CID. Bit 2: the rest of an answer is pending. Bit 3: more of the
    /// command follows in the next call, so that the exchange ends when the card has acknowledged this part.
    std::uint8_t mFlags = 0;
    std::uint8_t mUid[10] = {};
    std::uint8_t mUidLen = 0;  ///< Not 0 means that this CID is taken.
    QvlTclInternalParams mParams;
};

/// Smart cards by ISO/IEC 14443-4 over either driver: a table of 16 cards indexed by CID, and what brings a card into
/// protocol state. Statuses are TclStatus and BflStatus. One thread at a time, apart from driver and setDriver.
class QVL_API QvlTcl {
  public:
    static constexpr std::uint8_t kCards = 16;

    QvlTcl();
    ~QvlTcl();
    QvlTcl(const QvlTcl&) = delete;
    QvlTcl& operator=(const QvlTcl&) = delete;

    /// The driver in use; a caller keeps what it got for the length of its operation, so that a replaced driver lives
    /// until its last user is done. Any thread may call both.
    std::shared_ptr<Qvl14443bfl> driver() const;
    void setDriver(std::shared_ptr<Qvl14443bfl> driver);

    /// Opens and configures the reader and empties the table.
    short TclInit(std::uint8_t maxTry);
    /// Frees CIDs 0 to 14. `maxTry` limits the repetitions in one exchange; 0 is refused with -21.
    short reset(std::uint8_t maxTry);
    /// New text "Error Code = %d" that the caller deletes as an array.
    char* TclMessage(int code);
    short TclDebug(std::uint8_t);

    /// Activates one idle card. `uid` holds 10 bytes.
    short TclActivateIdle(std::uint8_t baudrate, std::uint8_t* atq, std::uint8_t* sak, std::uint8_t* uid,
                          std::uint8_t* uidLen);
    /// Wakes the card of this UID.
    short TclActivateWakeup(std::uint8_t baudrate, std::uint8_t* atq, std::uint8_t* sak, std::uint8_t* uid,
                            std::uint8_t uidLen);
    /// Gets and parses the ATS of the card just activated and takes the CID. `*atsLen` is the size of `ats` on entry
    /// and the length on return; `*hist` becomes a new buffer with the historical bytes that the caller deletes as an
    /// array, or null. After a failure the CID is free and `*hist` as it was.
    short TclGetAts(std::uint8_t cid, std::uint8_t* ats, std::uint16_t* atsLen, std::uint8_t** hist,
                    std::uint16_t* histLen, std::uint8_t* cidSupp, std::uint8_t* nadSupp);
    /// Activation in up to 10 tries of `sec` seconds each, then TclGetAts, of whose status the low byte is returned.
    short TclGetAtsLoop(std::uint8_t baudrate, std::uint8_t sec, std::uint8_t cid, std::uint8_t* atq, std::uint8_t* sak,
                        std::uint8_t* uid, std::uint8_t* uidLen, std::uint8_t* ats, std::uint16_t* atsLen,
                        std::uint8_t** hist, std::uint16_t* histLen, std::uint8_t* cidSupp, std::uint8_t* nadSupp);
    /// Changes the bit rate of an activated card. With NfcTamaBfl nothing is sent.
    short TclPps(std::uint8_t cid, std::uint8_t dsi, std::uint8_t dri);
    short TclHalt();
    /// Sends a command to an activated card and receives its answer, with chaining both ways, repetitions (maxTry of
    /// reset, counted over the whole exchange) and the card's requests for more time. `*recvLen` is the size of
    /// `recvData` on entry and, on 0, the length of the answer. On -50 the buffer is full and `*recvLen` unchanged; the
    /// next call for this CID delivers the rest, whatever it sends. A card that goes on for 10 minutes, or for 255
    /// blocks in a row, without moving a byte of data has failed the protocol (-52, -53). `nad` counts only for a card
    /// that takes one; `nadOut` is not written. Nothing of the caller's memory is kept.
    short TclExchange(std::uint8_t cid, std::uint8_t nad, std::uint8_t* sendData, std::uint32_t sendLen,
                      std::uint8_t* nadOut, std::uint8_t* recvData, std::uint32_t* recvLen);
    /// Releases the card and frees its CID. With Mf500bfl a driver that refuses the card's bit rate leaves both.
    short TclDeselect(std::uint8_t cid);

    std::unique_ptr<PiccInfo> mPicc[kCards];
    std::uint8_t mAppend_crc;  ///< Not 0: a CRC is used on the air.
    std::uint32_t mTimeout;    ///< Of the exchange in flight.
    std::uint8_t mMaxTry;

  private:
    std::shared_ptr<Qvl14443bfl> mBfl;
    mutable std::mutex mBflMutex;

    std::uint8_t mSelDSI;
    std::uint8_t mSelDRI;
    std::uint8_t mSelUid[10];
    std::uint8_t mSelUidLen;  // 0 means that no card is selected
    std::uint8_t mAtsLen;
    std::uint8_t mAts[256];  // as a TAMA reader delivered it at activation

    template <typename Plain, typename WithAts>
    QVL_INTERNAL short activate(std::uint8_t baudrate, const std::uint8_t* uid, const std::uint8_t& uidLen, Plain plain,
                                WithAts withAts);
    QVL_INTERNAL short rememberSelected(std::uint8_t baudrate, const std::uint8_t* uid, std::uint8_t uidLen);
    QVL_INTERNAL short fetchAts(Qvl14443bfl& bfl, const PiccInfo& card, std::uint8_t cid, std::uint8_t* ats,
                                std::uint16_t* atsLen);
    QVL_INTERNAL short requestAts(Qvl14443bfl& bfl, const PiccInfo& card, std::uint8_t cid, std::uint8_t* ats,
                                  std::uint16_t* atsLen);
    QVL_INTERNAL short readAts(PiccInfo& card, const std::uint8_t* ats, std::size_t atsLen,
                               std::unique_ptr<std::uint8_t[]>& hist, std::uint16_t& histLen) const;
    QVL_INTERNAL void takeCid(PiccInfo& card, std::uint8_t cid) const;
    QVL_INTERNAL short deselectByBlock(Qvl14443bfl& bfl, std::uint8_t cid);
};

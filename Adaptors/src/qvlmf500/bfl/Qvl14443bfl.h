#pragma once

#include "BflStatus.h"
#include "QvlExport.h"

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

class LinkWatch;
class TagUID;

/// Which driver an object is. A caller that needs an operation of one driver only asks this first.
enum BflType : std::int32_t {
    BflTypeMf500 = 0,
    BflTypeNfcTama = 1,
};

/// What a reader does by itself, and what is left to its host.
struct ReaderTraits {
    bool doesRats;          ///< Activations with ATS; it picks the bit rates, too. Else the host sends RATS and PPS.
    bool blocksCarryCrc;    ///< Blocks of cards carry two bytes for the CRC, both ways.
    std::uint8_t firstCid;  ///< The first card number that a card can get.
};

/// The one interface to a reader. pcd... operations speak to the reader itself, picc... operations to a tag in the
/// field. An operation that a driver does not override returns 3139 and changes nothing.
///
/// Buffers are the caller's. Where no length is given, the format fixes it: ATQ 2 bytes, SAK 1, block 16, key 6, value
/// 4; a UID buffer holds 10 bytes and an ATS buffer 255, which is never exceeded, while the reported UID length may be
/// larger and is then the caller's to refuse. Results are BflStatus values or the reader's status byte. Each operation
/// of a driver runs under a lock of that driver, so that a second thread cannot spoil it; several operations belong
/// together only under the reader mutex of the service.
class QVL_API Qvl14443bfl {
  public:
    Qvl14443bfl();
    /// Copies share the reader with their source.
    Qvl14443bfl(const Qvl14443bfl&) = default;
    Qvl14443bfl& operator=(const Qvl14443bfl&) = default;
    virtual ~Qvl14443bfl();

    /// True for a reader that takes part in the link key agreement of its driver.
    virtual bool isQvlDevice();
    /// Device path, or "COM<n>" with an optional ";<baud rate>", that interfaceOpen opens. At most 255 characters are
    /// kept.
    virtual void setDeviceName(const std::uint8_t* name);
    /// The buffer itself, 256 bytes.
    virtual std::uint8_t* getDeviceName();
    virtual BflType getBflType() = 0;

    /// Opens the device; an open one is closed first. The arguments have no effect. @return -20 (open) or -255.
    virtual short interfaceOpen(std::uint32_t, std::uint32_t);
    virtual short interfaceClose();

    /// Brings the reader into working state, link key agreement included.
    virtual short pcdConfig();
    /// Second stage of the link key agreement of Mf500bfl: 16 bytes each.
    virtual short pcdConfig2(std::uint8_t* confirmation, std::uint8_t* sessionKey);
    /// Reader chip version, 5 bytes.
    virtual short pcdGetRICVersion(std::uint8_t* version);
    /// Serial number of the reader and its length.
    virtual short pcdGetSnr(std::uint8_t* snr, std::uint16_t& snrLen);
    /// Firmware version as terminated text of at most 54 characters; the length does not count the terminator.
    virtual short pcdGetFwVersion(std::uint8_t* version, std::uint16_t& versionLen);
    /// RF field off for `ms` milliseconds, then on again.
    virtual short pcdRfReset(std::uint16_t ms);
    /// Frame size indices and bit-rate divisors that the reader supports for ISO/IEC 14443-4, one byte each.
    virtual short pcdGetAttrib(std::uint8_t* fsci, std::uint8_t* fsdi, std::uint8_t* piccDiv, std::uint8_t* pcdDiv,
                               std::uint8_t* attrib);
    /// Sets the bit-rate divisors.
    virtual short pcdSetAttrib(std::uint8_t dsi, std::uint8_t dri);
    virtual short pcdSetDefaultAttrib();
    /// Turns a 6-byte Mifare key into what piccAuthKey of the same driver takes; `codedKey` holds 12 bytes.
    virtual short hostCodeKey(std::uint8_t* key, std::uint8_t* codedKey);

    /// REQA 0x26 or WUPA 0x52.
    virtual short piccRequest(std::uint8_t reqCode, std::uint8_t* atq);
    /// One cascade level of anticollision; `snr` 4 bytes.
    virtual short piccCascAnticoll(std::uint8_t selCode, std::uint8_t bitCount, std::uint8_t* snr);
    virtual short piccCascSelect(std::uint8_t selCode, std::uint8_t* snr, std::uint8_t* sak);
    /// Activates an idle tag and fetches its ATS.
    virtual short piccActivateIdle(std::uint8_t baudrate, std::uint8_t* atq, std::uint8_t* sak, std::uint8_t* uid,
                                   std::uint8_t* uid_len, std::uint8_t* ats, std::uint8_t* ats_len);
    virtual short piccActivateIdle(std::uint8_t baudrate, std::uint8_t* atq, std::uint8_t* sak, std::uint8_t* uid,
                                   std::uint8_t* uid_len);
    /// The same, waiting up to `sec` seconds.
    virtual short piccActivateIdleLoop(std::uint8_t baudrate, std::uint8_t* atq, std::uint8_t* sak, std::uint8_t* uid,
                                       std::uint8_t* uid_len, std::uint8_t sec, std::uint8_t* ats,
                                       std::uint8_t* ats_len);
    virtual short piccActivateIdleLoop(std::uint8_t baudrate, std::uint8_t* atq, std::uint8_t* sak, std::uint8_t* uid,
                                       std::uint8_t* uid_len, std::uint8_t sec);
    /// Wakes the tag with this UID; here `uid` and `uid_len` are inputs.
    virtual short piccActivateWakeup(std::uint8_t baudrate, std::uint8_t* atq, std::uint8_t* sak, std::uint8_t* uid,
                                     std::uint8_t uid_len, std::uint8_t* ats, std::uint8_t* ats_len);
    virtual short piccActivateWakeup(std::uint8_t baudrate, std::uint8_t* atq, std::uint8_t* sak, std::uint8_t* uid,
                                     std::uint8_t uid_len);
    /// Mifare authentication: `keyType` 0x60 (key A) or 0x61 (key B), `uid` 4 bytes, `key` as hostCodeKey returned it,
    /// `block` any block of the sector.
    virtual short piccAuthKey(std::uint8_t keyType, std::uint8_t* uid, std::uint8_t* key, std::uint8_t block);
    virtual short piccRead(std::uint8_t block, std::uint8_t* data);
    virtual short piccWrite(std::uint8_t block, std::uint8_t* data);
    /// Value operation 0xC0 (decrement), 0xC1 (increment) or 0xC2 (restore) on `block`, the result transferred to
    /// `transferBlock`.
    virtual short piccValue(std::uint8_t operation, std::uint8_t block, std::uint8_t* value,
                            std::uint8_t transferBlock);
    /// Raw exchange of one block. `*rec_bytelen` is the size of `rec_data` on entry and the length received on return;
    /// an answer that is longer is a failure, and nothing is copied.
    virtual short piccExchangeBlock(std::uint8_t* sendData, std::uint16_t sendLen, std::uint8_t* rec_data,
                                    std::uint16_t* rec_bytelen, std::uint8_t append_crc, std::uint32_t timeout);
    /// Puts the selected tag to sleep.
    virtual short piccHalt();
    virtual short switchLED(std::uint8_t led, std::uint8_t ctrl, std::uint8_t dur);

    /// From here on the driver reports to `watch` what this thread exchanges, and fails at once what the watch has
    /// given up. Without one, every command is sent. The watch stays the caller's until unwatchLink() on the same
    /// thread.
    /// @return false, and nothing changes, if this thread has a watch in place.
    virtual bool watchLink(LinkWatch& watch);
    virtual void unwatchLink();
    virtual ReaderTraits traits();
    /// Finds a tag after a reset of the field, halted ones included. A reader that keeps a failure of its device to
    /// itself reports no tag.
    virtual short piccActivateAny(std::uint8_t* atq, std::uint8_t* sak, std::uint8_t* uid, std::uint8_t* uid_len);
    /// Brings the tag with this UID, 1 to 10 bytes, to the active state again. `reqCode` counts for readers that send
    /// the request themselves. `sak` is empty after a success in which the reader has not told it.
    virtual short piccSelectKnown(std::uint8_t reqCode, const TagUID& tag, std::optional<std::uint8_t>& sak);
    /// Ends the session of the card that is active. 3139: the host sends S(DESELECT).
    virtual short piccDeselect();
    /// A raw command of the reader. `reply` becomes a new buffer that the caller deletes as an array. 3139: none.
    virtual short pcdRelay(std::uint8_t* cmd, int len, std::uint8_t*& reply, int& replyLen);
    /// The device went away since it was opened, and the reader lost its power with it.
    virtual bool isDeviceGone();

    /// Held by each user that has opened the reader, so that nobody closes it under another one.
    std::shared_ptr<void> openShare() const { return mUsers.openShare; }
    bool isOpenForOthers() const { return mUsers.openShare.use_count() > 1; }

    /// The reader is gone or silent, according to the watch of this thread; false without one.
    bool isReaderLost();

  protected:
    /// Held for one operation of the driver, the reading of its reply included. Nests on its thread.
    using OperationLock = std::unique_lock<std::recursive_mutex>;
    QVL_INTERNAL OperationLock lockOperation() { return OperationLock(*mOperationMutex); }

    /// The levels of a cascade, after the request.
    QVL_INTERNAL short selectByUid(const TagUID& tag, std::optional<std::uint8_t>& sak);

    // What a driver tells the watch of the calling thread, if there is one.
    QVL_INTERNAL bool mayAsk() const;
    QVL_INTERNAL void noteAnswer() const;
    QVL_INTERNAL void noteTimeOut() const;
    QVL_INTERNAL void noteFailure(bool isGone) const;
    QVL_INTERNAL void noteOpened() const;

    std::shared_ptr<bool> mIsQvlDevice;  // one for a driver and its copies
    std::uint8_t mDeviceName[256];

  private:
    QVL_INTERNAL LinkWatch* linkWatch() const;

    std::shared_ptr<std::recursive_mutex> mOperationMutex;
    /// A copy of a driver has users of its own.
    struct Users {
        Users() = default;
        Users(const Users&) {}
        Users& operator=(const Users&) { return *this; }  // NOLINT(bugprone-unhandled-self-assignment): takes nothing
        std::map<std::thread::id, LinkWatch*> watches;
        std::shared_ptr<void> openShare = std::make_shared<char>();
    };
    Users mUsers;
};

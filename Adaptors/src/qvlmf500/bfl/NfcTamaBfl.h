#pragma once

#include "Qvl14443bfl.h"

#include <cstdint>
#include <memory>
#include <span>

class LinkCipher;
class TamaDevice;
class TamaFrameAssembler;

/// Driver of a PN531 ("TAMA") reader: commands of the PN53x host link, the data of whose frames is scrambled with RC4
/// once both sides share a key. The reader selects by whole activations and always talks to target 1, the tag of the
/// last activation. A singleton: the object lives until its last user is done with it.
///
/// Beyond the statuses of the interface: after a failure of the device, and once the watch of the link has given the
/// reader up, commands fail at once with the same status.
class QVL_API NfcTamaBfl : public Qvl14443bfl {
  public:
    /// The one object; the first call makes it. Null without memory.
    static NfcTamaBfl* Instance();
    /// The one object with shared ownership: it ends when the last such pointer does. Null without memory.
    static std::shared_ptr<NfcTamaBfl> acquire();

    BflType getBflType() override;
    /// "COM<n>;<baud rate>" opens a serial port, 9600 without a rate; the rate is cut off the stored name. Anything
    /// else is a device path.
    short interfaceOpen(std::uint32_t, std::uint32_t) override;
    short interfaceClose() override;

    short pcdConfig() override;
    /// 6 bytes.
    short pcdGetSnr(std::uint8_t* snr, std::uint16_t& snrLen) override;
    short pcdGetFwVersion(std::uint8_t* version, std::uint16_t& versionLen) override;
    /// 0 turns the field off for good, and all LEDs.
    short pcdRfReset(std::uint16_t ms) override;
    short pcdGetAttrib(std::uint8_t* fsci, std::uint8_t* fsdi, std::uint8_t* piccDiv, std::uint8_t* pcdDiv,
                       std::uint8_t* attrib) override;
    /// No effect: this reader picks the bit rate itself.
    short pcdSetAttrib(std::uint8_t dsi, std::uint8_t dri) override;
    short pcdSetDefaultAttrib() override;
    /// This reader takes keys as they are, 6 bytes.
    short hostCodeKey(std::uint8_t* key, std::uint8_t* codedKey) override;

    short piccActivateIdle(std::uint8_t baudrate, std::uint8_t* atq, std::uint8_t* sak, std::uint8_t* uid,
                           std::uint8_t* uid_len, std::uint8_t* ats, std::uint8_t* ats_len) override;
    short piccActivateIdle(std::uint8_t baudrate, std::uint8_t* atq, std::uint8_t* sak, std::uint8_t* uid,
                           std::uint8_t* uid_len) override;
    short piccActivateIdleLoop(std::uint8_t baudrate, std::uint8_t* atq, std::uint8_t* sak, std::uint8_t* uid,
                               std::uint8_t* uid_len, std::uint8_t sec, std::uint8_t* ats,
                               std::uint8_t* ats_len) override;
    short piccActivateIdleLoop(std::uint8_t baudrate, std::uint8_t* atq, std::uint8_t* sak, std::uint8_t* uid,
                               std::uint8_t* uid_len, std::uint8_t sec) override;
    short piccActivateWakeup(std::uint8_t baudrate, std::uint8_t* atq, std::uint8_t* sak, std::uint8_t* uid,
                             std::uint8_t uid_len, std::uint8_t* ats, std::uint8_t* ats_len) override;
    short piccActivateWakeup(std::uint8_t baudrate, std::uint8_t* atq, std::uint8_t* sak, std::uint8_t* uid,
                             std::uint8_t uid_len) override;
    short piccAuthKey(std::uint8_t keyType, std::uint8_t* uid, std::uint8_t* key, std::uint8_t block) override;
    short piccRead(std::uint8_t block, std::uint8_t* data) override;
    short piccWrite(std::uint8_t block, std::uint8_t* data) override;
    /// 0xC2 is refused with -60.
    short piccValue(std::uint8_t operation, std::uint8_t block, std::uint8_t* value,
                    std::uint8_t transferBlock) override;
    /// 1 to 252 bytes; CRC and time-out are the reader's business.
    short piccExchangeBlock(std::uint8_t* sendData, std::uint16_t sendLen, std::uint8_t* rec_data,
                            std::uint16_t* rec_bytelen, std::uint8_t append_crc, std::uint32_t timeout) override;
    short piccHalt() override;
    /// `led` 0 to 3, `ctrl` on or off, `dur` at most 31.
    short switchLED(std::uint8_t led, std::uint8_t ctrl, std::uint8_t dur) override;

    short piccActivateAny(std::uint8_t* atq, std::uint8_t* sak, std::uint8_t* uid, std::uint8_t* uid_len) override;
    short piccSelectKnown(std::uint8_t reqCode, const TagUID& tag, std::optional<std::uint8_t>& sak) override;
    short piccDeselect() override;
    short pcdRelay(std::uint8_t* cmd, int len, std::uint8_t*& reply, int& replyLen) override;
    bool isDeviceGone() override;

    /// One command and its reply with all checks. `cmd` holds command code and data, 1 to 254 bytes. On 0 the reply
    /// stands in the receiving buffer, unscrambled.
    short tamaCommand(std::uint8_t* cmd, int len);
    /// The same for a command whose reply begins with the reader's status byte, which is handed out.
    short tamaCommand(std::uint8_t* cmd, int len, std::uint8_t& readerStatus);
    /// The same for the key commands. `key` 16 bytes: all zero means that the current key serves; anything else, that
    /// the frame goes out in the clear and this is the key for the reply.
    short tamaCommand1(std::uint8_t* cmd, int len, std::uint8_t* key);
    /// A command of the caller's own, whose reply comes back whole, from its command code on, whatever its status byte
    /// says. `reply` becomes a new buffer that the caller deletes as an array.
    short relayNFCCmd(std::uint8_t* cmd, int len, std::uint8_t*& reply, int& replyLen);

    NfcTamaBfl(const NfcTamaBfl&) = default;
    NfcTamaBfl& operator=(const NfcTamaBfl&) = default;

  private:
    NfcTamaBfl();
    ~NfcTamaBfl() override;

    QVL_INTERNAL std::int32_t openDevice();

    // The link.
    QVL_INTERNAL short nfcWrite(const std::uint8_t* data, int len);
    QVL_INTERNAL short nfcRead(std::uint32_t timeout);
    QVL_INTERNAL short deviceReady() const;
    QVL_INTERNAL short deviceFailed();
    QVL_INTERNAL short deviceTimedOut();
    QVL_INTERNAL short badFrame();
    QVL_INTERNAL short resynchronise();
    QVL_INTERNAL short drainUntilReply(std::uint8_t replyCode, int acks);
    QVL_INTERNAL std::size_t buildCommand(const char* caller, const std::uint8_t* cmd, int len,
                                          std::span<std::uint8_t> plain);
    QVL_INTERNAL short writeCommand(const std::uint8_t* plain, std::size_t size, bool scramble);
    QVL_INTERNAL short readAck(const char* caller);
    QVL_INTERNAL short readReply(const char* caller);
    QVL_INTERNAL void unscrambleReply();
    QVL_INTERNAL short checkTamaProtocol(std::span<const std::uint8_t> sent);
    QVL_INTERNAL short shortReply();
    QVL_INTERNAL short changeKeyWhenDue();
    QVL_INTERNAL short exchangeSecretKey();
    QVL_INTERNAL short agreeLinkKey();
    QVL_INTERNAL short confirmLinkKey(const std::uint8_t* confirmation);
    QVL_INTERNAL void runInTheClear(const char* reason);

    // What operations on reader and tag share.
    QVL_INTERNAL short send(std::span<std::uint8_t> command, const char* failure);
    QVL_INTERNAL short checkStatusByte(std::size_t leastLen, const char* failure);
    QVL_INTERNAL short readIdentity(const char* operation);
    QVL_INTERNAL short setTAMAParam4TCL(bool tcl);
    QVL_INTERNAL std::span<const std::uint8_t> received() const;
    QVL_INTERNAL std::size_t replyLen() const { return mDataInBuf[3]; }
    QVL_INTERNAL bool uidFits() const;
    /// How the messages of an activation with ATS name it.
    struct AtsForm {
        const char* name;
        bool tellsResetStatus;
    };
    template <typename Activation>
    QVL_INTERNAL short activateWithAts(const AtsForm& form, Activation activate, const std::uint8_t& uidLen,
                                       std::uint8_t* ats, std::uint8_t* ats_len);
    QVL_INTERNAL short takeAts(std::size_t uidLen, std::uint8_t* ats, std::uint8_t* ats_len) const;

    std::uint8_t mDataInBuf[1024];  // the frame last received
    std::int32_t mDataInBufLen;     // what the device reported, which may be more than the buffer holds
    std::uint32_t mTimeout;
    std::shared_ptr<TamaDevice> mDevice;  // null when closed
    std::shared_ptr<TamaFrameAssembler> mFrameAssembler;
    std::shared_ptr<LinkCipher> mLinkCipher;
    std::int16_t mCommandCount;   // commands acknowledged since the last key change
    std::int16_t mRekeyInterval;  // the count at which the next key change happens
    bool mRelayMode;

    /// What may still come of commands that failed.
    enum class Pending {
        nothing,
        frames,     ///< Of the last command, in the order of the key stream.
        leftovers,  ///< Anything.
    };
    Pending mPending;
    std::uint8_t mLastCode;    // of the command sent last
    bool mIsLastAcknowledged;  // its ACK has come
    bool mDeviceGone;          // until the next open
};

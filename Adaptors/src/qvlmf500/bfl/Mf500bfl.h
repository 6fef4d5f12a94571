#pragma once

#include "Qvl14443bfl.h"

#include <initializer_list>

class USB;
class USBProtocol;

/// Driver of an MF RC500 reader. It finds its device by itself; a device name has no effect. Every operation is one
/// command of the reader. What the reader says in a reply reaches the caller's buffers even when its status is not 0. A
/// reader that takes part in the key agreement of pcdConfig scrambles from then on, under a key that comes anew with
/// each reply. After a time-out the next operation first asks the reader for its number, until no late reply can be
/// taken for another. When a key is lost, what would be scrambled fails with -1001 until pcdConfig or a block exchange,
/// which is not scrambled, brings the two back into step. An operation on a closed driver returns 0 and does nothing,
/// apart from a log line.
class QVL_API Mf500bfl : public Qvl14443bfl {
  public:
    Mf500bfl();
    ~Mf500bfl() override;
    Mf500bfl(const Mf500bfl&) = default;
    Mf500bfl& operator=(const Mf500bfl&) = default;

    /// True when `low` <= `value` <= `high`.
    static bool assertRange(int value, int low, int high);

    BflType getBflType() override;
    short interfaceOpen(std::uint32_t, std::uint32_t) override;
    short interfaceClose() override;

    short pcdConfig() override;
    short pcdConfig2(std::uint8_t* confirmation, std::uint8_t* sessionKey) override;
    short pcdGetRICVersion(std::uint8_t* version) override;
    short pcdGetSnr(std::uint8_t* snr, std::uint16_t& snrLen) override;
    short pcdGetFwVersion(std::uint8_t* version, std::uint16_t& versionLen) override;
    short pcdRfReset(std::uint16_t ms) override;
    short pcdGetAttrib(std::uint8_t* fsci, std::uint8_t* fsdi, std::uint8_t* piccDiv, std::uint8_t* pcdDiv,
                       std::uint8_t* attrib) override;
    short pcdSetAttrib(std::uint8_t dsi, std::uint8_t dri) override;
    short pcdSetDefaultAttrib() override;
    short hostCodeKey(std::uint8_t* key, std::uint8_t* codedKey) override;

    short piccRequest(std::uint8_t reqCode, std::uint8_t* atq) override;
    short piccCascAnticoll(std::uint8_t selCode, std::uint8_t bitCount, std::uint8_t* snr) override;
    short piccCascSelect(std::uint8_t selCode, std::uint8_t* snr, std::uint8_t* sak) override;
    using Qvl14443bfl::piccActivateIdle;
    short piccActivateIdle(std::uint8_t baudrate, std::uint8_t* atq, std::uint8_t* sak, std::uint8_t* uid,
                           std::uint8_t* uid_len) override;
    using Qvl14443bfl::piccActivateIdleLoop;
    short piccActivateIdleLoop(std::uint8_t baudrate, std::uint8_t* atq, std::uint8_t* sak, std::uint8_t* uid,
                               std::uint8_t* uid_len, std::uint8_t sec) override;
    using Qvl14443bfl::piccActivateWakeup;
    short piccActivateWakeup(std::uint8_t baudrate, std::uint8_t* atq, std::uint8_t* sak, std::uint8_t* uid,
                             std::uint8_t uid_len) override;
    short piccAuthKey(std::uint8_t keyType, std::uint8_t* uid, std::uint8_t* key, std::uint8_t block) override;
    short piccRead(std::uint8_t block, std::uint8_t* data) override;
    short piccWrite(std::uint8_t block, std::uint8_t* data) override;
    short piccValue(std::uint8_t operation, std::uint8_t block, std::uint8_t* value,
                    std::uint8_t transferBlock) override;
    short piccExchangeBlock(std::uint8_t* sendData, std::uint16_t sendLen, std::uint8_t* rec_data,
                            std::uint16_t* rec_bytelen, std::uint8_t append_crc, std::uint32_t timeout) override;
    short piccHalt() override;
    /// This reader has no LED command: empties the command object.
    short switchLED(std::uint8_t led, std::uint8_t ctrl, std::uint8_t dur) override;

    /// A tag that is awake falls back to idle on a request, without an answer: where this driver has left one so, it
    /// asks once more.
    short piccSelectKnown(std::uint8_t reqCode, const TagUID& tag, std::optional<std::uint8_t>& sak) override;

  private:
    struct Command;
    struct Param;
    struct Field;
    struct Link;
    struct Identity;
    class Deadline;
    /// How far a command has come.
    struct Outcome {
        bool hasReply;
        short status;  ///< Of the link, or the reader's own.
    };

    // The link.
    QVL_INTERNAL Outcome ask(const Command& command, std::initializer_list<Param> sent);
    QVL_INTERNAL short run(const Command& command, std::initializer_list<Param> sent,
                           std::initializer_list<Field> reply = {});
    QVL_INTERNAL short conclude(const Outcome& outcome);
    QVL_INTERNAL short makeReady(bool verifies);
    QVL_INTERNAL short exchange(const Command& command);
    QVL_INTERNAL short resynchronise(bool verifies);
    QVL_INTERNAL short askIdentity(const Identity& identity, bool verifies, const Deadline& deadline,
                                   std::uint8_t* number);
    QVL_INTERNAL bool takeIdentity(const Identity& identity, bool verifies, std::uint8_t* number);
    QVL_INTERNAL void takeLateReply();
    QVL_INTERNAL short noteResult(short status);
    QVL_INTERNAL short agreeKey(const std::uint8_t* expected);
    QVL_INTERNAL void processSecretKey();
    QVL_INTERNAL void useKey(const std::uint8_t* key);
    QVL_INTERNAL bool isKeyed() const;
    QVL_INTERNAL bool maySend(const Command& command) const;

    // What operations share.
    QVL_INTERNAL short runActivation(const Command& command, std::initializer_list<Param> sent, std::uint8_t* atq,
                                     std::uint8_t* sak, std::uint8_t* uid, std::uint8_t* uid_len);
    QVL_INTERNAL short takeUid(std::uint8_t* uid, std::uint8_t length);
    QVL_INTERNAL short takeRun(std::uint8_t* out, std::size_t capacity, std::uint16_t length);

    // Copies of a driver share these. The order is that of their destruction, backwards.
    std::shared_ptr<USB> mUSB;               // null until the interface is open
    std::shared_ptr<USBProtocol> mProtocol;  // null until the interface is open
    std::shared_ptr<Link> mLink;
};

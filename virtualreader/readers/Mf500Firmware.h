#pragma once

#include "ReaderOptions.h"
#include "TagSearch.h"
#include "VirtualField.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

/// Command codes of an MF RC500 reader.
enum Mf500Code : std::uint8_t {
    kMf500ConfirmKey = 0x09,
    kMf500Config = 0x10,
    kMf500Request = 0x11,
    kMf500CodeKey = 0x16,
    kMf500Authenticate = 0x18,
    kMf500Read = 0x19,
    kMf500Write = 0x1A,
    kMf500Value = 0x1B,
    kMf500Halt = 0x1D,
    kMf500FieldReset = 0x20,
    kMf500SerialNumber = 0x22,
    kMf500Anticollision = 0x41,
    kMf500Select = 0x42,
    kMf500ActivateIdle = 0x43,
    kMf500ActivateWakeup = 0x44,
    kMf500DefaultAttributes = 0x45,
    kMf500SetAttributes = 0x46,
    kMf500GetAttributes = 0x47,
    kMf500ExchangeBlock = 0x48,
    kMf500ActivateIdleLoop = 0x49,
    kMf500FirmwareVersion = 0x63,
    kMf500ChipVersion = 0x64,
};

/// Status of a reply: the values that the chip's libraries give these failures.
enum class Mf500Status : std::int16_t {
    ok = 0,
    noTag = -1,              ///< No tag answered.
    notAuthenticated = -4,   ///< The tag refused the key; also a wrong confirmation of the link key.
    wrongCheckByte = -8,     ///< Of a UID.
    badKey = -9,             ///< Key bytes that are not coded.
    refused = -10,           ///< NAK to a block command.
    wrongBitCount = -11,     ///< A nibble where bytes are due.
    wrongByteCount = -12,    ///< A tag answered with more or fewer bytes than are due.
    notWritten = -15,        ///< NAK to the data of a write, or to a transfer.
    answerTooLong = -19,     ///< A block of more than 256 bytes.
    unknownCommand = -23,    ///< No command, or none of this model.
    badSendLength = -51,     ///< Nothing to exchange, or more than 256 bytes.
    rateNotSupported = -53,  ///< A bit rate above 3.
    badParameter = -60,      ///< Parameters of a wrong length or out of range.
};

/// The reader's commands on plain bytes. Words and longs travel low byte first. Called under the field's lock.
class Mf500Firmware {
  public:
    using Bytes = std::span<const std::uint8_t>;
    using Values = std::vector<std::uint8_t>;

    Mf500Firmware(VirtualField& field, const ReaderOptions& options);

    /// State as after power-up: field off, 106 kbit/s both ways.
    void reset();
    /// What the key agreement does besides: field on, 106 kbit/s.
    void configure();
    /// Carries out a command. A failure gives as many zeros for values as the host reads, so that what follows them in
    /// the reply lies where the host looks for it.
    Mf500Status execute(std::uint8_t code, Bytes parameters, Values& values);
    /// Bytes that the host reads of a reply at least.
    static std::size_t leastValues(std::uint8_t code);

  private:
    struct Command;
    static const Command kCommands[];
    static const Command* find(std::uint8_t code);

    Mf500Status request(Bytes parameters, Values& values);
    Mf500Status codeKey(Bytes parameters, Values& values);
    Mf500Status authenticate(Bytes parameters, Values& values);
    Mf500Status read(Bytes parameters, Values& values);
    Mf500Status write(Bytes parameters, Values& values);
    Mf500Status changeValue(Bytes parameters, Values& values);
    Mf500Status halt(Bytes parameters, Values& values);
    Mf500Status resetField(Bytes parameters, Values& values);
    Mf500Status serialNumber(Bytes parameters, Values& values);
    Mf500Status anticollision(Bytes parameters, Values& values);
    Mf500Status select(Bytes parameters, Values& values);
    Mf500Status activateIdle(Bytes parameters, Values& values);
    Mf500Status activateWakeup(Bytes parameters, Values& values);
    Mf500Status defaultAttributes(Bytes parameters, Values& values);
    Mf500Status setAttributes(Bytes parameters, Values& values);
    Mf500Status getAttributes(Bytes parameters, Values& values);
    Mf500Status exchangeBlock(Bytes parameters, Values& values);
    Mf500Status firmwareVersion(Bytes parameters, Values& values);
    Mf500Status chipVersion(Bytes parameters, Values& values);

    bool activate(Bytes uid, FoundTag& tag);
    Mf500Status step(Bytes frame);

    VirtualField& mField;
    const ReaderOptions& mOptions;
    AirAnswer mAnswer;
    std::uint8_t mDsi = 0, mDri = 0;  ///< Bit rates: card to reader, reader to card.
};
